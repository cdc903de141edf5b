// What a stream line's JSON comes to in the wire decoder, as one comparable text: the record it
// reads, the error it throws, or that it is not JSON. The decoder reads the usual record without
// building a tree; these describe both readings so that they can be held against each other.
#pragma once

#include <string>
#include <string_view>
#include <typeinfo>

#include "lumora/chat/Payloads.h"

namespace lumora::testing {

inline std::string describeDelta(const ChatDelta& d) {
  auto optional = [](const std::optional<std::string_view>& s) {
    return s ? "\"" + std::string(*s) + "\"" : std::string("-");
  };
  std::string out = "record id=" + std::string(d.id) + " object=" + std::string(d.object) +
                    " created=" + std::to_string(d.created) + " model=" + std::string(d.model);
  for (const ChatDelta::Choice& c : d.choices) {
    out += " | choice";
    if (c.delta) out += " role=" + optional(c.delta->role) + " content=" + optional(c.delta->content);
    out += " finish=" + optional(c.finishReason);
  }
  return out;
}

template <typename Read>
std::string outcomeOf(Read&& read) {
  try {
    const ChatDelta* delta = read();
    return delta ? describeDelta(*delta) : std::string("not JSON");
  } catch (const std::exception& e) {
    return std::string(typeid(e).name()) + ": " + e.what();
  }
}

// The decoder's reading of one line, the usual shape read without a tree.
inline std::string streamLineOutcome(std::string_view json) {
  WireDecoder decoder;
  return outcomeOf([&] { return decoder.streamLine(json); });
}

// The same line read through the whole tree, the reading every line had before.
inline std::string treeOutcome(std::string_view json) {
  WireDecoder decoder;
  return outcomeOf([&]() -> const ChatDelta* {
    if (!decoder.parse(json)) return nullptr;
    return &decoder.streamRecord();
  });
}

}  // namespace lumora::testing
