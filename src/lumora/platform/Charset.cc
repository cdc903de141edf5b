#include "lumora/platform/Charset.h"

#include <iconv.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "lumora/platform/Text.h"

namespace lumora::charset {
namespace {

// Registered names the C library does not know by themselves, with the converter that mail
// programs mean by them.
constexpr std::array<std::pair<std::string_view, std::string_view>, 10> kAliases{{
    {"GB2312", "GBK"},  // senders that say GB2312 write GBK
    {"csGB2312", "GBK"},
    {"EUC-KR", "CP949"},
    {"ks_c_5601-1987", "CP949"},
    {"ks_c_5601-1989", "CP949"},
    {"csKSC56011987", "CP949"},
    {"ISO-8859-6-I", "ISO-8859-6"},
    {"ISO-8859-6-E", "ISO-8859-6"},
    {"ISO-8859-8-I", "ISO-8859-8"},
    {"ISO-8859-8-E", "ISO-8859-8"},
}};

// A registered name is at most 40 characters of letters, digits and a few marks. Anything else
// is refused before it reaches iconv, which would read "//" suffixes as conversion options.
bool looksLikeCharsetName(std::string_view name) {
  if (name.empty() || name.size() > 40) return false;
  for (const char c : name) {
    const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    c == '-' || c == '_' || c == '.' || c == ':' || c == '(' || c == ')' ||
                    c == '+';
    if (!ok) return false;
  }
  return true;
}

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

class Converter {
 public:
  explicit Converter(const std::string& from) : handle_(iconv_open("UTF-8", from.c_str())) {}
  ~Converter() {
    if (valid()) iconv_close(handle_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  bool valid() const { return handle_ != reinterpret_cast<iconv_t>(-1); }

  // False when the input holds a sequence that is invalid or cut off at the end, unless
  // `replace`: then each such sequence gives U+FFFD, one byte at a time, and the conversion
  // goes on behind it.
  bool convert(std::string_view bytes, std::string& out, bool replace = false) {
    out.resize(bytes.size() * 2 + 16);
    char* in = const_cast<char*>(bytes.data());  // iconv's signature; the input is not written
    size_t inLeft = bytes.size();
    size_t written = 0;
    bool flushing = false;
    while (true) {
      char* outPtr = out.data() + written;
      size_t outLeft = out.size() - written;
      // After the input, one call with none flushes a stateful converter's shift sequence.
      const size_t rc = flushing ? iconv(handle_, nullptr, nullptr, &outPtr, &outLeft)
                                 : iconv(handle_, &in, &inLeft, &outPtr, &outLeft);
      written = out.size() - outLeft;
      if (rc == static_cast<size_t>(-1)) {
        if (errno == E2BIG || (replace && outLeft < kReplacement.size())) {
          out.resize(out.size() * 2);
          continue;
        }
        if (!replace || flushing) return false;  // EILSEQ, or EINVAL for a sequence cut off
        std::memcpy(out.data() + written, kReplacement.data(), kReplacement.size());
        written += kReplacement.size();
        if (errno == EINVAL) {  // cut off at the end: nothing follows it
          inLeft = 0;
        } else {
          ++in;
          --inLeft;
        }
        continue;
      }
      if (flushing) break;
      flushing = true;
    }
    out.resize(written);
    return true;
  }

 private:
  iconv_t handle_;
};

// The name iconv knows the character set `name` by; nullopt for a name that cannot be one.
std::optional<std::string> iconvNameOf(std::string_view name) {
  if (!looksLikeCharsetName(name)) return std::nullopt;
  std::string iconvName(name);
  for (const auto& [alias, target] : kAliases) {
    if (text::equalsIgnoringCase(alias, name)) iconvName = target;
  }
  return iconvName;
}

bool isUtf8Name(std::string_view name) {
  return text::equalsIgnoringCase(name, "UTF-8") || text::equalsIgnoringCase(name, "UTF8");
}

}  // namespace

Conversion toUtf8(std::string_view bytes, std::string_view name) {
  const std::optional<std::string> known = iconvNameOf(name);
  if (!known) return {Outcome::unknownCharset, {}};
  const std::string& iconvName = *known;
  if (isUtf8Name(iconvName)) {
    if (!text::isValidUtf8(bytes)) return {Outcome::invalidBytes, {}};
    return {Outcome::converted, std::string(bytes)};
  }
  Converter converter(iconvName);
  if (!converter.valid()) return {Outcome::unknownCharset, {}};
  Conversion result{Outcome::converted, {}};
  if (!converter.convert(bytes, result.text)) return {Outcome::invalidBytes, {}};
  // The C library's own decoders of UTF-8 and UCS-4 pass on code points past U+10FFFF as the
  // old five- and six-byte forms, and it reaches them by more names than the two above: it
  // drops marks from a name ("utf8+", "(utf-8)") and knows aliases ("ISO-IR-193"). What any
  // converter gives back is checked, so none of them can hand on text that is not UTF-8.
  if (!text::isValidUtf8(result.text)) return {Outcome::invalidBytes, {}};
  return result;
}

std::optional<std::string> toUtf8Replacing(std::string_view bytes, std::string_view name) {
  const std::optional<std::string> iconvName = iconvNameOf(name);
  if (!iconvName) return std::nullopt;
  if (isUtf8Name(*iconvName)) return text::repairedUtf8(bytes);
  Converter converter(*iconvName);
  if (!converter.valid()) return std::nullopt;
  std::string out;
  converter.convert(bytes, out, true);
  // As above: what a converter gives back may still hold code points past U+10FFFF.
  if (!text::isValidUtf8(out)) return text::repairedUtf8(out);
  return out;
}

}  // namespace lumora::charset
