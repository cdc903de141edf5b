// The lines of a message's text as the reader finds them: each with how deep it is quoted and
// what the sending program marked about it. Plain text and HTML both become these lines, and
// the thread is told apart from the new text on them alone.
#pragma once

#include <cstdint>
#include <string>
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

  struct Line {
    size_t begin = 0;
    size_t end = 0;
    uint32_t depth = 0;  // how many quotations the line stands in
    uint8_t flags = 0;
  };

  // A whole line.
  void add(std::string_view text, uint32_t depth, uint8_t flags = 0) {
    text_.append(text);
    endLine(depth, flags);
  }
  // A line built in pieces: append() to it, then endLine().
  void append(std::string_view piece) { text_.append(piece); }
  void append(char c) { text_.push_back(c); }
  void endLine(uint32_t depth, uint8_t flags = 0) {
    lines_.push_back({lineStart_, text_.size(), depth, flags});
    lineStart_ = text_.size();
  }
  // The text of the line being built.
  std::string_view pending() const {
    return std::string_view(text_).substr(lineStart_);
  }
  // Drops `count` bytes from the end of the line being built.
  void dropPending(size_t count) {
    text_.resize(text_.size() - count);
  }

  const std::vector<Line>& lines() const { return lines_; }
  std::string_view text(const Line& line) const {
    return std::string_view(text_).substr(line.begin, line.end - line.begin);
  }
  bool empty() const { return lines_.empty(); }

 private:
  std::string text_;
  size_t lineStart_ = 0;
  std::vector<Line> lines_;
};

}  // namespace lumora::reading
