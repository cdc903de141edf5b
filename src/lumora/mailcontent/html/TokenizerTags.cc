// The tokenizer's tag states: the tag's opening and name, its attributes' names and values,
// and the duplicate names among them.
#include <exception>
#include <random>

#include "lumora/mailcontent/html/TokenizerImpl.h"

namespace lumora::html {

using namespace tokenizing;

namespace tokenizing {

// Attribute names come from the mail, so their hash must not be one a sender can collide on
// purpose: the names are read as a polynomial modulo 2^61 - 1 at a point chosen at random
// once per process. Two different names of at most L bytes collide with probability at most
// L / 2^61 whatever the sender does.
size_t hashAttributeName(std::string_view name) {
  constexpr uint64_t kPrime = (uint64_t{1} << 61) - 1;
  static const uint64_t point = [] {
    uint64_t seed = 0x9E3779B97F4A7C15;
    try {
      std::random_device device;
      seed = (uint64_t{device()} << 32) ^ device();
    } catch (const std::exception&) {
      // No entropy source: a fixed point still hashes well, only predictably.
    }
    return seed % (kPrime - 2) + 2;
  }();
  uint64_t h = name.size();
  for (char c : name) {
    const unsigned __int128 product =
        static_cast<unsigned __int128>(h) * point + static_cast<unsigned char>(c);
    // Reduction modulo a Mersenne prime: fold the bits above 61 onto the ones below.
    uint64_t folded =
        static_cast<uint64_t>(product & kPrime) + static_cast<uint64_t>(product >> 61);
    folded = (folded & kPrime) + (folded >> 61);
    h = folded >= kPrime ? folded - kPrime : folded;
  }
  return static_cast<size_t>(h);
}

}  // namespace tokenizing

bool Tokenizer::Impl::tagStates() {
  for (;;) {
    switch (state) {
      case State::tagOpen: {
        const int c = peek();
        if (c == '!') {
          ++pos;
          state = State::markupDeclarationOpen;
        } else if (c == '/') {
          ++pos;
          state = State::endTagOpen;
        } else if (isAlpha(c)) {
          beginTag(Token::Type::startTag);
          state = State::tagName;
        } else if (c == '?') {
          beginComment();
          state = State::bogusComment;
        } else {
          textRun += '<';
          state = State::data;
        }
        break;
      }
      case State::endTagOpen: {
        const int c = peek();
        if (isAlpha(c)) {
          beginTag(Token::Type::endTag);
          state = State::tagName;
        } else if (c == '>') {
          ++pos;
          state = State::data;
        } else if (c == kEndOfInput) {
          textRun += "</";
          state = State::data;
        } else {
          beginComment();
          state = State::bogusComment;
        }
        break;
      }
      case State::tagName: {
        appendLowerRun(markup.name, kTagNameStops);
        const int c = consumeOrEnd();
        if (c == kEndOfInput) return true;
        if (isSpace(c)) {
          state = State::beforeAttributeName;
        } else if (c == '/') {
          state = State::selfClosingStartTag;
        } else if (c == '>') {
          emitTag();
          return true;
        } else {
          markup.name += kReplacementCharacter;
        }
        break;
      }
      case State::selfClosingStartTag: {
        const int c = peek();
        if (c == '>') markup.selfClosing = true;
        if (closesTag(c)) return true;
        state = State::beforeAttributeName;
        break;
      }
      default:
        return false;
    }
  }
}

bool Tokenizer::Impl::closesTag(int c) {
  if (c == kEndOfInput) {
    emitEndOfFile();
    return true;
  }
  if (c != '>') return false;
  ++pos;
  emitTag();
  return true;
}

bool Tokenizer::Impl::attributeNameStates() {
  for (;;) {
    switch (state) {
      case State::beforeAttributeName: {
        skipWhiteSpace();
        const int c = peek();
        if (c == kEndOfInput || c == '/' || c == '>') {
          state = State::afterAttributeName;
        } else {
          startAttribute();
          if (c == '=') {
            ++pos;
            markup.attributes.back().name += '=';
          }
          state = State::attributeName;
        }
        break;
      }
      case State::attributeName: {
        appendLowerRun(markup.attributes.back().name, kAttributeNameStops);
        const int c = peek();
        if (c == '\0') {
          ++pos;
          markup.attributes.back().name += kReplacementCharacter;
        } else if (c == '=') {
          ++pos;
          finishAttributeName();
          state = State::beforeAttributeValue;
        } else {
          finishAttributeName();
          state = State::afterAttributeName;
        }
        break;
      }
      case State::afterAttributeName: {
        skipWhiteSpace();
        const int c = peek();
        if (closesTag(c)) return true;
        if (c == '/' || c == '=') {
          ++pos;
          state = c == '/' ? State::selfClosingStartTag : State::beforeAttributeValue;
        } else {
          startAttribute();
          state = State::attributeName;
        }
        break;
      }
      default:
        return false;
    }
  }
}

void Tokenizer::Impl::finishAttributeName() {
  std::vector<Attribute>& attributes = markup.attributes;
  const size_t current = attributes.size() - 1;
  bool duplicate = false;
  if (attributes.size() <= kDirectComparisonLimit) {
    for (size_t i = 0; i < current && !duplicate; ++i)
      duplicate = attributes[i].name == attributes[current].name;
  } else {
    for (; indexedAttributes < current; ++indexedAttributes)
      seenNames.insert(static_cast<uint32_t>(indexedAttributes));
    duplicate = !seenNames.insert(static_cast<uint32_t>(current)).second;
    if (!duplicate) indexedAttributes = current + 1;
  }
  if (duplicate) {
    attributes.pop_back();
    droppedValue.clear();
    attributeValue = &droppedValue;
  } else {
    attributeValue = &attributes.back().value;
  }
}

bool Tokenizer::Impl::attributeValueStates() {
  for (;;) {
    switch (state) {
      case State::beforeAttributeValue: {
        skipWhiteSpace();
        const int c = peek();
        if (c == '"') {
          ++pos;
          state = State::attributeValueDoubleQuoted;
        } else if (c == '\'') {
          ++pos;
          state = State::attributeValueSingleQuoted;
        } else if (c == '>') {
          ++pos;
          emitTag();
          return true;
        } else {
          state = State::attributeValueUnquoted;
        }
        break;
      }
      case State::attributeValueDoubleQuoted:
      case State::attributeValueSingleQuoted: {
        const bool doubleQuoted = state == State::attributeValueDoubleQuoted;
        appendRun(*attributeValue,
                  doubleQuoted ? kDoubleQuotedValueStops : kSingleQuotedValueStops);
        const int c = consumeOrEnd();
        if (c == kEndOfInput) return true;
        if (c == '&') {
          characterReference(*attributeValue, true);
        } else if (c == '\0') {
          *attributeValue += kReplacementCharacter;
        } else {
          state = State::afterAttributeValueQuoted;
        }
        break;
      }
      case State::attributeValueUnquoted: {
        appendRun(*attributeValue, kUnquotedValueStops);
        const int c = consumeOrEnd();
        if (c == kEndOfInput) return true;
        if (isSpace(c)) {
          state = State::beforeAttributeName;
        } else if (c == '&') {
          characterReference(*attributeValue, true);
        } else if (c == '>') {
          emitTag();
          return true;
        } else {
          *attributeValue += kReplacementCharacter;
        }
        break;
      }
      case State::afterAttributeValueQuoted: {
        const int c = peek();
        if (closesTag(c)) return true;
        // Anything but white space and '/' starts the next attribute unseparated, an error.
        if (isSpace(c) || c == '/') ++pos;
        state = c == '/' ? State::selfClosingStartTag : State::beforeAttributeName;
        break;
      }
      default:
        return false;
    }
  }
}

}  // namespace lumora::html
