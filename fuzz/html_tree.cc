// Fuzzes the tree construction and the text rules: arbitrary bytes parsed as a document, every
// blockquote's text taken, and the text of the whole document. Nothing may fail.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/mailcontent/html/Document.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view html(reinterpret_cast<const char*>(data), size);
  const auto document = lumora::html::Document::parseUnowned(html);
  const lumora::html::Elements quotes = document->root().select("blockquote");
  for (size_t i = 0; i < quotes.size(); ++i) (void)quotes.get(i).text(true);
  (void)document->root().text(true);
  return 0;
}
