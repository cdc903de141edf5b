#include "lumora/platform/LineSplitter.h"

#include "lumora/platform/Errors.h"

namespace lumora {

void LineSplitter::tooLong() const {
  throw TransportError(
      TransportError::Code::lineTooLong,
      "The server sent a line longer than " +
          (maxLine_ % (size_t{1} << 20) == 0 ? std::to_string(maxLine_ >> 20) + " MiB"
                                             : std::to_string(maxLine_) + " bytes") +
          "; the reply was cut off there.");
}

}  // namespace lumora
