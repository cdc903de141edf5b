// The wire decoder reads the usual stream record without building a tree, and leaves every other
// line to the tree reading: both must come to the same outcome for every line.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/StreamLineOutcome.h"

namespace lumora {
namespace {

using testing::streamLineOutcome;
using testing::treeOutcome;

constexpr std::string_view kHead = R"({"id":"c1","object":"chat.completion.chunk","created":7,)"
                                   R"("model":"gpt-4o","choices":[)";

std::string record(std::string_view choices, std::string_view after = "}") {
  return std::string(kHead) + std::string(choices) + "]" + std::string(after);
}

// Lines of every shape the readings tell apart.
std::vector<std::string> shapes() {
  return {
      // The usual records, first, middle and last.
      record(R"({"index":0,"delta":{"role":"assistant","content":""},"logprobs":null,"finish_reason":null})"),
      record(R"({"index":0,"delta":{"content":"Hel\"lo\n\u00e9\ud83d\ude00"},"finish_reason":null})"),
      record(R"({"index":0,"delta":{},"finish_reason":"stop"})"),
      record(""),
      record(R"({"delta":null},{"delta":{"content":"b"}})"),
      // Keys written with escapes, converted keys, and repeated keys (the last one holds).
      R"({"i\u0064":"c","object":"o","created":1,"model":"m","choices":[]})",
      record(R"({"delta":{"content":"x"},"finish__reason":"length","finishReason":"stop"})"),
      record(R"({"delta":{"content":"x"},"delta":null})"),
      record(R"({"delta":{"content":"x"}})", R"(,"choices":[{"delta":{"content":"y"}}]})"),
      R"({"id":"a","id":"b","object":"o","created":1,"model":"m","choices":[]})",
      // Values the usual record does not have: nested, of other types, wrong types.
      record(R"({"delta":{"content":"x","tool_calls":[{"id":"t"}]}})"),
      record(R"({"delta":{"content":"x"}})", R"(,"usage":{"total_tokens":3}})"),
      record(R"({"delta":{"content":"x","refusal":null,"n":-1.5e3,"b":true}})"),
      record(R"({"delta":{"content":5}})"),
      record(R"({"delta":[]})"),
      record(R"({"finish_reason":1})"),
      record("1"),
      R"({"id":"c","object":"o","created":1.0,"model":"m","choices":[]})",
      R"({"id":"c","object":"o","created":18446744073709551615,"model":"m","choices":[]})",
      R"({"id":"c","object":"o","created":-9223372036854775808,"model":"m","choices":[]})",
      R"({"id":"c","object":"o","model":"m","choices":[]})",
      R"({"id":1,"object":"o","created":1,"model":"m","choices":[]})",
      R"({"id":"c","object":"o","created":1,"model":"m","choices":{}})",
      // Error bodies, plain and beside a record, and keys spelled "error" with an escape.
      R"({"error":{"message":"Incorrect API key","type":"invalid_request_error","code":null}})",
      record("", R"(,"error":{"message":"late"}})"),
      record("", R"(,"err\u006fr":{"message":"escaped"}})"),
      record("", R"(,"error":"a string"})"),
      // Not JSON, or not only JSON: what follows the record, broken values and atoms.
      record("", "} "),
      record("", "}{}"),
      record("", "} x"),
      record("", "}]"),
      record("", ",}"),
      record(R"({"delta":{"content":"x"},"logprobs":nul})"),
      record(R"({"delta":{"content":"x"},"logprobs":01})"),
      record(R"({"delta":{"content":"x"},"logprobs":[1,2}})"),
      record(R"({"delta":{"content":"x\q"}})"),
      record(R"({"delta":{"content":"x"},"bad\q":1})"),
      std::string(kHead),
      "",
      "   ",
      "[]",
      "null",
      "\"text\"",
  };
}

// One decoder reads `lines` in turn, as a stream's reader does: each must come to what a decoder
// that never saw the lines before it makes of it through the tree.
void expectEachAsOnItsOwn(const std::vector<std::string>& lines) {
  WireDecoder decoder;
  for (const std::string& line : lines) {
    SCOPED_TRACE(line);
    EXPECT_EQ(testing::outcomeOf([&] { return decoder.streamLine(line); }), treeOutcome(line));
  }
}

TEST(StreamRecord, BothReadingsAgreeOnEveryShape) {
  for (const std::string& line : shapes()) {
    SCOPED_TRACE(line);
    EXPECT_EQ(streamLineOutcome(line), treeOutcome(line));
  }
}

