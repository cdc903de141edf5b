// `lumora reply`: the compose assistant run once, as the panel runs it.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "Commands.h"
#include "DebugLines.h"
#include "ReplyStream.h"
#include "Support.h"
#include "lumora/chat/Errors.h"
#include "lumora/panel/MailExtensionView.h"
#include "lumora/panel/PanelDescription.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/Redact.h"

namespace lumora::cli {
namespace {

constexpr const char* kReplyHelp =
    "Usage: lumora reply [MESSAGE] [--model NAME] [--instruction TEXT]\n"
    "                    [--conversation UUID] [--read quoted|message] [--dry-run]\n"
    "                    [--debug]\n"
    "\n"
    "Writes a reply with the chosen model and streams it to standard output.\n"
    "\n"
    "  MESSAGE              the raw message being answered (a file, or - for standard\n"
    "                       input); without it the reply is to a new mail\n"
    "  --model NAME         the model for this run (default: the stored selection, or\n"
    "                       the default model)\n"
    "  --instruction TEXT   the instruction for this run\n"
    "  --conversation UUID  the stored conversation to use as preset for this run\n"
    "  --read quoted|message\n"
    "                       what the model reads of MESSAGE: its quoted passages, or the\n"
    "                       whole message (sender, subject, date, the new text, then the\n"
    "                       earlier thread; no signature, attachments named only)\n"
    "                       (default: the setting mailReading, else quoted)\n"
    "  --dry-run            print the request as JSON instead of sending it\n"
    "  --debug              debug lines on standard error (also LUMORA_DEBUG=1)\n"
    "\n"
    "Exit status: 0 done, 1 failed (reason on standard error), 2 usage error,\n"
    "130 stopped by SIGINT or SIGTERM.\n";

struct Options {
  std::optional<std::string> message;
  std::optional<std::string> model;
  std::optional<std::string> instruction;
  std::optional<std::string> conversation;
  std::optional<std::string> reading;
  bool dryRun = false;
  bool debug = false;
};

// Records the request instead of sending it, then ends the run as a stop before the response
// head would: with no response there is no stream, so no reading thread is started and joined
// for nothing (each thread handed over to costs a scheduler slice on a busy machine).
class RecordingTransport final : public HttpTransport {
 public:
  std::optional<HttpRequest> request;

  std::unique_ptr<HttpResponse> send(const HttpRequest& r, const SessionConfiguration&,
                                     std::stop_token) override {
    request = r;
    throw CancellationError();
  }
};

int parse(const Args& args, Options& o) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::optional<std::string>& out) {
      const size_t eq = a.find('=');
      if (eq != std::string::npos) {
        out = a.substr(eq + 1);
        return true;
      }
      if (i + 1 >= args.size()) return false;
      out = args[++i];
      return true;
    };
    auto is = [&](std::string_view name) {
      return a == name || (a.starts_with(name) && a.size() > name.size() && a[name.size()] == '=');
    };
    if (a == "--help" || a == "-h") {
      std::fputs(kReplyHelp, stdout);
      return -1;
    } else if (a == "--dry-run") {
      o.dryRun = true;
    } else if (a == "--debug") {
      o.debug = true;
    } else if (is("--model")) {
      if (!value(o.model)) return usageError("--model needs a model name", kReplyHelp);
    } else if (is("--instruction")) {
      if (!value(o.instruction)) return usageError("--instruction needs a text", kReplyHelp);
    } else if (is("--conversation")) {
      if (!value(o.conversation)) return usageError("--conversation needs a UUID", kReplyHelp);
    } else if (is("--read")) {
      if (!value(o.reading) || !MailExtensionView::readingNamed(*o.reading))
        return usageError("--read takes quoted or message", kReplyHelp);
    } else if (a.size() > 1 && a[0] == '-') {
      return usageError("unknown option '" + a + "'", kReplyHelp);
    } else if (!o.message) {
      o.message = a;
    } else {
      return usageError("only one MESSAGE can be given", kReplyHelp);
    }
  }
  return 0;
}

