// The HTML tokenizer. One state per case of a switch over an enum class without a default,
// so the compiler insists that every state is handled.
//
// The input is UTF-8, read byte by byte: every character the tokenizer treats specially is
// ASCII, and the bytes of a multi-byte sequence (or of invalid UTF-8) are all >= 0x80, so they
// fall into "anything else" and are copied through unchanged.
//
// Line ends are not normalised, so a carriage return reaches the tokenizer where the standard
// would already have turned it into a line feed. Inside text, comments and attribute values
// it stays a character; where markup separates its parts by white space (between attributes,
// after a tag name, in a DOCTYPE) it counts as white space, as the line feed it would have
// become does. Without that, the CRLF line ends of mail would end up inside tag names.
//
// Text comes out in runs: the text states jump to the next byte that matters with memchr,
// and each tag, attribute value and comment is appended a run at a time. A run of text that
// stands in the input as it is comes out as a view of the input, not a copy (TextRun).
#include "lumora/mailcontent/html/Tokenizer.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <random>
#include <iterator>
#include <unordered_set>

namespace lumora::html {

namespace {

using namespace std::string_view_literals;

struct NamedCharacterReference {
  std::string_view name;   // as written after '&', with its ';' if it has one
  std::string_view value;  // UTF-8
};

#include "lumora/mailcontent/html/CharacterReferences.inc"

enum class State {
  data,
  rcdata,
  rawtext,
  scriptData,
  plaintext,
  tagOpen,
  endTagOpen,
  tagName,
  rcdataLessThanSign,
  rcdataEndTagOpen,
  rcdataEndTagName,
  rawtextLessThanSign,
  rawtextEndTagOpen,
  rawtextEndTagName,
  scriptDataLessThanSign,
  scriptDataEndTagOpen,
  scriptDataEndTagName,
  scriptDataEscapeStart,
  scriptDataEscapeStartDash,
  scriptDataEscaped,
  scriptDataEscapedDash,
  scriptDataEscapedDashDash,
  scriptDataEscapedLessThanSign,
  scriptDataEscapedEndTagOpen,
  scriptDataEscapedEndTagName,
  scriptDataDoubleEscapeStart,
  scriptDataDoubleEscaped,
  scriptDataDoubleEscapedDash,
  scriptDataDoubleEscapedDashDash,
  scriptDataDoubleEscapedLessThanSign,
  scriptDataDoubleEscapeEnd,
  beforeAttributeName,
  attributeName,
  afterAttributeName,
  beforeAttributeValue,
  attributeValueDoubleQuoted,
  attributeValueSingleQuoted,
  attributeValueUnquoted,
  afterAttributeValueQuoted,
  selfClosingStartTag,
  bogusComment,
  markupDeclarationOpen,
  commentStart,
  commentStartDash,
  comment,
  commentLessThanSign,
  commentLessThanSignBang,
  commentLessThanSignBangDash,
  commentLessThanSignBangDashDash,
  commentEndDash,
  commentEnd,
  commentEndBang,
  doctype,
  beforeDoctypeName,
  doctypeName,
  afterDoctypeName,
  afterDoctypePublicKeyword,
  beforeDoctypePublicIdentifier,
  doctypePublicIdentifierDoubleQuoted,
  doctypePublicIdentifierSingleQuoted,
  afterDoctypePublicIdentifier,
  betweenDoctypePublicAndSystemIdentifiers,
  afterDoctypeSystemKeyword,
  beforeDoctypeSystemIdentifier,
  doctypeSystemIdentifierDoubleQuoted,
  doctypeSystemIdentifierSingleQuoted,
  afterDoctypeSystemIdentifier,
  bogusDoctype,
  cdataSection,
  cdataSectionBracket,
  cdataSectionEnd,
};

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";
constexpr int kEndOfInput = -1;

constexpr bool isSpace(int c) {
  return c == '\t' || c == '\n' || c == '\f' || c == '\r' || c == ' ';
}
constexpr bool isUpper(int c) { return c >= 'A' && c <= 'Z'; }
constexpr bool isAlpha(int c) { return isUpper(c) || (c >= 'a' && c <= 'z'); }
constexpr bool isDigit(int c) { return c >= '0' && c <= '9'; }
constexpr bool isAlphanumeric(int c) { return isAlpha(c) || isDigit(c); }
constexpr char toLower(char c) { return isUpper(c) ? static_cast<char>(c + ('a' - 'A')) : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (toLower(a[i]) != toLower(b[i])) return false;
  }
  return true;
}

// The bytes at which a run of "anything else" characters ends in some state.
struct ByteSet {
  bool member[256] = {};
  constexpr bool operator[](char c) const { return member[static_cast<unsigned char>(c)]; }
};

constexpr ByteSet stopAt(std::string_view bytes, bool whiteSpace = false) {
  ByteSet set;
  for (char c : bytes) set.member[static_cast<unsigned char>(c)] = true;
  if (whiteSpace) {
    for (char c : "\t\n\f\r "sv) set.member[static_cast<unsigned char>(c)] = true;
  }
  return set;
}

constexpr ByteSet kTagNameStops = stopAt("/>\0"sv, true);
constexpr ByteSet kAttributeNameStops = stopAt("/>=\0"sv, true);
constexpr ByteSet kDoubleQuotedValueStops = stopAt("\"&\0"sv);
constexpr ByteSet kSingleQuotedValueStops = stopAt("'&\0"sv);
constexpr ByteSet kUnquotedValueStops = stopAt(">&\0"sv, true);
constexpr ByteSet kCommentStops = stopAt("<-\0"sv);
constexpr ByteSet kBogusCommentStops = stopAt(">\0"sv);
constexpr ByteSet kEscapedScriptStops = stopAt("<-\0"sv);
constexpr ByteSet kDoctypeNameStops = stopAt(">\0"sv, true);
constexpr ByteSet kDoubleQuotedIdentifierStops = stopAt("\">\0"sv);
constexpr ByteSet kSingleQuotedIdentifierStops = stopAt("'>\0"sv);

template <typename Out>
void appendUtf8(Out& out, uint32_t code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

// What a numeric character reference stands for. Zero, surrogates and numbers beyond Unicode
// become U+FFFD; 0x80 to 0x9F are read as the windows-1252 characters that pages mean by
// them (the five bytes windows-1252 leaves undefined stay C1 controls). Noncharacters and
// other controls are kept.
uint32_t numericReferenceValue(uint32_t code) {
  static constexpr uint16_t kWindows1252[32] = {
      0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
      0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
      0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
      0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
  };
  if (code == 0 || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0xFFFD;
  if (code >= 0x80 && code <= 0x9F) return kWindows1252[code - 0x80];
  return code;
}

struct NamedMatch {
  size_t length = 0;  // 0: no name matches
  std::string_view value;
};

// The longest name in the table that is a prefix of `rest`. The range of names sharing the
// first k characters of `rest` narrows by two binary searches per character, so the cost is
// bounded by the longest name whatever follows.
NamedMatch longestNamedReference(std::string_view rest) {
  const NamedCharacterReference* first = std::begin(kNamedCharacterReferences);
  const NamedCharacterReference* last = std::end(kNamedCharacterReferences);
  NamedMatch best;
  const size_t limit = std::min(rest.size(), kLongestCharacterReferenceName);
  for (size_t k = 0; k < limit; ++k) {
    const auto c = static_cast<unsigned char>(rest[k]);
    // Within the range every name shares the first k characters; a name of exactly k
    // characters sorts first and counts as below any character.
    first = std::lower_bound(first, last, c, [k](const NamedCharacterReference& entry, unsigned char ch) {
      return entry.name.size() <= k || static_cast<unsigned char>(entry.name[k]) < ch;
    });
    last = std::upper_bound(first, last, c, [k](unsigned char ch, const NamedCharacterReference& entry) {
      return ch < static_cast<unsigned char>(entry.name[k]);
    });
    if (first == last) break;
    if (first->name.size() == k + 1) best = {k + 1, first->value};
  }
  return best;
}

// Attribute names come from the mail, so their hash must not be one a sender can collide on
// purpose: the names are read as a polynomial modulo 2^61 - 1 at a point chosen at random
// once per process. Two different names of at most L bytes collide with probability at most
// L / 2^61 whatever the sender does.
size_t hashAttributeName(std::string_view name) {
  constexpr uint64_t kPrime = (uint64_t{1} << 61) - 1;
  static const uint64_t point = [] {
    uint64_t seed = 0x9E3779B97F4A7C15;
    try {
      std::random_device device;
      seed = (uint64_t{device()} << 32) ^ device();
    } catch (const std::exception&) {
      // No entropy source: a fixed point still hashes well, only predictably.
    }
    return seed % (kPrime - 2) + 2;
  }();
  uint64_t h = name.size();
  for (char c : name) {
    const unsigned __int128 product = static_cast<unsigned __int128>(h) * point + static_cast<unsigned char>(c);
    // Reduction modulo a Mersenne prime: fold the bits above 61 onto the ones below.
    uint64_t folded = static_cast<uint64_t>(product & kPrime) + static_cast<uint64_t>(product >> 61);
    folded = (folded & kPrime) + (folded >> 61);
    h = folded >= kPrime ? folded - kPrime : folded;
  }
  return static_cast<size_t>(h);
}

// The characters of the run being gathered. Most text of a page stands in the input exactly as
// it is to come out, so the run is kept as a span of the input for as long as every byte
// appended is the input's next one; only the first byte that differs (a character reference,
// a replaced NUL) copies the run into a buffer of its own. The tree builder keeps spans of
// its source rather than copies, which is where this pays.
class TextRun {
 public:
  explicit TextRun(std::string_view input) : input_(input) {}

  void clear() {
    start_ = size_ = 0;
    verbatim_ = true;
    buffer_.clear();
  }
  bool empty() const { return size_ == 0; }
  std::string_view view() const { return verbatim_ ? input_.substr(start_, size_) : buffer_; }

  void append(std::string_view piece) {
    if (piece.empty()) return;
    if (verbatim_) {
      const size_t end = start_ + size_;
      if (size_ == 0 && isInput(piece)) {
        start_ = static_cast<size_t>(piece.data() - input_.data());
        size_ = piece.size();
        return;
      }
      // Bytes made here ("</" and the like) are verbatim too where they repeat the input.
      if (size_ > 0 && (piece.data() == input_.data() + end ||
                        input_.substr(end, piece.size()) == piece)) {
        size_ += piece.size();
        return;
      }
      buffer_.assign(input_.substr(start_, size_));
      verbatim_ = false;
    }
    buffer_.append(piece);
    size_ += piece.size();
  }
  void append(const char* bytes, size_t count) { append(std::string_view(bytes, count)); }
  TextRun& operator+=(std::string_view piece) {
    append(piece);
    return *this;
  }
  TextRun& operator+=(char c) {
    append(std::string_view(&c, 1));
    return *this;
  }

 private:
  bool isInput(std::string_view piece) const {
    // As integers: the piece may point anywhere, and pointers into different objects have no
    // order of their own.
    const auto at = reinterpret_cast<uintptr_t>(piece.data());
    const auto start = reinterpret_cast<uintptr_t>(input_.data());
    return piece.size() <= input_.size() && at >= start && at - start <= input_.size() - piece.size();
  }

  std::string_view input_;
  size_t start_ = 0;
  size_t size_ = 0;
  bool verbatim_ = true;
  std::string buffer_;
};

}  // namespace

const std::string* Token::attribute(std::string_view attributeName) const {
  for (const Attribute& a : attributes) {
    if (a.name == attributeName) return &a.value;
  }
  return nullptr;
}

struct Tokenizer::Impl {
  explicit Impl(std::string_view input) : in(input), textRun(input) { text.type = Token::Type::characters; }

  const Token& next();
  void run();

  // --- input ---
  int peek() const { return pos < in.size() ? static_cast<unsigned char>(in[pos]) : kEndOfInput; }
  bool startsWith(std::string_view s) const { return in.substr(pos).starts_with(s); }
  bool startsWithIgnoringCase(std::string_view s) const {
    return in.size() - pos >= s.size() && equalsIgnoringCase(in.substr(pos, s.size()), s);
  }
  // Appends the bytes up to the next one in `stops` (or the end) to `out`.
  template <typename Out>
  void appendRun(Out& out, const ByteSet& stops) {
    size_t end = pos;
    while (end < in.size() && !stops[in[end]]) ++end;
    out.append(in.data() + pos, end - pos);
    pos = end;
  }
  // The same, lower-casing ASCII letters (tag, attribute and DOCTYPE names).
  void appendLowerRun(std::string& out, const ByteSet& stops) {
    const size_t from = out.size();
    appendRun(out, stops);
    for (size_t i = from; i < out.size(); ++i) out[i] = toLower(out[i]);
  }
  void skipWhiteSpace() {
    while (pos < in.size() && isSpace(static_cast<unsigned char>(in[pos]))) ++pos;
  }
  // The position of the next `c` at or after pos, or the end. The answer stays true until
  // pos passes it, so each byte is searched at most once per cached character.
  size_t nextOf(char c, size_t& cached) {
    if (cached == kUnknown || cached < pos) {
      const void* hit = pos < in.size() ? std::memchr(in.data() + pos, c, in.size() - pos) : nullptr;
      cached = hit != nullptr ? static_cast<size_t>(static_cast<const char*>(hit) - in.data()) : in.size();
    }
    return cached;
  }
  // Copies text up to the first of the given bytes to the current character run.
  void emitTextUpTo(size_t stop) {
    textRun.append(in.data() + pos, stop - pos);
    pos = stop;
  }

  // --- tokens ---
  void beginTag(Token::Type type) {
    markup.type = type;
    markup.name.clear();
    markup.attributes.clear();
    markup.selfClosing = false;
    if (indexedAttributes > 0) {
      // A huge tag leaves a huge bucket array; clearing it for every later tag would cost
      // its size each time, so it is dropped instead.
      if (seenNames.bucket_count() > 64) {
        seenNames = NameSet(0, NameHash{&markup.attributes}, NameEqual{&markup.attributes});
      } else {
        seenNames.clear();
      }
      indexedAttributes = 0;
    }
  }
  void beginComment() {
    markup.type = Token::Type::comment;
    markup.data.clear();
  }
  void beginDoctype() {
    markup.type = Token::Type::doctype;
    markup.name.clear();
    markup.hasName = false;
    markup.hasPublicIdentifier = false;
    markup.hasSystemIdentifier = false;
    markup.publicIdentifier.clear();
    markup.systemIdentifier.clear();
    markup.forceQuirks = false;
  }
  void startAttribute() {
    markup.attributes.emplace_back();
    attributeValue = nullptr;
  }
  // Called as the attribute name ends: a name seen before in this tag drops the attribute
  // (the first one wins), and its value is collected into a scratch string no one reads.
  void finishAttributeName();
  void emitTag() {
    state = State::data;
    if (markup.type == Token::Type::startTag) lastStartTag = markup.name;
  }
  void emitMarkup() { state = State::data; }
  void emitEndOfFile() {
    finished = true;
    markup.type = Token::Type::endOfFile;
    markup.name.clear();
    markup.data.clear();
    markup.attributes.clear();
    markup.selfClosing = false;
  }

  bool isAppropriateEndTag(std::string_view name) const {
    return !lastStartTag.empty() && equalsIgnoringCase(name, lastStartTag);
  }
  // The "end tag name" states of RCDATA, RAWTEXT and (escaped) script data: the name so far
  // is in[nameStart, pos), all ASCII letters. Returns true when it emitted the end tag.
  bool endTagNameInText(State textState);
  // The double escape start and end states: `script` toggles between the two.
  void doubleEscapeBoundary(State onScript, State otherwise);
  // After '&'. Appends what the reference stands for, or the text itself when it is not one.
  template <typename Out>
  void characterReference(Out& out, bool inAttribute);

  struct NameHash {
    const std::vector<Attribute>* attributes;
    size_t operator()(uint32_t i) const { return hashAttributeName((*attributes)[i].name); }
  };
  struct NameEqual {
    const std::vector<Attribute>* attributes;
    bool operator()(uint32_t a, uint32_t b) const { return (*attributes)[a].name == (*attributes)[b].name; }
  };
  using NameSet = std::unordered_set<uint32_t, NameHash, NameEqual>;
  // Up to this many attributes a tag compares names directly; beyond, through seenNames.
  static constexpr size_t kDirectComparisonLimit = 8;
  static constexpr size_t kUnknown = static_cast<size_t>(-1);

  std::string_view in;
  size_t pos = 0;
  State state = State::data;
  bool finished = false;       // endOfFile emitted
  bool markupPending = false;  // `markup` waits behind the character run returned last
  Token text;                  // the character run, whose characters are in textRun
  TextRun textRun;
  Token markup;                // every other token
  std::string lastStartTag;
  std::string* attributeValue = nullptr;  // the value being read, or droppedValue
  std::string droppedValue;
  size_t nameStart = 0;  // where the end tag name or the "script" being matched starts
  size_t nextLessThan = kUnknown;
  size_t nextAmpersand = kUnknown;
  size_t nextNull = kUnknown;
  NameSet seenNames{0, NameHash{&markup.attributes}, NameEqual{&markup.attributes}};
  size_t indexedAttributes = 0;  // attributes [0, indexedAttributes) are in seenNames
};

void Tokenizer::Impl::finishAttributeName() {
  std::vector<Attribute>& attributes = markup.attributes;
  const size_t current = attributes.size() - 1;
  bool duplicate = false;
  if (attributes.size() <= kDirectComparisonLimit) {
    for (size_t i = 0; i < current && !duplicate; ++i) duplicate = attributes[i].name == attributes[current].name;
  } else {
    for (; indexedAttributes < current; ++indexedAttributes) seenNames.insert(static_cast<uint32_t>(indexedAttributes));
    duplicate = !seenNames.insert(static_cast<uint32_t>(current)).second;
    if (!duplicate) indexedAttributes = current + 1;
  }
  if (duplicate) {
    attributes.pop_back();
    droppedValue.clear();
    attributeValue = &droppedValue;
  } else {
    attributeValue = &attributes.back().value;
  }
}

bool Tokenizer::Impl::endTagNameInText(State textState) {
  while (pos < in.size() && isAlpha(static_cast<unsigned char>(in[pos]))) ++pos;
  const std::string_view name = in.substr(nameStart, pos - nameStart);
  const int c = peek();
  if ((isSpace(c) || c == '/' || c == '>') && isAppropriateEndTag(name)) {
    beginTag(Token::Type::endTag);
    markup.name.assign(name);
    for (char& ch : markup.name) ch = toLower(ch);
    ++pos;
    if (c == '>') {
      emitTag();
      return true;
    }
    state = c == '/' ? State::selfClosingStartTag : State::beforeAttributeName;
    return false;
  }
  // Not an end tag of the element this text belongs to: it was text all along.
  textRun += "</";
  textRun += name;
  state = textState;
  return false;
}

void Tokenizer::Impl::doubleEscapeBoundary(State onScript, State otherwise) {
  // The letters are script text either way; they only decide which state follows.
  const size_t lettersStart = pos;
  while (pos < in.size() && isAlpha(static_cast<unsigned char>(in[pos]))) ++pos;
  textRun.append(in.data() + lettersStart, pos - lettersStart);
  const std::string_view name = in.substr(nameStart, pos - nameStart);
  const int c = peek();
  if (isSpace(c) || c == '/' || c == '>') {
    ++pos;
    textRun += static_cast<char>(c);
    state = equalsIgnoringCase(name, "script") ? onScript : otherwise;
  } else {
    state = otherwise;
  }
}

template <typename Out>
void Tokenizer::Impl::characterReference(Out& out, bool inAttribute) {
  const int c = peek();
  if (isAlphanumeric(c)) {
    const NamedMatch match = longestNamedReference(in.substr(pos));
    if (match.length == 0) {
      // Not a name: the ampersand and what follows are text.
      out += '&';
      return;
    }
    const size_t end = pos + match.length;
    const bool terminated = in[end - 1] == ';';
    const int after = end < in.size() ? static_cast<unsigned char>(in[end]) : kEndOfInput;
    if (!terminated && inAttribute && (after == '=' || isAlphanumeric(after))) {
      // "?a=1&copy=2" in a link is a query string, not a copyright sign.
      out += '&';
      out.append(in.data() + pos, match.length);
    } else {
      out += match.value;
    }
    pos = end;
    return;
  }
  if (c != '#') {
    out += '&';
    return;
  }
  size_t p = pos + 1;
  const bool hex = p < in.size() && (in[p] == 'x' || in[p] == 'X');
  if (hex) ++p;
  const size_t digitsStart = p;
  uint32_t code = 0;
  for (; p < in.size(); ++p) {
    const auto d = static_cast<unsigned char>(in[p]);
    uint32_t digit;
    if (isDigit(d)) {
      digit = d - '0';
    } else if (hex && (d | 0x20) >= 'a' && (d | 0x20) <= 'f') {
      digit = (d | 0x20) - 'a' + 10;
    } else {
      break;
    }
    // Saturate: anything past U+10FFFF is out of range however long it goes on.
    code = std::min<uint32_t>(code * (hex ? 16 : 10) + digit, 0x110000);
  }
  if (p == digitsStart) {
    // "&#" or "&#x" without digits is text.
    out += '&';
    out.append(in.data() + pos, p - pos);
    pos = p;
    return;
  }
  if (p < in.size() && in[p] == ';') ++p;
  pos = p;
  appendUtf8(out, numericReferenceValue(code));
}

const Token& Tokenizer::Impl::next() {
  textRun.clear();
  if (markupPending) {
    markupPending = false;
    return markup;
  }
  if (finished) return markup;
  run();
  if (!textRun.empty()) {
    markupPending = true;
    text.characters = textRun.view();
    return text;
  }
  return markup;
}

// Runs the state machine until a token other than characters is complete; characters gather
// in `text` meanwhile. Every case either breaks (on to the state it set) or returns with the
// token in `markup`.
void Tokenizer::Impl::run() {
  for (;;) {
    switch (state) {
      // ---- text ----
      case State::data: {
        emitTextUpTo(std::min(nextOf('<', nextLessThan), nextOf('&', nextAmpersand)));
        const int c = peek();
        if (c == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        ++pos;
        if (c == '<') {
          state = State::tagOpen;
        } else {
          characterReference(textRun, false);
        }
        break;
      }
      case State::rcdata: {
        emitTextUpTo(std::min({nextOf('<', nextLessThan), nextOf('&', nextAmpersand), nextOf('\0', nextNull)}));
        const int c = peek();
        if (c == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        ++pos;
        if (c == '<') {
          state = State::rcdataLessThanSign;
        } else if (c == '&') {
          characterReference(textRun, false);
        } else {
          textRun += kReplacementCharacter;
        }
        break;
      }
      case State::rawtext:
      case State::scriptData: {
        emitTextUpTo(std::min(nextOf('<', nextLessThan), nextOf('\0', nextNull)));
        const int c = peek();
        if (c == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        ++pos;
        if (c == '<') {
          state = state == State::rawtext ? State::rawtextLessThanSign : State::scriptDataLessThanSign;
        } else {
          textRun += kReplacementCharacter;
        }
        break;
      }
      case State::plaintext: {
        emitTextUpTo(nextOf('\0', nextNull));
        if (peek() == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        ++pos;
        textRun += kReplacementCharacter;
        break;
      }

      // ---- tags ----
      case State::tagOpen: {
        const int c = peek();
        if (c == '!') {
          ++pos;
          state = State::markupDeclarationOpen;
        } else if (c == '/') {
          ++pos;
          state = State::endTagOpen;
        } else if (isAlpha(c)) {
          beginTag(Token::Type::startTag);
          state = State::tagName;
        } else if (c == '?') {
          beginComment();
          state = State::bogusComment;
        } else {
          textRun += '<';
          state = State::data;
        }
        break;
      }
      case State::endTagOpen: {
        const int c = peek();
        if (isAlpha(c)) {
          beginTag(Token::Type::endTag);
          state = State::tagName;
        } else if (c == '>') {
          ++pos;
          state = State::data;
        } else if (c == kEndOfInput) {
          textRun += "</";
          state = State::data;
        } else {
          beginComment();
          state = State::bogusComment;
        }
        break;
      }
      case State::tagName: {
        appendLowerRun(markup.name, kTagNameStops);
        const int c = peek();
        if (c == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        ++pos;
        if (isSpace(c)) {
          state = State::beforeAttributeName;
        } else if (c == '/') {
          state = State::selfClosingStartTag;
        } else if (c == '>') {
          emitTag();
          return;
        } else {
          markup.name += kReplacementCharacter;
        }
        break;
      }

      // ---- end tags inside text ----
      case State::rcdataLessThanSign:
      case State::rawtextLessThanSign: {
        const bool rcdata = state == State::rcdataLessThanSign;
        if (peek() == '/') {
          ++pos;
          state = rcdata ? State::rcdataEndTagOpen : State::rawtextEndTagOpen;
        } else {
          textRun += '<';
          state = rcdata ? State::rcdata : State::rawtext;
        }
        break;
      }
      case State::scriptDataLessThanSign: {
        const int c = peek();
        if (c == '/') {
          ++pos;
          state = State::scriptDataEndTagOpen;
        } else if (c == '!') {
          ++pos;
          textRun += "<!";
          state = State::scriptDataEscapeStart;
        } else {
          textRun += '<';
          state = State::scriptData;
        }
        break;
      }
      case State::rcdataEndTagOpen:
      case State::rawtextEndTagOpen:
      case State::scriptDataEndTagOpen:
      case State::scriptDataEscapedEndTagOpen: {
        static constexpr struct {
          State open, name, text;
        } kTransitions[] = {
            {State::rcdataEndTagOpen, State::rcdataEndTagName, State::rcdata},
            {State::rawtextEndTagOpen, State::rawtextEndTagName, State::rawtext},
            {State::scriptDataEndTagOpen, State::scriptDataEndTagName, State::scriptData},
            {State::scriptDataEscapedEndTagOpen, State::scriptDataEscapedEndTagName, State::scriptDataEscaped},
        };
        const auto* transition = std::find_if(std::begin(kTransitions), std::end(kTransitions),
                                              [this](const auto& t) { return t.open == state; });
        if (isAlpha(peek())) {
          nameStart = pos;
          state = transition->name;
        } else {
          textRun += "</";
          state = transition->text;
        }
        break;
      }
      case State::rcdataEndTagName:
        if (endTagNameInText(State::rcdata)) return;
        break;
      case State::rawtextEndTagName:
        if (endTagNameInText(State::rawtext)) return;
        break;
      case State::scriptDataEndTagName:
        if (endTagNameInText(State::scriptData)) return;
        break;
      case State::scriptDataEscapedEndTagName:
        if (endTagNameInText(State::scriptDataEscaped)) return;
        break;

      // ---- script data: "<!--" escapes, "<script" inside them double-escapes ----
      case State::scriptDataEscapeStart:
      case State::scriptDataEscapeStartDash: {
        if (peek() == '-') {
          ++pos;
          textRun += '-';
          state = state == State::scriptDataEscapeStart ? State::scriptDataEscapeStartDash
                                                        : State::scriptDataEscapedDashDash;
        } else {
          state = State::scriptData;
        }
        break;
      }
      case State::scriptDataEscaped:
      case State::scriptDataDoubleEscaped: {
        const bool doubleEscaped = state == State::scriptDataDoubleEscaped;
        appendRun(textRun, kEscapedScriptStops);
        const int c = peek();
        if (c == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        ++pos;
        if (c == '-') {
          textRun += '-';
          state = doubleEscaped ? State::scriptDataDoubleEscapedDash : State::scriptDataEscapedDash;
        } else if (c == '<') {
          if (doubleEscaped) textRun += '<';
          state = doubleEscaped ? State::scriptDataDoubleEscapedLessThanSign : State::scriptDataEscapedLessThanSign;
        } else {
          textRun += kReplacementCharacter;
        }
        break;
      }
      case State::scriptDataEscapedDash:
      case State::scriptDataEscapedDashDash:
      case State::scriptDataDoubleEscapedDash:
      case State::scriptDataDoubleEscapedDashDash: {
        const bool doubleEscaped =
            state == State::scriptDataDoubleEscapedDash || state == State::scriptDataDoubleEscapedDashDash;
        const bool dashDash = state == State::scriptDataEscapedDashDash || state == State::scriptDataDoubleEscapedDashDash;
        const State inside = doubleEscaped ? State::scriptDataDoubleEscaped : State::scriptDataEscaped;
        const int c = peek();
        if (c == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        ++pos;
        if (c == '-') {
          textRun += '-';
          state = doubleEscaped ? State::scriptDataDoubleEscapedDashDash : State::scriptDataEscapedDashDash;
        } else if (c == '<') {
          if (doubleEscaped) textRun += '<';
          state = doubleEscaped ? State::scriptDataDoubleEscapedLessThanSign : State::scriptDataEscapedLessThanSign;
        } else if (c == '>' && dashDash) {
          textRun += '>';
          state = State::scriptData;
        } else if (c == '\0') {
          textRun += kReplacementCharacter;
          state = inside;
        } else {
          textRun += static_cast<char>(c);
          state = inside;
        }
        break;
      }
      case State::scriptDataEscapedLessThanSign: {
        const int c = peek();
        if (c == '/') {
          ++pos;
          state = State::scriptDataEscapedEndTagOpen;
        } else if (isAlpha(c)) {
          textRun += '<';
          nameStart = pos;
          state = State::scriptDataDoubleEscapeStart;
        } else {
          textRun += '<';
          state = State::scriptDataEscaped;
        }
        break;
      }
      case State::scriptDataDoubleEscapeStart:
        doubleEscapeBoundary(State::scriptDataDoubleEscaped, State::scriptDataEscaped);
        break;
      case State::scriptDataDoubleEscapedLessThanSign: {
        if (peek() == '/') {
          ++pos;
          textRun += '/';
          nameStart = pos;
          state = State::scriptDataDoubleEscapeEnd;
        } else {
          state = State::scriptDataDoubleEscaped;
        }
        break;
      }
      case State::scriptDataDoubleEscapeEnd:
        doubleEscapeBoundary(State::scriptDataEscaped, State::scriptDataDoubleEscaped);
        break;

      // ---- attributes ----
      case State::beforeAttributeName: {
        skipWhiteSpace();
        const int c = peek();
        if (c == kEndOfInput || c == '/' || c == '>') {
          state = State::afterAttributeName;
        } else {
          startAttribute();
          if (c == '=') {
            ++pos;
            markup.attributes.back().name += '=';
          }
          state = State::attributeName;
        }
        break;
      }
      case State::attributeName: {
        appendLowerRun(markup.attributes.back().name, kAttributeNameStops);
        const int c = peek();
        if (c == '\0') {
          ++pos;
          markup.attributes.back().name += kReplacementCharacter;
        } else if (c == '=') {
          ++pos;
          finishAttributeName();
          state = State::beforeAttributeValue;
        } else {
          finishAttributeName();
          state = State::afterAttributeName;
        }
        break;
      }
      case State::afterAttributeName: {
        skipWhiteSpace();
        const int c = peek();
        if (c == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        if (c == '/') {
          ++pos;
          state = State::selfClosingStartTag;
        } else if (c == '=') {
          ++pos;
          state = State::beforeAttributeValue;
        } else if (c == '>') {
          ++pos;
          emitTag();
          return;
        } else {
          startAttribute();
          state = State::attributeName;
        }
        break;
      }
      case State::beforeAttributeValue: {
        skipWhiteSpace();
        const int c = peek();
        if (c == '"') {
          ++pos;
          state = State::attributeValueDoubleQuoted;
        } else if (c == '\'') {
          ++pos;
          state = State::attributeValueSingleQuoted;
        } else if (c == '>') {
          ++pos;
          emitTag();
          return;
        } else {
          state = State::attributeValueUnquoted;
        }
        break;
      }
      case State::attributeValueDoubleQuoted:
      case State::attributeValueSingleQuoted: {
        const bool doubleQuoted = state == State::attributeValueDoubleQuoted;
        appendRun(*attributeValue, doubleQuoted ? kDoubleQuotedValueStops : kSingleQuotedValueStops);
        const int c = peek();
        if (c == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        ++pos;
        if (c == '&') {
          characterReference(*attributeValue, true);
        } else if (c == '\0') {
          *attributeValue += kReplacementCharacter;
        } else {
          state = State::afterAttributeValueQuoted;
        }
        break;
      }
      case State::attributeValueUnquoted: {
        appendRun(*attributeValue, kUnquotedValueStops);
        const int c = peek();
        if (c == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        ++pos;
        if (isSpace(c)) {
          state = State::beforeAttributeName;
        } else if (c == '&') {
          characterReference(*attributeValue, true);
        } else if (c == '>') {
          emitTag();
          return;
        } else {
          *attributeValue += kReplacementCharacter;
        }
        break;
      }
      case State::afterAttributeValueQuoted: {
        const int c = peek();
        if (c == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        if (isSpace(c)) {
          ++pos;
          state = State::beforeAttributeName;
        } else if (c == '/') {
          ++pos;
          state = State::selfClosingStartTag;
        } else if (c == '>') {
          ++pos;
          emitTag();
          return;
        } else {
          state = State::beforeAttributeName;
        }
        break;
      }
      case State::selfClosingStartTag: {
        const int c = peek();
        if (c == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        if (c == '>') {
          ++pos;
          markup.selfClosing = true;
          emitTag();
          return;
        }
        state = State::beforeAttributeName;
        break;
      }

      // ---- comments ----
      case State::bogusComment: {
        appendRun(markup.data, kBogusCommentStops);
        const int c = peek();
        if (c == kEndOfInput) {
          emitMarkup();
          return;
        }
        ++pos;
        if (c == '>') {
          emitMarkup();
          return;
        }
        markup.data += kReplacementCharacter;
        break;
      }
      case State::markupDeclarationOpen: {
        if (startsWith("--")) {
          pos += 2;
          beginComment();
          state = State::commentStart;
        } else if (startsWithIgnoringCase("doctype")) {
          pos += 7;
          state = State::doctype;
        } else if (startsWith("[CDATA[")) {
          // CDATA sections belong to foreign content, which this parser does not build.
          pos += 7;
          beginComment();
          markup.data = "[CDATA[";
          state = State::bogusComment;
        } else {
          beginComment();
          state = State::bogusComment;
        }
        break;
      }
      case State::commentStart: {
        const int c = peek();
        if (c == '-') {
          ++pos;
          state = State::commentStartDash;
        } else if (c == '>') {
          ++pos;
          emitMarkup();
          return;
        } else {
          state = State::comment;
        }
        break;
      }
      case State::commentStartDash: {
        const int c = peek();
        if (c == kEndOfInput) {
          emitMarkup();
          return;
        }
        if (c == '-') {
          ++pos;
          state = State::commentEnd;
        } else if (c == '>') {
          ++pos;
          emitMarkup();
          return;
        } else {
          markup.data += '-';
          state = State::comment;
        }
        break;
      }
      case State::comment: {
        appendRun(markup.data, kCommentStops);
        const int c = peek();
        if (c == kEndOfInput) {
          emitMarkup();
          return;
        }
        ++pos;
        if (c == '<') {
          markup.data += '<';
          state = State::commentLessThanSign;
        } else if (c == '-') {
          state = State::commentEndDash;
        } else {
          markup.data += kReplacementCharacter;
        }
        break;
      }
      case State::commentLessThanSign: {
        const int c = peek();
        if (c == '!') {
          ++pos;
          markup.data += '!';
          state = State::commentLessThanSignBang;
        } else if (c == '<') {
          ++pos;
          markup.data += '<';
        } else {
          state = State::comment;
        }
        break;
      }
      case State::commentLessThanSignBang:
        if (peek() == '-') {
          ++pos;
          state = State::commentLessThanSignBangDash;
        } else {
          state = State::comment;
        }
        break;
      case State::commentLessThanSignBangDash:
        if (peek() == '-') {
          ++pos;
          state = State::commentLessThanSignBangDashDash;
        } else {
          state = State::commentEndDash;
        }
        break;
      case State::commentLessThanSignBangDashDash:
        // "<!--" nested in a comment is an error, but the comment ends where it would anyway.
        state = State::commentEnd;
        break;
      case State::commentEndDash: {
        const int c = peek();
        if (c == kEndOfInput) {
          emitMarkup();
          return;
        }
        if (c == '-') {
          ++pos;
          state = State::commentEnd;
        } else {
          markup.data += '-';
          state = State::comment;
        }
        break;
      }
      case State::commentEnd: {
        const int c = peek();
        if (c == kEndOfInput) {
          emitMarkup();
          return;
        }
        if (c == '>') {
          ++pos;
          emitMarkup();
          return;
        }
        if (c == '!') {
          ++pos;
          state = State::commentEndBang;
        } else if (c == '-') {
          ++pos;
          markup.data += '-';
        } else {
          markup.data += "--";
          state = State::comment;
        }
        break;
      }
      case State::commentEndBang: {
        const int c = peek();
        if (c == kEndOfInput) {
          emitMarkup();
          return;
        }
        if (c == '>') {
          ++pos;
          emitMarkup();
          return;
        }
        markup.data += "--!";
        if (c == '-') {
          ++pos;
          state = State::commentEndDash;
        } else {
          state = State::comment;
        }
        break;
      }

      // ---- DOCTYPE ----
      case State::doctype: {
        const int c = peek();
        if (c == kEndOfInput) {
          beginDoctype();
          markup.forceQuirks = true;
          emitMarkup();
          return;
        }
        if (isSpace(c)) ++pos;
        state = State::beforeDoctypeName;
        break;
      }
      case State::beforeDoctypeName: {
        skipWhiteSpace();
        const int c = peek();
        beginDoctype();
        if (c == kEndOfInput || c == '>') {
          if (c == '>') ++pos;
          markup.forceQuirks = true;
          emitMarkup();
          return;
        }
        markup.hasName = true;
        state = State::doctypeName;
        break;
      }
      case State::doctypeName: {
        appendLowerRun(markup.name, kDoctypeNameStops);
        const int c = peek();
        if (c == kEndOfInput) {
          markup.forceQuirks = true;
          emitMarkup();
          return;
        }
        ++pos;
        if (isSpace(c)) {
          state = State::afterDoctypeName;
        } else if (c == '>') {
          emitMarkup();
          return;
        } else {
          markup.name += kReplacementCharacter;
        }
        break;
      }
      case State::afterDoctypeName: {
        skipWhiteSpace();
        const int c = peek();
        if (c == kEndOfInput) {
          markup.forceQuirks = true;
          emitMarkup();
          return;
        }
        if (c == '>') {
          ++pos;
          emitMarkup();
          return;
        }
        if (startsWithIgnoringCase("public")) {
          pos += 6;
          state = State::afterDoctypePublicKeyword;
        } else if (startsWithIgnoringCase("system")) {
          pos += 6;
          state = State::afterDoctypeSystemKeyword;
        } else {
          markup.forceQuirks = true;
          state = State::bogusDoctype;
        }
        break;
      }
      case State::afterDoctypePublicKeyword:
      case State::beforeDoctypePublicIdentifier:
      case State::afterDoctypeSystemKeyword:
      case State::beforeDoctypeSystemIdentifier: {
        const bool isPublic =
            state == State::afterDoctypePublicKeyword || state == State::beforeDoctypePublicIdentifier;
        const bool afterKeyword =
            state == State::afterDoctypePublicKeyword || state == State::afterDoctypeSystemKeyword;
        const int c = peek();
        if (afterKeyword && isSpace(c)) {
          ++pos;
          state = isPublic ? State::beforeDoctypePublicIdentifier : State::beforeDoctypeSystemIdentifier;
          break;
        }
        skipWhiteSpace();  // only reached before the identifier, where white space is skipped
        const int d = peek();
        if (d == kEndOfInput || d == '>') {
          if (d == '>') ++pos;
          markup.forceQuirks = true;
          emitMarkup();
          return;
        }
        if (d == '"' || d == '\'') {
          ++pos;
          if (isPublic) {
            markup.hasPublicIdentifier = true;
            markup.publicIdentifier.clear();
            state = d == '"' ? State::doctypePublicIdentifierDoubleQuoted : State::doctypePublicIdentifierSingleQuoted;
          } else {
            markup.hasSystemIdentifier = true;
            markup.systemIdentifier.clear();
            state = d == '"' ? State::doctypeSystemIdentifierDoubleQuoted : State::doctypeSystemIdentifierSingleQuoted;
          }
        } else {
          markup.forceQuirks = true;
          state = State::bogusDoctype;
        }
        break;
      }
      case State::doctypePublicIdentifierDoubleQuoted:
      case State::doctypePublicIdentifierSingleQuoted:
      case State::doctypeSystemIdentifierDoubleQuoted:
      case State::doctypeSystemIdentifierSingleQuoted: {
        const bool isPublic = state == State::doctypePublicIdentifierDoubleQuoted ||
                              state == State::doctypePublicIdentifierSingleQuoted;
        const bool doubleQuoted = state == State::doctypePublicIdentifierDoubleQuoted ||
                                  state == State::doctypeSystemIdentifierDoubleQuoted;
        std::string& identifier = isPublic ? markup.publicIdentifier : markup.systemIdentifier;
        appendRun(identifier, doubleQuoted ? kDoubleQuotedIdentifierStops : kSingleQuotedIdentifierStops);
        const int c = peek();
        if (c == kEndOfInput) {
          markup.forceQuirks = true;
          emitMarkup();
          return;
        }
        ++pos;
        if (c == '\0') {
          identifier += kReplacementCharacter;
        } else if (c == '>') {
          markup.forceQuirks = true;
          emitMarkup();
          return;
        } else {
          state = isPublic ? State::afterDoctypePublicIdentifier : State::afterDoctypeSystemIdentifier;
        }
        break;
      }
      case State::afterDoctypePublicIdentifier:
      case State::betweenDoctypePublicAndSystemIdentifiers: {
        const int c = peek();
        if (state == State::afterDoctypePublicIdentifier && isSpace(c)) {
          ++pos;
          state = State::betweenDoctypePublicAndSystemIdentifiers;
          break;
        }
        skipWhiteSpace();  // only reached between the identifiers, where it is skipped
        const int d = peek();
        if (d == kEndOfInput) {
          markup.forceQuirks = true;
          emitMarkup();
          return;
        }
        if (d == '>') {
          ++pos;
          emitMarkup();
          return;
        }
        if (d == '"' || d == '\'') {
          ++pos;
          markup.hasSystemIdentifier = true;
          markup.systemIdentifier.clear();
          state = d == '"' ? State::doctypeSystemIdentifierDoubleQuoted : State::doctypeSystemIdentifierSingleQuoted;
        } else {
          markup.forceQuirks = true;
          state = State::bogusDoctype;
        }
        break;
      }
      case State::afterDoctypeSystemIdentifier: {
        skipWhiteSpace();
        const int c = peek();
        if (c == kEndOfInput) {
          markup.forceQuirks = true;
          emitMarkup();
          return;
        }
        if (c == '>') {
          ++pos;
          emitMarkup();
          return;
        }
        state = State::bogusDoctype;  // an error, but not one that makes the page quirky
        break;
      }
      case State::bogusDoctype: {
        const void* close = pos < in.size() ? std::memchr(in.data() + pos, '>', in.size() - pos) : nullptr;
        pos = close != nullptr ? static_cast<size_t>(static_cast<const char*>(close) - in.data()) + 1 : in.size();
        emitMarkup();
        return;
      }

      // ---- CDATA (reached only through switchTo) ----
      case State::cdataSection: {
        const void* bracket = pos < in.size() ? std::memchr(in.data() + pos, ']', in.size() - pos) : nullptr;
        emitTextUpTo(bracket != nullptr ? static_cast<size_t>(static_cast<const char*>(bracket) - in.data()) : in.size());
        if (peek() == kEndOfInput) {
          emitEndOfFile();
          return;
        }
        ++pos;
        state = State::cdataSectionBracket;
        break;
      }
      case State::cdataSectionBracket:
        if (peek() == ']') {
          ++pos;
          state = State::cdataSectionEnd;
        } else {
          textRun += ']';
          state = State::cdataSection;
        }
        break;
      case State::cdataSectionEnd: {
        const int c = peek();
        if (c == ']') {
          ++pos;
          textRun += ']';
        } else if (c == '>') {
          ++pos;
          state = State::data;
        } else {
          textRun += "]]";
          state = State::cdataSection;
        }
        break;
      }
    }
  }
}

Tokenizer::Tokenizer(std::string_view input) : impl_(std::make_unique<Impl>(input)) {}

Tokenizer::~Tokenizer() = default;

const Token& Tokenizer::next() { return impl_->next(); }

void Tokenizer::switchTo(TokenizerState state) {
  switch (state) {
    case TokenizerState::data:
      impl_->state = State::data;
      return;
    case TokenizerState::rcdata:
      impl_->state = State::rcdata;
      return;
    case TokenizerState::rawtext:
      impl_->state = State::rawtext;
      return;
    case TokenizerState::scriptData:
      impl_->state = State::scriptData;
      return;
    case TokenizerState::plaintext:
      impl_->state = State::plaintext;
      return;
    case TokenizerState::cdataSection:
      impl_->state = State::cdataSection;
      return;
  }
}

void Tokenizer::setLastStartTagName(std::string_view name) { impl_->lastStartTag.assign(name); }

}  // namespace lumora::html
