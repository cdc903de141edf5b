#include "lumora/mailcontent/mime/MimeBody.h"

#include <cstring>

#include "lumora/platform/Base64.h"
#include "lumora/platform/Charset.h"
#include "lumora/platform/Localization.h"
#include "lumora/platform/Text.h"

namespace lumora {
namespace {

// Names from the message go into error texts; a hostile one must not make a page of them.
std::string quotedName(std::string_view name) {
  constexpr size_t kLimit = 60;
  if (name.size() <= kLimit) return "“" + std::string(name) + "”";
  size_t cut = kLimit;
  while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
  return "“" + std::string(name.substr(0, cut)) + "…”";
}


// Line ends ("\r?\n") taken out; a carriage return on its own stays.
std::string withoutLineEnds(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const void* hit = std::memchr(text.data() + i, '\n', text.size() - i);
    const size_t lf = hit ? static_cast<const char*>(hit) - text.data() : text.size();
    size_t keep = lf;
    if (hit && lf > i && text[lf - 1] == '\r') keep = lf - 1;
    out.append(text.substr(i, keep - i));
    i = lf + 1;
  }
  return out;
}

}  // namespace

MimeContentDecoderError::MimeContentDecoderError(Code code, std::string_view encoding)
    : Error(withValues(
          localized(code == Code::decodingFailed
                        ? "A part of the message could not be decoded from its transfer "
                          "encoding {encoding}."
                        : "A part of the message uses the transfer encoding {encoding}, which "
                          "Lumora cannot decode."),
          {{"encoding", quotedName(encoding)}})),
      code_(code) {}

QuotedPrintableDecoderError::QuotedPrintableDecoderError()
    : Error(localized("A part of the message is not valid quoted-printable text.")) {}

namespace {

std::string charsetFailure(std::optional<std::string_view> charsetName, bool known) {
  if (!charsetName) return localized("A part of the message is not valid UTF-8 text.");
  return withValues(
      localized(known ? "A part of the message is not valid text in the character set {charset}."
                      : "A part of the message uses the character set {charset}, which Lumora "
                        "does not know."),
      {{"charset", quotedName(*charsetName)}});
}

}  // namespace

MimeBodyError::MimeBodyError(std::optional<std::string_view> charsetName, bool known)
    : Error(charsetFailure(charsetName, known)) {}

std::string quotedPrintableDecoded(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  enum class State { plain, afterEqualsSign, firstDigit } state = State::plain;
  unsigned char first = 0;
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (state) {
      case State::plain:
        if (c == '=')
          state = State::afterEqualsSign;
        else
          out += ch;
        break;
      case State::afterEqualsSign:
        if (c == '\r') break;  // "=\r" waits for what follows, whatever it is
        if (c == '\n') {
          state = State::plain;  // soft line break
        } else {
          first = c;
          state = State::firstDigit;
        }
        break;
      case State::firstDigit: {
        const int high = text::hexDigitValue(first), low = text::hexDigitValue(c);
        if (high < 0 || low < 0) throw QuotedPrintableDecoderError();
        out += static_cast<char>(high * 16 + low);
        state = State::plain;
        break;
      }
    }
  }
  return out;  // a pending "=" or "=X" at the very end is dropped
}

MimeBody::MimeBody(std::string raw, std::optional<ContentTransferEncoding> encoding,
                   std::optional<size_t> offset)
    : raw_(std::move(raw)), encoding_(encoding.value_or(ContentTransferEncoding{})), offset_(offset) {}

std::string MimeBody::decodedContentData() const {
  using K = ContentTransferEncoding::Kind;
  switch (encoding_.kind) {
    case K::sevenBit:
    case K::eightBit:
    case K::binary:
      for (const char c : raw_) {
        if (static_cast<unsigned char>(c) >= 0x80)
          throw MimeContentDecoderError(MimeContentDecoderError::Code::decodingFailed,
                                        encoding_.name());
      }
      return raw_;
    case K::quotedPrintable:
      return quotedPrintableDecoded(raw_);
    case K::base64:
      if (auto bytes = base64::decode(withoutLineEnds(raw_))) return std::move(*bytes);
      throw MimeContentDecoderError(MimeContentDecoderError::Code::decodingFailed, "base64");
    case K::other:
      break;
  }
  throw MimeContentDecoderError(MimeContentDecoderError::Code::unsupportedEncoding,
                                encoding_.name());
}

std::string MimeBody::decodedContentString(std::optional<std::string_view> charsetName) const {
  std::string bytes = decodedContentData();
  if (!charsetName) {
    if (!text::isValidUtf8(bytes)) throw MimeBodyError(std::nullopt, true);
    return bytes;
  }
  charset::Conversion conversion = charset::toUtf8(bytes, *charsetName);
  switch (conversion.outcome) {
    case charset::Outcome::converted:
      return std::move(conversion.text);
    case charset::Outcome::unknownCharset:
      throw MimeBodyError(*charsetName, false);
    case charset::Outcome::invalidBytes:
      break;
  }
  throw MimeBodyError(*charsetName, true);
}

}  // namespace lumora
