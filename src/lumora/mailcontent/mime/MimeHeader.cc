#include "lumora/mailcontent/mime/MimeHeader.h"

#include <algorithm>
#include <cstring>
#include <variant>

#include "lumora/platform/Text.h"

namespace lumora {
namespace {

// ---- characters ------------------------------------------------------------------------------

enum class Special {
  leftParentheses,
  rightParentheses,
  leftAngleBracket,
  rightAngleBracket,
  atSign,
  comma,
  semicolon,
  colon,
  backslash,
  quotationMark,
  slash,
  leftSquareBracket,
  rightSquareBracket,
  questionMark,
  equalitySign,
};

std::optional<Special> specialOf(char32_t c) {
  switch (c) {
    case '(':
      return Special::leftParentheses;
    case ')':
      return Special::rightParentheses;
    case '<':
      return Special::leftAngleBracket;
    case '>':
      return Special::rightAngleBracket;
    case '@':
      return Special::atSign;
    case ',':
      return Special::comma;
    case ';':
      return Special::semicolon;
    case ':':
      return Special::colon;
    case '\\':
      return Special::backslash;
    case '"':
      return Special::quotationMark;
    case '/':
      return Special::slash;
    case '[':
      return Special::leftSquareBracket;
    case ']':
      return Special::rightSquareBracket;
    case '?':
      return Special::questionMark;
    case '=':
      return Special::equalitySign;
    default:
      return std::nullopt;
  }
}

// What ends a token: the blank, the controls U+0000 to U+001E (not U+001F), and the specials.
bool endsToken(char32_t c) { return c == ' ' || c <= 0x1E || specialOf(c).has_value(); }
// What ends quoted text: the quotation mark and the backslash.
bool endsQuoted(char32_t c) { return c == '"' || c == '\\'; }

// ---- the scanner over one field body ----------------------------------------------------------
// Steps by user-perceived character; a character belongs to a set when its first code point
// does. Every operation leaves the position as it was when it fails.

class StringScanner {
 public:
  explicit StringScanner(std::string_view text) : text_(text) {}

  bool atEnd() const { return position_ >= text_.size(); }
  char32_t first() const {
    const auto b = static_cast<unsigned char>(text_[position_]);
    if (b < 0x80) return b;
    char32_t cp;
    text::codePointAt(text_, position_, cp);
    return cp;
  }
  void step() { position_ += text::characterLengthAt(text_, position_); }

  void skipBlanks() {
    while (!atEnd() && first() == ' ') step();
  }

  std::optional<Special> scanSpecial() {
    if (atEnd()) return std::nullopt;
    const auto special = specialOf(first());
    if (special) step();
    return special;
  }

  // Characters up to one in the set, at least one.
  template <typename InSet>
  std::optional<std::string_view> scanUpTo(InSet inSet) {
    const size_t start = position_;
    while (!atEnd() && !inSet(first())) step();
    if (position_ == start) return std::nullopt;
    return text_.substr(start, position_ - start);
  }

  // Text between two quotation marks, with neither a quotation mark nor a backslash in it.
  std::optional<std::string_view> scanQuoted() {
    const size_t start = position_;
    if (scanSpecial() == Special::quotationMark) {
      if (auto inner = scanUpTo(endsQuoted)) {
        if (scanSpecial() == Special::quotationMark) return inner;
      }
    }
    position_ = start;
    return std::nullopt;
  }

 private:
  std::string_view text_;
  size_t position_ = 0;
};

// ---- tokens ----------------------------------------------------------------------------------

struct QuotedString {
  std::string_view text;
};
struct Token {
  std::string_view text;
};
using LexedToken = std::variant<QuotedString, Token, Special>;

// Tokens one at a time, each lexed when it is first looked at, so that a field of a million
// parameters never holds a million tokens. Lexing never fails: it stops at a character that
// fits nothing (a tab, another control), and the tokens before it stand.
class TokenProcessor {
 public:
  TokenProcessor(std::string_view body, std::string_view field) : scanner_(body), field_(field) {
    lex();
  }

  bool done() const { return !next_; }

  std::string expectToken() {
    const auto* t = next<Token>(MimeHeaderError::Code::invalidToken);
    std::string text(t->text);
    lex();
    return text;
  }
  // The next token if it is of type T; the position stays when it is not.
  template <typename T>
  std::optional<std::string> take() {
    if (done()) return std::nullopt;
    const T* t = std::get_if<T>(&*next_);
    if (!t) return std::nullopt;
    std::string text(t->text);
    lex();
    return text;
  }
  void expectSpecial(Special wanted) {
    const auto* s = next<Special>(MimeHeaderError::Code::invalidSpecial);
    if (*s != wanted) throw MimeHeaderError(MimeHeaderError::Code::invalidSpecial, field_);
    lex();
  }

