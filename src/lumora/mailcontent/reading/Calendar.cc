#include "lumora/mailcontent/reading/Calendar.h"

#include <vector>

#include "lumora/platform/Text.h"

namespace lumora::reading {
namespace {

struct Property {
  std::string name;    // upper case as iCalendar writes it; compared without case
  std::string params;  // as written, without the leading ";"
  std::string value;
};

// The content lines with their folding undone (a line end followed by a blank continues).
std::vector<std::string> unfoldedLines(std::string_view ics) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < ics.size()) {
    size_t end = ics.find('\n', start);
    if (end == std::string_view::npos) end = ics.size();
    std::string_view line = ics.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty() && (line[0] == ' ' || line[0] == '\t') && !lines.empty()) {
      lines.back().append(line.substr(1));
    } else {
      lines.emplace_back(line);
    }
    start = end + 1;
  }
  return lines;
}

Property parseLine(std::string_view line) {
  Property p;
  size_t i = 0;
  while (i < line.size() && line[i] != ';' && line[i] != ':') ++i;
  p.name = text::asciiLowercased(line.substr(0, i));
  if (i < line.size() && line[i] == ';') {
    const size_t paramsBegin = ++i;
    bool quoted = false;
    while (i < line.size() && (quoted || line[i] != ':')) {
      if (line[i] == '"') quoted = !quoted;
      ++i;
    }
    p.params = std::string(line.substr(paramsBegin, i - paramsBegin));
  }
  if (i < line.size()) p.value = std::string(line.substr(i + 1));
  return p;
}

// A TEXT value with its escapes undone.
std::string unescaped(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '\\' && i + 1 < value.size()) {
      const char next = value[++i];
      out += next == 'n' || next == 'N' ? '\n' : next;
    } else {
      out += value[i];
    }
  }
  return out;
}

// The value of parameter `name` in `params` ("CN=Carla;ROLE=CHAIR"), unquoted.
std::string parameter(std::string_view params, std::string_view name) {
  size_t i = 0;
  while (i < params.size()) {
    size_t end = i;
    bool quoted = false;
    while (end < params.size() && (quoted || params[end] != ';')) {
      if (params[end] == '"') quoted = !quoted;
      ++end;
    }
    const std::string_view param = params.substr(i, end - i);
    const size_t eq = param.find('=');
    if (eq != std::string_view::npos && text::equalsIgnoringCase(param.substr(0, eq), name)) {
      std::string_view value = param.substr(eq + 1);
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
        value = value.substr(1, value.size() - 2);
      return std::string(value);
    }
    i = end + 1;
  }
  return {};
}

bool allDigits(std::string_view s) {
  for (const char c : s)
    if (c < '0' || c > '9') return false;
  return !s.empty();
}

// "20261110T090000Z" as "2026-11-10 09:00 UTC"; a date alone as "2026-11-10"; anything else as
// written. A time zone named in the parameters follows in parentheses.
std::string when(const Property& p) {
  const std::string_view v = p.value;
  std::string out;
  if (v.size() >= 8 && allDigits(v.substr(0, 8))) {
    out.append(v.substr(0, 4)).append("-").append(v.substr(4, 2)).append("-").append(v.substr(6, 2));
    if (v.size() >= 13 && v[8] == 'T' && allDigits(v.substr(9, 4))) {
      out.append(" ").append(v.substr(9, 2)).append(":").append(v.substr(11, 2));
      if (v.ends_with('Z')) out.append(" UTC");
    }
  } else {
    out.append(v);
  }
  if (const std::string zone = parameter(p.params, "TZID"); !zone.empty())
    out.append(" (").append(zone).append(")");
  return out;
}

}  // namespace

std::string calendarSummary(std::string_view ics) {
  std::string method;
  bool inEvent = false;
  bool seenEvent = false;
  std::string summary, start, end, location, organizer, description;
  for (const std::string& line : unfoldedLines(ics)) {
    const Property p = parseLine(line);
    if (p.name == "begin" && text::equalsIgnoringCase(p.value, "VEVENT")) {
      if (seenEvent) break;  // the first event only
      inEvent = seenEvent = true;
      continue;
    }
    if (p.name == "end" && text::equalsIgnoringCase(p.value, "VEVENT")) {
      inEvent = false;
      continue;
    }
    if (p.name == "method" && !inEvent) method = text::asciiLowercased(p.value);
    if (!inEvent) continue;
    if (p.name == "summary") summary = unescaped(p.value);
    else if (p.name == "dtstart") start = when(p);
    else if (p.name == "dtend") end = when(p);
    else if (p.name == "location") location = unescaped(p.value);
    else if (p.name == "description") description = unescaped(p.value);
    else if (p.name == "organizer") {
      std::string address = p.value;
      if (text::startsWithIgnoringCase(address, "mailto:")) address = address.substr(7);
      const std::string name = parameter(p.params, "CN");
      organizer = name.empty() ? address : name + " <" + address + ">";
    }
  }
  if (!seenEvent) return {};
  std::string out = method == "cancel" ? "Cancelled event" : "Calendar invitation";
  if (!summary.empty()) out += ": " + summary;
  if (!start.empty()) out += "\nWhen: " + start + (end.empty() ? "" : " to " + end);
  if (!location.empty()) out += "\nWhere: " + location;
  if (!organizer.empty()) out += "\nOrganizer: " + organizer;
  if (!description.empty()) out += "\n\n" + description;
  return out;
}

}  // namespace lumora::reading
