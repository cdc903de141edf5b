// The chunk stream and the reply text its chunks share.
#include <gtest/gtest.h>

#include <thread>

#include "lumora/chat/ChunkStream.h"
#include "lumora/platform/Errors.h"
#include "support/FakeTransport.h"

namespace lumora {
namespace {

TEST(ReplyText, PrefixesAcrossBlocksReadWhileTheWriterAppends) {
  auto buffer = std::make_shared<ReplyBuffer>();
  std::string expected;
  std::vector<ReplyText> views;
  for (int i = 0; i < 3000; ++i) {
    const std::string piece = std::to_string(i) + (i % 7 ? " " : "\n");
    buffer->append(piece);
    expected += piece;
    if (i % 500 == 0) views.emplace_back(buffer, buffer->size());
  }
  ReplyText whole(buffer, buffer->size());
  EXPECT_EQ(whole.str(), expected);
  EXPECT_EQ(whole.suffix(4000), expected.substr(4000));
  for (const ReplyText& v : views) {
    EXPECT_TRUE(whole.extends(v));
    EXPECT_EQ(v.str(), expected.substr(0, v.size()));
  }
  EXPECT_FALSE(ReplyText("other").extends(views.back()));
  EXPECT_EQ(whole.appending("!").str(), expected + "!");
  EXPECT_TRUE(ReplyText() == "");
}

StreamChunk chunkOf(const std::string& text) {
  return StreamChunk{ModelName("m"), ReplyText(text), std::nullopt};
}

TEST(ChunkStream, DeliversInOrderThenRethrowsTheFailureAfterTheLastChunk) {
  ChunkStream stream = ChunkStream::start([](ChunkSink& sink, std::stop_token) {
    for (int i = 0; i < 100; ++i) {
      sink.emit(chunkOf(std::to_string(i)));
      if (i % 30 == 0) sink.publish();
    }
    throw DecodingError("bad line");
  });
  for (int i = 0; i < 100; ++i) {
    auto chunk = stream.next();
    ASSERT_TRUE(chunk);
    EXPECT_EQ(chunk->completed.str(), std::to_string(i));
  }
  EXPECT_THROW(stream.next(), DecodingError);
  EXPECT_FALSE(stream.next().has_value());
}

// newest() hands out the last chunk published so far, dropping the older ones not yet taken,
// across batches and after next() has taken part of one; it waits only when nothing is left,
// and the producer's failure still comes after every chunk.
TEST(ChunkStream, NewestSkipsToTheLastChunkPublishedAndTheFailureComesAfter) {
  testing::Gate published, taken;
  ChunkStream stream = ChunkStream::start([&](ChunkSink& sink, std::stop_token stop) {
    for (int i = 0; i < 90; ++i) {
      sink.emit(chunkOf(std::to_string(i)));
      if (i % 30 == 29) sink.publish();
    }
    published.open();
    taken.wait(stop);
    sink.emit(chunkOf("after"));
    sink.publish();
    throw DecodingError("bad line");
  });
  published.wait({});
  EXPECT_EQ(stream.next()->completed.str(), "0");
  EXPECT_EQ(stream.newest()->completed.str(), "89");
  taken.open();
  EXPECT_EQ(stream.newest()->completed.str(), "after");  // waited for
  EXPECT_THROW(stream.newest(), DecodingError);
  EXPECT_FALSE(stream.newest().has_value());
}

TEST(ChunkStream, AStopEndsTheIterationAndDroppingTheStreamStopsTheProducer) {
  std::atomic<bool> producerStopped{false};
  auto stream =
      std::make_unique<ChunkStream>(ChunkStream::start([&](ChunkSink& sink, std::stop_token stop) {
        sink.emit(chunkOf("first"));
        sink.publish();
        while (!stop.stop_requested()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        producerStopped = true;
      }));
  std::stop_source consumer;
  EXPECT_EQ(stream->next(consumer.get_token())->completed.str(), "first");
  std::thread stopper([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    consumer.request_stop();
  });
  EXPECT_FALSE(stream->next(consumer.get_token()).has_value());  // waits, then ends
  stopper.join();
  stream.reset();
  EXPECT_TRUE(producerStopped);
}

}  // namespace
}  // namespace lumora
