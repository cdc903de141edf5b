// The debug sink: every debug line of the system goes through here.
//
// A line is its parts joined by one blank, scrubbed of registered credentials (Redact.h) and
// handed to the sink. The library's default sink is standard output; front-ends that use
// standard output for something else install their own sink or none. Thread-safe.
#pragma once

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

// True when a sink is installed. Hot paths test this before formatting anything.
bool enabled();

// Joins `parts` with one blank and emits the line.
void line(std::initializer_list<std::string_view> parts);

}  // namespace lumora::debug