std::string dryRunJSON(const Service& service, const HttpRequest& request) {
  nlohmann::ordered_json out;
  out["service"] = service.id();
  out["method"] = request.method;
  out["url"] = request.url;
  nlohmann::ordered_json headers = nlohmann::ordered_json::object();
  for (const auto& [name, value] : request.headers) headers[name] = value;
  out["headers"] = std::move(headers);
  auto body = nlohmann::ordered_json::parse(request.body, nullptr, false);
  out["body"] = body.is_discarded() ? nlohmann::ordered_json(request.body) : body;
  return redact::scrub(out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

// The message being answered, if one was named: nullopt in `raw` for a new mail. False when
// it could not be read or holds nothing, said on standard error.
bool readReplyMessage(const std::optional<std::string>& path, std::optional<std::string>& raw) {
  if (!path) return true;
  auto bytes = readMessage(*path);
  if (!bytes) return false;
  if (bytes->empty()) {
    // Nothing to answer is not a mail that cannot be read: the words say which it is.
    std::fprintf(stderr,
                 "lumora: the message is empty: %s holds nothing (without MESSAGE the "
                 "reply is to a new mail)\n",
                 *path == "-" ? "standard input" : path->c_str());
    return false;
  }
  raw = std::move(*bytes);
  return true;
}

// The options that set the panel's stored choices for this run only.
void applyOverrides(const Options& options, MailExtensionView::Dependencies& deps) {
  const auto set = [&](std::string_view key, const std::optional<std::string>& value) {
    if (value) deps.overrides[std::string(key)] = *value;
  };
  set(MailExtensionView::kSelectedModelKey, options.model);
  set(MailExtensionView::kPromptKey, options.instruction);
  set(MailExtensionView::kSelectedConversationKey, options.conversation);
  set(MailExtensionView::kReadingKey, options.reading);
}

// What the run came to, said on standard output and standard error: the exit status.
int report(const Options& options, const MailExtensionView& panel,
           const std::optional<Service>& chosen, const RecordingTransport& recorder,
           const SignalWatcher* signals) {
  if (options.dryRun && panel.errorMessage().empty()) {
    if (!chosen || !recorder.request) {
      std::fputs("lumora: the run ended before a request was made\n", stderr);
      return kExitFailed;
    }
    std::puts(dryRunJSON(*chosen, *recorder.request).c_str());
    return kExitOk;
  }
  if (!options.dryRun && (panel.errorMessage().empty() || !panel.output().empty())) {
    std::fputc('\n', stdout);
    std::fflush(stdout);
  }
  if (!panel.errorMessage().empty()) {
    std::fprintf(stderr, "lumora: %s\n", panel.errorMessage().c_str());
    return kExitFailed;
  }
  return signals && signals->interrupted() ? kExitInterrupted : kExitOk;
}

// Runs the panel once on `raw` (none: a new mail) and reports how it went.
int runReply(const Options& options, std::optional<std::string> raw) {
  MainExecutor executor;
  SimpleComposeSession session =
      raw ? SimpleComposeSession(std::move(raw)) : SimpleComposeSession();
  RecordingTransport recorder;
  HttpTransport& transport =
      options.dryRun ? static_cast<HttpTransport&>(recorder) : defaultTransport();
  MemoryPasteboard pasteboard;
  std::optional<Service> chosen;

  MailExtensionView::Dependencies deps =
      panelDependencies(executor, session, transport, pasteboard);
  deps.onServiceChosen = [&](const Service& s) { chosen = s; };
  applyOverrides(options, deps);
  auto panel = MailExtensionView::make(std::move(deps));
  // A dry run sends nothing and waits for nothing, so it needs no thread for the signals.
  std::optional<SignalWatcher> signals;
  if (!options.dryRun) signals.emplace(executor, [&panel] { panel->stopGeneration(); });
  Spinner spinner;
  ReplyPrinter printer(spinner);
  panel->setObserver([&] {
    if (!options.dryRun) printer.print(panel->output());
  });

  panel->panelDidAppear();
  // What the model will read, for the person at the terminal; scripts never see it.
  if (isatty(STDERR_FILENO) == 1) {
    const std::string line = PanelDescription::readingLine(*panel, userLanguage());
    std::fprintf(stderr, "%s\n", redact::scrub(line).c_str());
  }
  panel->startGeneration();
  streamReply(executor, *panel, printer, spinner, !options.dryRun);
  return report(options, *panel, chosen, recorder, signals ? &*signals : nullptr);
}

}  // namespace

int replyCommand(const Args& args) {
  Options options;
  if (int status = parse(args, options); status != 0) return status < 0 ? kExitOk : status;

  if (options.debug) frontend::sendDebugLinesToStandardError();

  // libcurl and its libraries take as long to load as the rest of the start: loaded meanwhile.
  // A run that ends early (an unreadable message, a usage error) waits here for the load, as
  // the process must not exit while the library initialises.
  std::jthread curlLoader;
  if (!options.dryRun) curlLoader = prepareDefaultTransport();

  std::optional<std::string> raw;
  if (!readReplyMessage(options.message, raw)) return kExitFailed;
  try {
    if (options.conversation) {
      // A conversation that is not there would be passed over without a word, and the run
      // would go with another instruction and model than the one asked for.
      const auto row = sharedStoreContext()->conversation(*options.conversation);
      if (!row || !row->fields.id) {
        return usageError("no conversation has the id \"" + *options.conversation +
                              "\"; 'lumora conversations list' shows them",
                          kReplyHelp);
      }
      options.conversation = *row->fields.id;
    }
    return runReply(options, std::move(raw));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "lumora: %s\n", describeFailure(e).c_str());
    return kExitFailed;
  }
}

}  // namespace lumora::cli
