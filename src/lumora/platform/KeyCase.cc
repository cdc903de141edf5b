#include "lumora/platform/KeyCase.h"

#include <cctype>
#include <vector>

namespace lumora::keycase {
namespace {

bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool isLower(char c) { return c >= 'a' && c <= 'z'; }
char lower(char c) { return isUpper(c) ? static_cast<char>(c + 32) : c; }
char upper(char c) { return isLower(c) ? static_cast<char>(c - 32) : c; }

}  // namespace

std::string toSnakeCase(std::string_view camel) {
  if (camel.empty()) return {};
  // Word boundaries: before an upper-case letter that follows a lower-case one, and before the
  // last capital of a run that is followed by a lower-case letter.
  std::vector<size_t> starts{0};
  for (size_t i = 1; i < camel.size(); ++i) {
    if (!isUpper(camel[i])) continue;
    const bool afterLower = !isUpper(camel[i - 1]);
    const bool endsRun = i + 1 < camel.size() && isLower(camel[i + 1]) && isUpper(camel[i - 1]);
    if (afterLower || endsRun) starts.push_back(i);
  }
  std::string out;
  for (size_t w = 0; w < starts.size(); ++w) {
    const size_t end = w + 1 < starts.size() ? starts[w + 1] : camel.size();
    if (w > 0) out += '_';
    for (size_t i = starts[w]; i < end; ++i) out += lower(camel[i]);
  }
  return out;
}

namespace {

// Produces the camel-case form of `snake` character by character into `emit`, which returns
// false to stop early. Returns false when stopped.
template <typename Emit>
bool convertFromSnake(std::string_view snake, Emit&& emit) {
  size_t first = 0;
  while (first < snake.size() && snake[first] == '_') ++first;
  size_t last = snake.size();
  while (last > first && snake[last - 1] == '_') --last;
  const std::string_view core = snake.substr(first, last - first);
  if (core.empty() || core.find('_') == std::string_view::npos) {
    for (char c : snake)
      if (!emit(c)) return false;
    return true;
  }
  for (size_t i = 0; i < first; ++i)
    if (!emit('_')) return false;
  bool firstWord = true;
  size_t i = 0;
  while (i < core.size()) {
    if (core[i] == '_') {
      ++i;
      continue;
    }
    size_t j = i;
    while (j < core.size() && core[j] != '_') ++j;
    for (size_t k = i; k < j; ++k) {
      const bool capital = !firstWord && k == i;
      if (!emit(capital ? upper(core[k]) : lower(core[k]))) return false;
    }
    firstWord = false;
    i = j;
  }
  for (size_t k = last; k < snake.size(); ++k)
    if (!emit('_')) return false;
  return true;
}

}  // namespace

void fromSnakeCase(std::string_view snake, std::string& out) {
  out.clear();
  convertFromSnake(snake, [&](char c) {
    out += c;
    return true;
  });
}

std::string fromSnakeCase(std::string_view snake) {
  std::string out;
  fromSnakeCase(snake, out);
  return out;
}

// Called for every key of every stream record: compares while converting, with no allocation.
bool snakeKeyMatches(std::string_view snake, std::string_view camel) {
  if (snake.find('_') == std::string_view::npos) return snake == camel;
  size_t at = 0;
  const bool whole = convertFromSnake(snake, [&](char c) {
    if (at >= camel.size() || camel[at] != c) return false;
    ++at;
    return true;
  });
  return whole && at == camel.size();
}

}  // namespace lumora::keycase
