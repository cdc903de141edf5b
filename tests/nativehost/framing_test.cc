// The native messaging framing: length-prefixed messages read from sources that hand bytes
// over in any pieces, limits on both sides, and the ends of a port.
#include "Framing.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "NativeHost.h"

namespace lumora::nativehost {
namespace {

using Kind = FrameReader::Frame::Kind;

std::string framed(std::string_view payload, std::optional<uint32_t> length = std::nullopt) {
  const uint32_t n = length.value_or(static_cast<uint32_t>(payload.size()));
  std::string out(4, '\0');
  std::memcpy(out.data(), &n, 4);
  return out.append(payload);
}

// Hands `bytes` over in pieces whose sizes come from `step`, interrupted now and then.
FrameReader::Source piecewise(std::string bytes, std::function<size_t()> step) {
  auto state = std::make_shared<std::pair<std::string, size_t>>(std::move(bytes), 0);
  auto interrupt = std::make_shared<bool>(false);
  return [state, step, interrupt](char* buffer, size_t size) -> ssize_t {
    if ((*interrupt = !*interrupt)) {
      errno = EINTR;
      return -1;
    }
    auto& [data, at] = *state;
    const size_t n = std::min({size, step(), data.size() - at});
    std::memcpy(buffer, data.data() + at, n);
    at += n;
    return static_cast<ssize_t>(n);
  };
}

struct Read {
  Kind kind;
  std::string payload;
  uint64_t size;
  bool operator==(const Read&) const = default;
};

std::vector<Read> readAll(FrameReader reader) {
  std::vector<Read> frames;
  while (true) {
    auto frame = reader.next();
    frames.push_back({frame.kind, frame.payload, frame.size});
    if (frame.kind == Kind::end || frame.kind == Kind::truncated) return frames;
  }
}

TEST(FramingTest, ReadsWhateverPiecesTheBytesComeIn) {
  const std::string stream = framed(R"({"type":"open"})") + framed("") +
                             framed(std::string(70'000, 'x')) + framed("\xE6\xB8\xA9");
  const std::vector<Read> expected = {{Kind::message, R"({"type":"open"})", 15},
                                      {Kind::message, "", 0},
                                      {Kind::message, std::string(70'000, 'x'), 70'000},
                                      {Kind::message, "\xE6\xB8\xA9", 3},
                                      {Kind::end, "", 0}};
  std::mt19937 random(7);
  const std::vector<std::pair<const char*, std::function<size_t()>>> steps = {
      {"one byte at a time", [] { return size_t{1}; }},
      {"all at once", [] { return SIZE_MAX; }},
      {"random pieces", [&random] { return size_t{1} + random() % 9000; }},
  };
  for (const auto& [name, step] : steps) {
    SCOPED_TRACE(name);
    EXPECT_EQ(readAll(FrameReader(piecewise(stream, step))), expected);
  }
}

// A message over the limit is read past and reported; the next one is read as ever. A port
// that closes inside a message is told apart from one that closes between two.
TEST(FramingTest, OversizeAndCutMessages) {
  const size_t limit = 100;
  struct Case {
    const char* name;
    std::string stream;
    std::vector<Read> expected;
  };
  const std::vector<Case> cases = {
      {"over the limit, then a good one",
       framed(std::string(101, 'o')) + framed("ok"),
       {{Kind::oversize, "", 101}, {Kind::message, "ok", 2}, {Kind::end, "", 0}}},
      {"exactly the limit",
       framed(std::string(100, 'a')),
       {{Kind::message, std::string(100, 'a'), 100}, {Kind::end, "", 0}}},
      {"a length of 4 GiB with nothing behind it",
       framed("", 0xFFFFFFFFu),
       {{Kind::truncated, "", 0xFFFFFFFFu}}},
      {"closed inside the length",
       framed("ok") + std::string("\x02\x00", 2),
       {{Kind::message, "ok", 2}, {Kind::truncated, "", 0}}},
      {"closed inside the message",
       framed("ok") + framed("abc", 10),
       {{Kind::message, "ok", 2}, {Kind::truncated, "", 10}}},
      {"nothing at all", "", {{Kind::end, "", 0}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(readAll(FrameReader(piecewise(c.stream, [] { return size_t{7}; }), limit)),
              c.expected);
  }
}

TEST(FramingTest, WritesFramesAndRefusesWhatTheBrowserWouldNotTake) {
  std::string written;
  int failAfter = -1;  // writes left before the sink fails; -1 never
  FrameWriter writer(
      [&](const char* buffer, size_t size) -> ssize_t {
        if (failAfter == 0) {
          errno = EPIPE;
          return -1;
        }
        if (failAfter > 0) --failAfter;
        const size_t n = std::min<size_t>(size, 5);  // short writes
        written.append(buffer, n);
        return static_cast<ssize_t>(n);
      },
      16);
  EXPECT_TRUE(writer.write(R"({"a":1})"));
  EXPECT_EQ(written, framed(R"({"a":1})"));
  EXPECT_FALSE(writer.write(std::string(17, 'x')));  // over the limit: nothing written
  EXPECT_EQ(written.size(), 11u);
  failAfter = 1;  // the port closes in the middle of a frame
  EXPECT_FALSE(writer.write("0123456789"));
  failAfter = -1;
  EXPECT_FALSE(writer.write("{}"));  // nothing may follow half a frame
  EXPECT_EQ(written.size(), 16u);
}

// The panel's replies and the host's answers may be written from different threads: each
// frame must leave whole, never cut into by another.
TEST(FramingTest, FramesFromSeveralThreadsArriveWhole) {
  std::string written;
  FrameWriter writer([&](const char* buffer, size_t size) -> ssize_t {
    const size_t n = std::min<size_t>(size, 3);  // short writes, so a frame takes several
    written.append(buffer, n);
    std::this_thread::yield();
    return static_cast<ssize_t>(n);
  });
  constexpr int kThreads = 4, kFrames = 200;
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&writer, t] {
        for (int i = 0; i < kFrames; ++i)
          EXPECT_TRUE(writer.write("{\"thread\":" + std::to_string(t) + ",\"frame\":" +
                                   std::to_string(i) + "}"));
      });
    }
  }
  std::vector<int> next(kThreads, 0);  // each thread's frames arrive in its order
  const auto frames = readAll(FrameReader(piecewise(written, [] { return 64; })));
  ASSERT_EQ(frames.size(), size_t{kThreads * kFrames + 1});
  for (size_t f = 0; f + 1 < frames.size(); ++f) {
    ASSERT_EQ(frames[f].kind, Kind::message) << f;
    int t = -1, i = -1;
    ASSERT_EQ(std::sscanf(frames[f].payload.c_str(), "{\"thread\":%d,\"frame\":%d}", &t, &i), 2)
        << frames[f].payload;
    ASSERT_TRUE(t >= 0 && t < kThreads) << frames[f].payload;
    EXPECT_EQ(i, next[t]++) << frames[f].payload;
  }
  EXPECT_EQ(frames.back().kind, Kind::end);
}

TEST(FramingTest, TextPiecesEndOnWholeCharacters) {
  struct Case {
    const char* name;
    std::string text;
    size_t most;
    std::vector<std::string> pieces;
  };
  const std::vector<Case> cases = {
      {"empty", "", 4, {}},
      {"fits", "abcd", 4, {"abcd"}},
      {"plain cut", "abcdefghij", 4, {"abcd", "efgh", "ij"}},
      {"a character across the cut moves whole",
       "ab\xE6\xB8\xA9"
       "cd",
       4,
       {"ab",
        "\xE6\xB8\xA9"
        "c",
        "d"}},
      {"four-byte characters",
       "\xF0\x9F\x98\x80\xF0\x9F\x98\x80",
       5,
       {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"}},
      {"a run of stray continuation bytes is cut anyway",
       std::string(6, '\x80'),
       4,
       {std::string(4, '\x80'), std::string(2, '\x80')}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto pieces = textPieces(c.text, c.most);
    EXPECT_EQ(std::vector<std::string>(pieces.begin(), pieces.end()), c.pieces);
  }
}

}  // namespace
}  // namespace lumora::nativehost