 private:
  void lex() {
    scanner_.skipBlanks();
    if (auto quoted = scanner_.scanQuoted()) {
      next_ = QuotedString{*quoted};
    } else if (auto token = scanner_.scanUpTo(endsToken)) {
      next_ = Token{*token};
    } else if (auto special = scanner_.scanSpecial()) {
      next_ = *special;
    } else {
      next_.reset();
    }
  }

  template <typename T>
  const T* next(MimeHeaderError::Code mismatch) const {
    if (done()) throw MimeHeaderError(MimeHeaderError::Code::noMoreTokens, field_);
    const T* t = std::get_if<T>(&*next_);
    if (!t) throw MimeHeaderError(mismatch, field_);
    return t;
  }

  StringScanner scanner_;
  std::optional<LexedToken> next_;
  std::string_view field_;
};

// Reads the parameters, handing each name and value to `keep`, which may take them.
template <typename Keep>
void readParameters(TokenProcessor& p, std::string_view field, Keep keep) {
  while (!p.done()) {
    p.expectSpecial(Special::semicolon);
    if (p.done()) break;  // a trailing semicolon is accepted
    std::string name = p.expectToken();
    p.expectSpecial(Special::equalitySign);
    std::optional<std::string> value = p.take<QuotedString>();
    if (!value) value = p.take<Token>();
    if (!value) throw MimeHeaderError(MimeHeaderError::Code::invalidParameterValue, field);
    keep(name, *value);
  }
}

HeaderParameters parseParameters(TokenProcessor& p, std::string_view field) {
  HeaderParameters parameters;
  readParameters(p, field, [&](std::string& name, std::string& value) {
    parameters[std::move(name)] = std::move(value);
  });
  return parameters;
}

ContentTransferEncoding parseTransferEncoding(std::string_view body, std::string_view field) {
  TokenProcessor p(body, field);
  const std::string token = p.expectToken();  // whatever follows is ignored
  const std::string lower = text::asciiLowercased(token);
  using K = ContentTransferEncoding::Kind;
  if (lower == "7bit") return {K::sevenBit, ""};
  if (lower == "8bit") return {K::eightBit, ""};
  if (lower == "binary") return {K::binary, ""};
  if (lower == "quoted-printable") return {K::quotedPrintable, ""};
  if (lower == "base64") return {K::base64, ""};
  return {K::other, token};
}

ContentType parseContentType(std::string_view body, std::string_view field) {
  TokenProcessor p(body, field);
  ContentType result;
  result.type = p.expectToken();
  p.expectSpecial(Special::slash);
  result.subtype = p.expectToken();
  result.parameters = parseParameters(p, field);
  return result;
}

ContentDisposition parseContentDisposition(std::string_view body, std::string_view field) {
  TokenProcessor p(body, field);
  ContentDisposition result;
  result.type = p.expectToken();
  result.parameters = parseParameters(p, field);
  return result;
}

// ---- finding the fields ------------------------------------------------------------------------

// Horizontal blanks: tab and the space separators.
bool isBlank(char32_t c) {
  return c == '\t' || c == ' ' || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) ||
         c == 0x202F || c == 0x205F || c == 0x3000;
}
// What ends a line for ".": LF, VT, FF, CR, NEL, LS, PS.
bool isLineTerminator(char32_t c) {
  return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}
// White space as "\s" knows it.
bool isSpace(char32_t c) {
  return c == 0x09 || isLineTerminator(c) || c == 0x1C || c == 0x1D || c == 0x1E || c == 0x1F ||
         isBlank(c);
}

// Every line end followed by blanks ("\r?\n[[:blank:]]+") becomes one blank. Text between line
// feeds is copied in runs.
std::string unfold(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const void* hit = std::memchr(text.data() + i, '\n', text.size() - i);
    if (!hit) break;
    const size_t lf = static_cast<const char*>(hit) - text.data();
    size_t j = lf + 1;
    while (j < text.size()) {
      char32_t cp;
      const size_t len = text::codePointAt(text, j, cp);
      if (!isBlank(cp)) break;
      j += len;
    }
    if (j == lf + 1) {  // a line end that stays
      out.append(text.substr(i, j - i));
    } else {
      const size_t runEnd = lf > i && text[lf - 1] == '\r' ? lf - 1 : lf;
      out.append(text.substr(i, runEnd - i));
      out += ' ';
    }
    i = j;
  }
  out.append(text.substr(i));
  return out;
}

}  // namespace

