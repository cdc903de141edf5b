#include "ReplyStream.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>

namespace lumora::cli {

struct SignalWatcher::State {
  std::mutex mutex;
  bool ended = false;
  bool interrupted = false;
};

SignalWatcher::SignalWatcher(MainExecutor& executor, std::function<void()> onSignal)
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

SignalWatcher::~SignalWatcher() {
  std::lock_guard lock(state_->mutex);
  state_->ended = true;
}

bool SignalWatcher::interrupted() const {
  std::lock_guard lock(state_->mutex);
  return state_->interrupted;
}

Spinner::Spinner() : active_(isatty(STDERR_FILENO) == 1) {}

void Spinner::tick() {
  if (!active_) return;
  static constexpr const char* kFrames[] = {"⠋", "⠙", "⠹", "⠸", "⠼", "⠴", "⠦", "⠧", "⠇", "⠏"};
  std::fprintf(stderr, "\r%s waiting for the model…", kFrames[frame_++ % 10]);
  std::fflush(stderr);
  shown_ = true;
}

void Spinner::clear() {
  if (!shown_) return;
  std::fprintf(stderr, "\r\033[K");
  std::fflush(stderr);
  shown_ = false;
}

void ReplyPrinter::print(const ReplyText& now) {
  std::string fresh;
  if (now.extends(written_)) {
    now.appendSuffix(written_.size(), fresh);
  } else {
    // A text made anew (the cancellation mark appended): print what goes beyond.
    const std::string whole = now.str();
    const std::string before = written_.str();
    if (whole.starts_with(before)) fresh = whole.substr(before.size());
  }
  written_ = now;
  if (fresh.empty()) return;
  spinner_.clear();
  std::fwrite(fresh.data(), 1, fresh.size(), stdout);
  wrote_ = true;
}

void streamReply(MainExecutor& executor, MailExtensionView& panel, ReplyPrinter& printer,
                 Spinner& spinner, bool spin) {
  // The panel posts each chunk of the reply to the executor on its own. Woken for every one,
  // this thread would sleep and wake, and write, once per record the server sends; so once
  // text has come, what follows is let gather for a moment, taken together and written with
  // one flush. A model's tokens, tens of milliseconds apart, still show as they come.
  constexpr std::chrono::milliseconds kGather{1};
  while (true) {
    printer.forget();
    const bool moved = executor.runUntil([&] { return printer.wrote() || panel.latestRunEnded(); },
                                         std::chrono::milliseconds(100));
    if (printer.wrote() && !panel.latestRunEnded()) {
      std::this_thread::sleep_for(kGather);
      executor.drain();
    }
    std::fflush(stdout);
    if (panel.latestRunEnded()) break;
    // Nothing more of the reply can reach its reader: the run ends, and the command fails
    // saying why once it returns.
    if (std::ferror(stdout) && panel.generating()) panel.stopGeneration();
    if (!moved && spin && panel.generating() && panel.output().empty()) spinner.tick();
  }
  spinner.clear();
}

}  // namespace lumora::cli
