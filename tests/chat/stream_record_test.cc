// The wire decoder reads the usual stream record without building a tree, and leaves every other
// line to the tree reading: both must come to the same outcome for every line.
#include <gtest/gtest.h>

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

TEST(StreamRecord, BothReadingsAgreeOnEveryShape) {
  const std::string lines[] = {
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
  for (const std::string& line : lines) {
    SCOPED_TRACE(line);
    EXPECT_EQ(streamLineOutcome(line), treeOutcome(line));
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
