// Decoding a body: the transfer encodings, then the character set.
#include <gtest/gtest.h>

#include "lumora/mailcontent/mime/MimeBody.h"
#include "lumora/platform/Base64.h"

namespace lumora {
namespace {

using K = ContentTransferEncoding::Kind;

TEST(QuotedPrintable, Decoding) {
  struct Case {
    const char* name;
    std::string text;
    std::optional<std::string> bytes;  // none: invalidQuotedPrintableString
  };
  const Case cases[] = {
      {"an escape", "a=3Db", "a=b"},
      {"lower-case digits, two bytes of one letter", "=c3=a4", "\xC3\xA4"},
      {"soft line break", "a=\nb", "ab"},
      {"soft line break with CRLF", "a=\r\nb", "ab"},
      {"a carriage return behind = is dropped whatever follows", "a=\rb3Dc", "a\xB3"
                                                                           "Dc"},
      {"hard line ends are copied", "a\r\nb\n", "a\r\nb\n"},
      {"blanks before a line end stay", "a  \nb", "a  \nb"},
      {"bytes outside printable ASCII pass", "\xC3\xA4\t~", "\xC3\xA4\t~"},
      {"a pending = at the end is dropped", "a=", "a"},
      {"a pending =X at the end is dropped", "a=4", "a"},
      {"empty", "", ""},
      {"two characters that are no digits", "=ZZ", std::nullopt},
      {"one digit and one not", "=4G", std::nullopt},
      {"= followed by a blank", "a= \nb", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.bytes) {
      EXPECT_EQ(quotedPrintableDecoded(c.text), *c.bytes);
    } else {
      EXPECT_THROW(quotedPrintableDecoded(c.text), QuotedPrintableDecoderError);
    }
  }
}

TEST(Base64, StrictDecoding) {
  struct Case {
    const char* name;
    std::string text;
    std::optional<std::string> bytes;
  };
  const Case cases[] = {
      {"empty", "", ""},
      {"no padding needed", "YWJj", "abc"},
      {"one pad", "YWI=", "ab"},
      {"two pads", "YQ==", "a"},
      {"all alphabet", "+/+/", "\xFB\xFF\xBF"},
      {"missing padding", "YQ", std::nullopt},
      {"three pads", "Y===", std::nullopt},
      {"pad in the middle", "YQ==YWJj", std::nullopt},
      {"a blank", "YW Jj", std::nullopt},
      {"a line break", "YWJj\nYWJj", std::nullopt},
      {"URL alphabet", "-_-_", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(base64::decode(c.text), c.bytes);
  }
  for (const std::string bytes : {"", "a", "ab", "abc", "\x00\xFF\x10 tail"}) {
    EXPECT_EQ(base64::decode(base64::encode(bytes)), bytes);
  }
}

TEST(MimeBody, DecodedContentData) {
  struct Case {
    const char* name;
    std::string raw;
    ContentTransferEncoding encoding;
    std::optional<std::string> bytes;
    std::optional<MimeContentDecoderError::Code> failure;
  };
  using Code = MimeContentDecoderError::Code;
  const Case cases[] = {
      {"7bit stands", "plain\r\n", {K::sevenBit}, "plain\r\n", {}},
      {"7bit with 8-bit text fails", "gr\xC3\xBC\xC3\x9F", {K::sevenBit}, {}, Code::decodingFailed},
      {"8bit too", "\xC3\xA4", {K::eightBit}, {}, Code::decodingFailed},
      {"binary too", "\xFF", {K::binary}, {}, Code::decodingFailed},
      {"base64 across CRLF and LF lines", "YWJj\r\nZGVm\nZw==\r\n", {K::base64}, "abcdefg", {}},
      {"base64 with a blank fails", "YWJj ZGVm", {K::base64}, {}, Code::decodingFailed},
      {"base64 with a lone carriage return fails", "YWJj\rZGVm", {K::base64}, {},
       Code::decodingFailed},
      {"quoted-printable", "caf=C3=A9=\n!", {K::quotedPrintable}, "caf\xC3\xA9!", {}},
      {"an unknown encoding", "x", {K::other, "x-uuencode"}, {}, Code::unsupportedEncoding},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const MimeBody body(c.raw, c.encoding);
    if (c.bytes) {
      EXPECT_EQ(body.decodedContentData(), *c.bytes);
      continue;
    }
    try {
      body.decodedContentData();
      ADD_FAILURE() << "decoded";
    } catch (const MimeContentDecoderError& e) {
      EXPECT_EQ(e.code(), *c.failure);
    }
  }
  EXPECT_EQ(MimeBody("x", std::nullopt).encoding().kind, K::sevenBit);
  EXPECT_THROW(MimeBody("=ZZ", ContentTransferEncoding{K::quotedPrintable}).decodedContentData(),
               QuotedPrintableDecoderError);
}

TEST(MimeBody, CharacterSets) {
  struct Case {
    const char* name;
    std::string raw;  // base64, so that any bytes can stand in it
    std::optional<std::string> charset;
    std::optional<std::string> text;  // none: invalidCharset
  };
  const auto b64 = [](std::string bytes) { return base64::encode(bytes); };
  const Case cases[] = {
      {"UTF-8 by default", b64("gr\xC3\xBC\xC3\x9F"), {}, "gr\xC3\xBC\xC3\x9F"},
      {"Latin-1 without a name is not UTF-8", b64("gr\xFC\xDF"), {}, {}},
      {"Latin-1 named", b64("gr\xFC\xDF"), "iso-8859-1", "gr\xC3\xBC\xC3\x9F"},
      {"names in any letter case", b64("gr\xFC\xDF"), "ISO-8859-1", "gr\xC3\xBC\xC3\x9F"},
      {"a registered alias", b64("gr\xFC\xDF"), "ISO_8859-1:1987", "gr\xC3\xBC\xC3\x9F"},
      {"windows-1252 has the euro sign", b64("\x80"), "Windows-1252", "\xE2\x82\xAC"},
      {"shift_jis", b64("\x93\xFA\x96\x7B"), "Shift_JIS", "\xE6\x97\xA5\xE6\x9C\xAC"},
      {"iso-2022-jp, a stateful one", b64("\x1B$BF|K\\\x1B(B"), "ISO-2022-JP",
       "\xE6\x97\xA5\xE6\x9C\xAC"},
      {"ks_c_5601-1987 as mail programs mean it", b64("\xC7\xD1"), "ks_c_5601-1987",
       "\xED\x95\x9C"},
      {"utf-16le", b64(std::string("h\0i\0", 4)), "utf-16le", "hi"},
      {"us-ascii refuses 8-bit bytes", b64("\xE9"), "us-ascii", {}},
      {"utf-8 named refuses invalid bytes", b64("\xC3("), "UTF-8", {}},
      // Names the C library folds to its own UTF-8 and UCS-4 decoders, which let code points
      // past U+10FFFF through.
      {"utf-8 by another name converts", b64("gr\xC3\xBC"), "utf8+", "gr\xC3\xBC"},
      {"utf-8 by another name, past U+10FFFF", b64("\xF4\x92\x92\x92"), "utf8+", {}},
      {"utf-8 by an alias, a five-byte form", b64("\xF8\x88\x80\x80\x80"), "ISO-IR-193", {}},
      {"ucs-4 past U+10FFFF", b64(std::string("\0\x11\0\0", 4)), "UCS-4", {}},
      {"a sequence cut off at the end", b64("\x93"), "shift_jis", {}},
      {"an unknown name", b64("x"), "x-unknown-charset", {}},
      {"conversion options are not names", b64("\xFF"), "ascii//IGNORE", {}},
      {"an empty name", b64("x"), "", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const MimeBody body(c.raw, ContentTransferEncoding{K::base64});
    std::optional<std::string_view> name;
    if (c.charset) name = *c.charset;
    if (c.text) {
      EXPECT_EQ(body.decodedContentString(name), *c.text);
    } else {
      EXPECT_THROW(body.decodedContentString(name), MimeBodyError);
    }
  }
}

TEST(MimeBody, ErrorTextsNameWhatWentWrongWithoutFloodingTheScreen) {
  try {
    MimeBody("x", ContentTransferEncoding{K::base64}).decodedContentString("x-klingon");
    ADD_FAILURE();
  } catch (const MimeContentDecoderError& e) {
    EXPECT_STREQ(e.what(),
                 "A part of the message could not be decoded from its transfer encoding "
                 "“base64”.");
  }
  try {
    MimeBody("eA==", ContentTransferEncoding{K::base64}).decodedContentString("x-klingon");
    ADD_FAILURE();
  } catch (const MimeBodyError& e) {
    EXPECT_STREQ(e.what(),
                 "A part of the message uses the character set “x-klingon”, which Lumora does "
                 "not know.");
  }
  try {
    MimeBody("x", ContentTransferEncoding{K::other, std::string(5000, 'y')}).decodedContentData();
    ADD_FAILURE();
  } catch (const MimeContentDecoderError& e) {
    EXPECT_LT(std::string(e.what()).size(), 200u);
  }
}

}  // namespace
}  // namespace lumora
