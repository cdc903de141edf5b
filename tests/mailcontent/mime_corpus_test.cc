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

// Every body says where it stands in the message, which the mail reading relies on to read it
// there instead of copying it.
void expectBodiesWhereTheySay(const Mime& mime, std::string_view message) {
  std::vector<const Mime*> stack{&mime};
  while (!stack.empty()) {
    const Mime* node = stack.back();
    stack.pop_back();
    for (const Mime& part : node->content().parts()) stack.push_back(&part);
    if (const MimeBody* body = node->content().body()) {
      ASSERT_TRUE(body->offset());
      ASSERT_LE(*body->offset(), message.size());
      EXPECT_EQ(message.substr(*body->offset(), body->raw().size()), body->raw());
    }
  }
}

TEST(MimeCorpus, EveryMessageParsesAsTheLiteralParseDoesOrFailsTyped) {
  const auto files = testing::mailCorpusFiles("message");
  ASSERT_GE(files.size(), 300u);
  size_t parsed = 0;
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    const std::string message = testing::readFile(corpus() / file);
    const Outcome actual = outcomeOf([&] {
      const Mime mime = MimeParser::parse(message);
      expectBodiesWhereTheySay(mime, message);
      return testing::pictureOf(mime);
    });
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
  // Every message is compared with the literal parse above; these pin the shapes of a few
  // common replies, and the parse's own rules, by hand.
  const Case cases[] = {
      {"list-archive-openbmc/gmail-qp-alternative-b007397bf2.eml",
       "alternative[text/plain:quoted-printable,text/html:quoted-printable]"},
      {"list-archive-openbmc/thunderbird-qp-signed-9ac7162f67.eml",
       "signed[mixed[alternative[text/plain:quoted-printable,text/html:quoted-printable]],"
       "application/pgp-signature:7bit]"},
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
      {"list-archive-openbmc/outlook-divRplyFwdMsg-qp-alternative-gb2312-subject-ad3bd73d27.eml",
       0, "发件人"},                                             // gb2312, base64
      {"spamscope-mail-parser/mail_test_9", 0, "镜头"},          // labelled gb2312, written in GBK
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
