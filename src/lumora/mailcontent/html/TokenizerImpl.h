// The tokenizer's inside, shared by the files that define its states by family: Tokenizer.cc
// (the driver, text, tags and attributes), TokenizerScript.cc (script data, CDATA),
// TokenizerMarkup.cc (comments and DOCTYPEs) and CharacterReferences.cc.
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
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "lumora/mailcontent/html/Tokenizer.h"

namespace lumora::html {
namespace tokenizing {

using namespace std::string_view_literals;

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

inline constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";
inline constexpr int kEndOfInput = -1;

constexpr bool isSpace(int c) {
  return c == '\t' || c == '\n' || c == '\f' || c == '\r' || c == ' ';
}
constexpr bool isUpper(int c) { return c >= 'A' && c <= 'Z'; }
constexpr bool isAlpha(int c) { return isUpper(c) || (c >= 'a' && c <= 'z'); }
constexpr bool isDigit(int c) { return c >= '0' && c <= '9'; }
constexpr bool isAlphanumeric(int c) { return isAlpha(c) || isDigit(c); }
constexpr char toLower(char c) { return isUpper(c) ? static_cast<char>(c + ('a' - 'A')) : c; }

inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
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

inline constexpr ByteSet kTagNameStops = stopAt("/>\0"sv, true);
inline constexpr ByteSet kAttributeNameStops = stopAt("/>=\0"sv, true);
inline constexpr ByteSet kDoubleQuotedValueStops = stopAt("\"&\0"sv);
inline constexpr ByteSet kSingleQuotedValueStops = stopAt("'&\0"sv);
inline constexpr ByteSet kUnquotedValueStops = stopAt(">&\0"sv, true);
inline constexpr ByteSet kCommentStops = stopAt("<-\0"sv);
inline constexpr ByteSet kBogusCommentStops = stopAt(">\0"sv);
inline constexpr ByteSet kEscapedScriptStops = stopAt("<-\0"sv);
inline constexpr ByteSet kDoctypeNameStops = stopAt(">\0"sv, true);
inline constexpr ByteSet kDoubleQuotedIdentifierStops = stopAt("\">\0"sv);
inline constexpr ByteSet kSingleQuotedIdentifierStops = stopAt("'>\0"sv);

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
      if (size_ > 0 &&
          (piece.data() == input_.data() + end || input_.substr(end, piece.size()) == piece)) {
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
    return piece.size() <= input_.size() && at >= start &&
           at - start <= input_.size() - piece.size();
  }

  std::string_view input_;
  size_t start_ = 0;
  size_t size_ = 0;
  bool verbatim_ = true;
  std::string buffer_;
};

// The hash of attribute names, for finding duplicates in a tag with many attributes.
size_t hashAttributeName(std::string_view name);

}  // namespace tokenizing

struct Tokenizer::Impl {
  using State = tokenizing::State;
  using ByteSet = tokenizing::ByteSet;
  using TextRun = tokenizing::TextRun;

  explicit Impl(std::string_view input) : in(input), textRun(input) {
    text.type = Token::Type::characters;
  }

  const Token& next();
  // Runs the state machine until a token other than characters is complete; characters gather
  // in `textRun` meanwhile.
  void run();

  // The states by family. Each runs while the state stays in its family, and returns true when
  // it has completed a token (left in `markup`), false when it has moved to a state of another
  // family. Inside a family every case either breaks (on to the state it set) or returns. The
  // families of the hot path are defined in Tokenizer.cc, inlined into run(): a call and a
  // return at every change of family cost a parse some percent.
  [[gnu::always_inline]] inline bool textStates();  // data, RCDATA, RAWTEXT, PLAINTEXT, end tags
  [[gnu::always_inline]] inline bool tagStates();   // tag open, end tag open, name, self-closing
  [[gnu::always_inline]] inline bool attributeNameStates();   // before, in and after the name
  [[gnu::always_inline]] inline bool attributeValueStates();  // the value, quoted or not
  bool scriptStates();             // script data: "<!--" escapes, "<script" double escapes
  bool markupDeclarationStates();  // "<!", bogus comments
  bool commentStates();            // the rest of the comments
  bool doctypeStates();            // DOCTYPE and its name
  bool doctypeIdentifierStates();  // its public and system identifiers
  bool cdataStates();

  // Shared steps of the states.
  // The next byte, consumed; at the end of the input kEndOfInput, with the end of the file
  // emitted.
  int consumeOrEnd() {
    const int c = peek();
    if (c == tokenizing::kEndOfInput)
      emitEndOfFile();
    else
      ++pos;
    return c;
  }
  // Text up to `stop`, then the byte there, as consumeOrEnd.
  int textUpTo(size_t stop) {
    emitTextUpTo(stop);
    return consumeOrEnd();
  }
  // RAWTEXT and script data: text up to '<' (on to `lessThanSign`) or U+0000. True when it
  // emitted the end of the file.
  bool rawTextUpTo(State lessThanSign);
  // The escaped and double-escaped script data states and their dashes.
  bool escapedScript();
  // Whether `c`, the byte at pos, ends the tag: '>' (consumed, the tag emitted) or the end of
  // the input (the end of the file emitted, the tag dropped).
  bool closesTag(int c);
  // Whether `c`, the byte at pos, ends the comment or DOCTYPE being read: '>' (consumed) or the
  // end of the input. Emits it if so; a DOCTYPE cut off by the end of the input is quirky.
  bool closesMarkup(int c);
  // The same for the end of the input alone.
  bool emitsAtEnd(int c);
  void emitQuirkyDoctype();
  void toBogusDoctype();
  // After the quote that opens a public or system identifier.
  void openIdentifier(bool isPublic, int quote);

  // --- input ---
  int peek() const {
    return pos < in.size() ? static_cast<unsigned char>(in[pos]) : tokenizing::kEndOfInput;
  }
  bool startsWith(std::string_view s) const { return in.substr(pos).starts_with(s); }
  bool startsWithIgnoringCase(std::string_view s) const {
    return in.size() - pos >= s.size() &&
           tokenizing::equalsIgnoringCase(in.substr(pos, s.size()), s);
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
    for (size_t i = from; i < out.size(); ++i) out[i] = tokenizing::toLower(out[i]);
  }
  void skipWhiteSpace() {
    while (pos < in.size() && tokenizing::isSpace(static_cast<unsigned char>(in[pos]))) ++pos;
  }
  // The position of the next `c` at or after pos, or the end. The answer stays true until
  // pos passes it, so each byte is searched at most once per cached character.
  size_t nextOf(char c, size_t& cached) {
    if (cached == kUnknown || cached < pos) {
      const void* hit =
          pos < in.size() ? std::memchr(in.data() + pos, c, in.size() - pos) : nullptr;
      cached = hit != nullptr ? static_cast<size_t>(static_cast<const char*>(hit) - in.data())
                              : in.size();
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
    return !lastStartTag.empty() && tokenizing::equalsIgnoringCase(name, lastStartTag);
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
    size_t operator()(uint32_t i) const {
      return tokenizing::hashAttributeName((*attributes)[i].name);
    }
  };
  struct NameEqual {
    const std::vector<Attribute>* attributes;
    bool operator()(uint32_t a, uint32_t b) const {
      return (*attributes)[a].name == (*attributes)[b].name;
    }
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
  Token markup;  // every other token
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

}  // namespace lumora::html
