// An open picker's list: the entries that match what the user typed, and the one highlighted.
// Entries come from the panel's description at each use, so the list holds only the filter and
// the highlighted entry's index. Knows nothing of the terminal.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/panel/PanelDescription.h"

namespace lumora::terminal {

using PickerEntries = std::vector<PanelDescription::PickerEntry>;

// The indices of the entries shown for `filter`: every entry when it is empty; otherwise the
// entries whose label or value holds each of its blank-separated words, ASCII letters in
// either case, and no dividers.
std::vector<size_t> filterEntries(const PickerEntries& entries, std::string_view filter);

class PickerList {
 public:
  // Opens with an empty filter and the entry whose value is `selection` highlighted (the first
  // entry when none is).
  void open(const PickerEntries& entries, std::string_view selection);
  void close() { open_ = false; }
  bool isOpen() const { return open_; }

  const std::string& filter() const { return filter_; }
  // Appends to the filter, or takes its last character away; the highlight stays on its entry
  // while that is shown, else moves to the first entry shown.
  void type(const PickerEntries& entries, std::string_view utf8);
  void erase(const PickerEntries& entries);

  // Moves the highlight `rows` entries down (negative: up) among those shown, over dividers,
  // stopping at either end.
  void move(const PickerEntries& entries, int rows);

  // The highlighted entry, when it is shown.
  std::optional<size_t> highlighted(const PickerEntries& entries) const;

 private:
  void keepHighlightShown(const PickerEntries& entries);

  bool open_ = false;
  std::string filter_;
  std::optional<size_t> highlight_;
};

}  // namespace lumora::terminal
