// The tokenizer's driver: the public calls, and the run of the state machine from one family
// of states to the next.
#include "lumora/mailcontent/html/Tokenizer.h"

#include <algorithm>
#include <array>
#include <initializer_list>

#include "lumora/mailcontent/html/TokenizerImpl.h"

namespace lumora::html {

using namespace tokenizing;

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

namespace {

constexpr size_t kStateCount = static_cast<size_t>(tokenizing::State::cdataSectionEnd) + 1;

template <typename Family>
struct FamilyOfStates {
  Family family;
  std::initializer_list<tokenizing::State> states;
};

template <typename Family>
constexpr std::array<Family, kStateCount> familiesOf(
    std::initializer_list<FamilyOfStates<Family>> groups) {
  std::array<Family, kStateCount> table{};
  for (const auto& group : groups)
    for (const tokenizing::State state : group.states)
      table[static_cast<size_t>(state)] = group.family;
  return table;
}

}  // namespace

// A family runs until it completes a token or hands over, so this loop turns once per change
// of family, not once per state.
void Tokenizer::Impl::run() {
  using S = State;
  static constexpr auto kFamilyOf = familiesOf<bool (Impl::*)()>({
      {&Impl::textStates,
       {S::data, S::rcdata, S::rawtext, S::plaintext, S::rcdataLessThanSign, S::rcdataEndTagOpen,
        S::rcdataEndTagName, S::rawtextLessThanSign, S::rawtextEndTagOpen, S::rawtextEndTagName,
        S::scriptDataEndTagOpen, S::scriptDataEndTagName, S::scriptDataEscapedEndTagOpen,
        S::scriptDataEscapedEndTagName}},
      {&Impl::scriptStates,
       {S::scriptData, S::scriptDataLessThanSign, S::scriptDataEscapeStart,
        S::scriptDataEscapeStartDash, S::scriptDataEscaped, S::scriptDataEscapedDash,
        S::scriptDataEscapedDashDash, S::scriptDataEscapedLessThanSign,
        S::scriptDataDoubleEscapeStart, S::scriptDataDoubleEscaped, S::scriptDataDoubleEscapedDash,
        S::scriptDataDoubleEscapedDashDash, S::scriptDataDoubleEscapedLessThanSign,
        S::scriptDataDoubleEscapeEnd}},
      {&Impl::tagStates, {S::tagOpen, S::endTagOpen, S::tagName, S::selfClosingStartTag}},
      {&Impl::attributeNameStates,
       {S::beforeAttributeName, S::attributeName, S::afterAttributeName}},
      {&Impl::attributeValueStates,
       {S::beforeAttributeValue, S::attributeValueDoubleQuoted, S::attributeValueSingleQuoted,
        S::attributeValueUnquoted, S::afterAttributeValueQuoted}},
      {&Impl::markupDeclarationStates, {S::markupDeclarationOpen, S::bogusComment}},
      {&Impl::commentStates,
       {S::commentStart, S::commentStartDash, S::comment, S::commentLessThanSign,
        S::commentLessThanSignBang, S::commentLessThanSignBangDash,
        S::commentLessThanSignBangDashDash, S::commentEndDash, S::commentEnd, S::commentEndBang}},
      {&Impl::doctypeStates,
       {S::doctype, S::beforeDoctypeName, S::doctypeName, S::afterDoctypeName, S::bogusDoctype}},
      {&Impl::doctypeIdentifierStates,
       {S::afterDoctypePublicKeyword, S::beforeDoctypePublicIdentifier,
        S::doctypePublicIdentifierDoubleQuoted, S::doctypePublicIdentifierSingleQuoted,
        S::afterDoctypePublicIdentifier, S::betweenDoctypePublicAndSystemIdentifiers,
        S::afterDoctypeSystemKeyword, S::beforeDoctypeSystemIdentifier,
        S::doctypeSystemIdentifierDoubleQuoted, S::doctypeSystemIdentifierSingleQuoted,
        S::afterDoctypeSystemIdentifier}},
      {&Impl::cdataStates, {S::cdataSection, S::cdataSectionBracket, S::cdataSectionEnd}},
  });
  static_assert(std::find(kFamilyOf.begin(), kFamilyOf.end(), nullptr) == kFamilyOf.end(),
                "every state belongs to a family");
  while (!(this->*kFamilyOf[static_cast<size_t>(state)])()) {
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
