// Faults injected into the transport under a real stream: connections broken at random points,
// a server that drips, a line that never ends, a reply that never ends, and UTF-8 cut or broken
// at chunk boundaries. No run may crash, hang past its idle timeout, or lose text it had shown.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "lumora/chat/Errors.h"
#include "lumora/chat/OpenAIClient.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/Text.h"
#include "lumora/store/DefaultsStore.h"
#include "support/FakeTransport.h"
#include "support/ScriptedServer.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

using namespace std::chrono_literals;
using testing::Framing;
using testing::Response;
using testing::ScriptedServer;
using testing::sseRecord;

// What a consumer saw of one stream.
struct StreamRun {
  std::vector<std::string> texts;  // each chunk's whole reply so far
  std::optional<TransportError::Code> failure;
  std::string failureText;
  std::string last() const { return texts.empty() ? "" : texts.back(); }
};

class TransportFaultTest : public ::testing::Test {
 protected:
  TransportFaultTest() : shared_(dir_ / "shared.json") {
    for (const char* name :
         {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
      unsetenv(name);
    setenv("LUMORA_OPENAI_BASE_URL", server_.baseUrl().c_str(), 1);
    // A hang would end here, as a timedOut failure that the tests refuse.
    env_.idleTimeout = 5s;
  }
  ~TransportFaultTest() override { unsetenv("LUMORA_OPENAI_BASE_URL"); }

  StreamRun run() {
    OpenAIClient client(OpenAiService{"sk-test-faults-5678"}, env_);
    StreamRun result;
    try {
      ChunkStream stream = client.streamChat("gpt-4o", {{"user", "hi", std::nullopt}}, 1.0, {});
      while (auto chunk = stream.next()) result.texts.push_back(chunk->completed.str());
    } catch (const TransportError& e) {
      result.failure = e.code();
      result.failureText = describeFailure(e);
    } catch (const std::exception& e) {
      result.failure = TransportError::Code::other;
      result.failureText = describeFailure(e);
    }
    return result;
  }

  ScriptedServer server_;
  testing::TempDir dir_;
  DefaultsStore shared_;
  ChatEnvironment env_{shared_, defaultTransport()};
};

// Every text a run showed begins with the one before it: nothing shown is taken back.
void expectGrowing(const StreamRun& run, const std::string& whole) {
  for (size_t i = 0; i < run.texts.size(); ++i) {
    EXPECT_EQ(whole.compare(0, run.texts[i].size(), run.texts[i]), 0) << run.texts[i];
    if (i > 0) {
      EXPECT_GE(run.texts[i].size(), run.texts[i - 1].size());
    }
  }
}

TEST_F(TransportFaultTest, AThousandStreamsBrokenAtRandomPoints) {
  std::string body;
  std::string whole;
  std::vector<size_t> recordEnds;  // where each record's line ends in the body
  std::vector<size_t> textAfter;   // the reply's length once that record is read
  for (int i = 0; i < 12; ++i) {
    const std::string word = "wörd" + std::to_string(i) + " ";
    body += sseRecord(word);
    whole += word;
    recordEnds.push_back(body.find('\n', body.size() - 3));
    textAfter.push_back(whole.size());
  }
  body += "data: [DONE]\n\n";

  std::mt19937 random(20261123);
  for (int i = 0; i < 1000; ++i) {
    const size_t cut = std::uniform_int_distribution<size_t>(0, body.size() - 1)(random);
    const bool reset = i % 2 == 0;
    Response response = Response::stream(body.substr(0, cut), 0, Framing::kChunked);
    if (cut > 0) response.sleep(1ms);  // lets the bytes leave before the break
    reset ? response.reset() : response.close();
    server_.enqueue(std::move(response));

    const StreamRun r = run();
    SCOPED_TRACE("stream " + std::to_string(i) + " cut at byte " + std::to_string(cut) +
                 (reset ? " by a reset" : " by a close"));
    ASSERT_TRUE(r.failure.has_value()) << "a broken stream ended as if whole";
    EXPECT_NE(*r.failure, TransportError::Code::timedOut) << r.failureText;
    expectGrowing(r, whole);
    // A close delivers every byte before it: the reply holds exactly the records ended by then.
    if (!reset) {
      size_t expected = 0;
      for (size_t k = 0; k < recordEnds.size() && recordEnds[k] < cut; ++k) expected = textAfter[k];
      EXPECT_EQ(r.last().size(), expected);
    }
  }
}

TEST_F(TransportFaultTest, AServerThatDripsOneByteEveryTenthOfASecond) {
  // Far slower than any real server, but every byte comes well within the idle timeout, so the
  // reply arrives whole, its UTF-8 put together from single bytes.
  env_.idleTimeout = 1s;
  const std::string record = sseRecord("é✓");
  const size_t from = record.find("é");
  Response drip;
  drip.framing = Framing::kChunked;
  drip.send(record.substr(0, from));
  for (size_t i = from; i < record.size(); ++i) drip.sleep(100ms).send(record.substr(i, 1));
  drip.send("data: [DONE]\n\n");
  server_.enqueue(std::move(drip));
  const StreamRun r = run();
  EXPECT_FALSE(r.failure) << r.failureText;
  EXPECT_EQ(r.last(), "é✓");
}

TEST_F(TransportFaultTest, ALineOrAReplyWithoutEndIsCutOffWithWhatCameKept) {
  struct Case {
    const char* name;
    std::string body;
    size_t maxReply;
    TransportError::Code failure;
    const char* text;
  };
  std::string endless;
  for (int i = 0; i < 200; ++i) endless += sseRecord("0123456789");
  const Case cases[] = {
      {"a 100 MB line", sseRecord("Before") + "data: {\"x\":\"" + std::string(100 << 20, 'a'),
       size_t{16} << 20, TransportError::Code::lineTooLong,
       "The server sent a line longer than 64 MiB; the reply was cut off there."},
      {"a reply past its limit", endless, 1000, TransportError::Code::replyTooLong,
       "The reply passed 1000 bytes, the limit of the setting \"maxReplyMiB\"; it was cut off "
       "there."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    env_.maxReplyBytes = c.maxReply;
    server_.enqueue(Response::stream(c.body, 1 << 20));
    const StreamRun r = run();
    ASSERT_TRUE(r.failure.has_value());
    EXPECT_EQ(*r.failure, c.failure);
    EXPECT_EQ(r.failureText, c.text);
    ASSERT_FALSE(r.texts.empty());
    EXPECT_LE(r.last().size(), c.maxReply);
    EXPECT_TRUE(r.last().starts_with(c.failure == TransportError::Code::lineTooLong ? "Before"
                                                                                    : "0123456789"));
  }
}

TEST_F(TransportFaultTest, Utf8CutOrBrokenAtChunkBoundaries) {
  // Pieces of one byte, apart in time, so that every character's bytes arrive in reads of
  // their own.
  const std::string words = "Grüße, 你好, 👋🏽!";
  std::string body;
  for (const char* word : {"Grüße, ", "你好, ", "👋🏽!"}) body += sseRecord(word);
  body += "data: [DONE]\n\n";
  server_.enqueue(Response::stream(body, 1, Framing::kChunked, 1ms));
  StreamRun r = run();
  EXPECT_FALSE(r.failure) << r.failureText;
  EXPECT_EQ(r.last(), words);

  // Bytes that are not UTF-8 inside a record, at a piece boundary: the text before stays, and
  // what is shown is UTF-8 all the same.
  const std::string broken = sseRecord("ok ") + sseRecord("bad \xC3") + sseRecord("\xFF end") +
                             "data: [DONE]\n\n";
  server_.enqueue(Response::stream(broken, 7, Framing::kChunked, 1ms));
  r = run();
  ASSERT_FALSE(r.texts.empty()) << r.failureText;
  EXPECT_TRUE(r.last().starts_with("ok ")) << r.last();
  for (const std::string& text : r.texts) EXPECT_TRUE(text::isValidUtf8(text)) << text;
}

}  // namespace
}  // namespace lumora
