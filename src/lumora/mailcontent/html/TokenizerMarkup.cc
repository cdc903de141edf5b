// The tokenizer's markup declarations: "<!" and what follows it, comments (bogus or not) and
// DOCTYPEs.
#include "lumora/mailcontent/html/TokenizerImpl.h"

namespace lumora::html {

using namespace tokenizing;

bool Tokenizer::Impl::markupDeclarationStates() {
  for (;;) {
    switch (state) {
      case State::markupDeclarationOpen:
        if (startsWith("--")) {
          pos += 2;
          beginComment();
          state = State::commentStart;
        } else if (startsWithIgnoringCase("doctype")) {
          pos += 7;
          state = State::doctype;
        } else if (startsWith("[CDATA[")) {
          // CDATA sections belong to foreign content, which this parser does not build.
          pos += 7;
          beginComment();
          markup.data = "[CDATA[";
          state = State::bogusComment;
        } else {
          beginComment();
          state = State::bogusComment;
        }
        break;
      case State::bogusComment: {
        appendRun(markup.data, kBogusCommentStops);
        if (closesMarkup(peek())) return true;
        ++pos;
        markup.data += kReplacementCharacter;
        break;
      }
      default:
        return false;
    }
  }
}

bool Tokenizer::Impl::closesMarkup(int c) {
  if (c == '>') {
    ++pos;
    emitMarkup();
    return true;
  }
  return emitsAtEnd(c);
}

bool Tokenizer::Impl::emitsAtEnd(int c) {
  if (c != kEndOfInput) return false;
  if (markup.type == Token::Type::doctype) markup.forceQuirks = true;
  emitMarkup();
  return true;
}

bool Tokenizer::Impl::commentStates() {
  for (;;) {
    switch (state) {
      case State::commentStart: {
        const int c = peek();
        if (c == '-') {
          ++pos;
          state = State::commentStartDash;
        } else if (c == '>') {
          ++pos;
          emitMarkup();
          return true;
        } else {
          state = State::comment;
        }
        break;
      }
      case State::commentStartDash:
      case State::commentEndDash: {
        // A '-' read: right after the "<!--" a '>' closes the comment ("<!-->" is one, empty);
        // further in, the '>' goes back to the comment as text.
        const int c = peek();
        if (state == State::commentStartDash ? closesMarkup(c) : emitsAtEnd(c)) return true;
        if (c == '-') {
          ++pos;
          state = State::commentEnd;
        } else {
          markup.data += '-';
          state = State::comment;
        }
        break;
      }
      case State::comment: {
        appendRun(markup.data, kCommentStops);
        const int c = peek();
        if (emitsAtEnd(c)) return true;
        ++pos;
        if (c == '<') {
          markup.data += '<';
          state = State::commentLessThanSign;
        } else if (c == '-') {
          state = State::commentEndDash;
        } else {
          markup.data += kReplacementCharacter;
        }
        break;
      }
      case State::commentLessThanSign: {
        const int c = peek();
        if (c == '!') {
          ++pos;
          markup.data += '!';
          state = State::commentLessThanSignBang;
        } else if (c == '<') {
          ++pos;
          markup.data += '<';
        } else {
          state = State::comment;
        }
        break;
      }
      case State::commentLessThanSignBang:
      case State::commentLessThanSignBangDash: {
        const bool bang = state == State::commentLessThanSignBang;
        if (peek() == '-') {
          ++pos;
          state =
              bang ? State::commentLessThanSignBangDash : State::commentLessThanSignBangDashDash;
        } else {
          state = bang ? State::comment : State::commentEndDash;
        }
        break;
      }
      case State::commentLessThanSignBangDashDash:
        // "<!--" nested in a comment is an error, but the comment ends where it would anyway.
        state = State::commentEnd;
        break;
      case State::commentEnd: {
        const int c = peek();
        if (closesMarkup(c)) return true;
        if (c == '!') {
          ++pos;
          state = State::commentEndBang;
        } else if (c == '-') {
          ++pos;
          markup.data += '-';
        } else {
          markup.data += "--";
          state = State::comment;
        }
        break;
      }
      case State::commentEndBang: {
        const int c = peek();
        if (closesMarkup(c)) return true;
        markup.data += "--!";
        if (c == '-') {
          ++pos;
          state = State::commentEndDash;
        } else {
          state = State::comment;
        }
        break;
      }
      default:
        return false;
    }
  }
}

void Tokenizer::Impl::emitQuirkyDoctype() {
  markup.forceQuirks = true;
  emitMarkup();
}

void Tokenizer::Impl::toBogusDoctype() {
  markup.forceQuirks = true;
  state = State::bogusDoctype;
}

void Tokenizer::Impl::openIdentifier(bool isPublic, int quote) {
  ++pos;
  if (isPublic) {
    markup.hasPublicIdentifier = true;
    markup.publicIdentifier.clear();
    state = quote == '"' ? State::doctypePublicIdentifierDoubleQuoted
                         : State::doctypePublicIdentifierSingleQuoted;
  } else {
    markup.hasSystemIdentifier = true;
    markup.systemIdentifier.clear();
    state = quote == '"' ? State::doctypeSystemIdentifierDoubleQuoted
                         : State::doctypeSystemIdentifierSingleQuoted;
  }
}

bool Tokenizer::Impl::doctypeStates() {
  for (;;) {
    switch (state) {
      case State::doctype: {
        const int c = peek();
        if (c == kEndOfInput) {
          beginDoctype();
          emitQuirkyDoctype();
          return true;
        }
        if (isSpace(c)) ++pos;
        state = State::beforeDoctypeName;
        break;
      }
      case State::beforeDoctypeName: {
        skipWhiteSpace();
        const int c = peek();
        beginDoctype();
        if (c == kEndOfInput || c == '>') {
          if (c == '>') ++pos;
          emitQuirkyDoctype();
          return true;
        }
        markup.hasName = true;
        state = State::doctypeName;
        break;
      }
      case State::doctypeName: {
        appendLowerRun(markup.name, kDoctypeNameStops);
        const int c = peek();
        if (emitsAtEnd(c)) return true;
        ++pos;
        if (isSpace(c)) {
          state = State::afterDoctypeName;
        } else if (c == '>') {
          emitMarkup();
          return true;
        } else {
          markup.name += kReplacementCharacter;
        }
        break;
      }
      case State::afterDoctypeName:
        skipWhiteSpace();
        if (closesMarkup(peek())) return true;
        if (startsWithIgnoringCase("public")) {
          pos += 6;
          state = State::afterDoctypePublicKeyword;
        } else if (startsWithIgnoringCase("system")) {
          pos += 6;
          state = State::afterDoctypeSystemKeyword;
        } else {
          toBogusDoctype();
        }
        break;
      case State::bogusDoctype: {
        const void* close =
            pos < in.size() ? std::memchr(in.data() + pos, '>', in.size() - pos) : nullptr;
        pos = close != nullptr
                  ? static_cast<size_t>(static_cast<const char*>(close) - in.data()) + 1
                  : in.size();
        emitMarkup();
        return true;
      }
      default:
        return false;
    }
  }
}

bool Tokenizer::Impl::doctypeIdentifierStates() {
  for (;;) {
    switch (state) {
      case State::afterDoctypePublicKeyword:
      case State::beforeDoctypePublicIdentifier:
      case State::afterDoctypeSystemKeyword:
      case State::beforeDoctypeSystemIdentifier: {
        const bool isPublic = state == State::afterDoctypePublicKeyword ||
                              state == State::beforeDoctypePublicIdentifier;
        const bool afterKeyword =
            state == State::afterDoctypePublicKeyword || state == State::afterDoctypeSystemKeyword;
        if (afterKeyword && isSpace(peek())) {
          ++pos;
          state = isPublic ? State::beforeDoctypePublicIdentifier
                           : State::beforeDoctypeSystemIdentifier;
          break;
        }
        skipWhiteSpace();  // only reached before the identifier, where white space is skipped
        const int c = peek();
        if (c == kEndOfInput || c == '>') {
          if (c == '>') ++pos;
          emitQuirkyDoctype();
          return true;
        }
        if (c == '"' || c == '\'')
          openIdentifier(isPublic, c);
        else
          toBogusDoctype();
        break;
      }
      case State::doctypePublicIdentifierDoubleQuoted:
      case State::doctypePublicIdentifierSingleQuoted:
      case State::doctypeSystemIdentifierDoubleQuoted:
      case State::doctypeSystemIdentifierSingleQuoted: {
        const bool isPublic = state == State::doctypePublicIdentifierDoubleQuoted ||
                              state == State::doctypePublicIdentifierSingleQuoted;
        const bool doubleQuoted = state == State::doctypePublicIdentifierDoubleQuoted ||
                                  state == State::doctypeSystemIdentifierDoubleQuoted;
        std::string& identifier = isPublic ? markup.publicIdentifier : markup.systemIdentifier;
        appendRun(identifier,
                  doubleQuoted ? kDoubleQuotedIdentifierStops : kSingleQuotedIdentifierStops);
        const int c = peek();
        if (c != kEndOfInput) ++pos;
        if (c == kEndOfInput || c == '>') {
          emitQuirkyDoctype();
          return true;
        }
        if (c == '\0') {
          identifier += kReplacementCharacter;
        } else {
          state =
              isPublic ? State::afterDoctypePublicIdentifier : State::afterDoctypeSystemIdentifier;
        }
        break;
      }
      case State::afterDoctypePublicIdentifier:
      case State::betweenDoctypePublicAndSystemIdentifiers: {
        if (state == State::afterDoctypePublicIdentifier && isSpace(peek())) {
          ++pos;
          state = State::betweenDoctypePublicAndSystemIdentifiers;
          break;
        }
        skipWhiteSpace();  // only reached between the identifiers, where it is skipped
        const int c = peek();
        if (closesMarkup(c)) return true;
        if (c == '"' || c == '\'')
          openIdentifier(false, c);
        else
          toBogusDoctype();
        break;
      }
      case State::afterDoctypeSystemIdentifier:
        skipWhiteSpace();
        if (closesMarkup(peek())) return true;
        state = State::bogusDoctype;  // an error, but not one that makes the page quirky
        break;
      default:
        return false;
    }
  }
}

}  // namespace lumora::html
