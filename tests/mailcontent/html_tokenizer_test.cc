// The HTML tokenizer against the html5lib tokenizer suite, plus what the suite does not pin:
// how runs of text are put together, kept line ends, and hostile sizes.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/mailcontent/html/Tokenizer.h"
#include "support/Fixtures.h"

namespace lumora::html {
namespace {

using nlohmann::json;

// ---------------------------------------------------------------------------------------------
// Running the tokenizer

struct TokenizerRun {
  json tokens = json::array();  // in the suite's notation, adjacent characters joined
  bool ended = false;           // reached endOfFile within the token budget
};

void appendCharacters(json& tokens, std::string_view characters) {
  const std::string data(characters);
  if (!tokens.empty() && tokens.back()[0] == "Character") {
    tokens.back()[1] = tokens.back()[1].get<std::string>() + data;
  } else {
    tokens.push_back(json::array({"Character", data}));
  }
}

TokenizerRun tokenize(std::string_view input, TokenizerState state, const std::optional<std::string>& lastStartTag) {
  Tokenizer tokenizer(input);
  tokenizer.switchTo(state);
  if (lastStartTag) tokenizer.setLastStartTagName(*lastStartTag);
  TokenizerRun run;
  // Every token but the last consumes at least one byte, so more tokens than that is a loop.
  for (size_t budget = input.size() + 2; budget > 0; --budget) {
    const Token& token = tokenizer.next();
    switch (token.type) {
      case Token::Type::endOfFile:
        run.ended = true;
        return run;
      case Token::Type::characters:
        appendCharacters(run.tokens, token.characters);
        break;
      case Token::Type::comment:
        run.tokens.push_back(json::array({"Comment", token.data}));
        break;
      case Token::Type::doctype:
        run.tokens.push_back(json::array({"DOCTYPE", token.hasName ? json(token.name) : json(nullptr),
                                          token.hasPublicIdentifier ? json(token.publicIdentifier) : json(nullptr),
                                          token.hasSystemIdentifier ? json(token.systemIdentifier) : json(nullptr),
                                          !token.forceQuirks}));
        break;
      case Token::Type::startTag: {
        json attributes = json::object();
        for (const Attribute& a : token.attributes) attributes[a.name] = a.value;
        json tag = json::array({"StartTag", token.name, attributes});
        if (token.selfClosing) tag.push_back(true);
        run.tokens.push_back(std::move(tag));
        break;
      }
      case Token::Type::endTag:
        run.tokens.push_back(json::array({"EndTag", token.name}));
        break;
    }
  }
  return run;
}

// ---------------------------------------------------------------------------------------------
// The html5lib suite

// "\uXXXX" sequences (surrogate pairs joined) to UTF-8, read as the escapes of a JSON string
// with the text between them escaped as JSON. A lone surrogate has no UTF-8 form.
std::optional<std::string> unescapeDoubleEscaped(const std::string& s) {
  const auto escaped = [](const std::string& text) {
    const std::string quoted = json(text).dump();
    return quoted.substr(1, quoted.size() - 2);
  };
  std::string literal = "\"";
  size_t from = 0;
  for (size_t at = s.find("\\u"); at != std::string::npos; at = s.find("\\u", from)) {
    literal += escaped(s.substr(from, at - from)) + s.substr(at, 6);
    from = at + 6;
  }
  literal += escaped(s.substr(std::min(from, s.size()))) + "\"";
  try {
    return json::parse(literal).get<std::string>();
  } catch (const json::exception&) {
    return std::nullopt;
  }
}

// Unescapes every string in `value` (attribute names too); false if one has no UTF-8 form.
bool unescapeAll(json& value) {
  if (value.is_string()) {
    std::optional<std::string> s = unescapeDoubleEscaped(value.get<std::string>());
    if (!s) return false;
    value = *s;
  } else if (value.is_array()) {
    for (json& element : value) {
      if (!unescapeAll(element)) return false;
    }
  } else if (value.is_object()) {
    json unescaped = json::object();
    for (auto& [key, element] : value.items()) {
      std::optional<std::string> k = unescapeDoubleEscaped(key);
      json v = element;
      if (!k || !unescapeAll(v)) return false;
      unescaped[*k] = v;
    }
    value = unescaped;
  }
  return true;
}

json joinCharacters(const json& tokens) {
  json joined = json::array();
  for (const json& token : tokens) {
    if (token[0] == "Character") {
      appendCharacters(joined, token[1].get<std::string>());
    } else {
      joined.push_back(token);
    }
  }
  return joined;
}

std::optional<TokenizerState> stateNamed(const std::string& name) {
  static const std::pair<std::string_view, TokenizerState> kStates[] = {
      {"Data state", TokenizerState::data},
      {"PLAINTEXT state", TokenizerState::plaintext},
      {"RCDATA state", TokenizerState::rcdata},
      {"RAWTEXT state", TokenizerState::rawtext},
      {"Script data state", TokenizerState::scriptData},
      {"CDATA section state", TokenizerState::cdataSection},
  };
  for (const auto& [n, state] : kStates) {
    if (n == name) return state;
  }
  return std::nullopt;
}

// Cases where this tokenizer differs from the suite on purpose, each with the reason. A case
// listed here must fail (so the list stays true); every other case must pass.
struct KnownDifference {
  std::string_view file;
  std::string_view description;
  std::string_view initialState;
  std::string_view why;
};

constexpr std::string_view kCrKept = "line ends are not normalised: a CR stays a CR (and CRLF stays CRLF)";
constexpr std::string_view kLoneSurrogate = "the input holds a lone surrogate, which has no UTF-8 form";
constexpr std::string_view kInfoset =
    "expects the output coerced into an XML infoset, which this tokenizer does not do";

const KnownDifference kKnownDifferences[] = {
    {"test3.test", "<!----!CR>", "Data state", kCrKept},
    {"test3.test", "<!----!CRLF>", "Data state", kCrKept},
    {"test4.test", "CR followed by non-LF", "Data state", kCrKept},
    {"test4.test", "CR at EOF", "Data state", kCrKept},
    {"test4.test", "CR LF", "Data state", kCrKept},
    {"test4.test", "CR CR", "Data state", kCrKept},
    {"test4.test", "LF CR", "Data state", kCrKept},
    {"test4.test", "text CR CR CR text", "Data state", kCrKept},
    {"unicodeCharsProblematic.test", "CR followed by U+0000", "Data state", kCrKept},
    {"domjs.test", "CR in bogus comment state", "Data state", kCrKept},
    {"domjs.test", "CRLF in bogus comment state", "Data state", kCrKept},
    {"domjs.test", "CRLFLF in bogus comment state", "Data state", kCrKept},
    {"unicodeCharsProblematic.test", "Invalid Unicode character U+DFFF", "Data state", kLoneSurrogate},
    {"unicodeCharsProblematic.test", "Invalid Unicode character U+D800", "Data state", kLoneSurrogate},
    {"unicodeCharsProblematic.test", "Invalid Unicode character U+DFFF with valid preceding character", "Data state",
     kLoneSurrogate},
    {"unicodeCharsProblematic.test", "Invalid Unicode character U+D800 with valid following character", "Data state",
     kLoneSurrogate},
    {"xmlViolation.test", "Non-XML character", "Data state", kInfoset},
    {"xmlViolation.test", "Non-XML space", "Data state", kInfoset},
    {"xmlViolation.test", "Double hyphen in comment", "Data state", kInfoset},
};

const KnownDifference* knownDifference(std::string_view file, std::string_view description, std::string_view state) {
  for (const KnownDifference& d : kKnownDifferences) {
    if (d.file == file && d.description == description && d.initialState == state) return &d;
  }
  return nullptr;
}

TEST(HtmlTokenizerConformance, Html5libTokenizerSuite) {
  const std::filesystem::path directory = lumora::testing::fixturesDir() / "html5lib-tests" / "tokenizer";
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.path().extension() == ".test") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  ASSERT_FALSE(files.empty()) << "no tokenizer tests in " << directory;

