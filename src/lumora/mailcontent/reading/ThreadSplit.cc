#include "lumora/mailcontent/reading/ThreadSplit.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>
#include <vector>

#include "lumora/platform/Text.h"

namespace lumora::reading {
namespace {

using Line = TextLines::Line;

// Words that open an attribution line in the languages mail programs write them in.
constexpr std::array<std::string_view, 14> kAttributionOpeners{
    "On ", "Am ", "Le ", "El ", "Il ", "Em ", "Op ", "Den ", "På ", "W dniu ", "Dne ",
    "В ", "在 ", "Quoting "};

// The verbs that end an attribution line, before its colon.
constexpr std::array<std::string_view, 18> kWroteVerbs{
    "wrote", "writes", "schrieb", "a écrit", "escribió", "ha scritto", "escreveu", "schreef",
    "skrev", "napisał", "napisała", "написал", "написала", "kirjoitti", "írta", "写道",
    "寫道", "wrote the following"};

// Field names of the header lines that Outlook-style clients put above the message they answer.
constexpr std::array<std::string_view, 12> kFromNames{
    "From", "Von", "De", "Da", "Van", "Od", "Från", "Fra", "От", "发件人", "寄件者", "差出人"};
constexpr std::array<std::string_view, 19> kDateNames{
    "Sent",     "Date",     "Gesendet", "Datum",   "Envoyé",     "Enviado", "Fecha",
    "Inviato",  "Data",     "Verzonden", "Wysłano", "Odesláno", "Отправлено", "Дата",
    "发送时间", "日期",     "寄件日期", "送信日時", "Sendt"};
constexpr std::array<std::string_view, 24> kToNames{
    "To",     "Subject",  "An",     "Betreff", "À",     "Objet",  "Para",  "Asunto",
    "A",      "Oggetto",  "Aan",    "Onderwerp", "Do",  "Temat",  "Komu",  "Předmět",
    "Кому",   "Тема",     "收件人", "主题",    "主旨",  "宛先",   "件名",  "Cc"};

// The phrases of the separator lines that stand above an earlier or forwarded message.
constexpr std::array<std::string_view, 24> kSeparatorPhrases{
    "original message",        "forwarded message",      "ursprüngliche nachricht",
    "weitergeleitete nachricht", "message d'origine",    "message transféré",
    "mensaje original",        "mensaje reenviado",      "messaggio originale",
    "messaggio inoltrato",     "oorspronkelijk bericht", "doorgestuurd bericht",
    "mensagem original",       "mensagem encaminhada",   "oryginalna wiadomość",
    "původní zpráva",          "исходное сообщение",     "пересылаемое сообщение",
    "原始邮件",                "原始郵件",               "転送メッセージ",
    "元のメッセージ",          "original-nachricht",     "reply message"};

std::string_view trimmedText(const TextLines& lines, size_t i) {
  return text::trimmed(lines.text(i));
}

bool isBlank(const TextLines& lines, size_t i) { return trimmedText(lines, i).empty(); }

bool containsIgnoringCase(std::string_view haystack, std::string_view needle) {
  if (needle.size() > haystack.size()) return false;
  for (size_t i = 0; i + needle.size() <= haystack.size(); ++i)
    if (text::startsWithIgnoringCase(haystack.substr(i), needle)) return true;
  return false;
}

bool isSignatureMark(const TextLines& lines, size_t i) {
  std::string_view t = lines.text(i);
  while (!t.empty() && (t.back() == ' ' || t.back() == '\t' || t.back() == '\r')) t.remove_suffix(1);
  return t == "--";
}

// "-----Original Message-----", "---------- Forwarded message ---------", "Begin forwarded
// message:".
bool isSeparator(std::string_view t) {
  if (t.size() > 200) return false;
  if (text::startsWithIgnoringCase(t, "Begin forwarded message")) return true;
  if (!t.starts_with("--") && !t.starts_with("__") && !t.starts_with("==")) return false;
  return std::any_of(kSeparatorPhrases.begin(), kSeparatorPhrases.end(),
                     [&](std::string_view p) { return containsIgnoringCase(t, p); });
}

// A line of rule characters only: "________________", "-----------".
bool isRule(std::string_view t) {
  if (t.size() < 8) return false;
  return std::all_of(t.begin(), t.end(), [](char c) { return c == '_' || c == '-' || c == '='; });
}

// The field name of a header-like line ("From: Carla", "*From:* Carla"), or empty.
std::string_view fieldNameOf(std::string_view t) {
  while (!t.empty() && t.front() == '*') t.remove_prefix(1);
  const size_t colon = t.find(':');
  // A full-width colon, as CJK clients write their header lines.
  const size_t wide = t.find("\xEF\xBC\x9A");
  const size_t end = std::min(colon, wide);
  if (end == std::string_view::npos || end == 0 || end > 40) return {};
  std::string_view name = t.substr(0, end);
  while (!name.empty() && (name.back() == '*' || name.back() == ' ')) name.remove_suffix(1);
  return name;
}

template <size_t N>
bool isOneOf(std::string_view name, const std::array<std::string_view, N>& names) {
  return std::any_of(names.begin(), names.end(),
                     [&](std::string_view n) { return text::equalsIgnoringCase(name, n); });
}

// Lines made into text as they come: each trimmed at its end, quoted ones marked with one "> "
// per level (at most kMostQuoteMarks), runs of empty lines made one, none at either end.
class Rendering {
 public:
  // Room for the lines of `ranges`, so that a long thread is written without regrowing.
  void reserveFor(const TextLines& lines, const std::vector<std::pair<size_t, size_t>>& ranges) {
    size_t bytes = 0;
    for (const auto& [begin, end] : ranges)
      for (size_t i = begin; i < end; ++i) {
        bytes += lines.text(i).size() + 2 + 2 * std::min(lines.depth(i), kMostQuoteMarks);
      }
    out_.reserve(bytes);
  }

