#include "lumora/mailcontent/reading/HeaderText.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <map>

#include "lumora/mailcontent/reading/BodyText.h"
#include "lumora/platform/Text.h"

namespace lumora::reading {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }
bool isFieldNameCharacter(char c) { return c > ' ' && c < 127 && c != ':'; }

// The longest encoded word looked for: far more than the 75 characters a sender may write,
// and short enough that a text full of "=?" that end nothing is read in linear time.
constexpr size_t kLongestEncodedWord = 1024;


// The payload of a "Q" encoded word: "_" a blank, "=XX" a byte, anything else itself.
std::string qDecoded(std::string_view payload) {
  std::string out;
  out.reserve(payload.size());
  for (size_t i = 0; i < payload.size(); ++i) {
    const char c = payload[i];
    if (c == '_') {
      out.push_back(' ');
    } else if (c == '=' && i + 2 < payload.size() && text::hexDigitValue(payload[i + 1]) >= 0 &&
               text::hexDigitValue(payload[i + 2]) >= 0) {
      out.push_back(static_cast<char>(text::hexDigitValue(payload[i + 1]) * 16 + text::hexDigitValue(payload[i + 2])));
      i += 2;
    } else {
      out.push_back(c);
    }
  }
  return out;
}

struct EncodedWord {
  std::string_view charset;
  std::string bytes;
  size_t end = 0;  // behind its "?="
};

// The encoded word "=?charset?B|Q?payload?=" at `at`, if one stands there.
std::optional<EncodedWord> encodedWordAt(std::string_view text, size_t at) {
  const size_t limit = std::min(text.size(), at + kLongestEncodedWord);
  size_t i = at + 2;
  const size_t charsetBegin = i;
  while (i < limit && text[i] != '?' && !isBlank(text[i])) ++i;
  if (i >= limit || text[i] != '?' || i == charsetBegin) return std::nullopt;
  std::string_view charset = text.substr(charsetBegin, i - charsetBegin);
  // RFC 2231 lets a language follow the charset: "utf-8*en".
  if (const size_t star = charset.find('*'); star != std::string_view::npos)
    charset = charset.substr(0, star);
  ++i;
  if (i + 1 >= limit || text[i + 1] != '?') return std::nullopt;
  const char kind = text[i];
  if (kind != 'B' && kind != 'b' && kind != 'Q' && kind != 'q') return std::nullopt;
  i += 2;
  const size_t payloadBegin = i;
  while (i < limit && text[i] != '?' && text[i] != '\r' && text[i] != '\n') ++i;
  if (i + 1 >= text.size() || text[i] != '?' || text[i + 1] != '=') return std::nullopt;
  const std::string_view payload = text.substr(payloadBegin, i - payloadBegin);
  EncodedWord word;
  word.charset = charset;
  word.bytes = kind == 'B' || kind == 'b'
                   ? transferDecoded(payload, TransferEncoding::base64)
                   : qDecoded(payload);
  word.end = i + 2;
  return word;
}

bool allBlank(std::string_view s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return isBlank(c) || c == '\r' || c == '\n'; });
}

// Removes "(comments)" standing outside quoted strings, nested ones included.
std::string withoutComments(std::string_view s, std::string* firstComment = nullptr) {
  std::string out;
  out.reserve(s.size());
  int depth = 0;
  bool quoted = false;
  bool commentTaken = false;
  std::string comment;
  for (size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (depth > 0) {
      if (c == '\\' && i + 1 < s.size()) {
        comment.push_back(s[++i]);
      } else if (c == '(') {
        ++depth;
        comment.push_back(c);
      } else if (c == ')') {
        if (--depth == 0) {
          if (firstComment && !commentTaken) *firstComment = comment;
          commentTaken = true;
          comment.clear();
          out.push_back(' ');
        } else {
          comment.push_back(c);
        }
      } else {
        comment.push_back(c);
      }
      continue;
    }
    if (quoted) {
      if (c == '\\' && i + 1 < s.size()) {
        out.push_back(c);
        out.push_back(s[++i]);
        continue;
      }
      if (c == '"') quoted = false;
      out.push_back(c);
      continue;
    }
    if (c == '"') quoted = true;
    if (c == '(') {
      depth = 1;
      continue;
    }
    out.push_back(c);
  }
  return out;
}

