// The general pasteboard: where Copy puts the reply. SystemPasteboard (SystemPasteboard.h) is
// the user's clipboard.
#pragma once

#include <string>

namespace lumora {

class Pasteboard {
 public:
  virtual ~Pasteboard() = default;
  // Declares the one type plain text, with no owner; this empties the pasteboard.
  virtual void clearContents() = 0;
  // Writes `text` as plain text, unchanged.
  virtual void setString(const std::string& text) = 0;
};

// A pasteboard in memory, for tests and for front-ends without a clipboard.
class MemoryPasteboard final : public Pasteboard {
 public:
  void clearContents() override {
    text_.clear();
    declared_ = true;
  }
  void setString(const std::string& text) override { text_ = text; }
  const std::string& text() const { return text_; }
  bool declared() const { return declared_; }

 private:
  std::string text_;
  bool declared_ = false;
};

}  // namespace lumora