  void line(std::string_view t, uint32_t depth) {
    while (!t.empty() && (t.back() == ' ' || t.back() == '\t' || t.back() == '\r'))
      t.remove_suffix(1);
    if (text::trimmed(t).empty()) {
      if (!blank_) blankDepth_ = depth;
      blank_ = true;
      return;
    }
    if (!out_.empty()) {
      out_ += '\n';
      if (blank_) {
        // Inside a quotation an empty line keeps the marks of the quotation it stands in.
        marks(std::min({blankDepth_, depth, previousDepth_}));
        out_ += '\n';
      }
    }
    blank_ = false;
    previousDepth_ = depth;
    marks(depth);
    if (depth > 0) out_ += ' ';
    out_ += t;
  }

  std::string take() { return std::move(out_); }

 private:
  void marks(uint32_t depth) {
    for (uint32_t d = 0; d < std::min(depth, kMostQuoteMarks); ++d) out_ += d == 0 ? ">" : " >";
  }

  std::string out_;
  bool blank_ = false;  // an empty line waits for the next line with text
  uint32_t blankDepth_ = 0;
  uint32_t previousDepth_ = 0;
};

class Splitter {
 public:
  explicit Splitter(const TextLines& lines) : lines_(lines) {}

  SplitText run() {
    const size_t n = lines_.size();
    const size_t cut = firstCut();
    // A signature that ends the sender's text, with no quotation after it, is left out here,
    // so that a quotation above it still counts as trailing.
    size_t end = cut;
    for (size_t i = 0; i < cut; ++i) {
      if (lines_.depth(i) > 0) end = cut;
      else if (end == cut && isSignatureMark(lines_, i)) end = i;
    }
    // Back from there over what belongs to trailing quotations.
    size_t start = end;
    bool quoted = false;
    while (start > 0) {
      const size_t l = start - 1;
      if (lines_.depth(l) > 0) {
        quoted = true;
        --start;
      } else if (isBlank(lines_, l)) {
        --start;
      } else if (size_t first = attributionBegin(l); first != kNone) {
        start = first;
      } else {
        break;
      }
    }
    if (!quoted) start = end;
    // A quotation that the sender answers below it (a bottom-posted reply) is the message
    // answered: the thread too. Quotations with answers between them stay in the new text,
    // quoted, since each answer refers to the lines above it.
    const auto only = onlyQuotation(start);
    std::vector<std::pair<size_t, size_t>> thread;
    std::vector<std::pair<size_t, size_t>> own;
    if (only) {
      thread.push_back(*only);
      own = {{0, only->first}, {only->second, start}};
    } else {
      own = {{0, start}};
    }
    if (start < end) thread.emplace_back(start, end);
    if (cut < n) thread.emplace_back(cut, n);
    SplitText result;
    result.newText = newText(own);
    result.thread = renderThread(thread);
    result.earlierMessages = countEarlier(thread);
    return result;
  }

