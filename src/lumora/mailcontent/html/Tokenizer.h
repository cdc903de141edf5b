// The HTML tokenizer: text in, tokens out, state by state as the HTML standard's tokenization
// describes, with two differences on purpose: line ends are not normalised (a carriage return
// stays a character), and there is no foreign content, so "<![CDATA[" always starts a bogus
// comment. Parse errors are not collected.
//
// Linear in the input: no state rescans what it has passed, and a tag with many attributes
// checks for duplicate names in constant time per attribute.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace lumora::html {

// The states the tree builder switches the tokenizer to, and the ones tests start in. The
// tokenizer has more states of its own inside Tokenizer.cc.
enum class TokenizerState {
  data,
  rcdata,
  rawtext,
  scriptData,
  plaintext,
  cdataSection,
};

struct Attribute {
  std::string name;  // lower case
  std::string value;
  bool operator==(const Attribute&) const = default;
};

struct Token {
  enum class Type { doctype, startTag, endTag, comment, characters, endOfFile };
  Type type = Type::endOfFile;
  std::string name;                   // tag name (lower case) or doctype name
  std::string data;                   // comment text
  // The run of a characters token, possibly with U+0000: a view of the input where the run
  // stands there verbatim, of the tokenizer's own buffer where it does not.
  std::string_view characters;
  std::vector<Attribute> attributes;  // start and end tags; the first of duplicate names wins
  bool selfClosing = false;
  // doctype only
  bool hasName = false;
  bool hasPublicIdentifier = false;
  bool hasSystemIdentifier = false;
  std::string publicIdentifier;
  std::string systemIdentifier;
  bool forceQuirks = false;

  // The value of the attribute `name`, or null.
  const std::string* attribute(std::string_view name) const;
};

class Tokenizer {
 public:
  explicit Tokenizer(std::string_view input);
  ~Tokenizer();
  Tokenizer(const Tokenizer&) = delete;
  Tokenizer& operator=(const Tokenizer&) = delete;

  // The next token. Valid until the next call. After the end of the input every call gives
  // endOfFile. Consecutive characters come as one token or several; a consumer must not rely
  // on where a run is cut.
  const Token& next();

  // Used by the tree builder after a start tag of script, style, textarea, title, plaintext
  // and the like; and by tests for their initial state.
  void switchTo(TokenizerState state);
  // The name of the last start tag emitted, for "appropriate end tag" in rcdata, rawtext and
  // script data. Set by next() itself; tests set it for their first token.
  void setLastStartTagName(std::string_view name);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace lumora::html