// Quoted strings unquoted and their escapes undone; runs of blanks made one blank; trimmed.
std::string plainPhrase(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  bool quoted = false;
  bool blank = false;
  for (size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (c == '"') {
      quoted = !quoted;
      continue;
    }
    if (quoted && c == '\\' && i + 1 < s.size()) c = s[++i];
    if (isBlank(c) || c == '\r' || c == '\n') {
      blank = true;
      continue;
    }
    if (blank && !out.empty()) out.push_back(' ');
    blank = false;
    out.push_back(c);
  }
  return out;
}

std::string trimmedCopy(std::string_view s) { return std::string(text::trimmed(s)); }

std::string percentDecoded(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '%' && i + 2 < s.size() && text::hexDigitValue(s[i + 1]) >= 0 && text::hexDigitValue(s[i + 2]) >= 0) {
      out.push_back(static_cast<char>(text::hexDigitValue(s[i + 1]) * 16 + text::hexDigitValue(s[i + 2])));
      i += 2;
    } else {
      out.push_back(s[i]);
    }
  }
  return out;
}

// A parameter's value as a reader shows it: encoded words decoded (mail programs put them in
// file names though they do not belong there), other bytes read as header text.
std::string parameterText(std::string_view value) {
  if (value.find("=?") != std::string_view::npos) return decodedWords(value);
  return headerBytesAsText(value);
}

}  // namespace

namespace {

// Calls field(name, body) for each line that begins a field and extend(end) for each
// continuation of such a line, `end` being where the field's body now ends.
template <typename Field, typename Extend>
void forEachFieldLine(std::string_view header, Field field, Extend extend) {
  bool inField = false;  // the last line read began a field that a continuation may extend
  size_t start = 0;
  while (start < header.size()) {
    const void* hit = std::memchr(header.data() + start, '\n', header.size() - start);
    const size_t end = hit ? static_cast<size_t>(static_cast<const char*>(hit) - header.data()) + 1
                           : header.size();
    std::string_view line = header.substr(start, end - start);
    if (isBlank(line.front())) {
      if (inField) extend(header.data() + end);
    } else {
      size_t i = 0;
      while (i < line.size() && isFieldNameCharacter(line[i])) ++i;
      size_t colon = i;
      while (colon < line.size() && isBlank(line[colon])) ++colon;  // "Subject :" happens
      inField = i > 0 && colon < line.size() && line[colon] == ':';
      if (inField) field(line.substr(0, i), header.substr(start + colon + 1, end - start - colon - 1));
    }
    start = end;
  }
}

void extendTo(HeaderField& field, const char* end) {
  field.body = std::string_view(field.body.data(), static_cast<size_t>(end - field.body.data()));
}

}  // namespace

std::vector<HeaderField> headerFields(std::string_view header) {
  std::vector<HeaderField> fields;
  forEachFieldLine(
      header,
      [&](std::string_view name, std::string_view body) { fields.push_back({name, body}); },
      [&](const char* end) { extendTo(fields.back(), end); });
  return fields;
}

const HeaderField* findField(const std::vector<HeaderField>& fields, std::string_view name) {
  for (const HeaderField& field : fields)
    if (text::equalsIgnoringCase(field.name, name)) return &field;
  return nullptr;
}

HeaderLookup::HeaderLookup(std::string_view header, std::initializer_list<std::string_view> names) {
  for (const std::string_view name : names) {
    if (count_ == kMostNames) break;
    names_[count_++] = name;
  }
  size_t extending = count_;  // the field that a continuation extends; none
  forEachFieldLine(
      header,
      [&](std::string_view name, std::string_view body) {
        extending = count_;
        for (size_t i = 0; i < count_; ++i) {
          if (fields_[i].name.empty() && text::equalsIgnoringCase(name, names_[i])) {
            fields_[i] = {name, body};
            extending = i;
            break;
          }
        }
      },
      [&](const char* end) {
        if (extending < count_) extendTo(fields_[extending], end);
      });
}

const HeaderField* HeaderLookup::find(std::string_view name) const {
  for (size_t i = 0; i < count_; ++i)
    if (names_[i] == name) return fields_[i].name.empty() ? nullptr : &fields_[i];
  return nullptr;
}

