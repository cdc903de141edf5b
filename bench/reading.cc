// How fast and how lean MailReader reads a whole message, measured against Python on the same
// mail in the same run, and how its time grows on hostile messages.
//
// The report (see bench/README.md):
//   1. the mail corpus (every message of ../shared/fixtures/mail-corpus): MailReader::read on
//      each, against Python's email (the default policy, get_body preferring plain text,
//      get_content) with lxml's text_content() when the body is HTML, the rounds of the two
//      alternating; MB/s of each and their ratio;
//   2. the peak resident memory of reading a generated 10 MB message in a child process: a
//      reply whose plain and HTML alternatives carry a long thread, beside a Base64
//      attachment; the same kind of thread as one HTML part, and as one plain-text part; then
//      the hostile messages of part 3 at 10 MB;
//   3. hostile messages of 1, 4 and 16 MB (deep multipart nesting, very many sibling parts,
//      HTML nested a million deep, very deep ">" quoting, long threads): median time, and the
//      time per MB against the 1 MB case, which stays near 1 when the reading is linear.
#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lumora/mailcontent/MailReader.h"
#include "Children.h"
#include "Common.h"
#include "support/Fixtures.h"

namespace {

using lumora::bench::median;
using lumora::bench::seconds;

[[noreturn]] void die(const std::string& what) { lumora::bench::die("bench_reading", what); }

constexpr double kMB = 1e6;
constexpr double kMiB = 1024.0 * 1024.0;

// What a reading gave, summed so that nothing is optimised away and a broken reader shows.
struct Tally {
  size_t messages = 0;
  size_t characters = 0;
  size_t withNewText = 0;
  size_t withThread = 0;
  size_t earlier = 0;

  void add(const lumora::MailReading& r) {
    ++messages;
    characters += r.characters;
    withNewText += r.newText.empty() ? 0 : 1;
    withThread += r.thread.empty() ? 0 : 1;
    earlier += r.earlierMessages;
  }
};

// ---- 1. the corpus, against Python ---------------------------------------------------------

struct Corpus {
  std::vector<std::string> files;
  std::vector<std::string> messages;
};

Corpus loadCorpus() {
  Corpus corpus;
  try {
    const auto dir = lumora::testing::mailCorpusDir();
    corpus.files = lumora::testing::mailCorpusFiles("message");
    for (const std::string& file : corpus.files)
      corpus.messages.push_back(lumora::testing::readFile(dir / file));
  } catch (const std::runtime_error& e) {
    die(e.what());
  }
  if (corpus.messages.empty()) die("the mail corpus has no messages");
  return corpus;
}

// The reader promises never to fail; when it does, the report stops and says where.
lumora::MailReading readOrDie(std::string_view message, const std::string& what) {
  try {
    return lumora::MailReader::read(message);
  } catch (const std::exception& e) {
    die("MailReader::read threw on " + what + ": " + e.what());
  }
}

// The nearest Python does to the reading: the body a mail client would show (plain text
// preferred), decoded, and HTML turned into its text. A message Python cannot read is passed
// over, as a reader must. The untimed first pass counts what was found into the file named by
// the third argument.
constexpr const char* kPythonScript = R"(
import email, os, sys, time
from email import policy
import lxml.html
root, runs, stats = sys.argv[1], int(sys.argv[2]), sys.argv[3]
messages = []
with open(os.path.join(root, 'manifest.tsv')) as manifest:
    next(manifest)
    for line in manifest:
        fields = line.split('\t')
        if fields[1] == 'message':
            with open(os.path.join(root, fields[0]), 'rb') as f:
                messages.append(f.read())
def read(raw, counts):
    try:
        message = email.message_from_bytes(raw, policy=policy.default)
        body = message.get_body(preferencelist=('plain', 'html'))
        if body is None:
            counts[0] += 1
            return 0
        content = body.get_content()
        if body.get_content_type() == 'text/html':
            counts[1] += 1
            content = lxml.html.document_fromstring(content).text_content()
        return len(content)
    except Exception:
        counts[2] += 1
        return 0
counts = [0, 0, 0]
characters = sum(read(raw, counts) for raw in messages)
with open(stats, 'w') as f:
    f.write('%d %d %d %d %d\n' % (len(messages), counts[0], counts[1], counts[2], characters))
def once():
    counts = [0, 0, 0]
    for raw in messages:
        read(raw, counts)
)";

struct PythonCorpus {
  double seconds = -1;  // median per round; negative when Python failed
  size_t messages = 0, withoutBody = 0, html = 0, raised = 0, characters = 0;
};

PythonCorpus pythonCorpus(int runs) {
  char stats[] = "/tmp/lumora-bench-reading-XXXXXX";
  const int fd = mkstemp(stats);
  if (fd < 0) die("cannot make a temporary file");
  close(fd);
  PythonCorpus result;
  result.seconds = lumora::bench::pythonSeconds(
      kPythonScript, "'" + lumora::testing::mailCorpusDir().string() + "' " +
                         std::to_string(runs) + " " + stats);
  if (FILE* f = std::fopen(stats, "r")) {
    if (std::fscanf(f, "%zu %zu %zu %zu %zu", &result.messages, &result.withoutBody,
                    &result.html, &result.raised, &result.characters) != 5)
      result.messages = 0;
    std::fclose(f);
  }
  unlink(stats);
  return result;
}

