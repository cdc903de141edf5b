// The running text of a streamed reply, shared between the stream's reader and its consumers.
//
// Every chunk of a stream carries the whole reply so far. Copying that text into each chunk
// would make a long reply cost time quadratic in its length, so the reader appends to one
// ReplyBuffer and each chunk carries a ReplyText: a view of the buffer's first `size` bytes.
// Making a chunk costs O(its delta); only a consumer that asks for the whole text as a string
// pays for copying it.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace lumora {

// Append-only storage with stable addresses. One thread appends; any thread may read a prefix
// whose size it learned through a synchronising hand-over (the chunk queue), without a lock:
// appended bytes never move, and a block is never touched again once a later one is in use.
class ReplyBuffer {
 public:
  // Called for every record of a stream: the common case, room left in the current block, is
  // one copy here.
  void append(std::string_view bytes) {
    // An empty record adds nothing, and before the first block there is nowhere to copy to.
    if (bytes.empty()) return;
    if (bytes.size() <= room_) {
      std::memcpy(tail_, bytes.data(), bytes.size());
      tail_ += bytes.size();
      room_ -= bytes.size();
      size_ += bytes.size();
      return;
    }
    appendToNewBlocks(bytes);
  }
  size_t size() const { return size_; }

  // Appends bytes [from, to) to `out`. Precondition: to <= a size published to this reader.
  void copyRange(size_t from, size_t to, std::string& out) const;

 private:
  static constexpr size_t kFirstBlockShift = 12;  // the first block holds 4 KiB; each next twice
  static constexpr size_t kMaxBlocks = 48;
  static size_t blockIndex(size_t pos);
  static size_t blockStart(size_t index) { return ((size_t{1} << index) - 1) << kFirstBlockShift; }
  static size_t blockCapacity(size_t index) { return size_t{1} << (index + kFirstBlockShift); }

  void appendToNewBlocks(std::string_view bytes);

  std::array<std::unique_ptr<char[]>, kMaxBlocks> blocks_;
  size_t size_ = 0;
  // The appending thread's place in the last block, and what that block has left.
  char* tail_ = nullptr;
  size_t room_ = 0;
};

// A prefix of a ReplyBuffer: the reply as it stood when a chunk was made. Cheap to copy.
class ReplyText {
 public:
  ReplyText() = default;
  explicit ReplyText(std::string_view text);
  ReplyText(std::shared_ptr<const ReplyBuffer> buffer, size_t size)
      : buffer_(std::move(buffer)), size_(size) {}

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // Makes this the first `size` bytes of `buffer`. A stream's reader that keeps one chunk and
  // writes each record over it grows the text this way, without a reference to the buffer
  // taken and let go for every record.
  template <typename Buffer>
  void assign(const std::shared_ptr<Buffer>& buffer, size_t size) {
    if (buffer_.get() != buffer.get()) buffer_ = buffer;
    size_ = size;
  }

  // The whole text, copied.
  std::string str() const;
  // Bytes [from, size()), copied; empty when from >= size().
  std::string suffix(size_t from) const;
  // Appends bytes [from, size()) to `out`.
  void appendSuffix(size_t from, std::string& out) const;

  // True when this text is `other`'s text followed by something (or nothing): the same buffer
  // and no shorter. A consumer then only needs the new suffix.
  bool extends(const ReplyText& other) const {
    return other.size_ == 0 || (buffer_ == other.buffer_ && size_ >= other.size_);
  }

  // A new text holding this one followed by `more` (a copy: not for the per-chunk path).
  ReplyText appending(std::string_view more) const;

  bool operator==(std::string_view text) const;

 private:
  std::shared_ptr<const ReplyBuffer> buffer_;
  size_t size_ = 0;
};

}  // namespace lumora