MimeHeaderError::MimeHeaderError(Code code, std::string_view field)
    : Error([&] {
        std::string what = "The message's " + std::string(field) + " field could not be read: ";
        switch (code) {
          case Code::invalidFieldStructure:
            return std::string("The message's header fields could not be told apart.");
          case Code::noMoreTokens:
            return what + "it ends too early.";
          case Code::invalidSpecial:
            return what + "a separator is missing or out of place.";
          case Code::invalidToken:
            return what + "a word is missing where one must stand.";
          case Code::invalidParameterValue:
            return what + "a parameter has no value.";
        }
        return what;
      }()),
      code_(code) {}

namespace {

// Calls field(name, body) for each field of `unfolded` in order: the matches of
// "(.+?):\s*(.+)", a name of at least one character up to the first colon on its line that is
// followed (after any white space, line ends included) by at least one character of a line.
// Each position is looked at a bounded number of times.
template <typename Field>
void forEachField(std::string_view t, Field field) {
  auto at = [&](size_t i, char32_t& cp) { return text::codePointAt(t, i, cp); };
  // Where the line at `i` ends. Bytes at or above 0x80 are decoded only when they might begin
  // NEL, LS or PS; every other byte of a valid or invalid sequence ends no line.
  auto lineEnd = [&](size_t i) {
    while (i < t.size()) {
      const auto b = static_cast<unsigned char>(t[i]);
      if (b >= 0x0A && b <= 0x0D) break;
      if (b == 0xC2 || b == 0xE2) {
        char32_t cp;
        const size_t len = at(i, cp);
        if (isLineTerminator(cp)) break;
        i += len;
        continue;
      }
      ++i;
    }
    return i;
  };

  size_t p = 0;
  while (p < t.size()) {
    char32_t cp;
    const size_t firstLen = at(p, cp);
    if (isLineTerminator(cp)) {
      p += firstLen;
      continue;
    }
    const size_t end = lineEnd(p);
    bool matched = false;
    // A colon byte is the colon character in any UTF-8, so the first one is found by bytes.
    const size_t searchFrom = p + firstLen;
    const void* hit =
        searchFrom < end ? std::memchr(t.data() + searchFrom, ':', end - searchFrom) : nullptr;
    if (hit) {
      const size_t c = static_cast<const char*>(hit) - t.data();
      // The body: after the white space run, the rest of that line; if the text ends in the
      // run, its last character that is not a line end.
      size_t k = c + 1;
      size_t lastOrdinary = std::string_view::npos;
      while (k < t.size()) {
        char32_t w;
        const size_t wl = at(k, w);
        if (!isSpace(w)) break;
        if (!isLineTerminator(w)) lastOrdinary = k;
        k += wl;
      }
      size_t bodyStart = std::string_view::npos;
      size_t bodyEnd = 0;
      if (k < t.size()) {
        bodyStart = k;
        bodyEnd = lineEnd(k);
      } else if (lastOrdinary != std::string_view::npos) {
        bodyStart = lastOrdinary;
        bodyEnd = lineEnd(lastOrdinary);
      }
      if (bodyStart != std::string_view::npos) {  // else only line ends to the end of the text
        field(t.substr(p, c - p), t.substr(bodyStart, bodyEnd - bodyStart));
        p = bodyEnd;
        matched = true;
      }
    }
    if (!matched) p = end;
  }
}

// Which field of several gives one of the three MIME fields: of the fields whose names equal
// the wanted one in any letter case, the name first in byte order, and of the fields with that
// very name the last. Fed every field in order; holds views of the unfolded text.
class FieldChoice {
 public:
  explicit FieldChoice(std::string_view wanted) : wanted_(wanted) {}
  void offer(std::string_view name, std::string_view body) {
    if (!text::equalsIgnoringCase(name, wanted_)) return;
    if (!chosen_ || name <= name_) {
      chosen_ = true;
      name_ = name;
      body_ = body;
    }
  }
  bool chosen() const { return chosen_; }
  std::string_view name() const { return name_; }
  std::string_view body() const { return body_; }

 private:
  std::string_view wanted_;
  bool chosen_ = false;
  std::string_view name_, body_;
};

constexpr std::string_view kTransferEncodingName = "Content-Transfer-Encoding";
constexpr std::string_view kContentTypeName = "Content-Type";
constexpr std::string_view kDispositionName = "Content-Disposition";

// The three fields of a header as chosen by FieldChoice, over one pass of its fields.
struct MimeFieldChoices {
  FieldChoice encoding{kTransferEncodingName};
  FieldChoice type{kContentTypeName};
  FieldChoice disposition{kDispositionName};
  void offer(std::string_view name, std::string_view body) {
    encoding.offer(name, body);
    type.offer(name, body);
    disposition.offer(name, body);
  }
};

}  // namespace