void corpusPart(int runs) {
  const Corpus corpus = loadCorpus();
  const std::vector<std::string>& messages = corpus.messages;
  size_t bytes = 0;
  for (const auto& m : messages) bytes += m.size();
  const double mb = static_cast<double>(bytes) / kMB;
  const auto round = [&] {
    Tally tally;
    for (size_t i = 0; i < messages.size(); ++i)
      tally.add(readOrDie(messages[i], corpus.files[i]));
    return tally;
  };
  // Once untimed: what the reading found, and the first touch of the allocator's pages.
  const Tally tally = round();
  // Each round is one Python process beside three of our rounds, which go before it in one
  // round and after it in the next: both sides see the same stretch of a shared machine, and a
  // pause that hits one of our short rounds is outvoted by the other two.
  std::vector<double> ours, theirs, ratios;
  PythonCorpus python;
  for (int r = 0; r < runs; ++r) {
    std::vector<double> mine;
    const auto ourRounds = [&] {
      for (int i = 0; i < 3; ++i) mine.push_back(seconds([&] { (void)round(); }));
    };
    if (r % 2 == 0) ourRounds();
    const PythonCorpus p = pythonCorpus(1);
    if (r % 2 == 1) ourRounds();
    ours.insert(ours.end(), mine.begin(), mine.end());
    if (p.seconds <= 0) continue;
    python = p;
    theirs.push_back(p.seconds);
    ratios.push_back(p.seconds / median(mine));
  }
  const double o = median(ours);
  std::printf("1. corpus: %zu messages, %.2f MB; %d rounds, each one Python round beside three "
              "of ours; medians\n",
              messages.size(), mb, runs);
  std::printf("  lumora MailReader  %8.1f ms/round  %8.1f MB/s   (%zu with new text, %zu with "
              "a thread, %zu characters of text)\n",
              o * 1e3, mb / o, tally.withNewText, tally.withThread, tally.characters);
  if (theirs.empty()) {
    std::printf("  python: not measured (/usr/bin/python3 with email and lxml failed)\n");
    return;
  }
  const double t = median(theirs);
  std::printf("  python email+lxml  %8.1f ms/round  %8.1f MB/s   (%zu without a body, %zu HTML, "
              "%zu raised, %zu characters of body)\n",
              t * 1e3, mb / t, python.withoutBody, python.html, python.raised, python.characters);
  const double ratio = t / o;
  std::printf("  ratio (lumora throughput / python throughput): %.1f  (per round %.1f to %.1f)  "
              "goal at least 10: %s\n",
              ratio, *std::min_element(ratios.begin(), ratios.end()),
              *std::max_element(ratios.begin(), ratios.end()), ratio >= 10 ? "met" : "NOT met");
}

// ---- generated mail ------------------------------------------------------------------------

// splitmix64: the same messages on every machine and every run.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  size_t below(size_t n) { return static_cast<size_t>(next() % n); }
  size_t between(size_t low, size_t high) { return low + below(high - low + 1); }
  bool chance(size_t outOf) { return below(outOf) == 0; }

 private:
  uint64_t state_;
};

constexpr std::array<std::string_view, 96> kWords{
    "the",       "plan",      "for",        "quarter",   "we",        "should",    "review",
    "budget",    "before",    "meeting",    "on",        "Thursday",  "and",       "I",
    "think",     "that",      "team",       "can",       "deliver",   "migration", "by",
    "end",       "of",        "month",      "if",        "vendor",    "confirms",  "the",
    "contract",  "we’ll",     "need",       "two",       "more",      "people",    "in",
    "Zürich",    "office",    "café",       "numbers",   "look",      "right",     "to",
    "me",        "but",       "please",     "double-check", "forecast", "with",    "finance",
    "naïve",     "estimate",  "was",        "about",     "€40,000",   "which",     "seems",
    "low",       "given",     "rollout",    "schedule",  "customers", "asked",     "whether",
    "release",   "includes",  "export",     "feature",   "São",       "Paulo",     "site",
    "is",        "still",     "waiting",    "hardware",  "so",        "let’s",     "keep",
    "it",        "out",       "first",      "phase",     "résumé",    "candidates","arrive",
    "next",      "week",      "—",          "thanks",    "again",     "everyone",  "who",
    "helped",    "with",      "draft",      "slides",    "agenda"};

struct Person {
  std::string_view name;
  std::string_view address;
};

constexpr std::array<Person, 10> kPeople{{
    {"Carla Mendes", "carla.mendes@example.org"},
    {"Bob Okafor", "bob.okafor@example.org"},
    {"José Álvarez", "jose.alvarez@example.com"},
    {"Zoë Müller", "zoe.mueller@example.de"},
    {"Priya Raman", "priya.raman@example.org"},
    {"Tomasz Nowak", "t.nowak@example.pl"},
    {"Aiko Tanaka", "aiko.tanaka@example.jp"},
    {"Liam O'Brien", "liam.obrien@example.ie"},
    {"Fatima Haddad", "fatima.haddad@example.org"},
    {"Erik Lindqvist", "erik.lindqvist@example.se"},
}};

constexpr std::string_view kSubject = "Quarterly plan for the Zürich office";

std::string formatTime(time_t when, const char* format) {
  std::tm tm{};
  gmtime_r(&when, &tm);
  char buffer[128];
  const size_t n = std::strftime(buffer, sizeof buffer, format, &tm);
  return std::string(buffer, n);
}

