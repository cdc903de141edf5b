// Fuzzes what the native host reads from the Thunderbird add-on: the input is the byte stream of
// a port, cut into frames as the host cuts it and handled message by message, with a panel
// whose transport refuses every request (nothing leaves the process) and whose copies are
// answered by nobody (they time out at once). The port then closes, which stops the panel. Bad
// messages get an error answer; nothing may crash, hang or grow without bound.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "Framing.h"
#include "NativeHost.h"
#include "Scratch.h"
#include "lumora/mailcontent/MailParser.h"
#include "lumora/store/DefaultsStore.h"

namespace {

using namespace lumora;
using fuzzing::scratch;

class RefusingTransport final : public HttpTransport {
 public:
  std::unique_ptr<HttpResponse> send(const HttpRequest&, const SessionConfiguration&,
                                     std::stop_token) override {
    throw TransportError(TransportError::Code::cannotConnect, "no network while fuzzing");
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static DefaultsStore shared(scratch() / "shared.json");
  static DefaultsStore own(scratch() / "own.json");
  static RefusingTransport transport;
  static NoConversations conversations;
  MainExecutor executor;
  nativehost::NativeHost host({
      .executor = executor,
      .send =
          [](std::string_view message) { return message.size() <= nativehost::kMaxOutgoingBytes; },
      .panelDependencies =
          [&](const ComposeSession& session, Pasteboard& pasteboard) {
            return MailExtensionView::Dependencies{
                .executor = executor,
                .session = session,
                .ownDefaults = own,
                .environment =
                    ChatEnvironment{
                        shared, transport, std::chrono::seconds(60), {}, size_t{1} << 20},
                .pasteboard = pasteboard,
                .conversations = conversations,
                .defaultModel = [] { return std::string("gpt-4o"); },
                .quotedTexts = [](std::string_view m) { return MailParser::quotedTexts(m); },
                .overrides = {},
                .onServiceChosen = {},
                .previewQuotedTexts = {},
                .readMessage = {},
                .inserter = nullptr,
            };
          },
      .inChina = [] { return false; },
      .maxMessageBytes = [] { return size_t{1} << 20; },
      .copyTimeout = std::chrono::milliseconds(1),
      .panelOpening = {},
  });
  size_t at = 0;
  nativehost::FrameReader frames(
      [&](char* buffer, size_t want) -> ssize_t {
        const size_t n = std::min(want, size - at);
        std::memcpy(buffer, data + at, n);
        at += n;
        return static_cast<ssize_t>(n);
      },
      4096);
  using Kind = nativehost::FrameReader::Frame::Kind;
  for (bool last = false; !last;) {
    const auto frame = frames.next();
    last = frame.kind == Kind::end || frame.kind == Kind::truncated;
    host.receive(frame);
    executor.drain();
  }
  // A run or a copy may still be under way: wait for its end as the port's close does.
  host.close();
  executor.drain();
  return 0;
}
