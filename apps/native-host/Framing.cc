#include "Framing.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace lumora::nativehost {

bool FrameReader::readExactly(char* buffer, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t got = source_(buffer + done, size - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

FrameReader::Frame FrameReader::next() {
  char head[4];
  // The first byte tells a clean end (nothing more) from one inside the length.
  ssize_t got;
  do {
    got = source_(head, 1);
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return {Frame::Kind::end, {}, 0};
  if (!readExactly(head + 1, 3)) return {Frame::Kind::truncated, {}, 0};
  uint32_t length;
  std::memcpy(&length, head, sizeof length);  // the machine's byte order, as the browser writes

  if (length > limit_) {
    // Read past it in small steps: the session goes on with the next message.
    char sink[65536];
    uint64_t left = length;
    while (left > 0) {
      const size_t step = static_cast<size_t>(std::min<uint64_t>(left, sizeof sink));
      if (!readExactly(sink, step)) return {Frame::Kind::truncated, {}, length};
      left -= step;
    }
    return {Frame::Kind::oversize, {}, length};
  }
  Frame frame{Frame::Kind::message, std::string(length, '\0'), length};
  if (!readExactly(frame.payload.data(), length)) return {Frame::Kind::truncated, {}, length};
  return frame;
}

bool FrameWriter::write(std::string_view payload) {
  if (payload.size() > limit_) return false;
  const std::lock_guard lock(mutex_);
  if (broken_) return false;
  // The length and the message leave in one write; the buffer is kept for the next frame, so a
  // stream of small deltas allocates nothing per message.
  const auto length = static_cast<uint32_t>(payload.size());
  std::string& frame = frame_;
  frame.resize(sizeof length + payload.size());
  std::memcpy(frame.data(), &length, sizeof length);
  std::memcpy(frame.data() + sizeof length, payload.data(), payload.size());
  size_t done = 0;
  while (done < frame.size()) {
    const ssize_t wrote = sink_(frame.data() + done, frame.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) {
      // Half a frame cannot be taken back: nothing more may follow it.
      broken_ = true;
      return false;
    }
    done += static_cast<size_t>(wrote);
  }
  return true;
}

FrameReader::Source descriptorSource(int fd) {
  return [fd](char* buffer, size_t size) { return ::read(fd, buffer, size); };
}

FrameWriter::Sink descriptorSink(int fd) {
  return [fd](const char* buffer, size_t size) { return ::write(fd, buffer, size); };
}

}  // namespace lumora::nativehost
