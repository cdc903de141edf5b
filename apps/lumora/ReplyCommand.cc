// `lumora reply`: the compose assistant run once, as the panel runs it.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "Commands.h"
#include "Support.h"
#include "lumora/chat/Errors.h"
#include "lumora/panel/MailExtensionView.h"
#include "lumora/panel/PanelDescription.h"
#include "lumora/platform/Debug.h"
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

// Stops the run on SIGINT or SIGTERM. The signals are blocked in every thread and taken by
// one thread of our own, so nothing runs in a signal handler. That thread sleeps until a signal
// comes. The destructor does not wait for it, as a join would wait for the thread to be
// scheduled once more (a whole time slice on a busy machine): it marks the watch ended, under
// the lock that the thread posts under, and lets the thread go; a signal taken after that is
// too late to stop anything, and the thread ends with the process.
class SignalWatcher {
 public:
  SignalWatcher(MainExecutor& executor, std::function<void()> onSignal)
      : state_(std::make_shared<State>()) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([state = state_, set, &executor, onSignal = std::move(onSignal)] {
      int signal = 0;
      while (sigwait(&set, &signal) == 0) {
        std::lock_guard lock(state->mutex);
        if (state->ended) return;  // the executor may be gone
        state->interrupted = true;
        executor.post(onSignal);
      }
    }).detach();
  }
  ~SignalWatcher() {
    std::lock_guard lock(state_->mutex);
    state_->ended = true;
  }
  bool interrupted() const {
    std::lock_guard lock(state_->mutex);
    return state_->interrupted;
  }

 private:
  struct State {
    std::mutex mutex;
    bool ended = false;
    bool interrupted = false;
  };
  std::shared_ptr<State> state_;
};

// Shows that the model is being waited for, on a terminal only.
class Spinner {
 public:
  Spinner() : active_(isatty(STDERR_FILENO) == 1) {}
  void tick() {
    if (!active_) return;
    static constexpr const char* kFrames[] = {"⠋", "⠙", "⠹", "⠸", "⠼", "⠴", "⠦", "⠧", "⠇", "⠏"};
    std::fprintf(stderr, "\r%s waiting for the model…", kFrames[frame_++ % 10]);
    std::fflush(stderr);
    shown_ = true;
  }
  void clear() {
    if (!shown_) return;
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
    shown_ = false;
  }

 private:
  bool active_;
  bool shown_ = false;
  unsigned frame_ = 0;
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

}  // namespace

int replyCommand(const Args& args) {
  Options options;
  if (int status = parse(args, options); status != 0) return status < 0 ? kExitOk : status;

  const char* debugEnv = std::getenv("LUMORA_DEBUG");
  const bool debugOn = options.debug || (debugEnv && std::string_view(debugEnv) == "1");
  debug::setSink(debugOn ? debug::stderrSink() : debug::Sink());

  // libcurl and its libraries take as long to load as the rest of the start: loaded meanwhile.
  // A run that ends early (an unreadable message, a usage error) waits here for the load, as
  // the process must not exit while the library initialises.
  std::jthread curlLoader;
  if (!options.dryRun) curlLoader = prepareDefaultTransport();

  std::optional<std::string> raw;
  if (options.message) {
    auto bytes = readMessage(*options.message);
    if (!bytes) return kExitFailed;
    if (bytes->empty()) {
      // Nothing to answer is not a mail that cannot be read: the words say which it is.
      std::fprintf(stderr, "lumora: the message is empty: %s holds nothing (without MESSAGE the "
                   "reply is to a new mail)\n",
                   *options.message == "-" ? "standard input" : options.message->c_str());
      return kExitFailed;
    }
    raw = std::move(*bytes);
  }

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
    if (options.model)
      deps.overrides[std::string(MailExtensionView::kSelectedModelKey)] = *options.model;
    if (options.instruction)
      deps.overrides[std::string(MailExtensionView::kPromptKey)] = *options.instruction;
    if (options.conversation)
      deps.overrides[std::string(MailExtensionView::kSelectedConversationKey)] =
          *options.conversation;
    if (options.reading)
      deps.overrides[std::string(MailExtensionView::kReadingKey)] = *options.reading;

    auto panel = MailExtensionView::make(std::move(deps));
    // A dry run sends nothing and waits for nothing, so it needs no thread for the signals.
    std::optional<SignalWatcher> signals;
    if (!options.dryRun) signals.emplace(executor, [&panel] { panel->stopGeneration(); });
    Spinner spinner;

    // The reply goes to standard output as it grows: only what is new each time.
    ReplyText written;
    bool wrote = false;
    panel->setObserver([&] {
      if (options.dryRun) return;
      const ReplyText& now = panel->output();
      std::string fresh;
      if (now.extends(written)) {
        now.appendSuffix(written.size(), fresh);
      } else {
        // A text made anew (the cancellation mark appended): print what goes beyond.
        const std::string whole = now.str();
        const std::string before = written.str();
        if (whole.starts_with(before)) fresh = whole.substr(before.size());
      }
      written = now;
      if (fresh.empty()) return;
      spinner.clear();
      std::fwrite(fresh.data(), 1, fresh.size(), stdout);
      wrote = true;
    });

    panel->panelDidAppear();
    // What the model will read, for the person at the terminal; scripts never see it.
    if (isatty(STDERR_FILENO) == 1) {
      const std::string line = PanelDescription::readingLine(*panel, userLanguage());
      std::fprintf(stderr, "%s\n", redact::scrub(line).c_str());
    }
    panel->startGeneration();
    // The panel posts each chunk of the reply to the executor on its own. Woken for every one,
    // this thread would sleep and wake, and write, once per record the server sends; so once
    // text has come, what follows is let gather for a moment, taken together and written with
    // one flush. A model's tokens, tens of milliseconds apart, still show as they come.
    constexpr std::chrono::milliseconds kGather{1};
    while (true) {
      wrote = false;
      const bool moved = executor.runUntil([&] { return wrote || panel->latestRunEnded(); },
                                           std::chrono::milliseconds(100));
      if (wrote && !panel->latestRunEnded()) {
        std::this_thread::sleep_for(kGather);
        executor.drain();
      }
      std::fflush(stdout);
      if (panel->latestRunEnded()) break;
      // Nothing more of the reply can reach its reader: the run ends, and the command fails
      // saying why once it returns.
      if (std::ferror(stdout) && panel->generating()) panel->stopGeneration();
      if (!moved && !options.dryRun && panel->generating() && panel->output().empty())
        spinner.tick();
    }
    spinner.clear();

    if (options.dryRun && panel->errorMessage().empty()) {
      if (!chosen || !recorder.request) {
        std::fputs("lumora: the run ended before a request was made\n", stderr);
        return kExitFailed;
      }
      std::puts(dryRunJSON(*chosen, *recorder.request).c_str());
      return kExitOk;
    }
    if (!options.dryRun && (panel->errorMessage().empty() || !panel->output().empty())) {
      std::fputc('\n', stdout);
      std::fflush(stdout);
    }
    if (!panel->errorMessage().empty()) {
      std::fprintf(stderr, "lumora: %s\n", panel->errorMessage().c_str());
      return kExitFailed;
    }
    return signals && signals->interrupted() ? kExitInterrupted : kExitOk;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "lumora: %s\n", describeFailure(e).c_str());
    return kExitFailed;
  }
}

}  // namespace lumora::cli
