// `lumora-native-host`: Lumora's side of the Thunderbird add-on. Thunderbird starts it for each
// port the add-on opens (one per compose window's panel, and one per question about the host
// rules), with the port on standard input and output; it ends when the port closes.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

#include "DebugLines.h"
#include "Framing.h"
#include "NativeHost.h"
#include "PanelSetup.h"
#include "lumora/platform/Http.h"
#include "lumora/store/Features.h"
#include "lumora/store/UserSettings.h"

namespace {

constexpr const char* kHelp =
    "Usage: lumora-native-host [MANIFEST] [EXTENSION-ID]\n"
    "\n"
    "The native messaging host of Lumora's Thunderbird add-on. Thunderbird starts it, with\n"
    "the add-on's messages on standard input and the answers on standard output; it is not\n"
    "meant to be run by hand. 'lumora integrate thunderbird' installs its manifest.\n"
    "\n"
    "With LUMORA_DEBUG=1 debug lines go to standard error, which Thunderbird shows in its\n"
    "own output.\n";

}  // namespace

int main(int argc, char** argv) {
  using namespace lumora;
  if (argc > 1) {
    const std::string_view first = argv[1];
    if (first == "--help" || first == "-h") {
      std::fputs(kHelp, stdout);
      return 0;
    }
    if (first == "--version") {
      std::printf("lumora-native-host %s\n", LUMORA_VERSION);
      return 0;
    }
  }
  // Standard output is the port: debug lines must never reach it.
  frontend::routeDebugLines();
  // A write to a closed port fails with EPIPE and ends the session; it must not kill us first.
  signal(SIGPIPE, SIG_IGN);

  MainExecutor executor;
  Features& features = Features::shared(&executor);
  nativehost::FrameWriter writer(nativehost::descriptorSink(STDOUT_FILENO));
  std::jthread curlLoader;
  nativehost::NativeHost host({
      .executor = executor,
      .send = [&writer](std::string_view message) { return writer.write(message); },
      .panelDependencies =
          [&executor](const ComposeSession& session, Pasteboard& pasteboard) {
            return frontend::panelDependencies(executor, session, defaultTransport(), pasteboard);
          },
      .inChina = [&features] { return features.inChina(); },
      .maxMessageBytes = [] { return UserSettings::shared().maxMessageBytes(); },
      .panelOpening = [&curlLoader] { curlLoader = prepareDefaultTransport(); },
  });

  // The port is read on a thread of its own, so that the panel's runs go on while the add-on
  // is quiet; each message is handled on the executor, in order.
  std::atomic<bool> inputEnded = false;
  std::jthread reader([&executor, &host, &inputEnded] {
    nativehost::FrameReader frames(nativehost::descriptorSource(STDIN_FILENO));
    using Kind = nativehost::FrameReader::Frame::Kind;
    for (bool last = false; !last;) {
      auto frame = frames.next();
      last = frame.kind == Kind::end || frame.kind == Kind::truncated;
      if (last) inputEnded = true;
      executor.post([&host, frame = std::move(frame)] { host.receive(frame); });
    }
  });
  executor.runUntil([&host] { return host.closed(); });
  if (!inputEnded) {
    // The output closed while the input is still open: the run has stopped, and the reader,
    // blocked on a port nobody writes to any more, is not waited for.
    std::fflush(stderr);
    std::_Exit(0);
  }
  return 0;
}
