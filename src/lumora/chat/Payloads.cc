#include "lumora/chat/Payloads.h"

#include <algorithm>

#include <simdjson.h>

#include <nlohmann/json.hpp>

#include "lumora/platform/Base64.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/KeyCase.h"

namespace lumora {

// ---- request body ---------------------------------------------------------------------------

std::string ChatRequestPayload::toJSON() const {
  using keycase::toSnakeCase;
  using nlohmann::ordered_json;
  bool imageForm = false;
  for (const ChatMessage& m : messages) imageForm |= m.images && !m.images->empty();

  ordered_json wireMessages = ordered_json::array();
  for (const ChatMessage& m : messages) {
    ordered_json wire;
    wire["role"] = m.role;
    if (!imageForm) {
      wire["content"] = m.content;
    } else {
      ordered_json blocks = ordered_json::array();
      blocks.push_back({{"type", "text"}, {"text", m.content}});
      for (const std::string& image : m.images.value_or(std::vector<std::string>{})) {
        blocks.push_back({{"type", "image_url"},
                          {toSnakeCase("imageUrl"),
                           {{"url", "data:image/jpeg;base64," + base64::encode(image)}}}});
      }
      wire["content"] = std::move(blocks);
    }
    wireMessages.push_back(std::move(wire));
  }

  ordered_json body;
  body["model"] = model;
  body["messages"] = std::move(wireMessages);
  body["stream"] = stream;
  body["temperature"] = temperature;
  if (maxTokens) body[toSnakeCase("maxTokens")] = *maxTokens;
  // Invalid UTF-8 in a message is sent as U+FFFD rather than failing the request.
  return body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// ---- decoding -------------------------------------------------------------------------------

struct WireDecoder::Impl {
  simdjson::dom::parser parser;
  simdjson::dom::element root;
  std::string padded;  // the input copied with simdjson's padding, reused
  std::string keyScratch;
  ChatDelta delta;
};

WireDecoder::WireDecoder() : impl_(std::make_unique<Impl>()) {}
WireDecoder::~WireDecoder() = default;

bool WireDecoder::parse(std::string_view json) {
  Impl& d = *impl_;
  if (d.padded.size() < json.size() + simdjson::SIMDJSON_PADDING)
    d.padded.resize(json.size() + simdjson::SIMDJSON_PADDING);
  std::memcpy(d.padded.data(), json.data(), json.size());
  auto result = d.parser.parse(d.padded.data(), json.size(), false);
  if (result.error()) {
    error_ = simdjson::error_message(result.error());
    return false;
  }
  d.root = result.value_unsafe();
  return true;
}

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;
using simdjson::dom::object;

// An optional string: absent or null gives nullopt; any other type is a mismatch.
bool optionalString(element value, std::optional<std::string_view>& out) {
  if (value.is_null()) {
    out.reset();
    return true;
  }
  std::string_view s;
  if (value.get_string().get(s)) return false;
  out = s;
  return true;
}

[[noreturn]] void fail(std::string_view what) {
  throw DecodingError("The server's reply could not be read: " + std::string(what) + ".");
}

std::string quoted(std::string_view key) { return "\"" + std::string(key) + "\""; }

// The record fields a stream line is read for, by their names after key conversion.
enum class Field { other, id, object, created, model, choices, delta, finishReason, role, content };

constexpr size_t kLongestField = 12;  // "finishReason"

// `text` == `word`, with the length known to the compiler, so that no call is made: this runs
// for every key of every record.
template <size_t N>
bool is(std::string_view text, const char (&word)[N]) {
  return text.size() == N - 1 && std::memcmp(text.data(), word, N - 1) == 0;
}

// The field named `name` (a key after conversion). Keyed by length first: this runs for every
// key of every record, and most lengths leave one name to compare.
Field fieldNamed(std::string_view name) {
  switch (name.size()) {
    case 2:
      return is(name, "id") ? Field::id : Field::other;
    case 4:
      return is(name, "role") ? Field::role : Field::other;
    case 5:
      return is(name, "model") ? Field::model : is(name, "delta") ? Field::delta : Field::other;
    case 6:
      return is(name, "object") ? Field::object : Field::other;
    case 7:
      return is(name, "created")   ? Field::created
             : is(name, "choices") ? Field::choices
             : is(name, "content") ? Field::content
                                   : Field::other;
    case 12:
      return is(name, "finishReason") ? Field::finishReason : Field::other;
    default:
      return Field::other;
  }
}

// The field that the wire key `key` converts to. Called for every key of every record, so a
// key is converted at most once, into a buffer reused from key to key.
Field fieldOf(std::string_view key, std::string& scratch) {
  // Most keys are spelled on the wire as their field is named (no field name holds an
  // underscore, so such a key converts to itself).
  if (const Field named = fieldNamed(key); named != Field::other) return named;
  // The wire's own spelling of the one snake-case field, the key of every choice.
  if (is(key, "finish_reason")) return Field::finishReason;
  const size_t first = key.find('_');
  if (first == std::string_view::npos) return Field::other;
  const size_t underscores =
      1 + static_cast<size_t>(std::count(key.begin() + first + 1, key.end(), '_'));
  // Conversion drops only inner underscores; a key too long to become any field name (such as
  // "system_fingerprint") is no field, and needs no conversion.
  if (key.size() - underscores > kLongestField) return Field::other;
  keycase::fromSnakeCase(key, scratch);
  return fieldNamed(scratch);
}

}  // namespace

std::optional<OpenAIErrorResponse> WireDecoder::errorResponse() const {
  object top;
  if (impl_->root.get_object().get(top)) return std::nullopt;
  element errorValue;
  if (top.at_key("error").get(errorValue)) return std::nullopt;
  object error;
  if (errorValue.get_object().get(error)) return std::nullopt;

  OpenAIErrorResponse response;
  bool haveMessage = false;
  for (auto [key, value] : error) {
    if (key == "message") {
      std::string_view message;
      if (value.get_string().get(message)) return std::nullopt;
      response.error.message = std::string(message);
      haveMessage = true;
    } else if (key == "code" || key == "type") {
      std::optional<std::string_view> text;
      if (!optionalString(value, text)) return std::nullopt;
      auto& field = key == "code" ? response.error.code : response.error.type;
      field = text ? std::optional<std::string>(std::string(*text)) : std::nullopt;
    }
  }
  if (!haveMessage) return std::nullopt;
  return response;
}

const ChatDelta& WireDecoder::chatDelta() {
  ChatDelta& out = impl_->delta;
  std::string& scratch = impl_->keyScratch;
  out.choices.clear();
  object top;
  if (impl_->root.get_object().get(top)) fail("a record is not a JSON object");

  enum : unsigned { kId = 1, kObject = 2, kCreated = 4, kModel = 8, kChoices = 16 };
  unsigned seen = 0;
  simdjson::dom::array choices;
  for (auto [key, value] : top) {
    switch (fieldOf(key, scratch)) {
      case Field::id:
        if (value.get_string().get(out.id)) fail("\"id\" is not a string");
        seen |= kId;
        break;
      case Field::object:
        if (value.get_string().get(out.object)) fail("\"object\" is not a string");
        seen |= kObject;
        break;
      case Field::created:
        if (value.get_int64().get(out.created)) fail("\"created\" is not a whole number");
        seen |= kCreated;
        break;
      case Field::model:
        if (value.get_string().get(out.model)) fail("\"model\" is not a string");
        seen |= kModel;
        break;
      case Field::choices:
        if (value.get_array().get(choices)) fail("\"choices\" is not a list");
        seen |= kChoices;
        break;
      case Field::other:
      case Field::delta:
      case Field::finishReason:
      case Field::role:
      case Field::content:
        break;
    }
  }
  static constexpr std::pair<unsigned, const char*> kRequired[] = {{kId, "id"},
                                                                   {kObject, "object"},
                                                                   {kCreated, "created"},
                                                                   {kModel, "model"},
                                                                   {kChoices, "choices"}};
  for (auto [bit, name] : kRequired) {
    if (!(seen & bit)) fail("the key " + quoted(name) + " is missing");
  }

  for (element item : choices) {
    object choice;
    if (item.get_object().get(choice)) fail("a choice is not a JSON object");
    ChatDelta::Choice c;
    for (auto [key, value] : choice) {
      const Field field = fieldOf(key, scratch);
      if (field == Field::delta) {
        if (value.is_null()) continue;
        object delta;
        if (value.get_object().get(delta)) fail("\"delta\" is not a JSON object");
        ChatDelta::Delta d;
        for (auto [dkey, dvalue] : delta) {
          const Field inner = fieldOf(dkey, scratch);
          if (inner == Field::role) {
            if (!optionalString(dvalue, d.role)) fail("\"role\" is not a string");
          } else if (inner == Field::content) {
            if (!optionalString(dvalue, d.content)) fail("\"content\" is not a string");
          }
        }
        c.delta = d;
      } else if (field == Field::finishReason) {
        if (!optionalString(value, c.finishReason)) fail("\"finish_reason\" is not a string");
      }
    }
    out.choices.push_back(c);
  }
  return out;
}

std::optional<OpenAIErrorResponse> decodeOpenAIErrorResponse(std::string_view body) {
  WireDecoder decoder;
  if (!decoder.parse(body)) return std::nullopt;
  return decoder.errorResponse();
}

}  // namespace lumora
