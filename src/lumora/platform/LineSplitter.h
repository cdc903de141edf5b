// Splits a byte stream into lines as they arrive.
//
// A line ends at a line feed, a carriage return, or the pair of both; empty lines are never
// delivered, which is what lets a lone CR at the end of one piece and the LF at the start of the
// next count as one line end. Time is linear in the input: each byte is looked at once, and a
// line split across pieces is copied once. Memory for a line is bounded: a line longer than the
// limit fails with TransportError(lineTooLong) instead of growing without end.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace lumora {

class LineSplitter {
 public:
  static constexpr size_t kDefaultMaxLine = size_t{64} << 20;  // 64 MiB

  explicit LineSplitter(size_t maxLine = kDefaultMaxLine) : maxLine_(maxLine) {}

  // Hands every line completed by `bytes` to `onLine`, in order. The view is valid only during
  // the call.
  template <typename OnLine>
  void feed(std::string_view bytes, OnLine&& onLine);

  // Hands over the last line if the stream ended without a line end.
  template <typename OnLine>
  void finish(OnLine&& onLine) {
    if (!partial_.empty()) {
      std::string last = std::move(partial_);
      partial_.clear();
      onLine(std::string_view(last));
    }
  }

 private:
  [[noreturn]] void tooLong() const;
  void keepPartial(std::string_view tail) {
    if (partial_.size() + tail.size() > maxLine_) tooLong();
    partial_.append(tail);
  }

  size_t maxLine_;
  std::string partial_;
};

template <typename OnLine>
void LineSplitter::feed(std::string_view bytes, OnLine&& onLine) {
  const char* p = bytes.data();
  const char* const end = p + bytes.size();
  // The next CR at or after p, found once and kept while p has not passed it: streams use LF,
  // so this is usually one scan of the piece that finds nothing.
  const char* cr = nullptr;
  while (p < end) {
    if (!cr || (cr < p && cr != end)) {
      cr = static_cast<const char*>(std::memchr(p, '\r', end - p));
      if (!cr) cr = end;
    }
    const char* lf = static_cast<const char*>(std::memchr(p, '\n', (cr == end ? end : cr) - p));
    const char* eol = lf ? lf : cr;
    if (eol == end) {
      keepPartial(std::string_view(p, end - p));
      return;
    }
    if (!partial_.empty()) {
      keepPartial(std::string_view(p, eol - p));
      std::string line = std::move(partial_);
      partial_.clear();
      onLine(std::string_view(line));
    } else if (eol > p) {
      if (static_cast<size_t>(eol - p) > maxLine_) tooLong();
      onLine(std::string_view(p, eol - p));
    }
    p = eol + 1;
  }
}

}  // namespace lumora
