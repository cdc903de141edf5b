// `lumora reply`: the compose assistant run once, as the panel runs it.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "CommandLine.h"
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

struct ReplyOptions {
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
void applyOverrides(const ReplyOptions& options, MailExtensionView::Dependencies& deps) {
  const auto set = [&](std::string_view key, const std::optional<std::string>& value) {
    if (value) deps.overrides[std::string(key)] = *value;
  };
  set(keyOf(MailExtensionView::kSelectedModelKey), options.model);
  set(keyOf(MailExtensionView::kPromptKey), options.instruction);
  set(keyOf(MailExtensionView::kSelectedConversationKey), options.conversation);
  set(keyOf(MailExtensionView::kReadingKey), options.reading);
}

// What the run came to, said on standard output and standard error: the exit status.
int report(const ReplyOptions& options, const MailExtensionView& panel,
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
int runReply(const ReplyOptions& options, std::optional<std::string> raw) {
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

const Command& replyDeclaration() {
  static const Command command{
      .name = "reply",
      .summary = "write a reply to a message with the chosen model",
      .usage = R"(
lumora reply [MESSAGE] [--model NAME] [--instruction TEXT]
                    [--conversation UUID] [--read quoted|message] [--dry-run]
                    [--debug]
)",
      .help =
          {
              {.text = R"(
Writes a reply with the chosen model and streams it to standard output.
)"},
              {.column = 23,
               .entries = {{"MESSAGE",
                            "the raw message being answered (a file, or - for standard\n"
                            "input); without it the reply is to a new mail"},
                           {"--model"},
                           {"--instruction"},
                           {"--conversation"},
                           {"--read"},
                           {"--dry-run"},
                           {"--debug"}}},
              {.text = R"(
Exit status: 0 done, 1 failed (reason on standard error), 2 usage error,
130 stopped by SIGINT or SIGTERM.
)"},
          },
      .options =
          {
              {.name = "--model",
               .value = "NAME",
               .needs = "a model name",
               .help = "the model for this run (default: the stored selection, or\n"
                       "the default model)"},
              {.name = "--instruction",
               .value = "TEXT",
               .needs = "a text",
               .help = "the instruction for this run"},
              {.name = "--conversation",
               .value = "UUID",
               .needs = "a UUID",
               .help = "the stored conversation to use as preset for this run"},
              {.name = "--read",
               .choices = readingNames(),
               .help = "what the model reads of MESSAGE: its quoted passages, or the\n"
                       "whole message (sender, subject, date, the new text, then the\n"
                       "earlier thread; no signature, attachments named only)\n"
                       "(default: the setting mailReading, else quoted)"},
              {.name = "--dry-run", .help = "print the request as JSON instead of sending it"},
              {.name = "--debug", .help = "debug lines on standard error (also LUMORA_DEBUG=1)"},
          },
      .rules = {.operands = optionalMessage()},
      .run = replyCommand,
  };
  return command;
}

int replyCommand(const Args& args) {
  const Command& command = replyDeclaration();
  Parsed parsed;
  if (const auto end = readArguments(args, command, parsed)) return *end;
  ReplyOptions options{
      .message = parsed.operands.empty() ? std::nullopt : std::optional(parsed.operands[0]),
      .model = parsed.value("--model"),
      .instruction = parsed.value("--instruction"),
      .conversation = parsed.value("--conversation"),
      .reading = parsed.value("--read"),
      .dryRun = parsed.has("--dry-run"),
      .debug = parsed.has("--debug"),
  };
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
                          command);
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
