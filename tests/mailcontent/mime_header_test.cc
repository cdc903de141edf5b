// MIME headers: field finding, the three parsed fields and their errors.
#include <gtest/gtest.h>

#include "lumora/mailcontent/mime/MimeHeader.h"

namespace lumora {
namespace {

using Code = MimeHeaderError::Code;
using Fields = std::vector<RFC822HeaderField>;

TEST(HeaderFields, UnfoldingAndFinding) {
  struct Case {
    const char* name;
    std::string text;
    Fields fields;
  };
  const Case cases[] = {
      {"plain fields",
       "From: a@example.org\r\nSubject: Hi\r\n",
       {{"From", "a@example.org"}, {"Subject", "Hi"}}},
      {"a folded field is one",
       "Subject: one\r\n\ttwo\r\n  three\n",
       {{"Subject", "one two three"}}},
      {"a line without colon is skipped", "garbage\nX: y\n", {{"X", "y"}}},
      {"the name is as written, blank included",
       "Content-Type : text/plain\n",
       {{"Content-Type ", "text/plain"}}},
      {"an empty field takes the next line",
       "X-Empty:\nContent-Type: text/plain\n",
       {{"X-Empty", "Content-Type: text/plain"}}},
      {"the first colon ends the name", "a:b:c\n", {{"a", "b:c"}}},
      {"a line starting with a colon", ":x: y\n", {{":x", "y"}}},
      {"only blanks behind the last colon", "A: b\nC:   ", {{"A", "b"}, {"C", " "}}},
      {"nothing at all behind the last colon", "A: b\nC:\n\n", {{"A", "b"}}},
      {"unicode line separator ends a body", "A: b\u2028C: d", {{"A", "b"}, {"C", "d"}}},
      {"no-break space folds too", "A: b\n\u00a0c", {{"A", "b c"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(headerFields(c.text), c.fields);
  }
}

TEST(MimeHeader, TheThreeFields) {
  const MimeHeader h = MimeHeader::parse(
      "From: a@example.org\r\n"
      "CONTENT-TYPE: TEXT/PLAIN; charset=\"utf-8\"; format=flowed;\r\n"
      "Content-Transfer-Encoding: Quoted-Printable (note)\r\n"
      "Content-Disposition: attachment; filename=\"a b.txt\"\r\n");
  ASSERT_TRUE(h.contentType);
  EXPECT_EQ(h.contentType->type, "TEXT");
  EXPECT_EQ(h.contentType->parameters,
            (HeaderParameters{{"charset", "utf-8"}, {"format", "flowed"}}));
  EXPECT_EQ(h.contentType->mimeType().kind, MimeType::Kind::text);
  EXPECT_EQ(h.contentTransferEncoding->kind, ContentTransferEncoding::Kind::quotedPrintable);
  EXPECT_EQ(h.contentDisposition->type, "attachment");
  EXPECT_EQ(h.contentDisposition->parameters.at("filename"), "a b.txt");
  EXPECT_EQ(h.other, (Fields{{"From", "a@example.org"}}));
}

TEST(MimeHeader, FieldCasesAndFailures) {
  struct Case {
    std::string header;
    std::optional<Code> failure;
    std::optional<HeaderParameters> parameters;  // of Content-Type, when it parses
  };
  const Case cases[] = {
      {"Content-Type: text/plain;", std::nullopt, HeaderParameters{}},
      {"Content-Type: text/plain; charset", Code::noMoreTokens, std::nullopt},
      {"Content-Type: text/plain; charset=", Code::invalidParameterValue, std::nullopt},
      {"Content-Type: text/plain charset=utf-8", Code::invalidSpecial, std::nullopt},
      {"Content-Type: text", Code::noMoreTokens, std::nullopt},
      {"Content-Type: text/plain (note)", Code::invalidSpecial, std::nullopt},
      {"Content-Type: multipart/mixed; boundary=a=b", Code::invalidSpecial, std::nullopt},
      {"Content-Type: multipart/mixed; boundary=\"\"", Code::invalidParameterValue, std::nullopt},
      {"Content-Type: text/plain; name=\"a\\\"b\"", Code::invalidParameterValue, std::nullopt},
      {"Content-Type: text/plain;\tcharset=utf-8", std::nullopt, HeaderParameters{}},
      {"Content-Type: text/plain; a=1; a=2; B=\"x\"", std::nullopt,
       HeaderParameters{{"a", "2"}, {"B", "x"}}},
      {"Content-Transfer-Encoding: \"base64\"", Code::invalidToken, std::nullopt},
      {"Content-Transfer-Encoding: 7bit (note)", std::nullopt, std::nullopt},
      {"Content-Type: text/plain; name==?utf-8?q?x?=", Code::invalidParameterValue, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.header);
    try {
      const MimeHeader h = MimeHeader::parse(c.header + "\r\n");
      EXPECT_FALSE(c.failure.has_value());
      if (c.parameters) {
        EXPECT_EQ(h.contentType->parameters, *c.parameters);
      }
    } catch (const MimeHeaderError& e) {
      ASSERT_TRUE(c.failure.has_value()) << e.what();
      EXPECT_EQ(e.code(), *c.failure);
    }
  }
}

TEST(MimeHeader, TransferEncodingsAndMimeTypes) {
  using K = ContentTransferEncoding::Kind;
  const std::pair<const char*, ContentTransferEncoding> encodings[] = {
      {"7bit", {K::sevenBit, ""}}, {"8BIT", {K::eightBit, ""}},
      {"binary", {K::binary, ""}}, {"Quoted-Printable", {K::quotedPrintable, ""}},
      {"BASE64", {K::base64, ""}}, {"x-uue", {K::other, "x-uue"}},
  };
  for (const auto& [text, expected] : encodings) {
    EXPECT_EQ(MimeHeader::parse(std::string("Content-Transfer-Encoding: ") + text)
                  .contentTransferEncoding,
              expected)
        << text;
  }
  auto mime = [](const std::string& value) {
    return MimeHeader::parse("Content-Type: " + value).contentType->mimeType();
  };
  EXPECT_EQ(mime("Multipart/Alternative; boundary=\"b1\"").kind, MimeType::Kind::multipart);
  EXPECT_EQ(mime("Multipart/Alternative; boundary=\"b1\"").subtype, MultipartSubtype::alternative);
  EXPECT_EQ(mime("multipart/related; boundary=b2").subtypeText, "related");
  EXPECT_EQ(mime("multipart/mixed; boundary=b2").boundary, "b2");
  EXPECT_EQ(mime("multipart/mixed; Boundary=x").kind, MimeType::Kind::other);
  EXPECT_EQ(mime("multipart/mixed; Boundary=x").other, "multipart");
  EXPECT_EQ(mime("Image/png").kind, MimeType::Kind::image);
  EXPECT_EQ(mime("x-custom/thing").other, "x-custom");
}

TEST(MimeHeader, TheLaterOfTwoFieldsIsParsedAndTheEarlierStays) {
  const MimeHeader h = MimeHeader::parse(
      "Content-Type: text/plain\r\nX-A: 1\r\nContent-Type: text/html\r\nSubject: "
      "=?utf-8?q?x?=\r\n");
  EXPECT_EQ(h.contentType->subtype, "html");
  EXPECT_EQ(h.other,
            (Fields{{"Content-Type", "text/plain"}, {"X-A", "1"}, {"Subject", "=?utf-8?q?x?="}}));
}

TEST(MimeHeader, LongHostileHeadersParseInOnePass) {
  // No colon at all, a colon per byte, and a very long folded field.
  EXPECT_TRUE(headerFields(std::string(1 << 20, 'a')).empty());
  EXPECT_EQ(headerFields(std::string(1 << 20, ':')).size(), 1u);
  std::string folded = "Subject: x";
  for (int i = 0; i < 100000; ++i) folded += "\r\n y";
  EXPECT_EQ(headerFields(folded).at(0).body.size(), 1 + 2 * 100000u);
}

// MimeStructure keeps only what the structure needs, and must read it exactly as the whole
// header's parse does: the same field chosen among spellings and repeats, the same failure.
TEST(MimeStructure, ReadsTheFieldsAsTheWholeHeaderDoes) {
  const auto outcome = [](auto parse) -> std::string {
    try {
      return parse();
    } catch (const MimeHeaderError& e) {
      return "failure " + std::to_string(static_cast<int>(e.code()));
    }
  };
  const auto byHeader = [&](const std::string& text) {
    return outcome([&] {
      const MimeHeader h = MimeHeader::parse(text);
      const auto encoding = h.contentTransferEncoding.value_or(ContentTransferEncoding{}).kind;
      std::string out = std::to_string(static_cast<int>(encoding));
      if (h.contentType) {
        const MimeType type = h.contentType->mimeType();
        if (type.kind == MimeType::Kind::multipart)
          out += " multipart " + type.boundary +
                 (type.subtype == MultipartSubtype::alternative ? " alternative" : "");
      }
      return out;
    });
  };
  const auto byStructure = [&](const std::string& text) {
    return outcome([&] {
      const MimeStructure s = MimeStructure::parse(text);
      std::string out = std::to_string(static_cast<int>(s.encoding));
      if (s.multipart) out += " multipart " + s.boundary + (s.alternative ? " alternative" : "");
      return out;
    });
  };
  const std::string headers[] = {
      "",
      "Content-Type: multipart/mixed; boundary=b\n",
      "Content-Type: MULTIPART/Alternative; boundary=\"a b\"\n",
      "Content-Type: multipart/mixed; Boundary=b\n",
      "Content-Type: multipart/mixed; boundary=b; boundary=c\n",
      "Content-Type: multipart/mixed\n",
      "Content-Type: text/plain; boundary=b\n",
      "content-type: text/plain\nContent-Type: multipart/mixed; boundary=b\n",
      "Content-Type: multipart/mixed; boundary=b\ncontent-type: text/plain\n",
      "Content-Type: text/plain\nContent-Type: multipart/mixed; boundary=b\n",
      "Content-Type: multipart/mixed; boundary=b\nContent-Type: text/plain\n",
      "Content-Type: multipart/mixed;\n boundary=folded\n",
      "Content-Transfer-Encoding: Quoted-Printable\n",
      "content-transfer-encoding: base64\nContent-Transfer-Encoding: quoted-printable\n",
      "Content-Transfer-Encoding: \"base64\"\n",
      "Content-Type: text\n",
      "Content-Type: multipart/mixed; boundary=b\nContent-Disposition: inline; x\n",
      "Content-Disposition: attachment; filename=\"a.txt\"\nContent-Type: multipart/mixed; "
      "boundary=b\n",
      "Content-Type: multipart/mixed; boundary=\"\"\nContent-Transfer-Encoding: \"x\"\n",
  };
  for (const std::string& header : headers) {
    SCOPED_TRACE(header);
    EXPECT_EQ(byStructure(header), byHeader(header));
  }
}

}  // namespace
}  // namespace lumora
