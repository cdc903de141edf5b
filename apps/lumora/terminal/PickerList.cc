#include "terminal/PickerList.h"

#include <algorithm>

#include "lumora/platform/Text.h"
#include "terminal/TextLayout.h"

namespace lumora::terminal {
namespace {

std::vector<std::string> words(std::string_view filter) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < filter.size()) {
    while (i < filter.size() && (filter[i] == ' ' || filter[i] == '\t')) ++i;
    const size_t start = i;
    while (i < filter.size() && filter[i] != ' ' && filter[i] != '\t') ++i;
    if (i > start) out.push_back(text::asciiLowercased(filter.substr(start, i - start)));
  }
  return out;
}

// The first entry shown that is not a divider.
std::optional<size_t> firstSelectable(const PickerEntries& entries,
                                      const std::vector<size_t>& shown) {
  for (size_t index : shown)
    if (!entries[index].divider) return index;
  return std::nullopt;
}

}  // namespace

std::vector<size_t> filterEntries(const PickerEntries& entries, std::string_view filter) {
  const std::vector<std::string> wanted = words(filter);
  std::vector<size_t> shown;
  for (size_t i = 0; i < entries.size(); ++i) {
    const auto& entry = entries[i];
    if (wanted.empty()) {
      shown.push_back(i);
      continue;
    }
    if (entry.divider) continue;
    const std::string label = text::asciiLowercased(entry.label);
    const std::string value = text::asciiLowercased(entry.value);
    const bool all = std::all_of(wanted.begin(), wanted.end(), [&](const std::string& w) {
      return label.find(w) != std::string::npos || value.find(w) != std::string::npos;
    });
    if (all) shown.push_back(i);
  }
  return shown;
}

void PickerList::open(const PickerEntries& entries, std::string_view selection) {
  open_ = true;
  filter_.clear();
  highlight_.reset();
  for (size_t i = 0; i < entries.size(); ++i) {
    if (!entries[i].divider && entries[i].value == selection) {
      highlight_ = i;
      break;
    }
  }
  keepHighlightShown(entries);
}

void PickerList::keepHighlightShown(const PickerEntries& entries) {
  const std::vector<size_t> shown = filterEntries(entries, filter_);
  if (highlight_ && std::find(shown.begin(), shown.end(), *highlight_) != shown.end()) return;
  highlight_ = firstSelectable(entries, shown);
}

void PickerList::type(const PickerEntries& entries, std::string_view utf8) {
  filter_ += utf8;
  keepHighlightShown(entries);
}

void PickerList::erase(const PickerEntries& entries) {
  if (filter_.empty()) return;
  // The last character: walk forward, as characters are only known that way.
  size_t last = 0;
  for (size_t i = 0; i < filter_.size(); i += characterAt(filter_, i).length) last = i;
  filter_.resize(last);
  keepHighlightShown(entries);
}

void PickerList::move(const PickerEntries& entries, int rows) {
  const std::vector<size_t> shown = filterEntries(entries, filter_);
  std::vector<size_t> selectable;
  for (size_t index : shown)
    if (!entries[index].divider) selectable.push_back(index);
  if (selectable.empty()) return;
  const auto at = highlight_ ? std::find(selectable.begin(), selectable.end(), *highlight_)
                             : selectable.end();
  long row = at == selectable.end() ? 0 : (at - selectable.begin()) + rows;
  row = std::clamp(row, 0L, static_cast<long>(selectable.size()) - 1);
  highlight_ = selectable[static_cast<size_t>(row)];
}

std::optional<size_t> PickerList::highlighted(const PickerEntries& entries) const {
  if (!highlight_ || *highlight_ >= entries.size()) return std::nullopt;
  const std::vector<size_t> shown = filterEntries(entries, filter_);
  if (std::find(shown.begin(), shown.end(), *highlight_) == shown.end()) return std::nullopt;
  return highlight_;
}

}  // namespace lumora::terminal
