// The native messaging framing: each message is a 32-bit length in the machine's byte order,
// then that many bytes of UTF-8 JSON. Thunderbird starts the host with the add-on's port on its
// standard input and output.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

namespace lumora::nativehost {

// The largest message the host takes from the add-on. The mail being answered is larger at
// times; the add-on sends it in pieces (see Protocol.h).
inline constexpr size_t kMaxIncomingBytes = 1024 * 1024;
// The browser refuses a message from the host larger than this, and closes the port.
inline constexpr size_t kMaxOutgoingBytes = 1024 * 1024;

// Reads frames from a byte source, which may hand them over in any pieces.
class FrameReader {
 public:
  // Reads up to `size` bytes into `buffer`: the count read, 0 at the end, -1 on an error
  // (errno says which; EINTR is retried).
  using Source = std::function<ssize_t(char* buffer, size_t size)>;

  struct Frame {
    enum class Kind {
      message,    // `payload` holds the message
      oversize,   // a message of `size` bytes was longer than the limit; it was read past
      end,        // the source ended between two messages: the port was closed
      truncated,  // the source ended, or failed, inside a message
    };
    Kind kind;
    std::string payload;
    uint64_t size = 0;
  };

  explicit FrameReader(Source source, size_t limit = kMaxIncomingBytes)
      : source_(std::move(source)), limit_(limit) {}

  // The next frame. A message over the limit is skipped without being held, so one bad
  // message costs the session nothing but an error.
  Frame next();

 private:
  // Fills `size` bytes; false when the source ended or failed first.
  bool readExactly(char* buffer, size_t size);

  Source source_;
  size_t limit_;
};

// Writes frames to a byte sink; any thread may write, one frame at a time.
class FrameWriter {
 public:
  // Writes up to `size` bytes: the count written, -1 on an error (EINTR is retried).
  using Sink = std::function<ssize_t(const char* buffer, size_t size)>;

  explicit FrameWriter(Sink sink, size_t limit = kMaxOutgoingBytes)
      : sink_(std::move(sink)), limit_(limit) {}

  // Writes one message. False when the port is gone (the add-on closed it) or the message is
  // over the browser's limit, which would close the port: such a message is not written.
  bool write(std::string_view payload);

 private:
  std::mutex mutex_;
  Sink sink_;
  size_t limit_;
  bool broken_ = false;
  std::string frame_;  // guarded by mutex_
};

// A source and a sink over file descriptors.
FrameReader::Source descriptorSource(int fd);
FrameWriter::Sink descriptorSink(int fd);

}  // namespace lumora::nativehost
