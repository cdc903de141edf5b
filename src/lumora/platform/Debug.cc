#include "lumora/platform/Debug.h"

#include <atomic>
#include <cstdio>
#include <mutex>

#include "lumora/platform/Redact.h"

namespace lumora::debug {

// The default sink is installed from the start.
constinit std::atomic<bool> detail::sinkInstalled{true};

namespace {

struct State {
  std::mutex mutex;
  Sink sink = stdoutSink();
};

State& state() {
  static State s;
  return s;
}

Sink fileSink(FILE* file) {
  return [file](std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), file);
    std::fputc('\n', file);
    std::fflush(file);
  };
}

}  // namespace

Sink stdoutSink() { return fileSink(stdout); }
Sink stderrSink() { return fileSink(stderr); }

void setSink(Sink sink) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  detail::sinkInstalled.store(static_cast<bool>(sink), std::memory_order_relaxed);
  s.sink = std::move(sink);
}


void line(std::initializer_list<std::string_view> parts) {
  if (!enabled()) return;
  std::string text;
  bool first = true;
  for (std::string_view part : parts) {
    if (!first) text += ' ';
    first = false;
    text += part;
  }
  text = redact::scrub(text);
  State& s = state();
  std::lock_guard lock(s.mutex);
  if (s.sink) s.sink(text);
}

}  // namespace lumora::debug
