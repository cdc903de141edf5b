// Fuzzes the HTML tokenizer: arbitrary bytes tokenized to the end from the state the first
// byte picks. Every token but the last consumes input, so more tokens than bytes means the
// tokenizer stopped advancing; a crash or a sanitizer report is a bug as well.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/mailcontent/html/Tokenizer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using lumora::html::Token;
  using lumora::html::TokenizerState;
  if (size == 0) return 0;
  static constexpr TokenizerState kStates[] = {
      TokenizerState::data,       TokenizerState::rcdata,    TokenizerState::rawtext,
      TokenizerState::scriptData, TokenizerState::plaintext, TokenizerState::cdataSection,
  };
  const TokenizerState state = kStates[data[0] % std::size(kStates)];
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);

  lumora::html::Tokenizer tokenizer(input);
  tokenizer.switchTo(state);
  // Half the runs pretend a start tag came first, so end tags in text can match.
  if (data[0] & 0x80) tokenizer.setLastStartTagName("script");
  size_t tokens = 0;
  for (;;) {
    const Token& token = tokenizer.next();
    if (token.type == Token::Type::endOfFile) break;
    if (++tokens > input.size() + 1) __builtin_trap();
    if (token.type == Token::Type::characters && token.characters.empty()) __builtin_trap();
  }
  if (tokenizer.next().type != Token::Type::endOfFile) __builtin_trap();
  return 0;
}
