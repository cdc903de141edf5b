#include "lumora/chat/ReplyText.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

namespace lumora {

size_t ReplyBuffer::blockIndex(size_t pos) {
  return static_cast<size_t>(std::bit_width((pos >> kFirstBlockShift) + 1)) - 1;
}

void ReplyBuffer::appendToNewBlocks(std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t index = blockIndex(size_);
    if (index >= kMaxBlocks) throw std::length_error("reply too long");
    // Not zeroed first: every byte is written before it can be read.
    if (!blocks_[index])
      blocks_[index] = std::make_unique_for_overwrite<char[]>(blockCapacity(index));
    const size_t offset = size_ - blockStart(index);
    const size_t n = std::min(bytes.size(), blockCapacity(index) - offset);
    std::memcpy(blocks_[index].get() + offset, bytes.data(), n);
    size_ += n;
    bytes.remove_prefix(n);
    tail_ = blocks_[index].get() + offset + n;
    room_ = blockCapacity(index) - offset - n;
  }
}

void ReplyBuffer::copyRange(size_t from, size_t to, std::string& out) const {
  while (from < to) {
    const size_t index = blockIndex(from);
    const size_t offset = from - blockStart(index);
    const size_t n = std::min(to - from, blockCapacity(index) - offset);
    out.append(blocks_[index].get() + offset, n);
    from += n;
  }
}

ReplyText::ReplyText(std::string_view text) : size_(text.size()) {
  if (text.empty()) return;
  auto buffer = std::make_shared<ReplyBuffer>();
  buffer->append(text);
  buffer_ = std::move(buffer);
}

std::string ReplyText::str() const { return suffix(0); }

std::string ReplyText::suffix(size_t from) const {
  std::string out;
  appendSuffix(from, out);
  return out;
}

void ReplyText::appendSuffix(size_t from, std::string& out) const {
  if (!buffer_ || from >= size_) return;
  out.reserve(out.size() + (size_ - from));
  buffer_->copyRange(from, size_, out);
}

ReplyText ReplyText::appending(std::string_view more) const {
  std::string whole = str();
  whole.append(more);
  return ReplyText(whole);
}

bool ReplyText::operator==(std::string_view text) const {
  return size_ == text.size() && str() == text;
}

}  // namespace lumora
