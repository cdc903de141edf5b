#include "lumora/chat/Payloads.h"

#include <algorithm>

#include <simdjson.h>

#include <nlohmann/json.hpp>

#include "lumora/chat/RepeatedRecord.h"
#include "lumora/platform/Base64.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/KeyCase.h"
#include "lumora/platform/Text.h"

namespace lumora {

using wire::ChangingStrings;
using wire::RepeatedRecord;
namespace repeat = wire::repeat;

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
  simdjson::ondemand::parser plainParser;  // for streamLine()'s common shape
  simdjson::dom::element root;
  std::string padded;  // the input copied with simdjson's padding, reused
  std::string keyScratch;
  ChatDelta delta;
  ChangingStrings strings;  // of the last line read without a tree
  RepeatedRecord repeat;
};

WireDecoder::WireDecoder() : impl_(std::make_unique<Impl>()) {}
WireDecoder::~WireDecoder() = default;

void WireDecoder::pad(std::string_view json) {
  Impl& d = *impl_;
  d.repeat.usable = false;  // the buffers of the line before are about to be read anew
  if (d.padded.size() < json.size() + simdjson::SIMDJSON_PADDING)
    d.padded.resize(json.size() + simdjson::SIMDJSON_PADDING);
  if (!json.empty()) std::memcpy(d.padded.data(), json.data(), json.size());
}

bool WireDecoder::parse(std::string_view json) {
  pad(json);
  return parsePadded(json.size());
}

