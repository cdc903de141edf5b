// MailParser over the kinds of message it meets: which part is read, whether it is decoded,
// and what the quotations give.
#include <gtest/gtest.h>

#include <variant>

#include "lumora/mailcontent/MailParser.h"
#include "lumora/mailcontent/mime/Mime.h"
#include "lumora/platform/Debug.h"

namespace lumora {
namespace {

std::string alternative(const std::string& plainEncoding, const std::string& plain,
                        const std::string& htmlEncoding, const std::string& html) {
  return "Content-Type: multipart/alternative; boundary=\"alt\"\r\n\r\n"
         "--alt\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: " +
         plainEncoding + "\r\n\r\n" + plain +
         "\r\n--alt\r\nContent-Type: text/html\r\nContent-Transfer-Encoding: " + htmlEncoding +
         "\r\n\r\n" + html + "\r\n--alt--\r\n";
}

std::string single(const std::string& encoding, const std::string& body,
                   const std::string& type = "text/html") {
  return "Content-Type: " + type + "; charset=utf-8\r\nContent-Transfer-Encoding: " + encoding +
         "\r\n\r\n" + body;
}

enum class Failure { structure, quotedPrintable, charset };
using Outcome = std::variant<std::vector<std::string>, Failure>;

Outcome run(const std::string& message) {
  try {
    return MailParser::quotedTexts(message);
  } catch (const MimeParserError&) {
    return Failure::structure;
  } catch (const QuotedPrintableDecoderError&) {
    return Failure::quotedPrintable;
  } catch (const MimeBodyError&) {
    return Failure::charset;
  }
}

using Texts = std::vector<std::string>;

TEST(MailParser, MessageKinds) {
  const std::string quote = "<p>Thanks!</p><blockquote type=3D\"cite\">Earlier =\r\nwords</blockquote>";
  struct Case {
    const char* name;
    std::string message;
    Outcome expected;
  };
  const Case cases[] = {
      {"single part in 7bit: nothing, whatever its type",
       single("7bit", "<blockquote>q</blockquote>"), Texts{}},
      {"single part in base64: nothing", single("base64", "PGJsb2NrcXVvdGU+cTwvYmxvY2txdW90ZT4="),
       Texts{}},
      {"single part with no transfer encoding: nothing",
       "Content-Type: text/html\r\n\r\n<blockquote>q</blockquote>", Texts{}},
      {"single quoted-printable part: read undecoded", single("quoted-printable", quote),
       Texts{"Earlier = words"}},
      {"quoted-printable without quotations", single("quoted-printable", "<p>hi</p>"), Texts{}},
      {"alternative: the first quoted-printable leaf is the plain one, read as HTML",
       alternative("quoted-printable", "> quoted", "quoted-printable", quote), Texts{}},
      {"alternative: plain in 7bit, HTML in quoted-printable, decoded",
       alternative("7bit", "> quoted", "quoted-printable", quote), Texts{"Earlier words"}},
      {"mixed with a quoted-printable leaf: undecoded",
       "Content-Type: multipart/mixed; boundary=m\r\n\r\n--m\r\nContent-Transfer-Encoding: "
       "base64\r\n\r\neA==\r\n--m\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n" +
           quote + "\r\n--m--\r\n",
       Texts{"Earlier = words"}},
      {"leaves one level deeper are not read",
       "Content-Type: multipart/mixed; boundary=m\r\n\r\n--m\r\n" +
           alternative("7bit", "x", "quoted-printable", quote) + "\r\n--m--\r\n",
       Texts{}},
      {"a soft line break inside the tag name hides the quotation",
       single("quoted-printable", "<blockq=\r\nuote>hidden</blockquote>"), Texts{}},
      {"plain text quoting is no quotation",
       single("quoted-printable", "&gt; old words\r\n", "text/plain"), Texts{}},
      {"nested quotations overlap",
       single("quoted-printable", "<blockquote>a<blockquote>b</blockquote></blockquote>"),
       Texts{"a b", "b"}},
      {"one line without line end", "Subject: x", Failure::structure},
      {"alternative with an invalid escape", alternative("7bit", "x", "quoted-printable", "=ZZ"),
       Failure::quotedPrintable},
      {"alternative whose decoded bytes are not UTF-8",
       alternative("7bit", "x", "quoted-printable", "<blockquote>caf=E9</blockquote>"),
       Failure::charset},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Outcome actual = run(c.message);
    ASSERT_EQ(actual.index(), c.expected.index());
    EXPECT_EQ(actual, c.expected);
  }
}

TEST(MailParser, WritesTheHtmlSourceAsADebugLine) {
  std::vector<std::string> lines;
  debug::setSink([&](std::string_view line) { lines.emplace_back(line); });
  EXPECT_TRUE(MailParser::quotedTexts(single("quoted-printable", "")).empty());
  EXPECT_TRUE(MailParser::quotedTexts(single("7bit", "<blockquote>q</blockquote>")).empty());
  debug::setSink(debug::stdoutSink());
  // An empty source is present: the line stands with nothing behind its blank. A message with
  // no source writes nothing.
  EXPECT_EQ(lines, std::vector<std::string>{"[debug] html "});
}

// The budget counts the passages and the line ends that join them; the passage that would pass
// it is left out with every one after it.
TEST(MailParser, GathersPassagesWithinABudget) {
  const std::string message =
      single("quoted-printable", "<blockquote>abc</blockquote><blockquote>de</blockquote>");
  struct Case {
    size_t budget;
    std::vector<std::string> texts;
    bool complete;
  };
  const Case cases[] = {
      {6, {"abc", "de"}, true},  // 3 + 1 + 2
      {5, {"abc"}, false},
      {3, {"abc"}, false},
      {2, {}, false},
      {MailParser::kNoBudget, {"abc", "de"}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.budget);
    const MailParser::Passages p = MailParser::quotedTexts(message, c.budget);
    EXPECT_EQ(p.texts, c.texts);
    EXPECT_EQ(p.complete, c.complete);
    EXPECT_LE(p.bytes, c.budget);
  }
}

// Nested quotations hold each other's texts: 400 levels of 1 KB make 80 MB of passages. Within a
// budget the gathering stops after a few of them.
TEST(MailParser, NestedQuotationsStopAtTheBudget) {
  std::string html;
  for (int i = 0; i < 400; ++i) html += "<blockquote>" + std::string(1000, 'q');
  constexpr size_t kBudget = size_t{1} << 20;
  const MailParser::Passages p =
      MailParser::quotedTexts(single("quoted-printable", html), kBudget);
  EXPECT_FALSE(p.complete);
  EXPECT_LE(p.bytes, kBudget);
  ASSERT_EQ(p.texts.size(), 2u);
  EXPECT_EQ(p.texts.front().size(), 400'000u + 399);  // a blank before each inner quotation
}

}  // namespace
}  // namespace lumora
