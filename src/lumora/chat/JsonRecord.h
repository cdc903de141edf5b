// Strict reading of a provider's JSON records, on simdjson's DOM: a required key must be there
// and of its type, an optional one may be absent or null, unknown keys are ignored. Failures are
// DecodingError with a text that names the key.
//
// Internal to the library: the clients' .cc files use it; no public header includes it.
#pragma once

#include <simdjson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lumora/chat/ResponseLines.h"
#include "lumora/chat/ReplyText.h"

namespace lumora::json {

// One parser, reused from line to line of a stream. Not thread-safe.
class Parser {
 public:
  // False when `text` is not well-formed JSON (error() says why). Text that is not UTF-8 is
  // read with its bad bytes as U+FFFD: a server's stray byte costs a character, not the reply.
  bool parse(std::string_view text);
  simdjson::dom::element root() const { return root_; }
  const char* error() const { return error_; }

 private:
  simdjson::dom::parser parser_;
  simdjson::dom::element root_;
  bool parseExactly(std::string_view text);
  std::string padded_;
  const char* error_ = "";
};

// How a record's keys are matched with field names.
enum class Keys {
  asWritten,      // the key is the field's name
  fromSnakeCase,  // the key converted from snake case is the field's name ("created_at")
};

// "The server's reply could not be read: WHAT."
[[noreturn]] void fail(std::string_view what);
// The failure of a line that is not JSON, showing its start: the line says more to the user
// than the parser's diagnosis.
[[noreturn]] void failNotJson(std::string_view line);

// A JSON object read as a record.
class Record {
 public:
  // Fails unless `value` is an object; `what` names it in the failure.
  Record(simdjson::dom::element value, Keys keys, std::string_view what = "a record");

  // The value of field `name`, null included; nullopt when the key is absent.
  std::optional<simdjson::dom::element> find(std::string_view name) const;

  std::string_view string(std::string_view name) const;
  std::optional<std::string_view> optionalString(std::string_view name) const;
  int64_t integer(std::string_view name) const;
  std::optional<int64_t> optionalInteger(std::string_view name) const;
  bool boolean(std::string_view name) const;
  Record object(std::string_view name) const;
  std::optional<Record> optionalObject(std::string_view name) const;
  simdjson::dom::array array(std::string_view name) const;
  std::optional<simdjson::dom::array> optionalArray(std::string_view name) const;

  simdjson::dom::object value() const { return object_; }
  Keys keys() const { return keys_; }

 private:
  simdjson::dom::element required(std::string_view name) const;
  simdjson::dom::object object_;
  Keys keys_;
};

// A stream whose lines are JSON records adding to one reply: the parser and the reply so far.
class RecordLines : public LineReader {
 protected:
  // A chunk with the reply as it stands now.
  StreamChunk chunk(std::string_view model, std::optional<std::string_view> finishReason) const {
    return StreamChunk{ModelName(model), ReplyText(text_, text_->size()),
                       finishReason ? std::optional<std::string>(*finishReason) : std::nullopt};
  }
  Parser parser_;
  std::shared_ptr<ReplyBuffer> text_ = std::make_shared<ReplyBuffer>();
};

}  // namespace lumora::json
