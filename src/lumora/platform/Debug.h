// The debug sink: every debug line of the system goes through here.
//
// A line is its parts joined by one blank, scrubbed of registered credentials (Redact.h) and
// handed to the sink. The library's default sink is standard output; front-ends that use
// standard output for something else install their own sink or none. Thread-safe.
#pragma once

#include <atomic>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

namespace lumora::debug {

using Sink = std::function<void(std::string_view line)>;

// Installs `sink`; an empty function turns debug output off.
void setSink(Sink sink);

// The default: writes each line with a line feed to standard output.
Sink stdoutSink();
Sink stderrSink();

namespace detail {
// Whether a sink is installed; set by setSink() only.
extern std::atomic<bool> sinkInstalled;
}  // namespace detail

// True when a sink is installed. Hot paths test this before formatting anything, for every line
// of a stream, so it is one load.
inline bool enabled() { return detail::sinkInstalled.load(std::memory_order_relaxed); }

// Joins `parts` with one blank and emits the line.
void line(std::initializer_list<std::string_view> parts);

}  // namespace lumora::debug