  size_t knownSeen = 0;
  for (const std::filesystem::path& path : files) {
    const std::string file = path.filename().string();
    const json suite = json::parse(lumora::testing::readFile(path));
    const json& cases = suite.contains("tests") ? suite["tests"] : suite["xmlViolationTests"];
    size_t total = 0, passed = 0, known = 0;
    for (const json& test : cases) {
      const std::string description = test["description"];
      const bool doubleEscaped = test.value("doubleEscaped", false);
      std::optional<std::string> input = test["input"].get<std::string>();
      json expected = test["output"];
      bool representable = true;
      if (doubleEscaped) {
        input = unescapeDoubleEscaped(*input);
        representable = input.has_value() && unescapeAll(expected);
      }
      expected = joinCharacters(expected);
      const std::optional<std::string> lastStartTag =
          test.contains("lastStartTag") ? std::optional<std::string>(test["lastStartTag"]) : std::nullopt;
      const json states = test.value("initialStates", json::array({"Data state"}));
      for (const json& stateName : states) {
        ++total;
        const std::optional<TokenizerState> state = stateNamed(stateName);
        ASSERT_TRUE(state) << file << ": unknown initial state " << stateName;
        bool ok = false;
        json actual;
        if (representable) {
          const TokenizerRun run = tokenize(*input, *state, lastStartTag);
          actual = run.tokens;
          ok = run.ended && actual == expected;
        }
        const KnownDifference* difference = knownDifference(file, description, stateName.get<std::string>());
        if (ok) {
          ++passed;
          EXPECT_EQ(difference, nullptr) << file << " \"" << description << "\" (" << stateName.get<std::string>()
                                         << ") is listed as a known difference but passes";
        } else if (difference != nullptr) {
          ++known;
        } else {
          ADD_FAILURE() << file << " \"" << description << "\" (" << stateName.get<std::string>() << ")\n  input:    "
                        << json(test["input"]).dump() << "\n  expected: " << expected.dump()
                        << "\n  actual:   " << actual.dump();
        }
        if (difference != nullptr) ++knownSeen;
      }
    }
    // As for the tree construction: P of the T cases that are not listed, and K listed.
    std::cout << file << ": " << passed << "/" << total - known << " passed, " << known
              << " known differences\n";
  }
  // A listed case that no longer exists in the suite is a stale entry.
  EXPECT_EQ(knownSeen, std::size(kKnownDifferences)) << "a known difference names a case the suite does not have";
}

// ---------------------------------------------------------------------------------------------
// What the suite does not pin

json tokensOf(std::string_view input, TokenizerState state = TokenizerState::data) {
  const TokenizerRun run = tokenize(input, state, std::nullopt);
  EXPECT_TRUE(run.ended) << "no end of file for " << json(std::string(input)).dump();
  return run.tokens;
}

// Text that the tokenizer builds from several pieces (references, replaced nulls, '<' that
// starts nothing) arrives whole and in order, in every text state.
TEST(HtmlTokenizer, RunsOfTextAreJoinedAcrossReferencesAndNulls) {
  using namespace std::string_literals;
  const struct {
    TokenizerState state;
    std::string input;
    std::string text;
  } cases[] = {
      {TokenizerState::data, "a&amp;b\0c&lt;d"s, "a&b\0c<d"s},
      {TokenizerState::data, "x & y &#65;&#x42;&notin z"s, "x & y AB\xC2\xACin z"s},
      {TokenizerState::data, "a < b <= c\0"s, "a < b <= c\0"s},
      {TokenizerState::data, "&&&amp&&"s, "&&&&&"s},
      {TokenizerState::rcdata, "a\0b&amp;c</x>d"s, "a\xEF\xBF\xBD" "b&c</x>d"s},
      {TokenizerState::rawtext, "a\0b&amp;c</x>"s, "a\xEF\xBF\xBD" "b&amp;c</x>"s},
      {TokenizerState::scriptData, "if (a<b&&c\0) x='<!--<script>\0</script>-->'"s,
       "if (a<b&&c\xEF\xBF\xBD) x='<!--<script>\xEF\xBF\xBD</script>-->'"s},
      {TokenizerState::plaintext, "<b>\0&amp;</plaintext>"s, "<b>\xEF\xBF\xBD&amp;</plaintext>"s},
      {TokenizerState::cdataSection, "a]b]]c\0]]]>"s, "a]b]]c\0]"s},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(tokensOf(c.input, c.state), json::array({json::array({"Character", c.text})})) << json(c.input).dump();
  }
}

// A run that stands in the input as it is comes out as a view of the input, which the tree
// builder keeps instead of a copy; a run with anything else in it is the tokenizer's own.
TEST(HtmlTokenizer, RunsStandingVerbatimInTheInputAreViewsOfIt) {
  using namespace std::string_literals;
  const struct {
    TokenizerState state;
    std::string input;
    bool verbatim;
  } cases[] = {
      {TokenizerState::data, "plain words\r\n"s, true},
      {TokenizerState::data, "a < b, a <= b, 1 <2"s, true},
      {TokenizerState::data, "fish & chips &#; &#x; &zz"s, true},
      {TokenizerState::data, "a\0b"s, true},
      {TokenizerState::rcdata, "a</b>c</x"s, true},
      {TokenizerState::scriptData, "if (a<b) x='<!--<script></script>-->'"s, true},
      {TokenizerState::cdataSection, "a]b]]c"s, true},
      {TokenizerState::data, "a&amp;b"s, false},
      {TokenizerState::data, "&lt;b"s, false},
      {TokenizerState::rcdata, "a\0b"s, false},
  };
  for (const auto& c : cases) {
    Tokenizer tokenizer(c.input);
    tokenizer.switchTo(c.state);
    const Token& token = tokenizer.next();
    ASSERT_EQ(token.type, Token::Type::characters) << json(c.input).dump();
    const bool inInput = token.characters.data() >= c.input.data() &&
                         token.characters.data() + token.characters.size() <= c.input.data() + c.input.size();
    EXPECT_EQ(inInput, c.verbatim) << json(c.input).dump();
    EXPECT_EQ(tokenizer.next().type, Token::Type::endOfFile) << json(c.input).dump() << " is one run";
  }
}

// Carriage returns stay in text, comments and values; between the parts of markup they
// separate like any white space, so CRLF mail markup tokenizes as it would with LF.
TEST(HtmlTokenizer, CarriageReturnsAreKept) {
  const struct {
    std::string_view input;
    std::string_view expected;
  } cases[] = {
      {"a\r\nb\rc\r", R"([["Character","a\r\nb\rc\r"]])"},
      {"<!--a\r\nb-->", R"([["Comment","a\r\nb"]])"},
      {"<a\r\nhref='x\r\ny'\r\ntitle=z\r>", R"([["StartTag","a",{"href":"x\r\ny","title":"z"}]])"},
      {"<br\r/>", R"([["StartTag","br",{},true]])"},
      {"</p\r\n>", R"([["EndTag","p"]])"},
      {"<!DOCTYPE\r\nhtml\r\nPUBLIC\r\n\"p\"\r\n\"s\">", R"([["DOCTYPE","html","p","s",true]])"},
      {"&#13;&#x0D;", R"([["Character","\r\r"]])"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(tokensOf(c.input), json::parse(c.expected)) << json(std::string(c.input)).dump();
  }
}

// How the tree builder drives it: switch after the start tag, and the tokenizer itself
// remembers which end tag closes the element.
TEST(HtmlTokenizer, TextElementsEndAtTheirOwnEndTag) {
  const struct {
    std::string_view input;
    TokenizerState state;
    std::string_view expected;
  } cases[] = {
      {"<title>a</b>&amp;</TITLE >x", TokenizerState::rcdata,
       R"([["StartTag","title",{}],["Character","a</b>&"],["EndTag","title"],["Character","x"]])"},
      {"<style>p</styles></style>", TokenizerState::rawtext,
       R"([["StartTag","style",{}],["Character","p</styles>"],["EndTag","style"]])"},
      {"<script>a='<!--<script>'</script>'-->'</script>", TokenizerState::scriptData,
       R"([["StartTag","script",{}],["Character","a='<!--<script>'</script>'-->'"],["EndTag","script"]])"},
  };
  for (const auto& c : cases) {
    Tokenizer tokenizer(c.input);
    json tokens = json::array();
    for (const Token* t = &tokenizer.next(); t->type != Token::Type::endOfFile; t = &tokenizer.next()) {
      if (t->type == Token::Type::startTag) {
        tokens.push_back(json::array({"StartTag", t->name, json::object()}));
        tokenizer.switchTo(c.state);
      } else if (t->type == Token::Type::endTag) {
        tokens.push_back(json::array({"EndTag", t->name}));
      } else {
        appendCharacters(tokens, t->characters);
      }
    }
    EXPECT_EQ(tokens, json::parse(c.expected)) << c.input;
    EXPECT_EQ(tokenizer.next().type, Token::Type::endOfFile) << "end of file repeats";
  }
}

TEST(HtmlTokenizer, ManyAttributesKeepTheFirstOfEachName) {
  constexpr size_t kNames = 50'000;
  std::string input = "<a";
  for (int round = 0; round < 2; ++round) {
    for (size_t i = 0; i < kNames; ++i) {
      input += " n" + std::to_string(i) + "=" + (round == 0 ? "first" : "second");
    }
  }
  input += " N7=upper>";
  for (const char* tagStart : {"<a", "</a"}) {
    const std::string tag = tagStart + input.substr(2);
    Tokenizer tokenizer(tag);
    const Token& token = tokenizer.next();
    ASSERT_EQ(token.type, tagStart[1] == '/' ? Token::Type::endTag : Token::Type::startTag);
    ASSERT_EQ(token.attributes.size(), kNames);
    EXPECT_TRUE(std::all_of(token.attributes.begin(), token.attributes.end(),
                            [](const Attribute& a) { return a.value == "first"; }));
    EXPECT_EQ(token.attributes[kNames - 1].name,
              std::string("n").append(std::to_string(kNames - 1)));
    ASSERT_NE(token.attribute("n7"), nullptr);
    EXPECT_EQ(*token.attribute("n7"), "first");
    EXPECT_EQ(tokenizer.next().type, Token::Type::endOfFile);
  }
  // A small tag after the huge one still finds its duplicates.
  const std::string followed = input + "<b x=1 a b c d e f g h i j x=2>";
  Tokenizer tokenizer(followed);
  tokenizer.next();
  const Token& small = tokenizer.next();
  ASSERT_EQ(small.attributes.size(), 11u);
  EXPECT_EQ(*small.attribute("x"), "1");
}

TEST(HtmlTokenizer, AMegabyteOfLessThanSignsIsText) {
  const std::string input(1 << 20, '<');
  for (TokenizerState state : {TokenizerState::data, TokenizerState::rcdata, TokenizerState::rawtext,
                               TokenizerState::scriptData, TokenizerState::plaintext}) {
    const json tokens = tokensOf(input, state);
    ASSERT_EQ(tokens.size(), 1u);
    EXPECT_EQ(tokens[0][1].get<std::string>().size(), input.size());
  }
}

}  // namespace
}  // namespace lumora::html