std::string htmlEscaped(std::string_view s) {
  std::string out;
  for (const char c : s) {
    switch (c) {
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '&': out += "&amp;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

// Quoted-printable, line by line, as mail programs send text with long lines: every source
// line ends where it ended, and lines longer than 76 characters are broken by soft breaks.
void appendQuotedPrintable(std::string_view text, std::string& out) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view line = text.substr(start, end - start);
    size_t column = 0;
    for (size_t i = 0; i < line.size(); ++i) {
      const auto b = static_cast<unsigned char>(line[i]);
      const bool last = i + 1 == line.size();
      const bool literal = (b >= 33 && b <= 126 && b != '=') || ((b == ' ' || b == '\t') && !last);
      const size_t width = literal ? 1 : 3;
      if (column + width > 75) {
        out += "=\n";
        column = 0;
      }
      if (literal) {
        out += static_cast<char>(b);
      } else {
        out += '=';
        out += kHex[b >> 4];
        out += kHex[b & 15];
      }
      column += width;
    }
    out += '\n';
    start = end + 1;
  }
}

void appendBase64(std::string_view bytes, std::string& out) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  size_t column = 0;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t v = static_cast<uint8_t>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) v |= static_cast<uint8_t>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) v |= static_cast<uint8_t>(bytes[i + 2]);
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(v >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kAlphabet[v & 63] : '=';
    column += 4;
    if (column == 76) {
      out += '\n';
      column = 0;
    }
  }
  if (column > 0) out += '\n';
}

// A long thread as its newest reply carries it, in plain text and in HTML at once: the new
// text on top, then every earlier message under the one that answered it. How each message is
// quoted is its answerer's program's habit: Gmail and Thunderbird quote one level deeper under
// an "On ... wrote:" line, Outlook puts a "From: / Sent: / To: / Subject:" block under a rule
// and no deeper, which is how long company threads keep their depth within reason. Messages
// have paragraphs, now and then a list or a small table, links, bold words, accented words and
// signatures.
class ThreadWriter {
 public:
  enum class Client { gmail, thunderbird, outlook };

  ThreadWriter(bool plain, bool html, uint64_t seed) : wantPlain_(plain), wantHtml_(html), random_(seed) {
    if (wantHtml_)
      html_ +=
          "<html><head>\n<meta http-equiv=\"Content-Type\" content=\"text/html; charset=utf-8\">\n"
          "<style type=\"text/css\" style=\"display:none;\"> P {margin-top:0;margin-bottom:0;} "
          "</style>\n</head>\n<body dir=\"ltr\">\n";
    client_ = Client::gmail;  // the reply itself
    message(0);
  }

  // Adds the next earlier message, under the last one.
  void addEarlier() {
    ++count_;
    quoteHeading(count_);
    client_ = pickClient();
    message(count_);
  }

  // Closes what is open; the HTML is then a whole document.
  void finish() {
    if (!wantHtml_) return;
    while (!closings_.empty()) {
      html_ += closings_.back();
      closings_.pop_back();
    }
    html_ += "</body>\n</html>\n";
  }

  // The text written since the last take, every piece ending with a line end.
  std::string takePlain() { return std::exchange(plain_, {}); }
  std::string takeHtml() { return std::exchange(html_, {}); }
  size_t earlierMessages() const { return count_; }

 private:
  static constexpr size_t kDeepest = 10;  // quotation levels before everyone goes flat

  Client pickClient() {
    const size_t roll = random_.below(20);
    if (roll < 3) return Client::gmail;
    if (roll < 5) return Client::thunderbird;
    return Client::outlook;
  }

