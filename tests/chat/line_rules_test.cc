// The stream's line rules: over recorded streams of real servers, and line by line.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "lumora/chat/ChatRequest.h"
#include "lumora/chat/Errors.h"
#include "lumora/platform/LineSplitter.h"
#include "support/Fixtures.h"

namespace lumora {
namespace {

struct Outcome {
  size_t chunks = 0;
  std::string completed;
  std::vector<std::string> finishReasons;
  std::string failure;  // describeFailure text; empty when the stream ended
  std::string model;    // of the last chunk
};

// Feeds `body` in pieces of `piece` bytes (0: all at once) through the splitter and the rule.
Outcome run(const std::string& body, LineRule rule, size_t piece = 0) {
  Outcome out;
  LineProcessor processor(rule);
  LineSplitter splitter;
  auto onLine = [&](std::string_view line) {
    if (auto chunk = processor.line(line)) {
      ++out.chunks;
      out.completed = chunk->completed.str();
      out.model = chunk->model.str();
      if (chunk->finishReason) out.finishReasons.push_back(*chunk->finishReason);
    }
  };
  try {
    const size_t step = piece == 0 ? std::max<size_t>(body.size(), 1) : piece;
    for (size_t at = 0; at < body.size(); at += step)
      splitter.feed(std::string_view(body).substr(at, step), onLine);
    splitter.finish(onLine);
  } catch (const std::exception& e) {
    out.failure = describeFailure(e);
  }
  return out;
}

TEST(RecordedStreams, EveryRecordedStreamGivesItsTextAndFinishReasons) {
  struct Case {
    const char* file;
    size_t chunks;
    std::string completed;
    std::vector<std::string> finishReasons;
  };
  const Case cases[] = {
      {"openai/ok-stream-usage.sse",
       33,
       "I'm unable to provide real-time weather updates. To get the current weather in San "
       "Francisco, I recommend checking a reliable weather website or a weather app.",
       {"stop"}},
      {"openai/ok-stream-length.sse", 4, "{\"", {"length"}},
      // Refusal text travels in delta.refusal, which a reply does not show.
      {"openai/ok-stream-refusal.sse", 13, "", {"stop"}},
      // Three choices arrive in separate records; only each record's first choice counts, so
      // their words interleave.
      {"openai/ok-stream-n3.sse",
       49,
       "{\"{\"{\"citycitycity\":\"\":\"\":\"SanSanSan Francisco Francisco Francisco\",\"\",\"\","
       "\"temperature\":temperature\":temperature\":65,\"61,\"59,\"unitsunitsunits\":\"\":\"\":"
       "\"fff\"}\"}\"}",
       {"stop", "stop", "stop"}},
      {"openai/ok-stream-no-usage-fields.sse", 16, "1, 2, 3, 4, 5", {"stop"}},
      {"openai/ok-stream-obfuscation.sse", 10, "1, 2, 3", {"stop"}},
      {"openai-compatible/deepseek-stream.sse", 10, "1, 2, 3.", {"stop"}},
      // Reasoning text is not content; the stream ends without [DONE] and that is fine.
      {"openai-compatible/gpustack-stream.sse", 171, "\n\n1, 2, 3.", {"stop"}},
      {"openai-compatible/llamacpp-stream.sse", 50, "Olá!", {"stop"}},
      {"openai-compatible/ollama-v1-stream.sse", 16, "Sure, here you go:\n\n1, 2, 3.", {"stop"}},
  };
  for (const Case& c : cases) {
    const std::string body = testing::readFile(testing::fixturesDir() / "providers" / c.file);
    for (LineRule rule : {LineRule::openAI, LineRule::openAICompatible}) {
      for (size_t piece : {size_t{0}, size_t{1}, size_t{7}, size_t{4096}}) {
        SCOPED_TRACE(std::string(c.file) + " piece " + std::to_string(piece));
        const Outcome out = run(body, rule, piece);
        EXPECT_EQ(out.failure, "");
        EXPECT_EQ(out.chunks, c.chunks);
        EXPECT_EQ(out.completed, c.completed);
        EXPECT_EQ(out.finishReasons, c.finishReasons);
        EXPECT_FALSE(out.model.empty());
      }
    }
  }
}

TEST(LineRules, EachKindOfLine) {
  const std::string record =
      R"({"id":"a","object":"chat.completion.chunk","created":1,"model":"m","choices":[{"delta":{"content":"Hi"},"finish_reason":null}]})";
  struct Case {
    const char* name;
    std::string body;
    LineRule rule;
    Outcome expected;
  };
  const Case cases[] = {
      {"data prefix with and without blank",
       "data:" + record + "\ndata: " + record + "\n",
       LineRule::openAI,
       {2, "HiHi", {}, ""}},
      {"a line without the prefix is decoded too",
       record + "\n",
       LineRule::openAI,
       {1, "Hi", {}, ""}},
      {"[DONE] bare, behind data:, and at the end of anything",
       "[DONE]\ndata: [DONE]\nxyz[DONE]\n",
       LineRule::openAI,
       {0, "", {}, ""}},
      {"white space around a line is trimmed",
       "  \tdata: " + record + " \u00a0\r\n",
       LineRule::openAI,
       {1, "Hi", {}, ""}},
      {"lone CR, CRLF and LF all end lines",
       "data: " + record + "\rdata: " + record + "\r\ndata: " + record + "\n",
       LineRule::openAI,
       {3, "HiHiHi", {}, ""}},
      {"keep-alive comment fails the OpenAI rule",
       ": OPENROUTER PROCESSING\n",
       LineRule::openAI,
       {0,
        "",
        {},
        "The server's reply could not be read: a line is not JSON: \": OPENROUTER PROCESSING\"."}},
      {"keep-alive comment is passed over by the compatible rule",
       ": OPENROUTER PROCESSING\ndata: " + record + "\n",
       LineRule::openAICompatible,
       {1, "Hi", {}, ""}},
      {"an event field line fails",
       "event: message\n",
       LineRule::openAICompatible,
       {0,
        "",
        {},
        "The server's reply could not be read: a line is not JSON: \"event: message\"."}},
      {"an error record with code",
       R"(data: {"error":{"message":"Overloaded","code":"busy"}})",
       LineRule::openAI,
       {0, "", {}, "Error busy: Overloaded"}},
      {"an error record with only a message",
       R"(data: {"error":{"message":"Overloaded"}})",
       LineRule::openAI,
       {0, "", {}, "Error : Overloaded"}},
      {"an error object without message is no error record",
       R"(data: {"error":{"code":"x"}})",
       LineRule::openAI,
       {0, "", {}, "The server's reply could not be read: the key \"id\" is missing."}},
      {"a record without created",
       R"(data: {"id":"a","object":"o","model":"m","choices":[{"delta":{"content":"x"}}]})",
       LineRule::openAI,
       {0, "", {}, "The server's reply could not be read: the key \"created\" is missing."}},
      {"created must be a whole number",
       R"(data: {"id":"a","object":"o","created":1.5,"model":"m","choices":[]})",
       LineRule::openAI,
       {0, "", {}, "The server's reply could not be read: \"created\" is not a whole number."}},
      {"empty choices yield a chunk with the same text and no finish reason",
       "data: " + record + "\n" +
           R"(data: {"id":"a","object":"o","created":1,"model":"m","choices":[],"usage":{"total_tokens":3}})",
       LineRule::openAI,
       {2, "Hi", {}, ""}},
      {"only the first of two choices counts",
       R"(data: {"id":"a","object":"o","created":1,"model":"m","choices":[{"delta":{"content":"A"},"finish_reason":"stop"},{"delta":{"content":"B"}}]})",
       LineRule::openAI,
       {1, "A", {"stop"}, ""}},
      {"a role-only delta appends nothing",
       R"(data: {"id":"a","object":"o","created":1,"model":"m","choices":[{"delta":{"role":"assistant","content":null}}]})",
       LineRule::openAI,
       {1, "", {}, ""}},
      {"camel-case and snake-case keys both convert",
       R"(data: {"id":"a","object":"o","created":1,"model":"m","choices":[{"delta":{},"finishReason":"length"}]})",
       LineRule::openAI,
       {1, "", {"length"}, ""}},
      {"text already received survives a later bad line",
       "data: " + record + "\ndata: {broken\n",
       LineRule::openAI,
       {1, "Hi", {}, "The server's reply could not be read: a line is not JSON: \" {broken\"."}},
      {"bytes that are not UTF-8 become U+FFFD",
       "data: "
       "{\"id\":\"a\",\"object\":\"o\",\"created\":1,\"model\":\"m\",\"choices\":[{\"delta\":{"
       "\"content\":\"caf\xe9\"}}]}\n",
       LineRule::openAI,
       {1, "caf\xef\xbf\xbd", {}, ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Outcome out = run(c.body, c.rule);
    EXPECT_EQ(out.chunks, c.expected.chunks);
    EXPECT_EQ(out.completed, c.expected.completed);
    EXPECT_EQ(out.finishReasons, c.expected.finishReasons);
    EXPECT_EQ(out.failure, c.expected.failure);
    if (out.chunks > 0) {
      EXPECT_EQ(out.model, "m");
    }
  }
}

TEST(LineRules, CompletedIsTheConcatenationOfEveryContentUntrimmed) {
  std::string body;
  std::string expected;
  for (int i = 0; i < 500; ++i) {
    const std::string piece = " w" + std::to_string(i) + (i % 50 == 0 ? "\\n" : "");
    expected += " w" + std::to_string(i) + (i % 50 == 0 ? "\n" : "");
    body +=
        R"(data: {"id":"a","object":"o","created":1,"model":"m","choices":[{"delta":{"content":")" +
        piece + "\"}}]}\n\n";
  }
  EXPECT_EQ(run(body, LineRule::openAI, 13).completed, expected);
}

}  // namespace
}  // namespace lumora
