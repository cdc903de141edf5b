// The parts of `lumora reply` that face the terminal while the model writes: the watch for
// SIGINT and SIGTERM, the spinner, and the printer that streams the reply to standard output.
#pragma once

#include <functional>
#include <memory>

#include "lumora/chat/ReplyText.h"
#include "lumora/panel/MailExtensionView.h"

namespace lumora::cli {

// Stops the run on SIGINT or SIGTERM. The signals are blocked in every thread and taken by
// one thread of our own, so nothing runs in a signal handler. That thread sleeps until a signal
// comes. The destructor does not wait for it, as a join would wait for the thread to be
// scheduled once more (a whole time slice on a busy machine): it marks the watch ended, under
// the lock that the thread posts under, and lets the thread go; a signal taken after that is
// too late to stop anything, and the thread ends with the process.
class SignalWatcher {
 public:
  SignalWatcher(MainExecutor& executor, std::function<void()> onSignal);
  ~SignalWatcher();
  SignalWatcher(const SignalWatcher&) = delete;
  SignalWatcher& operator=(const SignalWatcher&) = delete;
  bool interrupted() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// Shows that the model is being waited for, on a terminal only.
class Spinner {
 public:
  Spinner();
  void tick();
  void clear();

 private:
  bool active_;
  bool shown_ = false;
  unsigned frame_ = 0;
};

// Writes the reply to standard output as it grows: only what is new each time.
class ReplyPrinter {
 public:
  explicit ReplyPrinter(Spinner& spinner) : spinner_(spinner) {}
  // Writes what `now` has beyond what was written.
  void print(const ReplyText& now);
  // Whether anything was written since the last forget().
  bool wrote() const { return wrote_; }
  void forget() { wrote_ = false; }

 private:
  Spinner& spinner_;
  ReplyText written_;
  bool wrote_ = false;
};

// Runs the executor until the panel's run has ended, flushing what `printer` wrote as it
// goes and, with `spin`, ticking `spinner` while the first words are awaited. Stops the run
// when standard output can take nothing more.
void streamReply(MainExecutor& executor, MailExtensionView& panel, ReplyPrinter& printer,
                 Spinner& spinner, bool spin);

}  // namespace lumora::cli
