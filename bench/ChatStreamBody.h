// The OpenAI-style chat stream that the streaming benchmarks serve: records of the real size and
// shape, one HTTP chunk per record, from the loopback server of lumora::testing.
#pragma once

#include <array>
#include <cstddef>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "support/ScriptedServer.h"

namespace lumora::bench {

// The fields around the content are what the OpenAI service sends for gpt-4o, id included at
// its real length, so the decoder and the line splitter see records of the real size and shape.
constexpr std::string_view kRecordHead =
    R"(data: {"id":"chatcmpl-AJv8nYq3XwK2pLm7RtZs4BdQe1Fhu","object":"chat.completion.chunk",)"
    R"("created":1727346168,"model":"gpt-4o-2024-08-06","system_fingerprint":"fp_5050236cbd",)"
    R"("choices":[{"index":0,"delta":{"content":")";
constexpr std::string_view kRecordTail = R"("},"logprobs":null,"finish_reason":null}]})"
                                         "\n\n";
constexpr std::string_view kDone = "data: [DONE]\n\n";

// Words of a mail reply as JSON string contents: escapes and non-ASCII text included, since a
// real reply has line breaks, quotes and accents, and those take the decoder's slower paths.
constexpr std::string_view kWords[] = {
    "Thanks",  " for",
    " the",    " update",
    ",",       " Anna",
    ".",       " I",
    "'ll",     " look",
    " at",     " the",
    " \\\"Q3", " plan\\\"",
    " and",    " reply",
    " by",     " Friday",
    ".",       "\\n\\n",
    "The",     " caf\xC3\xA9",
    " on",     " Rue",
    " de",     " l\\u2019\xC3\x89glise",
    " works",  " for",
    " me",     ";",
    " 10",     ":30",
    " is",     " fine",
    ".",       "\\n\\n",
    "Best",    " regards",
    ",\\n",    "Jonas",
};

// The text a JSON string's contents stand for.
inline std::string decoded(std::string_view jsonContents) {
  std::string quoted(1, '"');
  quoted.append(jsonContents).push_back('"');
  return nlohmann::json::parse(quoted).get<std::string>();
}

struct Body {
  std::shared_ptr<const std::string> text;
  size_t records = 0;       // records that carry content, so chunks the client yields
  size_t contentBytes = 0;  // the length of the whole reply once decoded
};

inline void appendRecord(std::string& out, std::string_view contentJson) {
  out += kRecordHead;
  out += contentJson;
  out += kRecordTail;
}

// How the records of a stream differ: in their text alone, as a service's do, or also in their
// id, as from a server that numbers each record (then no record repeats the one before but for
// its text, and a client reads each one whole).
enum class Ids { shared, numbered };

// `records` records cycling through kWords, then the end marker.
inline Body chatStream(size_t records, Ids ids = Ids::shared) {
  std::array<size_t, std::size(kWords)> sizes{};
  for (size_t i = 0; i < std::size(kWords); ++i) sizes[i] = decoded(kWords[i]).size();
  std::string text;
  text.reserve(records * (kRecordHead.size() + kRecordTail.size() + 12) + kDone.size());
  size_t content = 0;
  for (size_t i = 0; i < records; ++i) {
    const size_t w = i % std::size(kWords);
    const size_t start = text.size();
    appendRecord(text, kWords[w]);
    content += sizes[w];
    if (ids == Ids::numbered) {
      // The id's last seven characters become the record's number: the records keep their size.
      const size_t end = start + kRecordHead.find("\",\"object\"");
      std::string number = std::to_string(i % 10'000'000);
      number.insert(0, 7 - number.size(), '0');
      text.replace(end - 7, 7, number);
    }
  }
  text += kDone;
  return {std::make_shared<const std::string>(std::move(text)), records, content};
}

// The whole reply that chatStream(records) carries, decoded: what a client must end up with.
inline std::string chatStreamReply(size_t records) {
  std::array<std::string, std::size(kWords)> words;
  for (size_t i = 0; i < std::size(kWords); ++i) words[i] = decoded(kWords[i]);
  std::string reply;
  for (size_t i = 0; i < records; ++i) reply += words[i % std::size(kWords)];
  return reply;
}

// One HTTP chunk per record, as the service frames its stream. Without gaps the server still
// writes many records per system call, so the client reads them in large pieces.
inline lumora::testing::Response perRecordChunks(const Body& body) {
  using lumora::testing::Step;
  lumora::testing::Response response;
  response.framing = lumora::testing::Framing::kChunked;
  response.header("Content-Type", "text/event-stream");
  const std::string& text = *body.text;
  response.steps.reserve(body.records + 1);
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find("\n\n", start);
    end = end == std::string::npos ? text.size() : end + 2;
    Step step;
    step.kind = Step::Kind::kSend;
    step.data = body.text;
    step.offset = start;
    step.length = end - start;
    response.steps.push_back(std::move(step));
    start = end;
  }
  return response;
}

}  // namespace lumora::bench
