// One turn of a generative-language conversation: who speaks and what, as text and inline data.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace lumora::generativelanguage {

struct ModelContent {
  // A piece of a turn: text, or bytes with their MIME type.
  class Part {
   public:
    struct Text {
      std::string text;
      bool operator==(const Text&) const = default;
    };
    struct Data {
      std::string mimetype;
      std::string bytes;  // raw, not Base64
      bool operator==(const Data&) const = default;
    };

    static Part text(std::string text) { return Part(Text{std::move(text)}); }
    static Part data(std::string mimetype, std::string bytes) {
      return Part(Data{std::move(mimetype), std::move(bytes)});
    }

    // The text of a text part; nullptr for data.
    const std::string* textValue() const {
      const Text* t = std::get_if<Text>(&value_);
      return t ? &t->text : nullptr;
    }
    const Data* dataValue() const { return std::get_if<Data>(&value_); }

    bool operator==(const Part&) const = default;

   private:
    explicit Part(std::variant<Text, Data> value) : value_(std::move(value)) {}
    std::variant<Text, Data> value_;
  };

  std::optional<std::string> role;  // "user" or "model"; left out of the JSON when absent
  std::vector<Part> parts;

  bool operator==(const ModelContent&) const = default;
};

}  // namespace lumora::generativelanguage
