#include "lumora/platform/LineSplitter.h"

#include "lumora/platform/Errors.h"
#include "lumora/platform/Text.h"

namespace lumora {

void LineSplitter::tooLong() const {
  throw TransportError(
      TransportError::Code::lineTooLong,
      "The server sent a line longer than " + text::sizeText(maxLine_) +
          "; the reply was cut off there.");
}

}  // namespace lumora