bool WireDecoder::parsePadded(size_t length) {
  Impl& d = *impl_;
  auto result = d.parser.parse(d.padded.data(), length, false);
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
// `ignored` (a key known to be no field) and `errorKey` (the key of an error body) come only from
// the reading without a tree.
enum class Field {
  other,
  id,
  object,
  created,
  model,
  choices,
  delta,
  finishReason,
  role,
  content,
  ignored,
  errorKey
};

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

// fieldOf() for a key that is none of the usual wire keys: a key with an underscore may still
// convert to a field name ("finish__reason"). Rare, so kept out of line.
[[gnu::noinline]] Field convertedFieldOf(std::string_view key, std::string& scratch) {
  const size_t first = key.find('_');
  // A key without an underscore converts to itself, and fieldOf() has compared it already.
  if (first == std::string_view::npos) return Field::other;
  const size_t underscores =
      1 + static_cast<size_t>(std::count(key.begin() + first + 1, key.end(), '_'));
  // Conversion drops only inner underscores; a key too long to become any field name is no
  // field, and needs no conversion.
  if (key.size() - underscores > kLongestField) return Field::other;
  keycase::fromSnakeCase(key, scratch);
  return fieldNamed(scratch);
}

// The field that the wire key `key` converts to. Called for every key of every record, so the
// keys that servers send are told apart by their length and one comparison, and only another
// key is converted, into a buffer reused from key to key.
inline Field fieldOf(std::string_view key, std::string& scratch) {
  switch (key.size()) {
    case 2:
      if (is(key, "id")) return Field::id;
      break;
    case 4:
      if (is(key, "role")) return Field::role;
      break;
    case 5:
      if (is(key, "model")) return Field::model;
      if (is(key, "delta")) return Field::delta;
      if (is(key, "index")) return Field::other;
      break;
    case 6:
      if (is(key, "object")) return Field::object;
      break;
    case 7:
      if (is(key, "created")) return Field::created;
      if (is(key, "choices")) return Field::choices;
      if (is(key, "content")) return Field::content;
      break;
    case 8:
      if (is(key, "logprobs")) return Field::other;
      break;
    case 12:
      if (is(key, "finishReason")) return Field::finishReason;
      break;
    case 13:
      // The wire's own spelling of the one snake-case field, the key of every choice.
      if (is(key, "finish_reason")) return Field::finishReason;
      break;
    case 18:
      if (is(key, "system_fingerprint")) return Field::other;
      break;
    default:
      break;
  }
  return convertedFieldOf(key, scratch);
}

constexpr size_t kPlainLineMax = size_t{64} << 10;

// ---- the stream record's common shape, read without a tree ---------------------------------
//
// Nearly every line of a stream is a record of one plain shape. Reading it with simdjson's
// On-Demand API skips building the document's tree, which costs as much again as finding its
// structure; but On-Demand checks only what it is asked to read. So this reading asks for every
// value, and answers only when it has read the whole record and found it well-formed and of the
// plain shape: each value a string, number, true, false or null, except the record's object, its
// "choices" list, each choice and its "delta". Anything else (a value it does not read to the
// end, a nested value it does not know, a missing key, a wrong type, an error body) it leaves to
// the tree reading, which decides exactly as for every other record. So what it returns is what
// the tree reading would return for the same line.
namespace plain {

namespace od = simdjson::ondemand;

// `raw` (a key as written, just after its opening quote) is `word` followed by its closing
// quote. The input is padded, so reading past a shorter key is safe; a key with an escape never
// matches, and is unescaped and converted instead.
template <size_t N>
bool spells(const char* raw, const char (&word)[N]) {
  return std::memcmp(raw, word, N - 1) == 0 && raw[N - 1] == '"';
}

// The field of a key as the usual servers write it, read in place; Field::error for "error"
// and Field::other for any other key, which fieldOf() then reads unescaped.
Field rawField(const char* raw) {
  switch (raw[0]) {
    case 'i':
      if (spells(raw, "id")) return Field::id;
      if (spells(raw, "index")) return Field::ignored;
      break;
    case 'o':
      if (spells(raw, "object")) return Field::object;
      break;
    case 'c':
      if (spells(raw, "created")) return Field::created;
      if (spells(raw, "choices")) return Field::choices;
      if (spells(raw, "content")) return Field::content;
      break;
    case 'm':
      if (spells(raw, "model")) return Field::model;
      break;
    case 'd':
      if (spells(raw, "delta")) return Field::delta;
      break;
    case 'r':
      if (spells(raw, "role")) return Field::role;
      break;
    case 'f':
      if (spells(raw, "finish_reason")) return Field::finishReason;
      break;
    case 'l':
      if (spells(raw, "logprobs")) return Field::ignored;
      break;
    case 's':
      if (spells(raw, "system_fingerprint")) return Field::ignored;
      break;
    case 'e':
      if (spells(raw, "error")) return Field::errorKey;
      break;
    default:
      break;
  }
  return Field::other;
}

// A scalar value read to its end: its string unescaped, its number parsed, its atom spelled out.
// A string is a value the record does not keep, so it joins `strings`.
bool scalar(od::value value, ChangingStrings& strings) {
  od::json_type type;
  if (value.type().get(type)) return false;
  switch (type) {
    case od::json_type::string: {
      strings.note(value.raw_json_token(), false);
      std::string_view s;
      return !value.get_string().get(s);
    }
    case od::json_type::number: {
      od::number n;
      return !value.get_number().get(n);
    }
    case od::json_type::boolean: {
      bool b;
      return !value.get_bool().get(b);
    }
    case od::json_type::null: {
      bool isNull = false;
      return !value.is_null().get(isNull) && isNull;
    }
    case od::json_type::object:
    case od::json_type::array:
      break;
  }
  return false;
}

// A string or null (nullopt), as optionalString() reads it.
bool optionalString(od::value value, std::optional<std::string_view>& out) {
  od::json_type type;
  if (value.type().get(type)) return false;
  if (type == od::json_type::null) {
    bool isNull = false;
    if (value.is_null().get(isNull) || !isNull) return false;
    out.reset();
    return true;
  }
  std::string_view s;
  if (value.get_string().get(s)) return false;
  out = s;
  return true;
}

// Each field's unescaped key and its value, to `each`; false when a field cannot be read or
// `each` refuses it.
template <typename Each>
bool fields(od::object object, std::string& scratch, Each&& each) {
  for (auto result : object) {
    od::field field;
    if (std::move(result).get(field)) return false;
    Field known = rawField(field.key().raw());
    if (known == Field::other) {
      std::string_view key;
      if (field.unescaped_key().get(key)) return false;
      known = is(key, "error") ? Field::errorKey : fieldOf(key, scratch);
    }
    if (!each(known, field.value())) return false;
  }
  return true;
}

bool delta(od::value value, ChatDelta::Delta& out, std::string& scratch,
           ChangingStrings& strings) {
  od::object object;
  if (value.get_object().get(object)) return false;
  return fields(object, scratch, [&](Field field, od::value v) {
    switch (field) {
      case Field::role:
        return optionalString(v, out.role);
      case Field::content:
        ++strings.texts;
        strings.note(v.raw_json_token(), true);
        return optionalString(v, out.content);
      default:
        return scalar(v, strings);
    }
  });
}

bool choice(od::value value, ChatDelta::Choice& out, std::string& scratch,
            ChangingStrings& strings) {
  od::object object;
  if (value.get_object().get(object)) return false;
  return fields(object, scratch, [&](Field field, od::value v) {
    switch (field) {
      case Field::delta: {
        od::json_type type;
        if (v.type().get(type)) return false;
        if (type == od::json_type::null) return scalar(v, strings);  // leaves the delta as it was
        ChatDelta::Delta d;
        if (!delta(v, d, scratch, strings)) return false;
        out.delta = d;
        return true;
      }
      case Field::finishReason:
        return optionalString(v, out.finishReason);
      default:
        return scalar(v, strings);
    }
  });
}

bool choices(od::value value, std::vector<ChatDelta::Choice>& out, std::string& scratch,
             ChangingStrings& strings) {
  od::array list;
  if (value.get_array().get(list)) return false;
  out.clear();  // a later "choices" replaces an earlier one, as in the tree reading
  for (auto item : list) {
    od::value v;
    if (std::move(item).get(v)) return false;
    ChatDelta::Choice c;
    if (!choice(v, c, scratch, strings)) return false;
    out.push_back(c);
  }
  return true;
}

// The record in `padded` (its first `length` bytes, `capacity` with simdjson's padding), read
// into `out`, the string values it may change into `strings`; false, with `out` in any state,
// when the tree reading must decide.
bool record(od::parser& parser, const char* padded, size_t length, size_t capacity,
            ChatDelta& out, std::string& scratch, ChangingStrings& strings) {
  od::document document;
  if (parser.iterate(padded, length, capacity).get(document)) return false;
  od::object top;
  if (document.get_object().get(top)) return false;
  out.choices.clear();
  strings.clear();
  enum : unsigned { kId = 1, kObject = 2, kCreated = 4, kModel = 8, kChoices = 16, kAll = 31 };
  unsigned seen = 0;
  const bool read = fields(top, scratch, [&](Field field, od::value v) {
    switch (field) {
      case Field::id:
        seen |= kId;
        return !v.get_string().get(out.id);
      case Field::object:
        seen |= kObject;
        return !v.get_string().get(out.object);
      case Field::created:
        seen |= kCreated;
        return !v.get_int64().get(out.created);
      case Field::model:
        seen |= kModel;
        return !v.get_string().get(out.model);
      case Field::choices:
        seen |= kChoices;
        return choices(v, out.choices, scratch, strings);
      case Field::errorKey:
        return false;  // an error body is read as one by the tree reading
      default:
        return scalar(v, strings);
    }
  });
  if (!read || seen != kAll) return false;
  // Nothing may follow the record's object.
  const char* after = nullptr;
  return document.current_location().get(after) == simdjson::OUT_OF_BOUNDS;
}

}  // namespace plain


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
  bool sawErrorKey = false;
  return decodeDelta(sawErrorKey);
}

