#include "lumora/chat/JsonRecord.h"

#include <cstring>

#include "lumora/platform/Errors.h"
#include "lumora/platform/KeyCase.h"
#include "lumora/platform/Text.h"

namespace lumora::json {
namespace {

std::string quoted(std::string_view name) {
  // Built by appending: GCC 12 at -O3 misreads `"\"" + std::string(name)` as an overlapping
  // copy (-Wrestrict) and the build treats warnings as errors.
  std::string out;
  out.reserve(name.size() + 2);
  out += '"';
  out += name;
  out += '"';
  return out;
}

}  // namespace

bool Parser::parse(std::string_view text) {
  if (parseExactly(text)) return true;
  if (text::isValidUtf8(text)) return false;
  return parseExactly(text::repairedUtf8(text));
}

bool Parser::parseExactly(std::string_view text) {
  if (padded_.size() < text.size() + simdjson::SIMDJSON_PADDING)
    padded_.resize(text.size() + simdjson::SIMDJSON_PADDING);
  if (!text.empty()) std::memcpy(padded_.data(), text.data(), text.size());
  auto result = parser_.parse(padded_.data(), text.size(), false);
  if (result.error()) {
    error_ = simdjson::error_message(result.error());
    return false;
  }
  root_ = result.value_unsafe();
  return true;
}

void fail(std::string_view what) {
  throw DecodingError("The server's reply could not be read: " + std::string(what) + ".");
}

void failNotJson(std::string_view line) {
  constexpr size_t kShown = 80;
  std::string_view shown = line.substr(0, kShown);
  while (!shown.empty() && !text::isValidUtf8(shown)) shown.remove_suffix(1);
  fail("a line is not JSON: \"" + std::string(shown) + (line.size() > shown.size() ? "…" : "") +
       "\"");
}

Record::Record(simdjson::dom::element value, Keys keys, std::string_view what) : keys_(keys) {
  if (value.get_object().get(object_)) fail(std::string(what) + " is not a JSON object");
}

std::optional<simdjson::dom::element> Record::find(std::string_view name) const {
  for (auto [key, value] : object_) {
    const bool match =
        keys_ == Keys::asWritten ? key == name : keycase::snakeKeyMatches(key, name);
    if (match) return value;
  }
  return std::nullopt;
}

simdjson::dom::element Record::required(std::string_view name) const {
  auto value = find(name);
  if (!value) fail("the key " + quoted(name) + " is missing");
  if (value->is_null()) fail(quoted(name) + " is null");
  return *value;
}

std::string_view Record::string(std::string_view name) const {
  std::string_view out;
  if (required(name).get_string().get(out)) fail(quoted(name) + " is not a string");
  return out;
}

std::optional<std::string_view> Record::optionalString(std::string_view name) const {
  auto value = find(name);
  if (!value || value->is_null()) return std::nullopt;
  std::string_view out;
  if (value->get_string().get(out)) fail(quoted(name) + " is not a string");
  return out;
}

int64_t Record::integer(std::string_view name) const {
  int64_t out = 0;
  if (required(name).get_int64().get(out)) fail(quoted(name) + " is not a whole number");
  return out;
}

std::optional<int64_t> Record::optionalInteger(std::string_view name) const {
  auto value = find(name);
  if (!value || value->is_null()) return std::nullopt;
  int64_t out = 0;
  if (value->get_int64().get(out)) fail(quoted(name) + " is not a whole number");
  return out;
}

bool Record::boolean(std::string_view name) const {
  bool out = false;
  if (required(name).get_bool().get(out)) fail(quoted(name) + " is not true or false");
  return out;
}

Record Record::object(std::string_view name) const {
  return Record(required(name), keys_, quoted(name));
}

std::optional<Record> Record::optionalObject(std::string_view name) const {
  auto value = find(name);
  if (!value || value->is_null()) return std::nullopt;
  return Record(*value, keys_, quoted(name));
}

simdjson::dom::array Record::array(std::string_view name) const {
  simdjson::dom::array out;
  if (required(name).get_array().get(out)) fail(quoted(name) + " is not a list");
  return out;
}

std::optional<simdjson::dom::array> Record::optionalArray(std::string_view name) const {
  auto value = find(name);
  if (!value || value->is_null()) return std::nullopt;
  simdjson::dom::array out;
  if (value->get_array().get(out)) fail(quoted(name) + " is not a list");
  return out;
}

}  // namespace lumora::json