std::string unfolded(std::string_view body) {
  std::string out;
  out.reserve(body.size());
  for (const char c : body)
    if (c != '\r' && c != '\n') out.push_back(c);
  return trimmedCopy(out);
}

std::string headerBytesAsText(std::string_view bytes) { return decodedText(bytes, ""); }

std::string decodedWords(std::string_view text) {
  std::string out;
  std::string pending;  // the bytes of adjacent encoded words in one charset, not yet converted
  std::string pendingCharset;
  const auto flush = [&] {
    if (pending.empty()) return;
    out += decodedText(pending, pendingCharset);
    pending.clear();
  };
  bool afterWord = false;
  size_t i = 0;
  size_t runStart = 0;  // the text since the last encoded word
  while (i < text.size()) {
    const void* hit = i + 1 < text.size() ? std::memchr(text.data() + i, '=', text.size() - i - 1)
                                          : nullptr;
    if (!hit) break;
    const size_t at = static_cast<size_t>(static_cast<const char*>(hit) - text.data());
    if (text[at + 1] != '?') {
      i = at + 1;
      continue;
    }
    std::optional<EncodedWord> word = encodedWordAt(text, at);
    if (!word) {
      i = at + 1;
      continue;
    }
    const std::string_view between = text.substr(runStart, at - runStart);
    // Blanks between two encoded words are not text; anything else is.
    if (!(afterWord && allBlank(between))) {
      flush();
      out += headerBytesAsText(between);
    }
    if (!text::equalsIgnoringCase(pendingCharset, word->charset)) flush();
    pendingCharset.assign(word->charset);
    pending += word->bytes;
    afterWord = true;
    i = runStart = word->end;
  }
  flush();
  out += headerBytesAsText(text.substr(std::min(runStart, text.size())));
  return out;
}

std::optional<std::string> StructuredValue::parameter(std::string_view name) const {
  for (const auto& [key, value] : parameters)
    if (key == name) return value;
  return std::nullopt;
}

StructuredValue parseStructuredValue(std::string_view body,
                                     std::initializer_list<std::string_view> wanted) {
  const auto isWanted = [&](std::string_view base) {
    return wanted.size() == 0 || std::find(wanted.begin(), wanted.end(), base) != wanted.end();
  };
  const std::string text = unfolded(body);
  StructuredValue result;
  size_t i = 0;
  const size_t n = text.size();
  // The leading value, up to the first ";" outside a quoted string.
  {
    bool quoted = false;
    while (i < n && (quoted || text[i] != ';')) {
      if (text[i] == '"') quoted = !quoted;
      ++i;
    }
    // A media type is ASCII by rule; what a sender writes instead is shown, never trusted.
    result.value =
        headerBytesAsText(text::asciiLowercased(plainPhrase(withoutComments(text.substr(0, i)))));
    std::erase(result.value, ' ');
  }
  // Parameters as written, then RFC 2231's sections joined.
  struct Section {
    bool encoded = false;
    std::string value;
  };
  std::map<std::string, std::map<int, Section>> sectioned;
  std::vector<std::pair<std::string, std::string>> plain;
  while (i < n) {
    ++i;  // the ";"
    while (i < n && isBlank(text[i])) ++i;
    const size_t nameBegin = i;
    while (i < n && text[i] != '=' && text[i] != ';') ++i;
    std::string name = text::asciiLowercased(text::trimmed(text.substr(nameBegin, i - nameBegin)));
    std::string value;
    if (i < n && text[i] == '=') {
      ++i;
      while (i < n && isBlank(text[i])) ++i;
      if (i < n && text[i] == '"') {
        ++i;
        while (i < n && text[i] != '"') {
          if (text[i] == '\\' && i + 1 < n) ++i;
          value.push_back(text[i++]);
        }
        if (i < n) ++i;  // the closing quote
        while (i < n && text[i] != ';') ++i;
      } else {
        const size_t valueBegin = i;
        while (i < n && text[i] != ';') ++i;
        value = trimmedCopy(text.substr(valueBegin, i - valueBegin));
      }
    }
    if (name.empty()) continue;
    const size_t star = name.find('*');
    if (!isWanted(std::string_view(name).substr(0, star))) continue;
    if (star == std::string::npos) {
      plain.emplace_back(std::move(name), std::move(value));
      continue;
    }
    // "name*" (one encoded section), "name*0", "name*1*", ...
    const std::string base = name.substr(0, star);
    std::string_view rest = std::string_view(name).substr(star + 1);
    Section section;
    // "name*" alone is one encoded section; "name*0*" an encoded one, "name*0" a plain one.
    section.encoded = rest.empty() || rest.back() == '*';
    if (!rest.empty() && rest.back() == '*') rest.remove_suffix(1);
    int number = 0;
    if (!rest.empty()) {
      auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
      if (error != std::errc() || end != rest.data() + rest.size() || number < 0) continue;
    }
    section.value = std::move(value);
    auto& sections = sectioned[base];
    if (sections.size() < 1000) sections.emplace(number, std::move(section));
  }
  for (auto& [name, value] : plain) {
    if (sectioned.count(name)) continue;  // the RFC 2231 form stands
    result.parameters.emplace_back(std::move(name), parameterText(value));
  }
  for (auto& [name, sections] : sectioned) {
    std::string charset;
    std::string bytes;
    bool first = true;
    for (auto& [number, section] : sections) {
      std::string_view value = section.value;
      if (section.encoded && first) {
        // "charset'language'value"
        const size_t quote = value.find('\'');
        const size_t second = quote == std::string_view::npos ? quote : value.find('\'', quote + 1);
        if (second != std::string_view::npos) {
          charset = std::string(value.substr(0, quote));
          value = value.substr(second + 1);
        }
      }
      bytes += section.encoded ? percentDecoded(value) : std::string(value);
      first = false;
    }
    result.parameters.emplace_back(name, charset.empty() ? parameterText(bytes)
                                                         : decodedText(bytes, charset));
  }
  return result;
}

