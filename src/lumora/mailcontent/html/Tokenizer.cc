// The tokenizer's driver and its hot path: the public calls, the run of the state machine from
// one family of states to the next, and the families that most markup goes through (text, end
// tags inside text, tags and attributes), which run() has inlined. The other families are
// called: script data and CDATA (TokenizerScript.cc), comments and DOCTYPEs
// (TokenizerMarkup.cc), and character references (CharacterReferences.cc).
#include "lumora/mailcontent/html/Tokenizer.h"

#include <algorithm>
#include <array>
#include <exception>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <random>

#include "lumora/mailcontent/html/TokenizerImpl.h"

namespace lumora::html {

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

using namespace tokenizing;

namespace {

// The states of an end tag inside text, and the text they go back to when it is not the end
// tag of the element the text belongs to.
struct TextEndTag {
  State open, name, text;
};

constexpr TextEndTag kTextEndTags[] = {
    {State::rcdataEndTagOpen, State::rcdataEndTagName, State::rcdata},
    {State::rawtextEndTagOpen, State::rawtextEndTagName, State::rawtext},
    {State::scriptDataEndTagOpen, State::scriptDataEndTagName, State::scriptData},
    {State::scriptDataEscapedEndTagOpen, State::scriptDataEscapedEndTagName,
     State::scriptDataEscaped},
};

// Called in one of the open or name states above only.
const TextEndTag& textEndTagOf(State state) {
  return *std::find_if(std::begin(kTextEndTags), std::end(kTextEndTags),
                       [state](const TextEndTag& t) { return t.open == state || t.name == state; });
}

}  // namespace

const std::string* Token::attribute(std::string_view attributeName) const {
  for (const Attribute& a : attributes) {
    if (a.name == attributeName) return &a.value;
  }
  return nullptr;
}

const Token& Tokenizer::Impl::next() {
  textRun.clear();
  if (markupPending) {
    markupPending = false;
    return markup;
  }
  if (finished) return markup;
  run();
  if (!textRun.empty()) {
    markupPending = true;
    text.characters = textRun.view();
    return text;
  }
  return markup;
}

bool Tokenizer::Impl::textStates() {
  for (;;) {
    switch (state) {
      case State::data: {
        const int c = textUpTo(std::min(nextOf('<', nextLessThan), nextOf('&', nextAmpersand)));
        if (c == kEndOfInput) return true;
        if (c == '<') {
          state = State::tagOpen;
        } else {
          characterReference(textRun, false);
        }
        break;
      }
      case State::rcdata: {
        const int c = textUpTo(std::min(
            {nextOf('<', nextLessThan), nextOf('&', nextAmpersand), nextOf('\0', nextNull)}));
        if (c == kEndOfInput) return true;
        if (c == '<') {
          state = State::rcdataLessThanSign;
        } else if (c == '&') {
          characterReference(textRun, false);
        } else {
          textRun += kReplacementCharacter;
        }
        break;
      }
      case State::rawtext:
        if (rawTextUpTo(State::rawtextLessThanSign)) return true;
        break;
      case State::plaintext:
        if (textUpTo(nextOf('\0', nextNull)) == kEndOfInput) return true;
        textRun += kReplacementCharacter;
        break;
      case State::rcdataLessThanSign:
      case State::rawtextLessThanSign: {
        const bool rcdata = state == State::rcdataLessThanSign;
        if (peek() == '/') {
          ++pos;
          state = rcdata ? State::rcdataEndTagOpen : State::rawtextEndTagOpen;
        } else {
          textRun += '<';
          state = rcdata ? State::rcdata : State::rawtext;
        }
        break;
      }
      case State::rcdataEndTagOpen:
      case State::rawtextEndTagOpen:
      case State::scriptDataEndTagOpen:
      case State::scriptDataEscapedEndTagOpen: {
        const TextEndTag& states = textEndTagOf(state);
        if (isAlpha(peek())) {
          nameStart = pos;
          state = states.name;
        } else {
          textRun += "</";
          state = states.text;
        }
        break;
      }
      case State::rcdataEndTagName:
      case State::rawtextEndTagName:
      case State::scriptDataEndTagName:
      case State::scriptDataEscapedEndTagName:
        if (endTagNameInText(textEndTagOf(state).text)) return true;
        break;
      default:
        return false;
    }
  }
}

bool Tokenizer::Impl::rawTextUpTo(State lessThanSign) {
  const int c = textUpTo(std::min(nextOf('<', nextLessThan), nextOf('\0', nextNull)));
  if (c == kEndOfInput) return true;
  if (c == '<') {
    state = lessThanSign;
  } else {
    textRun += kReplacementCharacter;
  }
  return false;
}

bool Tokenizer::Impl::endTagNameInText(State textState) {
  while (pos < in.size() && isAlpha(static_cast<unsigned char>(in[pos]))) ++pos;
  const std::string_view name = in.substr(nameStart, pos - nameStart);
  const int c = peek();
  if ((isSpace(c) || c == '/' || c == '>') && isAppropriateEndTag(name)) {
    beginTag(Token::Type::endTag);
    markup.name.assign(name);
    for (char& ch : markup.name) ch = toLower(ch);
    ++pos;
    if (c == '>') {
      emitTag();
      return true;
    }
    state = c == '/' ? State::selfClosingStartTag : State::beforeAttributeName;
    return false;
  }
  // Not an end tag of the element this text belongs to: it was text all along.
  textRun += "</";
  textRun += name;
  state = textState;
  return false;
}

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

namespace {

// The families of states, each run by one function of Tokenizer::Impl.
enum class Family : uint8_t {
  text,
  script,
  tag,
  attributeName,
  attributeValue,
  markupDeclaration,
  comment,
  doctype,
  doctypeIdentifier,
  cdata,
};

constexpr size_t kStateCount = static_cast<size_t>(State::cdataSectionEnd) + 1;

struct FamilyOfStates {
  Family family;
  std::initializer_list<State> states;
};

constexpr std::array<std::optional<Family>, kStateCount> familiesOf(
    std::initializer_list<FamilyOfStates> groups) {
  std::array<std::optional<Family>, kStateCount> table{};
  for (const auto& group : groups)
    for (const State state : group.states) table[static_cast<size_t>(state)] = group.family;
  return table;
}

using S = State;
constexpr auto kFamilyOf = familiesOf({
    {Family::text,
     {S::data, S::rcdata, S::rawtext, S::plaintext, S::rcdataLessThanSign, S::rcdataEndTagOpen,
      S::rcdataEndTagName, S::rawtextLessThanSign, S::rawtextEndTagOpen, S::rawtextEndTagName,
      S::scriptDataEndTagOpen, S::scriptDataEndTagName, S::scriptDataEscapedEndTagOpen,
      S::scriptDataEscapedEndTagName}},
    {Family::script,
     {S::scriptData, S::scriptDataLessThanSign, S::scriptDataEscapeStart,
      S::scriptDataEscapeStartDash, S::scriptDataEscaped, S::scriptDataEscapedDash,
      S::scriptDataEscapedDashDash, S::scriptDataEscapedLessThanSign,
      S::scriptDataDoubleEscapeStart, S::scriptDataDoubleEscaped, S::scriptDataDoubleEscapedDash,
      S::scriptDataDoubleEscapedDashDash, S::scriptDataDoubleEscapedLessThanSign,
      S::scriptDataDoubleEscapeEnd}},
    {Family::tag, {S::tagOpen, S::endTagOpen, S::tagName, S::selfClosingStartTag}},
    {Family::attributeName, {S::beforeAttributeName, S::attributeName, S::afterAttributeName}},
    {Family::attributeValue,
     {S::beforeAttributeValue, S::attributeValueDoubleQuoted, S::attributeValueSingleQuoted,
      S::attributeValueUnquoted, S::afterAttributeValueQuoted}},
    {Family::markupDeclaration, {S::markupDeclarationOpen, S::bogusComment}},
    {Family::comment,
     {S::commentStart, S::commentStartDash, S::comment, S::commentLessThanSign,
      S::commentLessThanSignBang, S::commentLessThanSignBangDash,
      S::commentLessThanSignBangDashDash, S::commentEndDash, S::commentEnd, S::commentEndBang}},
    {Family::doctype,
     {S::doctype, S::beforeDoctypeName, S::doctypeName, S::afterDoctypeName, S::bogusDoctype}},
    {Family::doctypeIdentifier,
     {S::afterDoctypePublicKeyword, S::beforeDoctypePublicIdentifier,
      S::doctypePublicIdentifierDoubleQuoted, S::doctypePublicIdentifierSingleQuoted,
      S::afterDoctypePublicIdentifier, S::betweenDoctypePublicAndSystemIdentifiers,
      S::afterDoctypeSystemKeyword, S::beforeDoctypeSystemIdentifier,
      S::doctypeSystemIdentifierDoubleQuoted, S::doctypeSystemIdentifierSingleQuoted,
      S::afterDoctypeSystemIdentifier}},
    {Family::cdata, {S::cdataSection, S::cdataSectionBracket, S::cdataSectionEnd}},
});
static_assert(std::find(kFamilyOf.begin(), kFamilyOf.end(), std::nullopt) == kFamilyOf.end(),
              "every state belongs to a family");

}  // namespace

// A family runs until it completes a token or hands over, so this loop turns once per change
// of family, not once per state; the switch, rather than a table of the functions, lets the
// hot families be inlined here.
void Tokenizer::Impl::run() {
  for (;;) {
    bool complete = false;
    switch (*kFamilyOf[static_cast<size_t>(state)]) {
      case Family::text:
        complete = textStates();
        break;
      case Family::script:
        complete = scriptStates();
        break;
      case Family::tag:
        complete = tagStates();
        break;
      case Family::attributeName:
        complete = attributeNameStates();
        break;
      case Family::attributeValue:
        complete = attributeValueStates();
        break;
      case Family::markupDeclaration:
        complete = markupDeclarationStates();
        break;
      case Family::comment:
        complete = commentStates();
        break;
      case Family::doctype:
        complete = doctypeStates();
        break;
      case Family::doctypeIdentifier:
        complete = doctypeIdentifierStates();
        break;
      case Family::cdata:
        complete = cdataStates();
        break;
    }
    if (complete) return;
  }
}

Tokenizer::Tokenizer(std::string_view input) : impl_(std::make_unique<Impl>(input)) {}

Tokenizer::~Tokenizer() = default;

const Token& Tokenizer::next() { return impl_->next(); }

void Tokenizer::switchTo(TokenizerState state) {
  // In the order of TokenizerState.
  static constexpr State kStates[] = {State::data,       State::rcdata,    State::rawtext,
                                      State::scriptData, State::plaintext, State::cdataSection};
  static_assert(std::size(kStates) == static_cast<size_t>(TokenizerState::cdataSection) + 1);
  impl_->state = kStates[static_cast<size_t>(state)];
}

void Tokenizer::setLastStartTagName(std::string_view name) { impl_->lastStartTag.assign(name); }

}  // namespace lumora::html
