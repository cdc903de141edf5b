// The MIME parse: splitting header from body, cutting multiparts at their delimiters, and the
// parse's behaviour on hostile structure.
#include <gtest/gtest.h>

#include <random>
#include <variant>

#include "lumora/mailcontent/mime/Mime.h"
#include "support/MimeReference.h"
#include "support/MimeShape.h"

namespace lumora {
namespace {

using testing::MimePicture;
using testing::pictureOf;
using testing::referencePicture;

TEST(MimePartsSplitter, FindsTheFirstEmptyLine) {
  struct Case {
    const char* name;
    std::string text;
    std::optional<std::pair<std::string, std::string>> parts;  // header, body
  };
  const Case cases[] = {
      {"header and body", "A: b\r\nC: d\r\n\r\nbody\r\n", {{"A: b\r\nC: d\r\n", "body\r\n"}}},
      {"bare line feeds", "A: b\n\nbody", {{"A: b\n", "body"}}},
      {"a carriage return alone ends no line", "A: b\r\rx\n\nbody", {{"A: b\r\rx\n", "body"}}},
      {"only the first empty line counts", "A: b\n\nx\n\ny", {{"A: b\n", "x\n\ny"}}},
      {"a leading empty line: no header", "\r\nbody", {{"", "body"}}},
      {"all header, ending in a line end", "Subject: x\n", {{"Subject: x", ""}}},
      {"all header, CRLF", "A: b\r\nC: d\r\n", {{"A: b\r\nC: d", ""}}},
      {"just a line end", "\n", {{"", ""}}},
      {"no line end at all", "Subject: x", std::nullopt},
      {"a last line without line end", "A: b\nC: d", std::nullopt},
      {"empty text", "", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto parts = MimePartsSplitter::split(c.text);
    ASSERT_EQ(parts.has_value(), c.parts.has_value());
    if (!parts) continue;
    const auto slice = [&](MimePartsSplitter::Range r) {
      return c.text.substr(r.begin, r.end - r.begin);
    };
    EXPECT_EQ(slice(parts->header), c.parts->first);
    EXPECT_EQ(slice(parts->body), c.parts->second);
  }
}

// What a parse should give: a picture of the tree, or the error it fails with.
enum class Failure { structure, header };
using Outcome = std::variant<MimePicture, Failure>;

Outcome outcomeOf(const std::string& message) {
  try {
    return pictureOf(MimeParser::parse(message));
  } catch (const MimeParserError&) {
    return Failure::structure;
  } catch (const MimeHeaderError&) {
    return Failure::header;
  }
}

std::string describe(const Outcome& o) {
  if (const auto* failure = std::get_if<Failure>(&o))
    return *failure == Failure::structure ? "<structure error>" : "<header error>";
  const auto& p = std::get<MimePicture>(o);
  std::string out = p.shape;
  for (const auto& b : p.bodies) out += " |" + b + "|";
  return out;
}

const std::string kMixed = "Content-Type: multipart/mixed; boundary=b\n";

TEST(MimeParser, Structure) {
  struct Case {
    const char* name;
    std::string message;
    Outcome expected;
  };
  // The rules by hand; AgreesWithTheLiteralParse below meets every mix of delimiters, nested
  // multiparts, bad fields and line ends as well.
  const Case cases[] = {
      {"one line without line end", "Subject: x", Failure::structure},
      {"header with empty body", "Subject: x\n", MimePicture{"-:7bit", {""}}},
      {"leading empty line: no header", "\nhello", MimePicture{"-:7bit", {"hello"}}},
      {"single part keeps its encoding and raw text",
       "Content-Type: text/html\nContent-Transfer-Encoding: quoted-printable\n\na=3Db\n",
       MimePicture{"text/html:quoted-printable", {"a=3Db\n"}}},
      {"message/rfc822 is a leaf",
       "Content-Type: message/rfc822\n\nContent-Type: multipart/mixed; boundary=b\n\n--b\n\nx\n--b--\n",
       MimePicture{"message/rfc822:7bit",
                   {"Content-Type: multipart/mixed; boundary=b\n\n--b\n\nx\n--b--\n"}}},
      {"multipart without boundary is a leaf", "Content-Type: multipart/mixed\n\n--b\n\nx\n",
       MimePicture{"multipart/mixed:7bit", {"--b\n\nx\n"}}},
      {"two parts, preamble and epilogue dropped",
       kMixed + "\npreamble\n--b\nContent-Type: text/plain\n\none\n--b\n\ntwo\n--b--\nepilogue\n",
       MimePicture{"mixed[text/plain:7bit,-:7bit]", {"one", "two"}}},
      {"CRLF: the line end before a delimiter belongs to it",
       "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\none\r\n\r\n--b--\r\n",
       MimePicture{"mixed[-:7bit]", {"one\r\n"}}},
      {"one delimiter: no parts", kMixed + "\n--b\n\nonly\n", MimePicture{"mixed[]", {}}},
      {"no closing delimiter loses the last part",
       kMixed + "\n--b\n\none\n--b\n\ntwo\n", MimePicture{"mixed[-:7bit]", {"one"}}},
      {"a second delimiter without hyphens still closes",
       kMixed + "\n--b\n\none\n--b\n", MimePicture{"mixed[-:7bit]", {"one"}}},
      {"a part of one line without line end fails", kMixed + "\n--b\nhello\n--b--\n",
       Failure::structure},
      {"related is mixed, ALTERNATIVE is alternative",
       "Content-Type: multipart/related; boundary=o\n\n--o\n"
       "Content-Type: multipart/ALTERNATIVE; boundary=i\n\n--i\n\na\n--i--\n--o--\n",
       MimePicture{"related[alternative[-:7bit]]", {"a"}}},
      {"pattern characters in a boundary stand for themselves",
       "Content-Type: multipart/mixed; boundary=\"a.b+c*(d)?[e]^$|\\\"\n\n--aXb+c\n\n--a.b+c*(d)?[e]^$|\\\n\none\n"
       "--axb+c*(d)?[e]^$|\\\n--a.b+c*(d)?[e]^$|\\--\n",
       Failure::header},
      {"pattern characters in a quoted boundary",
       "Content-Type: multipart/mixed; boundary=\"a.b+c*(d)?[e]^$|\"\n\n--aXb+c\n\n"
       "--a.b+c*(d)?[e]^$|\n\none\n--axb+c*(d)?[e]^$|\n--a.b+c*(d)?[e]^$|--\n",
       MimePicture{"mixed[-:7bit]", {"one\n--axb+c*(d)?[e]^$|"}}},
      {"nested: the inner multipart's delimiters may stand in its own header",
       kMixed + "\n--b\nContent-Type: multipart/alternative; boundary=c\n--c\n\ninner\n--c--\n\n--b--\n",
       MimePicture{"mixed[alternative[-:7bit]]", {"inner"}}},
      {"an inner delimiter cannot take the line feed of an outer one",
       kMixed + "\n--b\nContent-Type: multipart/mixed; boundary=c\n\n--c\n\nx\n--c\n--b\n\ny\n--b--",
       MimePicture{"mixed[mixed[-:7bit],-:7bit]", {"x", "y"}}},
      {"a bad header in a closed part fails the message",
       kMixed + "\n--b\nContent-Type: text\n\nx\n--b--\n", Failure::header},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(describe(outcomeOf(c.message)), describe(c.expected));
  }
}

// Random messages built from the pieces that matter to the structure: delimiters of related
// boundaries with every kind of tail, nested multipart headers, empty lines, bad fields, and
// every kind of line end. The parser must agree with the literal parse on each.
// The first quoted-printable leaf among the message's own parts, as the scan that keeps no tree
// finds it and as the tree shows it: the failure's type, or the kind and where the leaf is.
template <typename Find>
std::string topLeafOutcome(Find find) {
  try {
    return find();
  } catch (const MimeParserError&) {
    return "structure";
  } catch (const MimeHeaderError&) {
    return "header";
  }
}

std::string topLeafByScan(std::string_view message) {
  return topLeafOutcome([&] {
    const MimeParser::TopLeaf top = MimeParser::firstQuotedPrintableLeaf(message);
    std::string out = std::to_string(static_cast<int>(top.kind));
    if (top.leaf) out += " " + std::to_string(top.leaf->offset) + "+" + std::to_string(top.leaf->size);
    return out;
  });
}

std::string topLeafByTree(std::string_view message) {
  return topLeafOutcome([&] {
    const Mime mime = MimeParser::parse(message);
    std::string out = std::to_string(static_cast<int>(mime.content().kind()));
    const auto quotedPrintable = [](const Mime& part) -> const MimeBody* {
      const MimeBody* body = part.content().body();
      return body && body->encoding().kind == ContentTransferEncoding::Kind::quotedPrintable
                 ? body
                 : nullptr;
    };
    const MimeBody* found = quotedPrintable(mime);
    for (const Mime& part : mime.content().parts()) {
      if (found) break;
      found = quotedPrintable(part);
    }
    if (found) out += " " + std::to_string(*found->offset()) + "+" + std::to_string(found->raw().size());
    return out;
  });
}

TEST(MimeParser, AgreesWithTheLiteralParse) {
  std::mt19937 random(20261123);
  const std::vector<std::string> boundaries = {"b", "bb", "c", "b.c"};
  const std::vector<std::string> endings = {"\n", "\r\n", "\n", "\r", ""};
  auto pick = [&](const auto& v) { return v[random() % v.size()]; };
  int compared = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string message = "Content-Type: multipart/" +
                          std::string(random() % 2 ? "mixed" : "alternative") +
                          "; boundary=\"" + pick(boundaries) + "\"" + pick(endings);
    const int lines = 2 + random() % 24;
    for (int i = 0; i < lines; ++i) {
      switch (random() % 9) {
        case 0:
        case 1:
          message += "--" + pick(boundaries) + (random() % 3 == 0 ? "--" : "") +
                     (random() % 5 == 0 ? "x" : "");
          break;
        case 2:
          message += "Content-Type: multipart/mixed; boundary=" + pick(boundaries);
          break;
        case 3:
          message += "Content-Type: text/plain";
          break;
        case 4:
          message += random() % 4 == 0 ? "Content-Type: text" : "X: y";
          break;
        case 5:
          message += "Content-Transfer-Encoding: " +
                     std::string(random() % 2 ? "base64" : "quoted-printable");
          break;
        case 6:
        case 7:
          break;  // an empty line
        default:
          message += "text";
      }
      message += pick(endings);
    }
    const Outcome actual = outcomeOf(message);
    Outcome expected;
    try {
      expected = referencePicture(message);
    } catch (const MimeParserError&) {
      expected = Failure::structure;
    } catch (const MimeHeaderError&) {
      expected = Failure::header;
    }
    ASSERT_EQ(describe(actual), describe(expected)) << "message: " << ::testing::PrintToString(message);
    ASSERT_EQ(topLeafByScan(message), topLeafByTree(message))
        << "message: " << ::testing::PrintToString(message);
    ++compared;
  }
  EXPECT_EQ(compared, 20000);
}

// Deep nesting is the classic way to exhaust a recursive parser's stack, and the cheapest way
// to make a naive one quadratic.
std::string nested(size_t depth, bool distinctBoundaries) {
  std::string message;
  const auto boundary = [&](size_t level) {
    return distinctBoundaries ? std::string("n").append(std::to_string(level)) + "_"
                              : std::string("n");
  };
  for (size_t level = 0; level < depth; ++level)
    message += "Content-Type: multipart/mixed; boundary=" + boundary(level) + "\n\n--" +
               boundary(level) + "\n";
  message += "\ninnermost\n";
  // An empty line between closing delimiters: each takes the line end behind it. With one
  // boundary for all, the first closing delimiter is the message's last.
  for (size_t level = depth; level-- > 0;) {
    message += "--" + boundary(level) + "--\n\n";
    if (!distinctBoundaries) break;
  }
  return message;
}

TEST(MimeParser, HundredThousandLevelsDeep) {
  for (const bool distinct : {true, false}) {
    for (const size_t depth : {1, 2, 3, 10})
      EXPECT_EQ(pictureOf(MimeParser::parse(nested(depth, distinct))),
                referencePicture(nested(depth, distinct)));
  }
  const Mime mime = MimeParser::parse(nested(100000, true));
  EXPECT_EQ(testing::depthOf(mime), 100000u);
  // One boundary for all: every level's delimiter is the message's, and each level's header
  // is a part of its own.
  const Mime flat = MimeParser::parse(nested(100000, false));
  EXPECT_EQ(flat.content().parts().size(), 100000u);
}

TEST(MimeParser, ManyParts) {
  std::string message = kMixed + "\n";
  for (int i = 0; i < 10000; ++i) message += "--b\nContent-Type: text/plain\n\npart\n";
  message += "--b--\n";
  const Mime mime = MimeParser::parse(message);
  ASSERT_EQ(mime.content().parts().size(), 10000u);
  EXPECT_EQ(mime.content().parts().back().content().body()->raw(), "part");
}

}  // namespace
}  // namespace lumora
