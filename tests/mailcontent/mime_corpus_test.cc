// Real mail from many programs and many parsers' test suites: every message parses or fails
// with a typed error, agreeing with the literal parse; chosen messages keep their tree shapes
// and their text parts decode.
#include <gtest/gtest.h>

#include <variant>

#include "lumora/mailcontent/mime/Mime.h"
#include "lumora/platform/Text.h"
#include "support/Fixtures.h"
#include "support/MimeReference.h"
#include "support/MimeShape.h"

namespace lumora {
namespace {

std::filesystem::path corpus() { return testing::mailCorpusDir(); }

enum class Failure { structure, header };
using Outcome = std::variant<testing::MimePicture, Failure>;

template <typename Parse>
Outcome outcomeOf(Parse parse) {
  try {
    return parse();
  } catch (const MimeParserError&) {
    return Failure::structure;
  } catch (const MimeHeaderError&) {
    return Failure::header;
  }
}

TEST(MimeCorpus, EveryMessageParsesAsTheLiteralParseDoesOrFailsTyped) {
  const auto files = testing::mailCorpusFiles("message");
  ASSERT_GE(files.size(), 300u);
  size_t parsed = 0;
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    const std::string message = testing::readFile(corpus() / file);
    const Outcome actual = outcomeOf([&] { return testing::pictureOf(MimeParser::parse(message)); });
    const Outcome literal = outcomeOf([&] { return testing::referencePicture(message); });
    EXPECT_TRUE(actual == literal);
    parsed += std::holds_alternative<testing::MimePicture>(actual);
  }
  // A handful of messages are malformed on purpose; nearly all the rest must parse.
  EXPECT_GE(parsed, 270u);
}

TEST(MimeCorpus, TreeShapes) {
  struct Case {
    const char* file;
    const char* shape;  // or "structure" / "header" for the error it fails with
  };
  const Case cases[] = {
      // Replies from current mail programs, multipart/alternative at the top.
      {"list-archive-openbmc/gmail-qp-alternative-b007397bf2.eml",
       "alternative[text/plain:quoted-printable,text/html:quoted-printable]"},
      {"list-archive-openbmc/gmail-base64-alternative-3ae09a66ca.eml",
       "alternative[text/plain:7bit,text/html:base64]"},
      {"list-archive-openbmc/thunderbird-base64-alternative-bed48ef893.eml",
       "alternative[text/plain:7bit,text/html:base64]"},
      {"list-archive-openbmc/thunderbird-8bit-alternative-3a6dc4a281.eml",
       "alternative[text/plain:8bit,text/html:8bit]"},
      {"list-archive-openbmc/outlook16-qp-alternative-85ed478528.eml",
       "alternative[text/plain:quoted-printable,text/html:quoted-printable]"},
      {"list-archive-openbmc/macoutlook-base64-alternative-634abb99f6.eml",
       "alternative[text/plain:base64,text/html:base64]"},
      {"list-archive-openbmc/iphone-qp-alternative-a7dc2c0d86.eml",
       "alternative[text/plain:quoted-printable,text/html:quoted-printable]"},
      {"list-archive-openbmc/k9-qp-alternative-88d76aab21.eml",
       "alternative[text/plain:quoted-printable,text/html:quoted-printable]"},
      {"list-archive-openbmc/zoho-qp-alternative-8c4ef0d4d6.eml",
       "alternative[text/plain:quoted-printable,text/html:quoted-printable]"},
      {"list-archive-openbmc/applemail-qp-texthtml-773a72f989.eml", "text/html:quoted-printable"},
      // Nested related, mixed and signed.
      {"list-archive-openbmc/foxmail-qp-related-85b935300f.eml",
       "related[alternative[text/plain:base64,text/html:quoted-printable],image/png:base64,"
       "image/png:base64,image/png:base64]"},
      {"list-archive-openbmc/gmail-qp-related-dd24d9cdfb.eml",
       "related[alternative[text/plain:7bit,text/html:quoted-printable],image/gif:base64,"
       "image/gif:base64,image/gif:base64]"},
      {"list-archive-openbmc/thunderbird-qp-signed-9ac7162f67.eml",
       "signed[mixed[alternative[text/plain:quoted-printable,text/html:quoted-printable]],"
       "application/pgp-signature:7bit]"},
      {"list-archive-usrp-users/outlook-qp-mixedfooter-9f51c803f3.eml",
       "mixed[signed[alternative[text/plain:quoted-printable,text/html:quoted-printable],"
       "application/pkcs7-signature:base64],text/plain:7bit]"},
      {"list-archive-usrp-users/gmail-nocte-mixedfooter-9ab67065ec.eml",
       "mixed[text/html:7bit,text/plain:7bit]"},
      {"list-archive-usrp-users/yahoo-qp-mixedfooter-8e240d11b2.eml",
       "mixed[alternative[text/plain:quoted-printable,text/html:quoted-printable],text/plain:7bit]"},
      // Other character sets.
      {"list-archive-openbmc/qqmail-base64-alternative-ec86ad6e3d.eml",
       "alternative[text/plain:base64,text/html:base64]"},
      {"list-archive-openbmc/outlook-divRplyFwdMsg-qp-alternative-gb2312-subject-ad3bd73d27.eml",
       "alternative[text/plain:base64,text/html:quoted-printable]"},
      {"rspamd/spam.eml",
       "mixed[alternative[text/plain:quoted-printable,text/html:quoted-printable],"
       "text/plain:base64]"},
      {"rspamd/arcallow.eml", "alternative[text/plain:quoted-printable,text/html:quoted-printable]"},
      {"redmine/japanese_keywords_iso_2022_jp.eml",
       "alternative[text/plain:quoted-printable,text/html:quoted-printable]"},
      {"stalwart-mail-parser/thirdparty/005.eml",
       "mixed[text/plain:binary,text/plain:base64,text/plain:base64,text/plain:base64]"},
      // The parse's own rules on real mail: an enclosed message is a leaf, a later
      // Content-Type in a header without its empty line wins, an empty field takes the next
      // line, a boundary parameter in capitals is no boundary, a missing closing delimiter
      // loses the last part.
      {"james-mime4j/mimetools-testmsgs/frag.msg", "mixed[text/plain:7bit,message/rfc822:7bit]"},
      {"enmime/mail/qp-utf8-header-no-break.raw", "text/plain:quoted-printable"},
      {"mikel-mail/error_emails/content_transfer_encoding_empty.eml", "text/html:Message-ID"},
      {"mailgun-flanker/message-external-body.eml", "multipart/mixed:7bit"},
      {"enmime/parts/multimixed-no-closing-boundary.raw", "mixed[]"},
      {"postal-mime/mimetorture.eml",
       "mixed[text/plain:8bit,message/rfc822:7bit,message/rfc822:7bit,message/rfc822:7bit,"
       "message/rfc822:7bit,message/rfc822:7bit,message/rfc822:7bit,message/rfc822:7bit,"
       "message/rfc822:7bit,message/rfc822:7bit,message/rfc822:7bit]"},
      // Malformed on purpose.
      {"stalwart-mail-parser/malformed/000.eml", "structure"},
      {"enmime/parts/missing-closing-param-quote.raw", "header"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string message = testing::readFile(corpus() / c.file);
    std::string shape;
    try {
      shape = testing::shapeOf(MimeParser::parse(message));
    } catch (const MimeParserError&) {
      shape = "structure";
    } catch (const MimeHeaderError&) {
      shape = "header";
    }
    EXPECT_EQ(shape, c.shape);
  }
}

// The text leaves of a message, decoded in the character set their Content-Type names; a
// leaf that fails stands as its error.
std::vector<std::string> decodedTexts(const Mime& mime) {
  std::vector<std::string> texts;
  std::vector<const Mime*> stack{&mime};
  while (!stack.empty()) {
    const Mime* node = stack.back();
    stack.pop_back();
    const auto& parts = node->content().parts();
    for (auto it = parts.rbegin(); it != parts.rend(); ++it) stack.push_back(&*it);
    const MimeBody* body = node->content().body();
    const auto& type = node->header().contentType;
    if (!body || !type || !text::equalsIgnoringCase(type->type, "text")) continue;
    std::optional<std::string_view> charset;
    if (auto it = type->parameters.find("charset"); it != type->parameters.end())
      charset = it->second;
    try {
      texts.push_back(body->decodedContentString(charset));
    } catch (const Error& e) {
      texts.push_back(std::string("<failed: ") + e.what() + ">");
    }
  }
  return texts;
}

TEST(MimeCorpus, TextsDecodeFromTheirCharacterSets) {
  struct Case {
    const char* file;
    size_t part;           // which text leaf, in document order
    std::string expected;  // UTF-8 that the text holds
  };
  const Case cases[] = {
      {"rspamd/spam.eml", 0, "ДЕТСКИЕ АУДИОЭНЦИКЛОПЕДИИ"},  // windows-1251, quoted-printable
      {"mimekit/messages/japanese.txt", 0, "日本語が"},  // iso-2022-jp
      {"list-archive-openbmc/outlook-divRplyFwdMsg-qp-alternative-gb2312-subject-ad3bd73d27.eml",
       0, "发件人"},                                             // gb2312, base64
      {"spamscope-mail-parser/mail_test_9", 0, "镜头"},          // labelled gb2312, written in GBK
      {"redmine/body_ks_c_5601-1987.eml", 0, "고맙습니다."},     // ks_c_5601-1987
      {"stalwart-mail-parser/thirdparty/005.eml", 3, "『世界人権宣言』"},
      {"list-archive-openbmc/qqmail-base64-alternative-ec86ad6e3d.eml", 1,
       "charset=GB18030"},  // gb18030
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const auto texts = decodedTexts(MimeParser::parse(testing::readFile(corpus() / c.file)));
    ASSERT_GT(texts.size(), c.part);
    EXPECT_TRUE(text::isValidUtf8(texts[c.part]));
    EXPECT_NE(texts[c.part].find(c.expected), std::string::npos) << texts[c.part].substr(0, 200);
  }
}

}  // namespace
}  // namespace lumora