  static constexpr size_t kNone = SIZE_MAX;

  // The first quotation, with its attribution and the empty lines inside it; or, when an
  // Outlook-style block or a marked thread comes first, everything from there on.
  std::optional<std::pair<size_t, size_t>> firstQuotation() const {
    const size_t cut = firstCut();
    std::vector<std::pair<size_t, size_t>> found = quotations(cut, 1);
    if (!found.empty()) return found.front();
    if (cut < lines_.size()) return std::pair<size_t, size_t>{cut, lines_.size()};
    return std::nullopt;
  }

 private:
  // The one quotation before `end`, with its attribution, when there is exactly one: the
  // message the sender answers below it (a bottom-posted reply, perhaps under a greeting).
  // None when there are several: answers stand between them.
  std::optional<std::pair<size_t, size_t>> onlyQuotation(size_t end) const {
    std::vector<std::pair<size_t, size_t>> found = quotations(end, 2);
    if (found.size() != 1) return std::nullopt;
    return found.front();
  }

  // The quotations before `end`, at most `most` of them.
  std::vector<std::pair<size_t, size_t>> quotations(size_t end, size_t most) const {
    std::vector<std::pair<size_t, size_t>> found;
    size_t i = 0;
    while (i < end && found.size() < most) {
      if (isBlank(lines_, i) || !(lines_.depth(i) > 0 || attributionEnd(i) != kNone)) {
        ++i;
        continue;
      }
      // A block: attributions, quoted lines and the empty lines between them.
      const size_t begin = i;
      size_t last = i;
      while (i < end) {
        if (lines_.depth(i) > 0) {
          last = i++;
        } else if (isBlank(lines_, i)) {
          ++i;
        } else if (const size_t after = attributionEnd(i); after != kNone) {
          last = after - 1;
          i = after;
        } else {
          break;
        }
      }
      found.emplace_back(begin, last + 1);
    }
    return found;
  }

  // Behind the attribution that begins at line `i` (one or two lines, its quotation after
  // it); kNone when none begins there.
  size_t attributionEnd(size_t i) const {
    if (lines_.depth(i) > 0) return kNone;
    if (lines_.flags(i) & TextLines::attribution ||
        (looksLikeAttribution(trimmedText(lines_, i)) && quotationFollows(i))) {
      size_t j = i + 1;
      while (j < lines_.size() && lines_.depth(j) == 0 &&
             (lines_.flags(j) & TextLines::attribution))
        ++j;
      return j;
    }
    if (i + 1 < lines_.size() && lines_.depth(i + 1) == 0 && attributionBegin(i + 1) == i)
      return i + 2;
    return kNone;
  }