  const Person& author(size_t k) const { return kPeople[(k * 7) % kPeople.size()]; }
  time_t sent(size_t k) const { return 1762160640 - static_cast<time_t>(k) * 11'820; }

  // The plain lines' quotation marks, as each quoting program wrote its own.
  void plainLine(std::string_view text) {
    if (!wantPlain_) return;
    plain_ += prefix_;
    if (!prefix_.empty() && !text.empty() && prefix_.back() == '>') plain_ += ' ';
    plain_ += text;
    plain_ += '\n';
  }

  // `text` wrapped at 72 columns of its own, under the quotation marks.
  void plainParagraph(std::string_view text) {
    while (!text.empty()) {
      size_t cut = text.size();
      if (cut > 72) {
        cut = text.rfind(' ', 72);
        if (cut == std::string_view::npos || cut == 0) cut = 72;
      }
      plainLine(text.substr(0, cut));
      text.remove_prefix(cut);
      while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    }
  }

  std::string sentence() {
    std::string s;
    const size_t n = random_.between(6, 18);
    for (size_t i = 0; i < n; ++i) {
      std::string_view w = kWords[random_.below(kWords.size())];
      if (i == 0) {
        s += static_cast<char>(w[0] >= 'a' && w[0] <= 'z' ? w[0] - 32 : w[0]);
        s += w.substr(1);
      } else {
        s += ' ';
        s += w;
        if (i + 1 < n && random_.chance(9)) s += ',';
      }
    }
    s += random_.chance(7) ? '?' : '.';
    return s;
  }

  // One paragraph, as plain text and as the HTML of the author's program.
  void paragraph() {
    std::string text;
    std::string markup;
    const size_t sentences = random_.between(2, 6);
    for (size_t i = 0; i < sentences; ++i) {
      const std::string s = sentence();
      if (!text.empty()) {
        text += ' ';
        markup += ' ';
      }
      text += s;
      if (random_.chance(6)) {
        markup += "<a href=\"https://intranet.example.org/docs/" +
                  std::to_string(random_.below(100000)) + "\">" + htmlEscaped(s) + "</a>";
      } else if (random_.chance(8)) {
        markup += "<b>" + htmlEscaped(s) + "</b>";
      } else {
        markup += htmlEscaped(s);
      }
    }
    plainParagraph(text);
    plainLine("");
    if (!wantHtml_) return;
    if (client_ == Client::outlook) {
      html_ += "<p class=\"MsoNormal\" style=\"margin:0cm;font-size:11pt;font-family:Calibri,"
               "sans-serif\"><span lang=\"EN-US\">" +
               markup + "</span></p>\n<p class=\"MsoNormal\">&nbsp;</p>\n";
    } else {
      html_ += "<div>" + markup + "</div><div><br></div>\n";
    }
  }

  void list() {
    const size_t items = random_.between(3, 5);
    if (wantHtml_) html_ += "<ul>\n";
    for (size_t i = 0; i < items; ++i) {
      const std::string s = sentence();
      plainLine("- " + s);
      if (wantHtml_) html_ += "<li>" + htmlEscaped(s) + "</li>\n";
    }
    plainLine("");
    if (wantHtml_) html_ += "</ul>\n";
  }

  void table() {
    const size_t rows = random_.between(3, 6);
    if (wantHtml_)
      html_ += "<table border=\"1\" cellspacing=\"0\" cellpadding=\"4\" style=\"border-collapse:"
               "collapse\"><tbody>\n<tr><th>Item</th><th>Q3</th><th>Q4</th></tr>\n";
    plainLine("Item | Q3 | Q4");
    for (size_t r = 0; r < rows; ++r) {
      const std::string item(kWords[random_.below(kWords.size())]);
      const std::string q3 = std::to_string(random_.below(90000));
      const std::string q4 = std::to_string(random_.below(90000));
      plainLine(item + " | " + q3 + " | " + q4);
      if (wantHtml_)
        html_ += "<tr><td>" + htmlEscaped(item) + "</td><td style=\"text-align:right\">" + q3 +
                 "</td><td style=\"text-align:right\">" + q4 + "</td></tr>\n";
    }
    plainLine("");
    if (wantHtml_) html_ += "</tbody></table>\n";
  }

  // Message k's own text: greeting, paragraphs, sign-off and signature.
  void message(size_t k) {
    const Person& from = author(k);
    const Person& to = author(k + 1);
    const std::string greeting = "Hi " + std::string(to.name.substr(0, to.name.find(' '))) + ",";
    if (wantHtml_) html_ += "<div dir=\"ltr\">\n<div>" + htmlEscaped(greeting) + "</div><div><br></div>\n";
    plainLine(greeting);
    plainLine("");
    const size_t paragraphs = k == 0 ? 2 : random_.between(2, 7);
    for (size_t i = 0; i < paragraphs; ++i) {
      paragraph();
      if (random_.chance(5)) list();
      if (random_.chance(9)) table();
    }
    const std::string first(from.name.substr(0, from.name.find(' ')));
    plainLine("Best,");
    plainLine(first);
    plainLine("");
    plainLine("-- ");
    plainLine(from.name);
    plainLine("Operations, Example Group | +41 44 123 45 67");
    if (wantHtml_)
      html_ += "<div>Best,</div><div>" + htmlEscaped(first) +
               "</div><div><br></div>\n<div dir=\"ltr\" class=\"gmail_signature\"><div>--</div>"
               "<div>" + htmlEscaped(from.name) +
               "</div><div>Operations, Example Group | +41 44 123 45 67</div></div>\n</div>\n";
  }

  // What the answerer's program put above message k, which it quotes.
  void quoteHeading(size_t k) {
    const Person& from = author(k);
    const time_t when = sent(k);
    Client client = client_;
    if (client != Client::outlook && depth_ >= kDeepest) client = Client::outlook;
    plainLine("");
    switch (client) {
      case Client::gmail: {
        const std::string date = formatTime(when, "%a, %-d %b %Y at %H:%M");
        plainLine("On " + date + ", " + std::string(from.name) + " <" + std::string(from.address) +
                  "> wrote:");
        prefix_ += "> ";
        ++depth_;
        if (wantHtml_) {
          html_ += "<br><div class=\"gmail_quote\"><div dir=\"ltr\" class=\"gmail_attr\">On " +
                   date + ", " + htmlEscaped(from.name) + " &lt;<a href=\"mailto:" +
                   std::string(from.address) + "\">" + std::string(from.address) +
                   "</a>&gt; wrote:<br></div><blockquote class=\"gmail_quote\" style=\"margin:0px "
                   "0px 0px 0.8ex;border-left:1px solid rgb(204,204,204);padding-left:1ex\">\n";
          closings_.push_back("</blockquote></div>\n");
        }
        break;
      }
      case Client::thunderbird: {
        const std::string date = formatTime(when, "%d/%m/%Y %H:%M");
        plainLine("On " + date + ", " + std::string(from.name) + " wrote:");
        prefix_ += ">";
        ++depth_;
        if (wantHtml_) {
          html_ += "<div class=\"moz-cite-prefix\">On " + date + ", " + htmlEscaped(from.name) +
                   " wrote:<br></div>\n<blockquote type=\"cite\" cite=\"mid:" + std::to_string(k) +
                   ".thread@example.org\">\n";
          closings_.push_back("</blockquote>\n");
        }
        break;
      }
      case Client::outlook: {
        const std::string date = formatTime(when, "%A, %B %-d, %Y %I:%M %p");
        plainLine("________________________________");
        plainLine("From: " + std::string(from.name) + " <" + std::string(from.address) + ">");
        plainLine("Sent: " + date);
        plainLine("To: Team <team@example.org>");
        plainLine("Subject: RE: " + std::string(kSubject));
        plainLine("");
        if (wantHtml_)
          html_ += "<div id=\"appendonsend\"></div>\n<hr style=\"display:inline-block;width:98%\" "
                   "tabindex=\"-1\">\n<div id=\"divRplyFwdMsg\" dir=\"ltr\"><font face=\"Calibri, "
                   "sans-serif\" style=\"font-size:11pt\" color=\"#000000\"><b>From:</b> " +
                   htmlEscaped(from.name) + " &lt;" + std::string(from.address) +
                   "&gt;<br>\n<b>Sent:</b> " + date +
                   "<br>\n<b>To:</b> Team &lt;team@example.org&gt;<br>\n<b>Subject:</b> RE: " +
                   std::string(kSubject) + "</font>\n<div>&nbsp;</div>\n</div>\n";
        break;
      }
    }
  }

  bool wantPlain_;
  bool wantHtml_;
  Random random_;
  Client client_;
  size_t count_ = 0;
  size_t depth_ = 0;
  std::string prefix_;
  std::string plain_;
  std::string html_;
  std::vector<std::string> closings_;
};

std::string messageHeader(std::string_view contentType, size_t references) {
  std::string h =
      "Return-Path: <carla.mendes@example.org>\n"
      "Received: from mail.example.org (mail.example.org [192.0.2.10])\n"
      "\tby mx.example.net with ESMTPS id 4ca0247b for <team@example.org>;\n"
      "\tMon, 3 Nov 2025 10:04:12 +0100\n"
      "From: Carla Mendes <carla.mendes@example.org>\n"
      "To: Team <team@example.org>\n"
      "Cc: =?UTF-8?Q?Zo=C3=AB_M=C3=BCller?= <zoe.mueller@example.de>\n"
      "Subject: RE: Quarterly plan for the =?UTF-8?Q?Z=C3=BCrich?= office\n"
      "Date: Mon, 3 Nov 2025 10:04:00 +0100\n"
      "Message-ID: <0.thread@example.org>\n"
      "In-Reply-To: <1.thread@example.org>\n"
      "References:";
  for (size_t i = std::min<size_t>(references, 40); i >= 1; --i)
    h += " <" + std::to_string(i) + ".thread@example.org>\n";
  if (references == 0) h += " <1.thread@example.org>\n";
  h += "MIME-Version: 1.0\n";
  h += "Content-Type: ";
  h += contentType;
  h += "\n";
  return h;
}

enum class Shape { mixed, htmlOnly, plainOnly };

// A reply of about `bytes` bytes: the thread grows until the text parts reach their share, then
// (for the mixed shape) the attachment takes the rest.
std::string realisticMessage(Shape shape, size_t bytes, uint64_t seed = 1) {
  const bool plain = shape != Shape::htmlOnly;
  const bool html = shape != Shape::plainOnly;
  ThreadWriter thread(plain, html, seed);
  std::string plainPart;
  std::string htmlPart;
  const size_t textShare = shape == Shape::mixed ? bytes / 10 * 8 : bytes - 2000;
  const auto encodeNew = [&] {
    if (shape == Shape::plainOnly) {
      plainPart += thread.takePlain();
      return;
    }
    if (plain) appendQuotedPrintable(thread.takePlain(), plainPart);
    if (html) appendQuotedPrintable(thread.takeHtml(), htmlPart);
  };
  encodeNew();
  while (plainPart.size() + htmlPart.size() < textShare) {
    thread.addEarlier();
    encodeNew();
  }
  thread.finish();
  encodeNew();
  const size_t references = thread.earlierMessages();

  if (shape == Shape::htmlOnly)
    return messageHeader("text/html; charset=\"UTF-8\"\nContent-Transfer-Encoding: quoted-printable",
                         references) + "\n" + htmlPart;
  if (shape == Shape::plainOnly)
    return messageHeader("text/plain; charset=\"UTF-8\"\nContent-Transfer-Encoding: 8bit",
                         references) + "\n" + plainPart;

  std::string m = messageHeader("multipart/mixed; boundary=\"000000000000a1b2c3d4e5f60718\"",
                                references);
  m += "\n--000000000000a1b2c3d4e5f60718\n"
       "Content-Type: multipart/alternative; boundary=\"000000000000a1b2c3d4e5f60717\"\n\n"
       "--000000000000a1b2c3d4e5f60717\n"
       "Content-Type: text/plain; charset=\"UTF-8\"\n"
       "Content-Transfer-Encoding: quoted-printable\n\n";
  m += plainPart;
  m += "--000000000000a1b2c3d4e5f60717\n"
       "Content-Type: text/html; charset=\"UTF-8\"\n"
       "Content-Transfer-Encoding: quoted-printable\n\n";
  m += htmlPart;
  m += "--000000000000a1b2c3d4e5f60717--\n\n"
       "--000000000000a1b2c3d4e5f60718\n"
       "Content-Type: application/pdf; name=\"Q4 plan.pdf\"\n"
       "Content-Disposition: attachment; filename=\"Q4 plan.pdf\"\n"
       "Content-Transfer-Encoding: base64\n"
       "Content-ID: <f_attachment_0>\n\n";
  const std::string closing = "--000000000000a1b2c3d4e5f60718--\n";
  // Base64 of n bytes takes 4/3 n and a line end every 76 characters.
  const size_t room = bytes > m.size() + closing.size() ? bytes - m.size() - closing.size() : 0;
  const size_t binary = std::max<size_t>(room / 77 * 76 / 4 * 3, 1000);
  std::string pdf = "%PDF-1.7\n%\xE2\xE3\xCF\xD3\n";
  Random bytesRandom(seed + 17);
  while (pdf.size() < binary) {
    const uint64_t v = bytesRandom.next();
    pdf.append(reinterpret_cast<const char*>(&v), sizeof v);
  }
  pdf.resize(binary);
  appendBase64(pdf, m);
  m += closing;
  return m;
}

// ---- hostile messages ----------------------------------------------------------------------

std::string hostileHeader(std::string_view contentType) {
  std::string h =
      "From: Carla Mendes <carla.mendes@example.org>\n"
      "To: Team <team@example.org>\n"
      "Subject: Re: plan\n"
      "Date: Mon, 3 Nov 2025 10:04:00 +0100\n"
      "Message-ID: <hostile@example.org>\n"
      "MIME-Version: 1.0\n"
      "Content-Type: ";
  h += contentType;
  h += "\n\n";
  return h;
}

std::string repeatedTo(std::string s, std::string_view piece, size_t bytes) {
  s.reserve(bytes + piece.size());
  while (s.size() < bytes) s += piece;
  return s;
}

// A multipart in every part, a short text beside each: the reader takes 64 levels apart, and
// what is deeper is one leaf.
std::string deepMultiparts(size_t bytes) {
  std::string m = hostileHeader("multipart/mixed; boundary=\"n0\"");
  std::vector<std::string> closing;
  size_t closingBytes = 0;
  for (size_t level = 0; m.size() + closingBytes < bytes; ++level) {
    const std::string b = "n" + std::to_string(level);
    m += "--" + b + "\nContent-Type: text/plain\n\nLevel " + std::to_string(level) + ".\n--" + b +
         "\nContent-Type: multipart/mixed; boundary=\"n" + std::to_string(level + 1) + "\"\n\n";
    closing.push_back("--" + b + "--\n");
    closingBytes += closing.back().size();
  }
  m += "--n" + std::to_string(closing.size()) + "\n\nThe innermost part.\n--n" +
       std::to_string(closing.size()) + "--\n";
  for (auto it = closing.rbegin(); it != closing.rend(); ++it) m += *it;
  return m;
}

// Bare parts of 10 bytes: about 105,000 in each MB.
std::string siblingParts(size_t bytes) {
  return repeatedTo(hostileHeader("multipart/mixed; boundary=b"), "--b\n\nhi!\n", bytes) + "--b--\n";
}

// Parts with their headers, text and named attachments in turn.
std::string siblingPartsWithHeaders(size_t bytes) {
  std::string m = hostileHeader("multipart/mixed; boundary=\"=_part\"");
  for (size_t i = 0; m.size() < bytes; ++i) {
    const std::string n = std::to_string(i);
    if (i % 2 == 0)
      m += "--=_part\nContent-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: "
           "quoted-printable\n\nCaf=C3=A9 at noon, item " + n + ".\n";
    else
      m += "--=_part\nContent-Type: application/pdf; name=\"r" + n +
           ".pdf\"\nContent-Disposition: attachment; filename=\"r" + n +
           ".pdf\"\nContent-Transfer-Encoding: base64\n\nJVBERi0xLjcK\n";
  }
  return m + "--=_part--\n";
}

std::string nestedHtml(size_t bytes, std::string_view piece) {
  return repeatedTo(hostileHeader("text/html; charset=utf-8"), piece, bytes);
}

// Lines whose quotation depth climbs from 1 to 1,000 by one a line, again and again.
std::string deepQuoting(size_t bytes) {
  std::string m = hostileHeader("text/plain; charset=utf-8");
  m += "Thanks, see below.\n\nOn Mon, 3 Nov 2025 at 09:12, Bob Okafor <bob@example.org> wrote:\n";
  std::string prefix;
  while (m.size() < bytes) {
    prefix += '>';
    m += prefix;
    m += " a line quoted " + std::to_string(prefix.size()) + " deep\n";
    if (prefix.size() == 1000) prefix.clear();
  }
  return m;
}

std::string oneLineOfMarks(size_t bytes) {
  return repeatedTo(hostileHeader("text/plain"), ">>>>>>>>>>>>>>>>", bytes) + "\n";
}

// A thread in plain text where every message quotes the one before it a level deeper under its
// "On ... wrote:" line; after 100 levels a new chain starts, as in a forwarded thread.
std::string longThreadPlain(size_t bytes) {
  std::string m = hostileHeader("text/plain; charset=utf-8");
  m += "Agreed, let's go ahead.\n\n";
  std::string prefix;
  for (size_t k = 1; m.size() < bytes; ++k) {
    const Person& p = kPeople[k % kPeople.size()];
    m += prefix + (prefix.empty() ? "" : " ") + "On Mon, 3 Nov 2025 at 09:" +
         std::to_string(10 + k % 50) + ", " + std::string(p.name) + " <" +
         std::string(p.address) + "> wrote:\n";
    prefix += '>';
    m += prefix + " Message " + std::to_string(k) + " of the thread, its first line.\n";
    m += prefix + " Its second line, with a little more to say about the plan.\n";
    m += prefix + "\n";
    if (prefix.size() == 100) prefix.clear();
  }
  return m;
}

// The same in HTML: Gmail's attribution and blockquote for each message, 100 deep, then a new
// chain.
std::string longThreadHtml(size_t bytes) {
  std::string m = hostileHeader("text/html; charset=utf-8");
  m += "<div dir=\"ltr\">Agreed, let's go ahead.</div>\n";
  size_t depth = 0;
  for (size_t k = 1; m.size() < bytes; ++k) {
    const Person& p = kPeople[k % kPeople.size()];
    m += "<div class=\"gmail_quote\"><div dir=\"ltr\" class=\"gmail_attr\">On Mon, 3 Nov 2025 at "
         "09:" + std::to_string(10 + k % 50) + ", " + std::string(p.name) + " &lt;" +
         std::string(p.address) +
         "&gt; wrote:<br></div><blockquote class=\"gmail_quote\" style=\"margin:0px 0px 0px "
         "0.8ex;border-left:1px solid rgb(204,204,204);padding-left:1ex\"><div dir=\"ltr\">Message " +
         std::to_string(k) + " of the thread.<br>With a little more to say about the plan.</div>\n";
    if (++depth == 100) {
      for (; depth > 0; --depth) m += "</blockquote></div>";
      m += "\n";
    }
  }
  for (; depth > 0; --depth) m += "</blockquote></div>";
  return m + "\n";
}

// A Subject of encoded words, folded over as many lines as the size takes.
std::string longSubject(size_t bytes) {
  std::string m =
      "From: Carla Mendes <carla.mendes@example.org>\nDate: Mon, 3 Nov 2025 10:04:00 +0100\n"
      "Message-ID: <hostile@example.org>\nSubject: Re:";
  m.reserve(bytes + 64);
  while (m.size() < bytes) m += "\n =?UTF-8?Q?Z=C3=BCrich_plan_caf=C3=A9?=";
  return m + "\nContent-Type: text/plain\n\nA short body.\n";
}

struct Hostile {
  const char* name;
  std::function<std::string(size_t)> make;
};

const std::vector<Hostile>& hostileCases() {
  static const std::vector<Hostile> cases = {
      {"multiparts nested (64 levels read)", deepMultiparts},
      {"sibling parts, ~105,000 a MB", siblingParts},
      {"sibling parts with headers", siblingPartsWithHeaders},
      {"HTML <blockquote> nested, ~80,000 a MB",
       [](size_t n) { return nestedHtml(n, "<blockquote>q"); }},
      {"HTML <div> nested, ~210,000 a MB", [](size_t n) { return nestedHtml(n, "<div>"); }},
      {"\">\" quoting climbing to 1,000 deep", deepQuoting},
      {"one line of \">\" only", oneLineOfMarks},
      {"long thread, plain text", longThreadPlain},
      {"long thread, HTML (Gmail)", longThreadHtml},
      {"Subject of encoded words, folded", longSubject},
  };
  return cases;
}

// ---- 2. peak memory of one reading, in a child process ---------------------------------------

using lumora::bench::maxResidentKiB;
using lumora::bench::writeInChild;

struct ChildReading {
  long atStartKiB = 0;   // the child as forked
  long withFileKiB = 0;  // after reading the message's file
  long peakKiB = 0;      // after MailReader::read
  double seconds = 0;
  size_t characters = 0, newText = 0, thread = 0, earlier = 0;
  bool ok = false;
  char error[200] = "";  // what the reader threw, if it did
};

// The child reads the file into memory, reads the message and reports its peak resident memory
// at each step.
ChildReading readInChild(const std::string& path) {
  return lumora::bench::inChild<ChildReading>([&] {
           ChildReading r;
           r.atStartKiB = maxResidentKiB();
           std::string raw;
           r.ok = lumora::bench::readWholeFile(path, raw);
           r.withFileKiB = maxResidentKiB();
           if (r.ok) {
             lumora::MailReading reading;
             try {
               r.seconds = seconds([&] { reading = lumora::MailReader::read(raw); });
             } catch (const std::exception& e) {
               r.ok = false;
               std::snprintf(r.error, sizeof r.error, "%s", e.what());
             }
             r.peakKiB = maxResidentKiB();
             r.characters = reading.characters;
             r.newText = reading.newText.size();
             r.thread = reading.thread.size();
             r.earlier = reading.earlierMessages;
           }
           return r;
         })
      .value_or(ChildReading{});
}

// One row: the median over `children` readings of the message in `path`.
void memoryRow(const char* name, const std::string& path, int children, std::string& report) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) die("the generated message is gone");
  const double size = static_cast<double>(st.st_size);
  std::vector<double> start, file, peak, time;
  ChildReading last;
  for (int r = 0; r < children; ++r) {
    last = readInChild(path);
    if (!last.ok)
      die(std::string("the child reading ") + name + " failed" +
          (last.error[0] ? std::string(": MailReader::read threw ") + last.error : ""));
    start.push_back(last.atStartKiB / 1024.0);
    file.push_back(last.withFileKiB / 1024.0);
    peak.push_back(last.peakKiB / 1024.0);
    time.push_back(last.seconds);
  }
  unlink(path.c_str());
  const double goal = (4 * size + 10 * kMB) / kMiB;
  const double p = median(peak);
  const double alone = p - median(file);
  char line[512];
  std::snprintf(line, sizeof line,
                "  %-40s %6.2f MB %5.1f MiB %5.1f MiB %6.1f MiB %5.1f MiB %-7s %6.1f MiB %5.2f x "
                "%7.1f ms\n",
                name, size / kMB, median(start), median(file), p, goal,
                p <= goal ? "met" : "NOT met", alone, alone / (size / kMiB), median(time) * 1e3);
  report += line;
}

