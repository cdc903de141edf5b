// The lines of a message's text as the reader finds them: each with how deep it is quoted and
// what the sending program marked about it. Plain text and HTML both become these lines, and
// the thread is told apart from the new text on them alone.
//
// The text is kept in blocks that never move, and the lines in a deque: a 10 MB body grows them
// without the copy and the doubled room that one growing buffer would hold at its peak.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string_view>
#include <vector>

namespace lumora::reading {

class TextLines {
 public:
  // What a mail program's markup says of a line.
  enum Flag : uint8_t {
    attribution = 1,  // the line that introduces a quotation ("On ... wrote:")
    threadStart = 2,  // the earlier thread begins here and runs to the end
    ruleBefore = 4,   // a horizontal rule stands before the line
    signature = 8,    // the line belongs to the sender's signature
  };

  // 16 bytes: a text of a million short lines holds a million of them. A line is at most
  // kMostLineBytes long (a longer one is cut there: no reading shows that much of it) and
  // quoted at most kMostDepth deep (deeper counts as that deep: a line needs that many quote
  // marks, a quarter of a GB of them, to be deeper).
  struct Line {
    const char* data = nullptr;
    uint32_t size = 0;
    uint32_t depth : 28 = 0;  // how many quotations the line stands in
    uint32_t flags : 4 = 0;
  };
  static_assert(sizeof(Line) == 16);
  static constexpr size_t kMostLineBytes = UINT32_MAX;
  static constexpr uint32_t kMostDepth = (uint32_t{1} << 28) - 1;

  TextLines() = default;
  TextLines(TextLines&&) noexcept = default;
  TextLines& operator=(TextLines&&) noexcept = default;

  // A whole line.
  void add(std::string_view text, uint32_t depth, uint8_t flags = 0) {
    append(text);
    endLine(depth, flags);
  }
  // A line built in pieces: append() to it, then endLine().
  void append(std::string_view piece) {
    if (piece.empty()) return;
    room(piece.size());
    std::memcpy(block_ + used_, piece.data(), piece.size());
    used_ += piece.size();
  }
  void append(char c) { append(std::string_view(&c, 1)); }
  void endLine(uint32_t depth, uint8_t flags = 0) {
    const size_t size = std::min(used_ - lineStart_, kMostLineBytes);
    Line& line = lines_.emplace_back();
    line.data = size > 0 ? block_ + lineStart_ : nullptr;
    line.size = static_cast<uint32_t>(size);
    line.depth = std::min(depth, kMostDepth);
    line.flags = flags & 15u;
    lineStart_ = used_;
  }
  // The text of the line being built.
  std::string_view pending() const {
    return block_ ? std::string_view(block_ + lineStart_, used_ - lineStart_) : std::string_view();
  }
  // Drops `count` bytes from the end of the line being built.
  void dropPending(size_t count) { used_ -= count; }

  // Lines are read by index; a deque's blocks never move either.
  const std::deque<Line>& lines() const { return lines_; }
  static std::string_view text(const Line& line) { return {line.data, line.size}; }
  bool empty() const { return lines_.empty(); }

 private:
  static constexpr size_t kBlockSize = 64 * 1024;

  // Makes room for `more` bytes behind the line being built, in a new block when the current
  // one is full: the line so far moves with it, so a line never spans two blocks.
  void room(size_t more) {
    if (used_ + more <= capacity_) return;
    const size_t line = used_ - lineStart_;
    // A line longer than a block gets a block of its own, growing by doubling.
    size_t size = kBlockSize;
    while (size < line + more) size *= 2;
    auto block = std::make_unique_for_overwrite<char[]>(size);
    if (line > 0) std::memcpy(block.get(), block_ + lineStart_, line);
    // A block that held only this growing line is not kept: nothing points into it.
    if (lineStart_ == 0 && !blocks_.empty()) blocks_.pop_back();
    blocks_.push_back(std::move(block));
    block_ = blocks_.back().get();
    capacity_ = size;
    used_ = line;
    lineStart_ = 0;
  }

  std::vector<std::unique_ptr<char[]>> blocks_;
  char* block_ = nullptr;  // the block being written
  size_t capacity_ = 0;
  size_t used_ = 0;
  size_t lineStart_ = 0;  // where the line being built begins in the block
  std::deque<Line> lines_;
};

}  // namespace lumora::reading