std::vector<RFC822HeaderField> headerFields(std::string_view raw) {
  const std::string unfolded = unfold(raw);
  std::vector<RFC822HeaderField> fields;
  forEachField(unfolded, [&](std::string_view name, std::string_view body) {
    fields.push_back({std::string(name), std::string(body)});
  });
  return fields;
}

MimeHeader MimeHeader::parse(std::string_view text) {
  MimeHeader header;
  header.other = headerFields(text);
  MimeFieldChoices choices;
  for (const RFC822HeaderField& f : header.other) choices.offer(f.name, f.body);
  // The choices are views of the list's entries: all three are copied before any leaves it.
  auto copied = [](const FieldChoice& choice) -> std::optional<RFC822HeaderField> {
    if (!choice.chosen()) return std::nullopt;
    return RFC822HeaderField{std::string(choice.name()), std::string(choice.body())};
  };
  const auto encoding = copied(choices.encoding);
  const auto type = copied(choices.type);
  const auto disposition = copied(choices.disposition);
  // A chosen field leaves the list: its first entry with that name and body.
  for (const auto* field : {&encoding, &type, &disposition}) {
    if (!*field) continue;
    auto it = std::find(header.other.begin(), header.other.end(), **field);
    if (it != header.other.end()) header.other.erase(it);
  }
  if (encoding)
    header.contentTransferEncoding = parseTransferEncoding(encoding->body, kTransferEncodingName);
  if (type) header.contentType = parseContentType(type->body, kContentTypeName);
  if (disposition)
    header.contentDisposition = parseContentDisposition(disposition->body, kDispositionName);
  return header;
}

MimeStructure MimeStructure::parse(std::string_view text) {
  const std::string unfolded = unfold(text);
  MimeFieldChoices choices;
  forEachField(unfolded, [&](std::string_view name, std::string_view body) {
    choices.offer(name, body);
  });
  MimeStructure structure;
  if (choices.encoding.chosen())
    structure.encoding = parseTransferEncoding(choices.encoding.body(), kTransferEncodingName).kind;
  if (choices.type.chosen()) {
    // Read as parseContentType reads it, keeping only the boundary: its last value, under the
    // parameter name "boundary" as written.
    TokenProcessor p(choices.type.body(), kContentTypeName);
    const std::string type = p.expectToken();
    p.expectSpecial(Special::slash);
    const std::string subtype = p.expectToken();
    std::optional<std::string> boundary;
    readParameters(p, kContentTypeName, [&](const std::string& name, std::string& value) {
      if (name == "boundary") boundary = std::move(value);
    });
    if (boundary && text::asciiLowercased(type) == "multipart") {
      structure.multipart = true;
      structure.alternative = text::asciiLowercased(subtype) == "alternative";
      structure.boundary = std::move(*boundary);
    }
  }
  if (choices.disposition.chosen()) {
    // Checked, as a malformed one fails the header, and not kept.
    TokenProcessor p(choices.disposition.body(), kDispositionName);
    (void)p.expectToken();
    readParameters(p, kDispositionName, [](const std::string&, const std::string&) {});
  }
  return structure;
}

std::string ContentTransferEncoding::name() const {
  using K = ContentTransferEncoding::Kind;
  switch (kind) {
    case K::sevenBit:
      return "7bit";
    case K::eightBit:
      return "8bit";
    case K::binary:
      return "binary";
    case K::quotedPrintable:
      return "quoted-printable";
    case K::base64:
      return "base64";
    case K::other:
      return other;
  }
  return other;
}

MimeType ContentType::mimeType() const {
  const std::string lower = text::asciiLowercased(type);
  using K = MimeType::Kind;
  MimeType result;
  if (lower == "text")
    result.kind = K::text;
  else if (lower == "image")
    result.kind = K::image;
  else if (lower == "audio")
    result.kind = K::audio;
  else if (lower == "video")
    result.kind = K::video;
  else if (lower == "application")
    result.kind = K::application;
  else if (lower == "message")
    result.kind = K::message;
  else if (lower == "multipart" && parameters.count("boundary")) {
    result.kind = K::multipart;
    const std::string sub = text::asciiLowercased(subtype);
    result.subtype = sub == "mixed"         ? MultipartSubtype::mixed
                     : sub == "alternative" ? MultipartSubtype::alternative
                                            : MultipartSubtype::other;
    if (result.subtype == MultipartSubtype::other) result.subtypeText = subtype;
    result.boundary = parameters.at("boundary");
  } else {
    result.kind = K::other;
    result.other = type;
  }
  return result;
}

}  // namespace lumora