std::string memoryPart(int runs) {
  constexpr size_t kBytes = 10'000'000;
  std::string report;
  char line[512];
  std::snprintf(line, sizeof line,
                "2. peak resident memory (ru_maxrss) of reading a 10 MB message in a forked "
                "child; median of %d children each\n",
                runs);
  report += line;
  std::snprintf(line, sizeof line, "  %-40s %9s %9s %9s %10s %9s %-7s %10s %7s %10s\n", "",
                "size", "at fork", "+file", "peak", "goal", "", "reading", "/ size", "time");
  report += line;
  const struct {
    Shape shape;
    const char* name;
  } realistic[] = {
      {Shape::mixed, "reply: plain + HTML alternatives, a PDF"},
      {Shape::htmlOnly, "the thread as one HTML part (QP)"},
      {Shape::plainOnly, "the thread as one plain-text part"},
  };
  for (const auto& c : realistic)
    memoryRow(c.name, writeInChild([&] { return realisticMessage(c.shape, kBytes); }), runs,
              report);
  // The hostile shapes of part 3 at the same size, for comparison: fewer children, as their
  // peaks hardly move.
  report += "  the hostile messages of part 3 at 10 MB:\n";
  for (const Hostile& h : hostileCases())
    memoryRow(h.name, writeInChild([&] { return h.make(kBytes); }), std::min(runs, 3), report);
  report +=
      "  (at fork: the child as forked; +file: holding the message; peak: the whole child, "
      "against the goal of 4 x the message + 10 MB;\n"
      "   reading: the peak over +file, what MailReader::read itself took, and that over the "
      "message's size; time: of the reading, cold)\n";
  return report;
}