Mailbox firstMailbox(std::string_view body) {
  const std::string text = unfolded(body);
  // The first mailbox ends at the first "," outside quotes, comments and angle brackets; a
  // group's name ("Team: a@b, c@d;") is passed over.
  size_t begin = 0;
  size_t end = text.size();
  const size_t firstAt = text.find('@');
  {
    bool quoted = false;
    int comment = 0;
    bool angle = false;
    for (size_t i = 0; i < text.size(); ++i) {
      const char c = text[i];
      if (quoted) {
        if (c == '\\') ++i;
        else if (c == '"') quoted = false;
        continue;
      }
      if (comment > 0) {
        if (c == '\\') ++i;
        else if (c == '(') ++comment;
        else if (c == ')') --comment;
        continue;
      }
      if (c == '"') quoted = true;
      else if (c == '(') comment = 1;
      else if (c == '<') angle = true;
      else if (c == '>') angle = false;
      else if (!angle && c == ':' && firstAt > i) begin = i + 1;
      else if (!angle && (c == ',' || c == ';')) {
        if (!text::trimmed(std::string_view(text).substr(begin, i - begin)).empty()) {
          end = i;
          break;
        }
        begin = i + 1;
      }
    }
  }
  const std::string_view mailbox = std::string_view(text).substr(begin, end - begin);
  Mailbox result;
  std::string comment;
  const std::string cleaned = withoutComments(mailbox, &comment);
  // "<" outside a quoted string opens the address.
  size_t open = std::string::npos;
  {
    bool quoted = false;
    for (size_t i = 0; i < cleaned.size(); ++i) {
      if (cleaned[i] == '\\' && quoted) {
        ++i;
      } else if (cleaned[i] == '"') {
        quoted = !quoted;
      } else if (!quoted && cleaned[i] == '<') {
        open = i;
        break;
      }
    }
  }
  if (open != std::string::npos) {
    const size_t close = cleaned.find('>', open);
    std::string address = cleaned.substr(open + 1, close == std::string::npos ? std::string::npos
                                                                               : close - open - 1);
    std::erase_if(address, [](char c) { return isBlank(c); });
    result.address = headerBytesAsText(address);
    result.name = decodedWords(plainPhrase(std::string_view(cleaned).substr(0, open)));
  } else {
    std::string address = plainPhrase(cleaned);
    std::erase_if(address, [](char c) { return isBlank(c); });
    result.address = headerBytesAsText(address);
    result.name = decodedWords(plainPhrase(comment));
  }
  result.name = std::string(text::trimmed(result.name));
  // A name that only repeats the address says nothing.
  if (result.name == result.address) result.name.clear();
  return result;
}

}  // namespace lumora::reading
