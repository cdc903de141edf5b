// The tokenizer's script data states, with their "<!--" escapes and "<script" double
// escapes, and the CDATA section states.
#include "lumora/mailcontent/html/TokenizerImpl.h"

namespace lumora::html {

using namespace tokenizing;

bool Tokenizer::Impl::scriptStates() {
  for (;;) {
    switch (state) {
      case State::scriptData:
        if (rawTextUpTo(State::scriptDataLessThanSign)) return true;
        break;
      case State::scriptDataLessThanSign: {
        const int c = peek();
        if (c == '/') {
          ++pos;
          state = State::scriptDataEndTagOpen;
        } else if (c == '!') {
          ++pos;
          textRun += "<!";
          state = State::scriptDataEscapeStart;
        } else {
          textRun += '<';
          state = State::scriptData;
        }
        break;
      }
      case State::scriptDataEscapeStart:
      case State::scriptDataEscapeStartDash:
        if (peek() == '-') {
          ++pos;
          textRun += '-';
          state = state == State::scriptDataEscapeStart ? State::scriptDataEscapeStartDash
                                                        : State::scriptDataEscapedDashDash;
        } else {
          state = State::scriptData;
        }
        break;
      case State::scriptDataEscaped:
      case State::scriptDataDoubleEscaped:
      case State::scriptDataEscapedDash:
      case State::scriptDataEscapedDashDash:
      case State::scriptDataDoubleEscapedDash:
      case State::scriptDataDoubleEscapedDashDash:
        if (escapedScript()) return true;
        break;
      case State::scriptDataEscapedLessThanSign: {
        const int c = peek();
        if (c == '/') {
          ++pos;
          state = State::scriptDataEscapedEndTagOpen;
        } else if (isAlpha(c)) {
          textRun += '<';
          nameStart = pos;
          state = State::scriptDataDoubleEscapeStart;
        } else {
          textRun += '<';
          state = State::scriptDataEscaped;
        }
        break;
      }
      case State::scriptDataDoubleEscapeStart:
        doubleEscapeBoundary(State::scriptDataDoubleEscaped, State::scriptDataEscaped);
        break;
      case State::scriptDataDoubleEscapedLessThanSign:
        if (peek() == '/') {
          ++pos;
          textRun += '/';
          nameStart = pos;
          state = State::scriptDataDoubleEscapeEnd;
        } else {
          state = State::scriptDataDoubleEscaped;
        }
        break;
      case State::scriptDataDoubleEscapeEnd:
        doubleEscapeBoundary(State::scriptDataEscaped, State::scriptDataDoubleEscaped);
        break;
      default:
        return false;
    }
  }
}

bool Tokenizer::Impl::escapedScript() {
  const bool doubleEscaped = state == State::scriptDataDoubleEscaped ||
                             state == State::scriptDataDoubleEscapedDash ||
                             state == State::scriptDataDoubleEscapedDashDash;
  const bool inside = state == State::scriptDataEscaped || state == State::scriptDataDoubleEscaped;
  const bool dashDash =
      state == State::scriptDataEscapedDashDash || state == State::scriptDataDoubleEscapedDashDash;
  if (inside) appendRun(textRun, kEscapedScriptStops);
  const int c = consumeOrEnd();
  if (c == kEndOfInput) return true;
  if (c == '-') {
    textRun += '-';
    if (inside)
      state = doubleEscaped ? State::scriptDataDoubleEscapedDash : State::scriptDataEscapedDash;
    else
      state =
          doubleEscaped ? State::scriptDataDoubleEscapedDashDash : State::scriptDataEscapedDashDash;
  } else if (c == '<') {
    if (doubleEscaped) textRun += '<';
    state = doubleEscaped ? State::scriptDataDoubleEscapedLessThanSign
                          : State::scriptDataEscapedLessThanSign;
  } else if (c == '>' && dashDash) {
    textRun += '>';
    state = State::scriptData;
  } else {
    if (c == '\0')
      textRun += kReplacementCharacter;
    else
      textRun += static_cast<char>(c);
    state = doubleEscaped ? State::scriptDataDoubleEscaped : State::scriptDataEscaped;
  }
  return false;
}

void Tokenizer::Impl::doubleEscapeBoundary(State onScript, State otherwise) {
  // The letters are script text either way; they only decide which state follows.
  const size_t lettersStart = pos;
  while (pos < in.size() && isAlpha(static_cast<unsigned char>(in[pos]))) ++pos;
  textRun.append(in.data() + lettersStart, pos - lettersStart);
  const std::string_view name = in.substr(nameStart, pos - nameStart);
  const int c = peek();
  if (isSpace(c) || c == '/' || c == '>') {
    ++pos;
    textRun += static_cast<char>(c);
    state = equalsIgnoringCase(name, "script") ? onScript : otherwise;
  } else {
    state = otherwise;
  }
}

bool Tokenizer::Impl::cdataStates() {
  for (;;) {
    switch (state) {
      case State::cdataSection: {
        const void* bracket =
            pos < in.size() ? std::memchr(in.data() + pos, ']', in.size() - pos) : nullptr;
        const size_t stop = bracket != nullptr
                                ? static_cast<size_t>(static_cast<const char*>(bracket) - in.data())
                                : in.size();
        if (textUpTo(stop) == kEndOfInput) return true;
        state = State::cdataSectionBracket;
        break;
      }
      case State::cdataSectionBracket:
        if (peek() == ']') {
          ++pos;
          state = State::cdataSectionEnd;
        } else {
          textRun += ']';
          state = State::cdataSection;
        }
        break;
      case State::cdataSectionEnd: {
        const int c = peek();
        if (c == ']') {
          ++pos;
          textRun += ']';
        } else if (c == '>') {
          ++pos;
          state = State::data;
        } else {
          textRun += "]]";
          state = State::cdataSection;
        }
        break;
      }
      default:
        return false;
    }
  }
}

}  // namespace lumora::html