  // The first line from which everything is the earlier thread, by a mark, a separator or an
  // Outlook-style header block; all lines when there is none.
  size_t firstCut() const {
    for (size_t i = 0; i < lines_.size(); ++i) {
      if (lines_.depth(i) > 0) continue;
      if (lines_.flags(i) & TextLines::threadStart) return i;
      const std::string_view t = trimmedText(lines_, i);
      if (isSeparator(t)) return withRuleAbove(i);
      if (startsHeaderBlock(i)) return withRuleAbove(i);
      // "On ..., Carla <carla@example.org> wrote:" above an earlier message its sender's
      // program did not quote (Yahoo's plain text does this).
      if (isPlainAttribution(t) && !quotationFollows(i)) return i;
    }
    return lines_.size();
  }

  // The rule line just above `i`, if there is one, goes with the thread.
  size_t withRuleAbove(size_t i) const {
    size_t above = i;
    while (above > 0 && isBlank(lines_, above - 1)) --above;
    if (above > 0 && lines_.depth(above - 1) == 0 && isRule(trimmedText(lines_, above - 1)))
      return above - 1;
    return i;
  }

  // "From: ..." followed by a date line and a recipient or subject line; after a rule, a
  // "From:" line and one more header line suffice.
  bool startsHeaderBlock(size_t i) const {
    if (!isOneOf(fieldNameOf(trimmedText(lines_, i)), kFromNames)) return false;
    bool ruled = lines_.flags(i) & TextLines::ruleBefore;
    if (!ruled && withRuleAbove(i) != i) ruled = true;
    bool date = false;
    bool to = false;
    size_t seen = 0;
    for (size_t j = i + 1; j < lines_.size() && seen < 6; ++j) {
      const std::string_view t = trimmedText(lines_, j);
      if (t.empty()) continue;
      ++seen;
      const std::string_view name = fieldNameOf(t);
      if (name.empty()) break;
      if (isOneOf(name, kDateNames)) date = true;
      if (isOneOf(name, kToNames)) to = true;
      if ((date && to) || (ruled && (date || to))) return true;
    }
    return false;
  }

  // When line `l` is an attribution (or the last line of one) whose quotation follows: the
  // attribution's first line; else kNone.
  size_t attributionBegin(size_t l) const {
    const bool marked = lines_.flags(l) & TextLines::attribution;
    const std::string_view t = trimmedText(lines_, l);
    if (!marked && !(looksLikeAttribution(t) && quotationFollows(l))) return kNone;
    size_t first = l;
    // A marked attribution may span lines; so may a long one that the sender's program
    // wrapped ("On Tue, ... Carla Mendes <" / "carla@example.org> wrote:").
    while (first > 0 && lines_.depth(first - 1) == 0 && !isBlank(lines_, first - 1)) {
      const std::string_view above = trimmedText(lines_, first - 1);
      if (marked ? (lines_.flags(first - 1) & TextLines::attribution)
                 : (opensAttribution(above) && !opensAttribution(t) && !endsSentence(above) &&
                    first == l))
        --first;
      else
        break;
    }
    return first;
  }

  // Without a quotation after it, only an attribution that says who wrote, and when or
  // from which address, counts.
  static bool isPlainAttribution(std::string_view t) {
    if (!looksLikeAttribution(t) || t.size() > 400) return false;
    t.remove_suffix(t.ends_with(':') ? 1 : 3);
    while (!t.empty() && t.back() == ' ') t.remove_suffix(1);
    const bool verb = std::any_of(kWroteVerbs.begin(), kWroteVerbs.end(),
                                  [&](std::string_view v) { return t.ends_with(v); });
    const bool who = opensAttribution(t) || (t.find('@') != std::string_view::npos &&
                                             t.find('<') != std::string_view::npos);
    return verb && who;
  }

  static bool opensAttribution(std::string_view t) {
    return std::any_of(kAttributionOpeners.begin(), kAttributionOpeners.end(),
                       [&](std::string_view o) { return t.starts_with(o); });
  }
  static bool endsSentence(std::string_view t) {
    return t.ends_with('.') || t.ends_with('!') || t.ends_with('?');
  }

