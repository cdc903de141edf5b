// The pieces of the whole-message reading, each against the shapes mail comes in: header words
// and parameters, body decoding, the MIME structure, the lines of a text, HTML as lines, and the
// thread's split.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "lumora/mailcontent/html/Document.h"
#include "lumora/mailcontent/reading/BodyText.h"
#include "lumora/mailcontent/reading/Calendar.h"
#include "lumora/mailcontent/reading/HeaderText.h"
#include "lumora/mailcontent/reading/HtmlLines.h"
#include "lumora/mailcontent/reading/MessageTree.h"
#include "lumora/mailcontent/reading/ThreadSplit.h"

namespace lumora::reading {
namespace {

TEST(HeaderWords, EncodedWordsAreDecodedAndTheBlanksBetweenThemDropped) {
  const std::pair<std::string, std::string> cases[] = {
      {"=?utf-8?B?w6k=?=", "é"},
      {"=?ISO-8859-1?Q?Andr=E9?= Pirard", "André Pirard"},
      {"=?utf-8?q?a?= =?utf-8?q?b?=", "ab"},
      {"=?utf-8?q?a?=\r\n =?UTF-8?Q?b?=", "ab"},
      {"=?utf-8?q?a?= x =?utf-8?q?b?=", "a x b"},
      // A character split between two words, as some encoders cut at a fixed length.
      {"=?utf-8?B?4oI=?= =?utf-8?B?rA==?=", "€"},
      {"=?utf-8?q?under_score?=", "under score"},
      {"=?utf-8*en?q?lang?=", "lang"},
      {"=?ISO-2022-JP?B?GyRCJUYlOSVIGyhC?=", "テスト"},
      {"=?no-such-charset?q?abc?=", "abc"},
      // Not encoded words: left as written.
      {"=?utf-8?x?abc?=", "=?utf-8?x?abc?="},
      {"=?utf-8?q?no end", "=?utf-8?q?no end"},
      {"a =? b ?= c", "a =? b ?= c"},
      // Bytes that are not UTF-8, written without encoding: windows-1252.
      {"Andr\xE9", "André"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(decodedWords(in), out) << in;
}

TEST(HeaderParameters, ValuesAreUnquotedAndRfc2231IsJoinedAndDecoded) {
  struct Case {
    std::string body;
    std::string value;
    std::string name;
    std::string expected;
  };
  const Case cases[] = {
      {"text/plain; charset=\"utf-8\"; format=flowed", "text/plain", "format", "flowed"},
      {"Text/HTML ; Charset = UTF-8", "text/html", "charset", "UTF-8"},
      {"multipart/mixed;\r\n\tboundary=\"--=_a;b\"", "multipart/mixed", "boundary", "--=_a;b"},
      {"attachment; filename*=UTF-8''R%C3%A9sum%C3%A9.pdf", "attachment", "filename",
       "Résumé.pdf"},
      {"attachment; filename*0*=UTF-8''a%20; filename*1=b.pdf", "attachment", "filename",
       "a b.pdf"},
      {"attachment; name*1=\"b\"; name*0=\"a\"", "attachment", "name", "ab"},
      {"attachment; filename=plain.pdf; filename*=utf-8''fancy%E2%9C%93.pdf", "attachment",
       "filename", "fancy✓.pdf"},
      {"image/png; name=\"=?utf-8?q?caf=C3=A9?=.png\"", "image/png", "name", "café.png"},
      {"application/pdf; name=\"a \\\"b\\\".pdf\"", "application/pdf", "name", "a \"b\".pdf"},
      {"text/plain (a comment); charset=us-ascii", "text/plain", "charset", "us-ascii"},
      {"application/pdf; name=\"never closed", "application/pdf", "name", "never closed"},
      {"\xFF/x; name=a", "\xC3\xBF/x", "name", "a"},  // bytes no media type has, as text
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    const StructuredValue v = parseStructuredValue(c.body);
    EXPECT_EQ(v.value, c.value);
    EXPECT_EQ(v.parameter(c.name).value_or("(none)"), c.expected);
  }
}

TEST(HeaderAddresses, TheFirstMailboxWithItsDisplayName) {
  struct Case {
    std::string body;
    std::string name;
    std::string address;
  };
  const Case cases[] = {
      {"Carla Mendes <carla@example.org>", "Carla Mendes", "carla@example.org"},
      {"\"Mendes, Carla\" <c@example.org>", "Mendes, Carla", "c@example.org"},
      {"c@example.org (Carla Mendes)", "Carla Mendes", "c@example.org"},
      {"=?utf-8?q?Ren=C3=A9_Roux?= <r@example.org>", "René Roux", "r@example.org"},
      {"Team: a@example.org, c@example.org;", "", "a@example.org"},
      {"a@example.org, Carla <c@example.org>", "", "a@example.org"},
      {"<only@example.org>", "", "only@example.org"},
      {"\"Ann \\\"Q\\\" Lee\"\r\n <a@example.org>", "Ann \"Q\" Lee", "a@example.org"},
      {"\"carla@example.org\" <carla@example.org>", "", "carla@example.org"},
      {"", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    const Mailbox m = firstMailbox(c.body);
    EXPECT_EQ(m.name, c.name);
    EXPECT_EQ(m.address, c.address);
  }
}

TEST(BodyDecoding, TransferEncodingsAreUndoneLeniently) {
  using E = TransferEncoding;
  const std::tuple<std::string, E, std::string> cases[] = {
      {"a=3Db =3d", E::quotedPrintable, "a=b ="},
      {"soft=\r\nbreak, soft= \t\nbreak", E::quotedPrintable, "softbreak, softbreak"},
      {"caf=C3=A9", E::quotedPrintable, "caf\xC3\xA9"},
      {"=ZZ stays, =4 too, trailing =", E::quotedPrintable, "=ZZ stays, =4 too, trailing "},
      {"aGVs\r\nbG8=", E::base64, "hello"},
      {"aGVs*bG8 !", E::base64, "hello"},
      {"aGVsbA", E::base64, "hell"},
      {"raw=3D", E::identity, "raw=3D"},
  };
  for (const auto& [in, encoding, out] : cases) EXPECT_EQ(transferDecoded(in, encoding), out) << in;
  EXPECT_EQ(transferEncodingOf(" Quoted-Printable "), E::quotedPrintable);
  EXPECT_EQ(transferEncodingOf("8bit"), E::identity);
  EXPECT_EQ(transferEncodingOf("x-uuencode"), E::identity);
}

TEST(BodyDecoding, CharsetsGiveUtf8AndUndecodableBytesGiveReplacements) {
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"caf\xE9", "iso-8859-1", "café"},
      {"\x80 5", "ISO-8859-1", "€ 5"},  // the windows-1252 reading of Latin-1 labels
      {"caf\xC3\xA9", "", "café"},
      {"caf\xE9", "", "café"},
      {"\xE9t\xE9", "us-ascii", "été"},
      {"a\xFF" "b", "utf-8", "a\xEF\xBF\xBD" "b"},
      {"x\xE9", "no-such-charset", "xé"},
      {"\x82\xA0", "Shift_JIS", "あ"},
      {"\x1B$B$\"\x1B(B", "ISO-2022-JP", "あ"},
      {"a\x81z", "windows-1252", "a\xEF\xBF\xBDz"},
      // ASCII bytes are not ASCII text in every character set.
      {std::string("a\0b\0", 4), "UTF-16LE", "ab"},
      {"\x1B$B", "iso-2022-jp", ""},
  };
  for (const auto& [in, charset, out] : cases)
    EXPECT_EQ(decodedText(in, charset), out) << charset << " " << in;
}

// The lines of plain text as "depth:text" pieces.
std::vector<std::string> plainLines(std::string_view text, bool flowed, bool delSp) {
  TextLines lines;
  addPlainLines(text, flowed, delSp, lines);
  std::vector<std::string> out;
  for (size_t i = 0; i < lines.size(); ++i)
    out.push_back(std::to_string(lines.depth(i)) + ":" + std::string(lines.text(i)));
  return out;
}

TEST(PlainLines, QuotationDepthsAndFlowedParagraphs) {
  using V = std::vector<std::string>;
  EXPECT_EQ(plainLines("a\r\n> b\r\n>> c\r\n> > d\r\n>e", false, false),
            (V{"0:a", "1:b", "2:c", "2:d", "1:e"}));
  EXPECT_EQ(plainLines("one \r\ntwo\r\nthree", true, false), (V{"0:one two", "0:three"}));
  EXPECT_EQ(plainLines("in \r\nter \r\nnational\r\n", true, true), (V{"0:international"}));
  EXPECT_EQ(plainLines(" From here\r\n", true, false), (V{"0:From here"}));
  EXPECT_EQ(plainLines("text \r\n-- \r\nsig", true, false), (V{"0:text ", "0:-- ", "0:sig"}));
  EXPECT_EQ(plainLines("> a \r\n> b\r\n", true, false), (V{"1:a b"}));
  EXPECT_EQ(plainLines("> a \r\nb\r\n", true, false), (V{"1:a ", "0:b"}));
  EXPECT_EQ(plainLines("", false, false), V{});
  EXPECT_EQ(plainLines("\n", false, false), (V{"0:"}));
}

// The parts of a message as "kind(body)" in document order, nesting in brackets.
// TextLines keeps a line's end in 16 bits while its group of lines is short and in 32 once the
// group is wider, moves the line being built to a new block when its block is full (dropping a
// block that held that line alone), and keeps depths and marks once for each run of lines: at
// every length and on every path each line must read back as it was written.
TEST(TextLines, EveryLineReadsBackAsWritten) {
  struct Case {
    const char* name;
    size_t lines;
    std::function<size_t(size_t)> length;
    std::function<uint32_t(size_t)> depth;
    bool listMarkers;  // a marker begins each line and is dropped again, as before an empty item
  };
  const auto one = [](size_t) { return 1u; };
  const Case cases[] = {
      {"short lines and empty ones, one depth", 5000, [](size_t i) { return i % 3; }, one, false},
      {"a new depth and marks on every line", 5000, [](size_t i) { return i % 5; },
       [](size_t i) { return static_cast<uint32_t>(i % 4); }, false},
      {"groups of lines wider than 16 bits", 300, [](size_t i) { return 1500 + i % 7; }, one,
       false},
      {"a group turning wide at its last line", 130,
       [](size_t i) { return i % 64 == 63 ? 70000 : i % 2; }, one, false},
      {"lines longer than a block, grown in pieces", 12,
       [](size_t i) { return i % 3 == 1 ? 150000 + i : 40000 + i; }, one, false},
      {"blocks filled to the last byte, a marker moved to a new block and dropped", 60,
       [](size_t i) { return i % 2 == 0 ? 65535 : 0; }, one, true},
      {"markers dropped before lines of every length", 3000, [](size_t i) { return i * 7 % 90; },
       [](size_t i) { return static_cast<uint32_t>(i / 100 % 3); }, true},
      {"deeper than a line is kept", 3, [](size_t) { return 2; },
       [](size_t i) { return i == 1 ? UINT32_MAX : 0; }, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TextLines lines;
    std::vector<std::string> texts;
    std::vector<uint32_t> depths;
    std::vector<uint8_t> flags;
    for (size_t i = 0; i < c.lines; ++i) {
      const std::string text(c.length(i), static_cast<char>('a' + i % 26));
      if (c.listMarkers) {
        lines.append("- ");
        lines.dropPending(lines.pending().size());
      }
      for (size_t at = 0; at < text.size(); at += 997) lines.append(text.substr(at, 997));
      ASSERT_EQ(lines.pending(), text);
      const uint8_t mark = static_cast<uint8_t>(i / 7 % 3 == 0 ? TextLines::signature : 0);
      lines.endLine(c.depth(i), mark);
      texts.push_back(text);
      depths.push_back(std::min(c.depth(i), TextLines::kMostDepth));
      flags.push_back(mark);
    }
    ASSERT_EQ(lines.size(), c.lines);
    for (size_t i = 0; i < c.lines; ++i) {
      ASSERT_EQ(lines.text(i), texts[i]) << "line " << i;
      ASSERT_EQ(lines.depth(i), depths[i]) << "line " << i;
      ASSERT_EQ(lines.flags(i), flags[i]) << "line " << i;
      const TextLines::Line line = lines[i];
      ASSERT_TRUE(line.text == texts[i] && line.depth == depths[i] && line.flags == flags[i]);
    }
  }
}

std::string picture(std::string_view raw) {
  const MessageTree tree(raw);
  const auto& e = tree.entities();
  std::string out;
  std::vector<std::pair<uint32_t, bool>> stack{{0, false}};  // entity, closing
  while (!stack.empty()) {
    const auto [id, closing] = stack.back();
    stack.pop_back();
    if (closing) {
      out += "]";
      continue;
    }
    if (!out.empty() && out.back() != '[') out += ",";
    switch (e[id].kind) {
      case Entity::Kind::leaf:
        out += "leaf(" + std::string(tree.body(e[id])) + ")";
        continue;
      case Entity::Kind::multipart: out += "multi["; break;
      case Entity::Kind::message: out += "message["; break;
    }
    stack.push_back({id, true});
    std::vector<uint32_t> children;
    for (uint32_t c = e[id].firstChild; c != kNoEntity; c = e[c].nextSibling) children.push_back(c);
    for (auto it = children.rbegin(); it != children.rend(); ++it) stack.push_back({*it, false});
  }
  return out;
}

TEST(MessageStructure, LenientWhereMailIsSloppy) {
  const std::pair<std::string, std::string> cases[] = {
      {"Content-Type: text/plain\r\n\r\nbody\r\n", "leaf(body\r\n)"},
      // A header that ends without its empty line.
      {"Subject: x\r\nno field here\r\n", "leaf(no field here\r\n)"},
      // Preamble and epilogue are not parts; the last part keeps what no delimiter closes.
      {"Content-Type: multipart/mixed; boundary=b\r\n\r\npre\r\n--b\r\n\r\none\r\n--b--\r\npost",
       "multi[leaf(one)]"},
      {"Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\none\r\n--b\r\n\r\ntwo\r\n",
       "multi[leaf(one),leaf(two\r\n)]"},
      // A boundary that begins another's is not its delimiter; blanks may follow one.
      {"Content-Type: multipart/mixed; boundary=b\r\n\r\n--b \r\nContent-Type: multipart/"
       "alternative; boundary=b2\r\n\r\n--b2\r\n\r\nin\r\n--b2--\r\n--b--\r\n",
       "multi[multi[leaf(in)]]"},
      // An outer delimiter ends an inner multipart that never closed.
      {"Content-Type: multipart/mixed; boundary=o\r\n\r\n--o\r\nContent-Type: multipart/mixed; "
       "boundary=i\r\n\r\n--i\r\n\r\na\r\n--o\r\n\r\nb\r\n--o--",
       "multi[multi[leaf(a)],leaf(b)]"},
      // A multipart without a boundary is a leaf.
      {"Content-Type: multipart/mixed\r\n\r\ntext\r\n", "leaf(text\r\n)"},
      {"Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\nContent-Type: message/rfc822\r\n"
       "\r\nSubject: s\r\n\r\ninner\r\n--b--",
       "multi[message[leaf(inner)]]"},
      {"Content-Type: message/rfc822\r\nContent-Transfer-Encoding: base64\r\n\r\nU3ViamVjdA==",
       "leaf(U3ViamVjdA==)"},
      {"From x@y Mon Nov  2 10:00:00 2026\nContent-Type: text/plain\n\nmbox\n", "leaf(mbox\n)"},
  };
  for (const auto& [raw, expected] : cases) EXPECT_EQ(picture(raw), expected) << raw;
}

TEST(MessageStructure, NestingStopsAtItsLimit) {
  std::string raw;
  for (uint32_t i = 0; i < MessageTree::kMaxDepth + 6; ++i)
    raw += "Content-Type: multipart/mixed; boundary=b" + std::to_string(i) + "\r\n\r\n--b" +
           std::to_string(i) + "\r\n";
  raw += "\r\nbottom";
  const MessageTree tree(raw);
  size_t multiparts = 0;
  for (const Entity& e : tree.entities()) multiparts += e.kind == Entity::Kind::multipart;
  EXPECT_EQ(multiparts, MessageTree::kMaxDepth);
  EXPECT_EQ(tree.entities().back().kind, Entity::Kind::leaf);
}

// Past its last part a message is passed over: the delimiter that would begin one more ends its
// multipart, and the text after it is the multipart's epilogue, up to a delimiter of a
// multipart around it, which ends that one too.
TEST(MessageStructure, PartsStopAtTheirLimit) {
  std::string raw = "Content-Type: multipart/mixed; boundary=outer\r\n\r\n--outer\r\n"
                    "Content-Type: multipart/mixed; boundary=b\r\n\r\n";
  for (uint32_t i = 0; i < MessageTree::kMaxParts + 10; ++i) raw += "--b\r\n\r\nhi\r\n";
  raw += "--b--\r\n--outer\r\n\r\nafter\r\n--outer--\r\n";
  const MessageTree tree(raw);
  const auto& entities = tree.entities();
  ASSERT_EQ(entities.size(), MessageTree::kMaxParts);
  const Entity& inner = entities[1];
  EXPECT_EQ(inner.kind, Entity::Kind::multipart);
  size_t parts = 0;
  for (uint32_t c = inner.firstChild; c != kNoEntity; c = entities[c].nextSibling) ++parts;
  EXPECT_EQ(parts, MessageTree::kMaxParts - 2);
  EXPECT_EQ(tree.body(entities.back()), "hi");
  EXPECT_EQ(entities[0].firstChild, 1u);
  EXPECT_EQ(inner.nextSibling, kNoEntity);  // the outer multipart's next part is past the limit
}

std::string repeated(std::string_view piece, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += piece;
  return out;
}

std::string htmlText(const std::string& html) {
  const auto document = html::Document::parse(html);
  TextLines lines;
  addHtmlLines(*document, lines);
  return renderLines(lines, 0, lines.size());
}

TEST(HtmlText, BlocksListsTablesAndWhatIsLeftOut) {
  const std::pair<std::string, std::string> cases[] = {
      {"<p>a</p><p>b</p>", "a\n\nb"},
      {"a<br>b<br><br><br>c", "a\nb\n\nc"},
      {"<div>a</div><div>b</div>", "a\nb"},
      {"<ul><li>x</li><li>y</li></ul>", "- x\n- y"},
      {"<ol><li>x<li>y<ul><li>z</ul></ol>after", "1. x\n2. y\n  - z\n\nafter"},
      {"<table><tr><td>a</td><td></td><td>b</td></tr><tr><td>c</td></tr></table>", "a | b\nc"},
      {"<pre>a\n  b\r\n\nc</pre>", "a\n  b\n\nc"},
      {"x &nbsp;&nbsp; y &amp; z", "x y & z"},
      {"<head><title>T</title><style>p{}</style></head><body>b<script>s()</script></body>", "b"},
      {"see <a href=\"https://example.org\">the <b>agenda</b></a>.", "see the agenda."},
      {"a<blockquote>b<blockquote>c</blockquote>d</blockquote>e", "a\n\n> b\n>\n> > c\n>\n> d\n\ne"},
      {"<p>&nbsp;</p><p>x</p><p>&nbsp;</p>", "x"},
      // Indentation stops deepening at eight lists: nesting must not make lines of blanks.
      {repeated("<ul>", 300) + "<li>deep", std::string(14, ' ') + "- deep"},
      {"<li>an item outside any list", "- an item outside any list"},
  };
  for (const auto& [html, expected] : cases) EXPECT_EQ(htmlText(html), expected) << html;
}

TEST(HtmlText, MailProgramsMarksReachTheLines) {
  const auto document = html::Document::parse(
      "<div>new</div><div class=\"moz-signature\">-- <br>Sam</div>"
      "<div class=\"gmail_attr\">On Mon, Sam wrote:<br></div><blockquote>q</blockquote>"
      "<hr><div id=\"divRplyFwdMsg\"><b>From:</b> X</div>");
  TextLines lines;
  addHtmlLines(*document, lines);
  std::vector<std::pair<std::string, uint8_t>> got;
  for (size_t i = 0; i < lines.size(); ++i)
    if (!lines.text(i).empty()) got.emplace_back(std::string(lines.text(i)), lines.flags(i));
  using F = TextLines;
  const std::vector<std::pair<std::string, uint8_t>> expected{
      {"new", 0},
      {"--", F::signature},
      {"Sam", F::signature},
      {"On Mon, Sam wrote:", F::attribution},
      {"q", 0},
      {"From: X", F::ruleBefore | F::threadStart},
  };
  EXPECT_EQ(got, expected);
}

// The split of a plain-text reply, as the new text and the thread.
SplitText split(std::string_view text) {
  TextLines lines;
  addPlainLines(text, false, false, lines);
  return splitThread(lines);
}

TEST(ThreadSplit, ReplyLayouts) {
  struct Case {
    const char* name;
    std::string text;
    std::string newText;
    std::string thread;
    size_t earlier;
  };
  const Case cases[] = {
      {"top-posted", "Hi\n\nOn Mon, Sam wrote:\n> q\n", "Hi", "On Mon, Sam wrote:\n> q", 1},
      {"bottom-posted", "On Mon, Sam wrote:\n> q\n\nAnswer\n", "Answer", "On Mon, Sam wrote:\n> q",
       1},
      {"greeting, quotation, answer", "Hello Sam,\n\nOn Mon, Sam wrote:\n> q\n\nAnswer",
       "Hello Sam,\n\nAnswer", "On Mon, Sam wrote:\n> q", 1},
      {"interleaved", "> q1\na1\n> q2\na2", "> q1\na1\n> q2\na2", "", 0},
      {"signature, then the quotation",
       "Answer\n-- \nSam\n+1 555 0100\n\nOn Mon, X wrote:\n> q", "Answer", "On Mon, X wrote:\n> q",
       1},
      {"bottom-posted with a signature", "On Mon, X wrote:\n> q\n\nAnswer\n-- \nSam", "Answer",
       "On Mon, X wrote:\n> q", 1},
      {"original message",
       "Answer\n\n-----Original Message-----\nFrom: X\nSent: Y\nTo: Z\nSubject: S\n\nold", "Answer",
       "-----Original Message-----\nFrom: X\nSent: Y\nTo: Z\nSubject: S\n\nold", 1},
      {"rule and header block", "Answer\n________________________________\nFrom: X\nSent: Y\n\nold",
       "Answer", "________________________________\nFrom: X\nSent: Y\n\nold", 1},
      {"attribution over two lines",
       "Answer\n\nOn Tue, Nov 3, 2026 at 9:12 AM Carla Mendes <\ncarla@example.org> wrote:\n> q",
       "Answer", "On Tue, Nov 3, 2026 at 9:12 AM Carla Mendes <\ncarla@example.org> wrote:\n> q",
       1},
      {"a colon before a list", "The plan:\n- one\n- two", "The plan:\n- one\n- two", "", 0},
      {"attribution over unquoted text",
       "Yes.\n\nOn Tuesday, Henrik Dahl <h@example.com> wrote:\nHi Astrid,\nold", "Yes.",
       "On Tuesday, Henrik Dahl <h@example.com> wrote:\nHi Astrid,\nold", 1},
      {"forward", "FYI\n\n---------- Forwarded message ---------\nFrom: A\nDate: B\n\nold", "FYI",
       "---------- Forwarded message ---------\nFrom: A\nDate: B\n\nold", 1},
      {"a From line alone", "From: the desk of Ann\nhello", "From: the desk of Ann\nhello", "", 0},
      {"a quoted signature", "Answer\n\nOn X wrote:\n> q\n> -- \n> Sam Lee\n> +1 555",
       "Answer", "On X wrote:\n> q", 1},
      {"a long thread", "Answer\n\nOn A wrote:\n> x\n> On B wrote:\n>> y\n>> On C wrote:\n>>> z",
       "Answer", "On A wrote:\n> x\n> On B wrote:\n> > y\n> > On C wrote:\n> > > z", 3},
      {"only a quotation", "On A wrote:\n> x", "", "On A wrote:\n> x", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const SplitText s = split(c.text);
    EXPECT_EQ(s.newText, c.newText);
    EXPECT_EQ(s.thread, c.thread);
    EXPECT_EQ(s.earlierMessages, c.earlier);
  }
}

TEST(Calendar, TheFirstEventsSummary) {
  const std::string ics =
      "BEGIN:VCALENDAR\r\nMETHOD:REQUEST\r\nBEGIN:VEVENT\r\nDTSTART;TZID=Europe/Lisbon:"
      "20261112T140000\r\nDTEND:20261112T150000Z\r\nSUMMARY:Budget review\\, Q1\r\nLOCATION:Room "
      "Tejo\r\nORGANIZER;CN=\"Carla Mendes\":mailto:carla@example.org\r\nDESCRIPTION:Bring the "
      "fore\r\n cast.\\nThanks\r\nEND:VEVENT\r\nBEGIN:VEVENT\r\nSUMMARY:Second\r\nEND:VEVENT\r\n";
  EXPECT_EQ(calendarSummary(ics),
            "Calendar invitation: Budget review, Q1\n"
            "When: 2026-11-12 14:00 (Europe/Lisbon) to 2026-11-12 15:00 UTC\n"
            "Where: Room Tejo\n"
            "Organizer: Carla Mendes <carla@example.org>\n\n"
            "Bring the forecast.\nThanks");
  EXPECT_EQ(calendarSummary("not a calendar"), "");
}

}  // namespace
}  // namespace lumora::reading