const ChatDelta& WireDecoder::streamRecord() {
  // An error body is rare, so it is looked for only when the walk met its key: a record that
  // fails to decode, or that decodes and has an "error" key besides, is then read again as one.
  bool sawErrorKey = false;
  try {
    const ChatDelta& delta = decodeDelta(sawErrorKey);
    if (!sawErrorKey) return delta;
  } catch (const DecodingError&) {
    if (auto error = errorResponse()) throw OpenAIError::apiError(std::move(*error));
    throw;
  }
  if (auto error = errorResponse()) throw OpenAIError::apiError(std::move(*error));
  return impl_->delta;
}

const ChatDelta* WireDecoder::streamLine(std::string_view json) {
  Impl& d = *impl_;
  // A record that is the one before with other values is read as those values alone (above).
  RepeatedRecord& last = d.repeat;
  if (last.usable) {
    if (repeat::read(last, json, d.delta)) {
      last.misses = 0;
      return &d.delta;
    }
    constexpr unsigned kMostMisses = 6;  // a line in 64 kept at the least
    last.misses = std::min(last.misses + 1, kMostMisses);
    last.skip = (1u << last.misses) - 1;
  }
  const bool keep = last.skip == 0;
  if (!keep) --last.skip;
  d.strings.wanted = keep;
  pad(json);
  // Records are short; a long line goes to the tree reading alone, so that no line costs the
  // memory of both parsers.
  if (json.size() <= kPlainLineMax && plain::record(d.plainParser, d.padded.data(), json.size(),
                                                    d.padded.size(), d.delta, d.keyScratch,
                                                    d.strings)) {
    if (keep) repeat::remember(last, json, d.padded.data(), d.delta, d.strings);
    return &d.delta;
  }
  if (!parsePadded(json.size())) return nullptr;
  return &streamRecord();
}

const ChatDelta& WireDecoder::decodeDelta(bool& sawErrorKey) {
  Impl& d = *impl_;
  ChatDelta& out = d.delta;
  std::string& scratch = d.keyScratch;
  out.choices.clear();
  object top;
  if (d.root.get_object().get(top)) fail("a record is not a JSON object");

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
        sawErrorKey |= is(key, "error");
        break;
      case Field::ignored:
      case Field::errorKey:
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