  // The next line with text after `l` is quoted.
  bool quotationFollows(size_t l) const {
    for (size_t j = l + 1; j < lines_.size(); ++j) {
      if (isBlank(lines_, j)) continue;
      return lines_.depth(j) > lines_.depth(l);
    }
    return false;
  }

  // The lines [begin, end) without the signature: from a "-- " line (or a line marked as
  // signature) on, up to the next quoted line.
  std::string newText(const std::vector<std::pair<size_t, size_t>>& ranges) const {
    Rendering out;
    out.reserveFor(lines_, ranges);
    bool inSignature = false;
    for (const auto& [begin, end] : ranges) {
      for (size_t i = begin; i < end; ++i) {
        const Line line = lines_[i];
        if (line.depth > 0) inSignature = false;
        if (line.depth == 0 && isSignatureMark(lines_, i)) inSignature = true;
        if (inSignature || (line.flags & TextLines::signature)) continue;
        out.line(line.text, line.depth);
      }
    }
    return out.take();
  }

  // The thread's lines, without the signatures quoted in it.
  std::string renderThread(const std::vector<std::pair<size_t, size_t>>& ranges) const {
    Rendering out;
    out.reserveFor(lines_, ranges);
    for (const auto& [begin, end] : ranges) {
      out.line("", 0);  // the ranges stand apart
      uint32_t signatureDepth = 0;
      bool inSignature = false;
      for (size_t i = begin; i < end; ++i) {
        const Line line = lines_[i];
        if (inSignature && (line.depth != signatureDepth || startsMessage(i))) inSignature = false;
        if (!inSignature && isSignatureMark(lines_, i)) {
          inSignature = true;
          signatureDepth = line.depth;
        }
        if (inSignature || (line.flags & TextLines::signature)) continue;
        out.line(line.text, line.depth);
      }
    }
    return out.take();
  }

  // The line begins an earlier message: an attribution, a separator or a header block.
  bool startsMessage(size_t i) const {
    if (isBlank(lines_, i)) return false;
    const std::string_view t = trimmedText(lines_, i);
    if (lines_.flags(i) & (TextLines::attribution | TextLines::threadStart)) return true;
    if (looksLikeAttribution(t) && quotationFollows(i)) return true;
    return isSeparator(t) || startsHeaderBlock(i);
  }

  size_t countEarlier(const std::vector<std::pair<size_t, size_t>>& ranges) const {
    size_t starts = 0;
    uint32_t deepest = 0;
    bool any = false;
    for (const auto& [begin, end] : ranges) {
      bool previousMarked = false;
      for (size_t i = begin; i < end; ++i) {
        if (isBlank(lines_, i)) continue;
        any = true;
        deepest = std::max(deepest, lines_.depth(i));
        const bool marked = startsMessage(i);
        // An attribution spanning lines counts once.
        if (marked && !previousMarked) ++starts;
        previousMarked = marked && lines_.depth(i) == 0;
      }
    }
    if (!any) return 0;
    return std::max<size_t>({starts, deepest, 1});
  }

  const TextLines& lines_;
};

}  // namespace

bool looksLikeAttribution(std::string_view line) {
  if (line.empty() || line.size() > 600) return false;
  return line.ends_with(':') || line.ends_with("\xEF\xBC\x9A");
}

std::string renderLines(const TextLines& lines, size_t begin, size_t end) {
  Rendering out;
  out.reserveFor(lines, {{begin, end}});
  for (size_t i = begin; i < end; ++i) {
    const Line line = lines[i];
    out.line(line.text, line.depth);
  }
  return out.take();
}

SplitText splitThread(const TextLines& lines) { return Splitter(lines).run(); }

std::optional<std::pair<size_t, size_t>> firstQuotation(const TextLines& lines) {
  return Splitter(lines).firstQuotation();
}

}  // namespace lumora::reading