// A line that repeats the record before it but for the text is read as that text alone; every
// text and every other change must still come to the outcome of the line read on its own.
TEST(StreamRecord, ALineAfterAnotherComesToItsOwnOutcome) {
  const auto usual = [](std::string_view text, std::string_view finish = "null") {
    return record(R"({"index":0,"delta":{"content":")" + std::string(text) +
                  R"("},"logprobs":null,"finish_reason":)" + std::string(finish) + "}");
  };
  const std::string texts[] = {
      "", "Hel", "caf\xC3\xA9", "\x7F", std::string(70'000, 'a'),
      // Every escape, and escapes simdjson refuses.
      R"(a\"b)", R"(\\)", R"(\/)", R"(\b\f\n\r\t)", R"(\u00e9\u00E9)", R"(\u0000)", R"(\u2019)",
      R"(\ud83d\ude00)", R"(\uD83D\uDE00x)", R"(\uDE00)", R"(\uD83D)", R"(\uD83Dx)",
      R"(\uD83D\u0041)", R"(\uD83D\uD83D)", R"(\uD83D\uDE0)", R"(\u12)", R"(\u12G4)", R"(\x)",
      R"(\)", R"(a\)", R"(\\\)",
      // Quotes and control characters as written, which end or break the string.
      R"(a"b)", R"(x","role":"user)", R"(x"},"delta":{"content":"y)", "\x01", "a\tb", "\n",
      // Bytes that are not UTF-8.
      "\xC3", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF", "ok\xE2\x82",
  };
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    // After a record of the usual shape, and after one whose text is no string.
    expectEachAsOnItsOwn({usual("first"), usual(text), usual("next"), usual(text)});
    expectEachAsOnItsOwn({usual("first"), usual(text, R"("stop")"), usual(text)});
    expectEachAsOnItsOwn({record(R"({"delta":{"content":null}})"), usual(text)});
  }
  // Values the record does not keep may change too, each by the same rules as the text; a
  // value it keeps may not.
  const auto padded = [](std::string_view text, std::string_view padding,
                         std::string_view fingerprint = "fp_1") {
    return record(R"({"index":0,"delta":{"content":")" + std::string(text) + R"("},"x":"y"})",
                  R"(,"system_fingerprint":")" + std::string(fingerprint) +
                      R"(","obfuscation":")" + std::string(padding) + R"("})");
  };
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    expectEachAsOnItsOwn({padded("a", "Zk3"), padded("b", text), padded("c", "\u0041b"),
                          padded(text, "q", text), padded("d", "")});
  }
  expectEachAsOnItsOwn({padded("a", "1"), padded("b", "2", "fp_2"), padded("c", "3", "")});
  const auto named = [](std::string_view id, std::string_view model, std::string_view text) {
    return R"({"id":")" + std::string(id) + R"(","object":"o","created":1,"model":")" +
           std::string(model) + R"(","choices":[{"delta":{"content":")" + std::string(text) +
           R"("}}]})";
  };
  expectEachAsOnItsOwn({named("a", "m", "x"), named("b", "m", "y"), named("b", "n", "z"),
                        named("b", "n\u0041", "z"), named("b", "nA", "z")});
  // A run of records that differ in their id, then records that repeat, then the run again:
  // the decoder stops keeping lines for a while and starts again, each line read as on its own.
  std::vector<std::string> stream;
  for (int i = 0; i < 300; ++i) {
    const bool numbered = i < 100 || i >= 200;
    stream.push_back(named(numbered ? std::to_string(i) : "same", "m", std::to_string(i % 7)));
  }
  expectEachAsOnItsOwn(stream);
  // Records whose values are not the only places they differ from the record before.
  expectEachAsOnItsOwn({usual("a"), usual("b", R"("stop")"), usual("c")});
  expectEachAsOnItsOwn({usual("a"), usual("b") + " ", usual("c") + "x", usual("d")});
  expectEachAsOnItsOwn({usual("a"), " " + usual("b"), usual("c")});
  expectEachAsOnItsOwn({record(R"({"delta":{"content":"a"}},{"delta":{"content":"b"}})"),
                        record(R"({"delta":{"content":"a"}},{"delta":{"content":"c"}})")});
  expectEachAsOnItsOwn({record(R"({"delta":{"content":"a","content":"b"}})"),
                        record(R"({"delta":{"content":"a","content":"c"}})")});
  expectEachAsOnItsOwn({record(R"({"delta":{"content":"a"},"delta":{}})"),
                        record(R"({"delta":{"content":"b"},"delta":{}})")});
  expectEachAsOnItsOwn({record(R"({"delta":{"content":"a"},"delta":null})"),
                        record(R"({"delta":{"content":"b"},"delta":null})")});
  expectEachAsOnItsOwn({record(R"({"delta":{"content":"a"}})", R"(,"choices":[]})"),
                        record(R"({"delta":{"content":"b"}})", R"(,"choices":[]})")});
  expectEachAsOnItsOwn({record(R"({"delta":{"content" : "a" }})"),
                        record(R"({"delta":{"content" : "b\n" }})")});
  // Every shape after every other, so that no reading leaves the next one wrong.
  const std::vector<std::string> all = shapes();
  for (const std::string& first : all) {
    for (const std::string& second : all) expectEachAsOnItsOwn({first, second});
  }
}

TEST(StreamRecord, TheUsualRecordIsReadWithItsTextAndTheRestAsBefore) {
  EXPECT_EQ(streamLineOutcome(record(R"({"index":0,"delta":{"content":"a\"b"},"logprobs":null,)"
                                     R"("finish_reason":"stop"})")),
            "record id=c1 object=chat.completion.chunk created=7 model=gpt-4o | choice "
            "role=- content=\"a\"b\" finish=\"stop\"");
  EXPECT_NE(streamLineOutcome(R"({"error":{"message":"Incorrect API key"}})").find("Incorrect"),
            std::string::npos);
  EXPECT_EQ(streamLineOutcome(record("", "}x")), "not JSON");
}

// A line longer than the usual record's reading takes is read through the tree alone, to the
// same outcome.
TEST(StreamRecord, ALongLineIsReadTheSameWay) {
  const std::string text(200'000, 'a');
  const std::string line = record(R"({"delta":{"content":")" + text + R"("}})");
  EXPECT_EQ(streamLineOutcome(line), treeOutcome(line));
  EXPECT_NE(streamLineOutcome(line).find(text), std::string::npos);
}

}  // namespace
}  // namespace lumora