// ---- 3. linearity on hostile messages -----------------------------------------------------

void hostilePart(int runs) {
  std::vector<Hostile> cases = hostileCases();
  cases.push_back({"realistic reply (as in part 2)",
                   [](size_t n) { return realisticMessage(Shape::mixed, n); }});
  constexpr int kSizes = 3;
  const size_t sizes[kSizes] = {1u << 20, 4u << 20, 16u << 20};
  std::printf("3. hostile messages: median of %d rounds, each reading every size in turn\n", runs);
  std::printf("  %-40s %10s %10s %10s   %s\n", "", "1 MB", "4 MB", "16 MB",
              "time per MB against 1 MB (4, 16)");
  for (const Hostile& h : cases) {
    std::string messages[kSizes];
    // Readings per sample: a short reading is repeated up to about 50 ms, so that a pause of
    // the machine does not make the whole sample.
    int repeats[kSizes] = {1, 1, 1};
    double first[kSizes] = {0, 0, 0};
    int measured = 0;
    std::string skipped;
    size_t earlier = 0;
    for (int s = 0; s < kSizes; ++s) {
      // A reading that grew faster than its input would take hours at 16 MB: say so instead.
      if (s == 2 && first[1] * 4 * (first[1] / 4 / first[0]) > 300) {
        skipped = "16 MB left out: it would take over 5 minutes";
        break;
      }
      messages[s] = h.make(sizes[s]);
      // The first reading, untimed in the report, touches the pages the later ones reuse.
      lumora::MailReading reading;
      const std::string what = std::string(h.name) + " at " + std::to_string(sizes[s] >> 20) + " MB";
      first[s] = seconds([&] { reading = readOrDie(messages[s], what); });
      earlier = reading.earlierMessages;
      repeats[s] = static_cast<int>(std::clamp(0.05 / std::max(first[s], 1e-6), 1.0, 100.0));
      ++measured;
    }
    // Every size in each round, starting with the next each time, so that all see the same
    // moments of a shared machine. One slow sample is enough to see a slow case.
    std::vector<double> samples[kSizes];
    for (int r = 0; r < runs; ++r) {
      bool slow = false;
      for (int i = 0; i < measured; ++i) {
        const int s = (r + i) % measured;
        const double t = seconds([&] {
          for (int k = 0; k < repeats[s]; ++k) (void)lumora::MailReader::read(messages[s]);
        });
        samples[s].push_back(t / repeats[s]);
        slow = slow || t > 30;
      }
      if (slow) break;
    }
    double times[kSizes] = {0, 0, 0};
    double perMb[kSizes] = {0, 0, 0};
    for (int s = 0; s < measured; ++s) {
      times[s] = median(samples[s]);
      perMb[s] = times[s] / (static_cast<double>(messages[s].size()) / kMiB);
    }
    std::printf("  %-40s", h.name);
    for (const double t : times) {
      if (t > 0)
        std::printf(" %8.1fms", t * 1e3);
      else
        std::printf(" %10s", "-");
    }
    if (skipped.empty())
      std::printf("   %.2f, %.2f   (%zu earlier)\n", perMb[1] / perMb[0], perMb[2] / perMb[0],
                  earlier);
    else
      std::printf("   %.2f, %s\n", perMb[1] / perMb[0], skipped.c_str());
  }
}

