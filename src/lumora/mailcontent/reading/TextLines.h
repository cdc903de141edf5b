// The lines of a message's text as the reader finds them: each with how deep it is quoted and
// what the sending program marked about it. Plain text and HTML both become these lines, and
// the thread is told apart from the new text on them alone.
//
// A text of a million short lines holds a million of them, so a line costs 2.5 bytes beside
// its text: where its text ends, as 16 bits over the end of the line before its group of
// lines, while the group's text fits in those 16 bits. How deep a line is quoted and
// its marks are kept once for each run of lines that share them, which in mail is most of the
// lines of a paragraph or a quotation. The text and the rest are kept in blocks that never
// move: a 10 MB body grows them without the copy and the doubled room that one growing buffer
// would hold at its peak.
//
// The text of all lines together is at most 4 GiB, and there are at most 4 G lines
// (std::length_error past that): a message's text is no longer than the message but for list
// markers, and a message is far smaller.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
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

  // One line as read; its text lives as long as the lines.
  struct Line {
    std::string_view text;
    uint32_t depth = 0;  // how many quotations the line stands in
    uint8_t flags = 0;
  };
  // A line is quoted at most this deep; deeper counts as that deep (a line needs that many
  // quote marks, a quarter of a GB of them, to be deeper).
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
    // An empty line ends where the line before it does, wherever the block being written
    // stands: that tells it apart from a line with text (see text()).
    const uint32_t end = used_ > lineStart_ ? static_cast<uint32_t>(blockStart_ + used_) : lastEnd_;
    if (size_ == UINT32_MAX) throw std::length_error("over 4 G lines of text");
    const Run run{static_cast<uint32_t>(size_), std::min(depth, kMostDepth), flags & 15u};
    const bool newRun =
        runs_.size() == 0 || run.depth != lastRun_.depth || run.flags != lastRun_.flags;
    if (newRun) {
      runs_.push_back(run);
      lastRun_ = run;
    }
    const size_t k = size_ % kGroup;
    if (k == 0) {
      group_ = &groups_.push_back();
      group_->starts = 0;
      group_->base = lastEnd_;
      group_->firstRun = static_cast<uint32_t>(runs_.size() - 1);
      group_->run = lastRun_;
      group_->wide = kNarrow;
    } else if (newRun) {
      group_->starts |= uint64_t{1} << k;
    }
    Group& group = *group_;
    if (group.wide == kNarrow && end - group.base > UINT16_MAX) {
      // The group's text outgrew 16 bits: its ends so far move to the wide ones.
      group.wide = static_cast<uint32_t>(wideEnds_.size());
      for (size_t j = 0; j < k; ++j) wideEnds_.push_back() = group.base + group.ends[j];
    }
    if (group.wide == kNarrow)
      group.ends[k] = static_cast<uint16_t>(end - group.base);
    else
      wideEnds_.push_back() = end;
    ++size_;
    lastEnd_ = end;
    lineStart_ = used_;
  }
  // The text of the line being built.
  std::string_view pending() const {
    return block_ ? std::string_view(block_ + lineStart_, used_ - lineStart_) : std::string_view();
  }
  // Drops `count` bytes from the end of the line being built.
  void dropPending(size_t count) { used_ -= count; }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // The line `i`, by its parts or whole.
  std::string_view text(size_t i) const {
    const Group& group = groups_[i / kGroup];
    const size_t k = i % kGroup;
    const uint32_t end = endIn(group, k);
    const uint32_t previous = k > 0 ? endIn(group, k - 1) : group.base;
    if (end == previous) return {};
    // A line never spans two blocks: it begins where the line before it ends, unless that is
    // in an earlier block, and then at the start of its own.
    const Page& page = pages_[(end - 1) >> kPageBits];
    const uint32_t start = std::max(previous, page.blockStart);
    return {page.block + (start - page.blockStart), end - start};
  }
  uint32_t depth(size_t i) const { return runOf(i).depth; }
  uint8_t flags(size_t i) const { return static_cast<uint8_t>(runOf(i).flags); }
  Line operator[](size_t i) const {
    const Run& run = runOf(i);
    return {text(i), run.depth, static_cast<uint8_t>(run.flags)};
  }

 private:
  // Items in blocks of 2^kBits that never move, indexed by shifts.
  template <typename T, unsigned kBits>
  class Blocks {
   public:
    size_t size() const { return size_; }
    T& operator[](size_t i) { return blocks_[i >> kBits][i & kMask]; }
    const T& operator[](size_t i) const { return blocks_[i >> kBits][i & kMask]; }
    T& back() { return (*this)[size_ - 1]; }
    const T& back() const { return (*this)[size_ - 1]; }
    // A new item at the end, its value left to the caller.
    T& push_back() {
      if ((size_ & kMask) == 0) blocks_.push_back(std::make_unique_for_overwrite<T[]>(kMask + 1));
      return (*this)[size_++];
    }
    void push_back(const T& item) { push_back() = item; }

   private:
    static constexpr size_t kMask = (size_t{1} << kBits) - 1;
    std::vector<std::unique_ptr<T[]>> blocks_;
    size_t size_ = 0;
  };

  // Lines from `first` on, up to the next run's, share a depth and flags.
  struct Run {
    uint32_t first;
    uint32_t depth : 28;
    uint32_t flags : 4;
  };
  static_assert(sizeof(Run) == 8);

  // kGroup lines in a row: where their texts end, as 16 bits over the end of the line before
  // the group while they fit (`wide` kNarrow), else in wideEnds_ from `wide` on; and the runs
  // its lines are in: the run of its first line, copied here for the common group of one run,
  // and a bit for each later line of the group that begins a run of its own.
  static constexpr size_t kGroup = 64;
  static constexpr uint32_t kNarrow = UINT32_MAX;
  struct Group {
    uint64_t starts;
    uint32_t base;
    uint32_t wide;
    uint32_t firstRun;
    Run run;
    uint16_t ends[kGroup];
  };
  static_assert(kGroup == 64, "a group's run starts are the bits of one 64-bit word");

  uint32_t endIn(const Group& group, size_t k) const {
    return group.wide == kNarrow ? group.base + group.ends[k] : wideEnds_[group.wide + k];
  }

  // The text's bytes are numbered across blocks in pages of 64 KiB: a block starts a page and
  // takes whole pages, so where a byte is numbered tells its page, and the page where its
  // block is and where that block's numbers start.
  static constexpr unsigned kPageBits = 16;
  static constexpr size_t kBlockSize = size_t{1} << kPageBits;
  struct Page {
    const char* block;
    uint32_t blockStart;  // the number of the block's first byte
  };

  // The run of a line is its group's first run and as many more as begin in the group up to
  // the line: a count of bits, whatever the number of runs.
  const Run& runOf(size_t i) const {
    const Group& group = groups_[i / kGroup];
    const size_t k = i % kGroup;
    const uint64_t upToLine = k + 1 == kGroup ? ~uint64_t{0} : (uint64_t{2} << k) - 1;
    const uint64_t later = group.starts & upToLine;
    return later == 0 ? group.run : runs_[group.firstRun + std::popcount(later)];
  }

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
    // A block that held only this growing line is not kept, and its pages go to the new one:
    // no line's text is in it.
    const bool dropped = lineStart_ == 0 && !blocks_.empty();
    const size_t start = dropped ? blockStart_ : pages_.size() << kPageBits;
    if (start + size > UINT32_MAX) throw std::length_error("text of the lines over 4 GiB");
    if (dropped) {
      blocks_.pop_back();
      pages_.resize(start >> kPageBits);
    }
    pages_.insert(pages_.end(), size >> kPageBits, {block.get(), static_cast<uint32_t>(start)});
    blocks_.push_back(std::move(block));
    block_ = blocks_.back().get();
    blockStart_ = start;
    capacity_ = size;
    used_ = line;
    lineStart_ = 0;
  }

  std::vector<std::unique_ptr<char[]>> blocks_;
  std::vector<Page> pages_;
  char* block_ = nullptr;  // the block being written
  size_t blockStart_ = 0;  // the number of its first byte
  size_t capacity_ = 0;
  size_t used_ = 0;
  size_t lineStart_ = 0;  // where the line being built begins in the block
  Blocks<Group, 6> groups_;
  Blocks<uint32_t, 11> wideEnds_;
  Blocks<Run, 10> runs_;
  size_t size_ = 0;
  uint32_t lastEnd_ = 0;
  Group* group_ = nullptr;  // the last group, which the next line joins
  Run lastRun_{};
};

}  // namespace lumora::reading
