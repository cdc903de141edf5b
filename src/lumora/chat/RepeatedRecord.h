// What the stream decoder keeps to read a record that repeats the one before: the last line
// read without a tree, and the string values of a record that may change from record to
// record. Internal to chat/Payloads.cc and chat/RepeatedRecord.cc, which says when a line
// counts as a repeat.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/chat/Payloads.h"

namespace lumora::wire {

// The last line read without a tree, with the string values that the next record of its stream
// may change (see RepeatedRecord.cc). Usable only while the decoder's
// record and the strings of its On-Demand parser are still that line's: any other reading ends
// it.
struct RepeatedRecord {
  // A string value of the line that a repeat may change: from its first byte after the opening
  // quote to its closing quote; `text` for the delta's content, the one such value kept.
  struct Span {
    size_t start = 0;
    size_t end = 0;
    bool text = false;
  };
  bool usable = false;
  // A stream whose records differ elsewhere (a server that numbers them) would pay for keeping
  // each line and for trying each next one in vain: after `misses` lines in a row that did not
  // repeat the one kept, the next 2^misses - 1 lines read whole are not kept.
  unsigned misses = 0;
  unsigned skip = 0;
  std::string line;
  std::vector<Span> spans;  // in the order they stand in the line
  std::string text;         // the text of a repeating record, unescaped
  std::string scratch;      // the other values, unescaped to be checked
};

// The string values of a record that a stream may change from one record to the next, each as
// written (from its opening quote to the next structural character) and in the order they
// stand: the delta's "content", and the values of keys that the record does not keep (a
// fingerprint, a server's padding). Kept for reading a record that repeats the one before.
struct ChangingStrings {
  struct Token {
    std::string_view raw;
    bool text;
  };
  std::vector<Token> tokens;  // reused from line to line
  unsigned texts = 0;         // "content" fields met
  bool wanted = true;         // false when the line will not be kept: nothing is noted then
  void clear() {
    tokens.clear();
    texts = 0;
  }
  void note(std::string_view raw, bool text) {
    if (wanted) tokens.push_back({raw, text});
  }
};

namespace repeat {

// After `json` (copied at `padded`) was read into `record` without a tree, with `strings` the
// values it may change: keeps the line for reading the next as its repeat when the record has
// one choice whose delta has one "content" field, a string. Anything else (no text, several,
// one in a choice that a later one replaced) is not kept.
void remember(RepeatedRecord& repeat, std::string_view json, const char* padded,
              const ChatDelta& record, const ChangingStrings& strings);

// `json` read as a repeat of the kept line into `record`, the record of that line: false,
// leaving `record` as it was, when it is none.
bool read(RepeatedRecord& repeat, std::string_view json, ChatDelta& record);

}  // namespace repeat

}  // namespace lumora::wire