[[noreturn]] void usage() {
  std::fprintf(stderr, "usage: bench_reading [--runs N] [--only corpus|memory|hostile]\n");
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 5;
  bool corpus = true, memory = true, hostile = true;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--runs" && i + 1 < argc) {
      runs = std::clamp(std::atoi(argv[++i]), 1, 1000);
    } else if (arg == "--only" && i + 1 < argc) {
      const std::string only = argv[++i];
      if (only != "corpus" && only != "memory" && only != "hostile") usage();
      corpus = only == "corpus";
      memory = only == "memory";
      hostile = only == "hostile";
    } else {
      usage();
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  // A reading that runs away fails here within seconds instead of taking the shared machine's
  // memory with it; no part needs more than about 1 GB.
  rlimit space{};
  if (getrlimit(RLIMIT_AS, &space) == 0 && space.rlim_cur > (4ull << 30)) {
    space.rlim_cur = 4ull << 30;
    setrlimit(RLIMIT_AS, &space);
  }

  // The memory children are forked first, while this process is small and its allocator as a
  // starting program's; their report is printed in its place.
  const std::string memoryReport = memory ? memoryPart(runs) : "";

  // From here the allocator keeps what the rounds free instead of handing it back to the
  // kernel, so that each round measures the reading and not the first touch of fresh pages
  // (see bench/README.md).
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_THRESHOLD, 1 << 30);

  if (corpus) corpusPart(runs);
  if (memory) std::fputs(memoryReport.c_str(), stdout);
  if (hostile) hostilePart(runs);
  return 0;
}
