// The whole-message reading end to end: forty messages of our own with the facts the reader must
// get right, the judgements other projects ship with their fixtures, the shared corpus read
// whole, the budget's cuts, and hostile shapes.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "lumora/mailcontent/MailReader.h"
#include "lumora/platform/Text.h"
#include "support/Fixtures.h"

namespace lumora {
namespace {

namespace fs = std::filesystem;

std::string collapsed(std::string_view s) {
  std::string out;
  bool blank = false;
  for (const char c : s) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      blank = true;
      continue;
    }
    if (blank && !out.empty()) out += ' ';
    blank = false;
    out += c;
  }
  return out;
}

bool contains(std::string_view haystack, std::string_view needle) {
  return collapsed(haystack).find(collapsed(needle)) != std::string::npos;
}

// What every reading holds to, whatever the input.
void expectWellFormed(const MailReading& r, size_t budget) {
  EXPECT_TRUE(text::isValidUtf8(r.text));
  EXPECT_TRUE(text::isValidUtf8(r.newText));
  EXPECT_TRUE(text::isValidUtf8(r.thread));
  EXPECT_EQ(r.characters, text::codePointCount(r.text));
  EXPECT_LE(r.characters, std::max(budget, MailReader::kLeastMaxCharacters));
}

fs::path messagesDir() { return fs::path(LUMORA_SOURCE_DIR) / "tests/mailcontent/reading/messages"; }

std::vector<std::string> messageNames() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(messagesDir()))
    if (entry.path().extension() == ".eml") names.push_back(entry.path().stem().string());
  std::sort(names.begin(), names.end());
  return names;
}

class OwnMessages : public ::testing::TestWithParam<std::string> {};

// Each message's .facts file: "key: value" lines (see the folder's README).
TEST_P(OwnMessages, TheReaderFindsWhatTheFactsSay) {
  const fs::path base = messagesDir() / GetParam();
  const std::string raw = testing::readFile(base.string() + ".eml");
  std::ifstream facts(base.string() + ".facts");
  ASSERT_TRUE(facts) << "no facts for " << GetParam();
  const MailReading r = MailReader::read(raw);
  expectWellFormed(r, MailReader::kDefaultMaxCharacters);
  EXPECT_FALSE(r.shortened);
  std::string line;
  size_t checked = 0;
  while (std::getline(facts, line)) {
    const size_t colon = line.find(": ");
    if (colon == std::string::npos) continue;
    const std::string key = line.substr(0, colon);
    const std::string value = line.substr(colon + 2);
    SCOPED_TRACE(line);
    ++checked;
    if (key == "sender") {
      EXPECT_TRUE(contains(r.text, "From: " + value)) << r.text;
      EXPECT_FALSE(r.draft);
    } else if (key == "to") {
      EXPECT_TRUE(contains(r.text, "To: " + value)) << r.text;
    } else if (key == "subject") {
      EXPECT_EQ(r.subject, value);
    } else if (key == "date") {
      EXPECT_EQ(r.date, value);
    } else if (key == "new") {
      EXPECT_TRUE(contains(r.newText, value)) << r.newText;
    } else if (key == "not-new") {
      EXPECT_FALSE(contains(r.newText, value)) << r.newText;
    } else if (key == "thread") {
      EXPECT_TRUE(contains(r.thread, value)) << r.thread;
    } else if (key == "absent") {
      EXPECT_FALSE(contains(r.text, value)) << r.text;
    } else if (key == "attachment") {
      const bool named = std::any_of(r.attachments.begin(), r.attachments.end(),
                                     [&](const MailAttachment& a) { return a.name == value; });
      EXPECT_TRUE(named);
      EXPECT_TRUE(contains(r.text, value));
    } else if (key == "no-thread") {
      EXPECT_EQ(r.thread, "");
      EXPECT_EQ(r.earlierMessages, 0u);
    } else if (key == "draft") {
      EXPECT_TRUE(r.draft);
    } else {
      --checked;  // a note
    }
  }
  EXPECT_GE(checked, 3u);
  // The new text comes before the earlier thread, each whole in the text.
  if (!r.newText.empty() && !r.thread.empty()) {
    const size_t newAt = r.text.find(r.newText);
    const size_t threadAt = r.text.find(r.thread);
    ASSERT_NE(newAt, std::string::npos);
    ASSERT_NE(threadAt, std::string::npos);
    EXPECT_LT(newAt, threadAt);
    EXPECT_GE(r.earlierMessages, 1u);
  }
}

INSTANTIATE_TEST_SUITE_P(Messages, OwnMessages, ::testing::ValuesIn(messageNames()),
                         [](const auto& info) {
                           std::string name = info.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

TEST(OwnMessagesSet, CoversEveryKindAsked) { EXPECT_GE(messageNames().size(), 30u); }

// An HTML fragment of the corpus as the body of a message.
std::string htmlMessage(const std::string& html) {
  return "Date: Mon, 1 Jan 2024 00:00:00 +0000\r\nContent-Type: text/html; charset=utf-8\r\n\r\n" +
         html;
}

// Mailspring ships each reply with the same HTML with the quoted part cut away: the reader's
// new text of the whole reply is the new text of what Mailspring kept.
TEST(MailReaderJudgedByOthers, MailspringsStrippedRepliesKeepTheSameNewText) {
  const fs::path dir = testing::mailCorpusDir() / "mailspring-html";
  size_t pairs = 0;
  size_t withThread = 0;
  for (int n = 1; n <= 40; ++n) {
    const fs::path whole = dir / ("email_" + std::to_string(n) + ".html");
    const fs::path stripped = dir / ("email_" + std::to_string(n) + "_stripped.html");
    if (!fs::exists(whole) || !fs::exists(stripped)) continue;
    SCOPED_TRACE(whole.filename().string());
    ++pairs;
    const MailReading full = MailReader::read(htmlMessage(testing::readFile(whole)));
    const MailReading cut = MailReader::read(htmlMessage(testing::readFile(stripped)));
    EXPECT_EQ(full.newText, cut.newText);
    if (!full.thread.empty()) ++withThread;
  }
  EXPECT_GE(pairs, 28u);
  EXPECT_GE(withThread, 20u);  // most of them do quote, so the split is what is judged
}

// Talon ships the reply text of two of its replies; its text keeps the signature, which the
// reader leaves out.
TEST(MailReaderJudgedByOthers, TalonsReplyTextsLessTheirSignature) {
  const fs::path dir = testing::mailCorpusDir() / "mailgun-talon/standard_replies";
  for (const std::string name : {"iphone", "sparrow"}) {
    SCOPED_TRACE(name);
    std::string expected = testing::readFile(dir / (name + "_reply_text"));
    if (const size_t sig = expected.find("\n-- \n"); sig != std::string::npos) expected.resize(sig);
    const MailReading r = MailReader::read(testing::readFile(dir / (name + ".eml")));
    EXPECT_EQ(collapsed(r.newText), collapsed(expected));
    EXPECT_FALSE(r.thread.empty());
  }
}

// Every message of the shared corpus, at the default budget and at a small one that cuts.
TEST(MailReaderCorpus, EveryMessageReadsToWellFormedTextWithinTheBudget) {
  const auto files = testing::mailCorpusFiles("message");
  ASSERT_GE(files.size(), 300u);
  size_t withNewText = 0;
  size_t withThread = 0;
  size_t cut = 0;
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    const std::string raw = testing::readFile(testing::mailCorpusDir() / file);
    const MailReading r = MailReader::read(raw);
    expectWellFormed(r, MailReader::kDefaultMaxCharacters);
    withNewText += !r.newText.empty();
    withThread += !r.thread.empty();
    const MailReading small = MailReader::read(raw, 1500);
    expectWellFormed(small, 1500);
    cut += small.shortened;
    if (small.shortened) {
      EXPECT_NE(small.text.find("left out]"), std::string::npos);
    }
  }
  // Nearly every message has text of its own; the lists' replies bring their threads.
  EXPECT_GE(withNewText, files.size() * 8 / 10);
  EXPECT_GE(withThread, 60u);
  EXPECT_GE(cut, 40u);
}

// ---- the budget ------------------------------------------------------------------------------

std::string replyWithThread(const std::string& newText, const std::string& thread) {
  return "From: Carla Mendes <carla@example.org>\r\nDate: Tue, 3 Nov 2026 09:12:44 +0100\r\n"
         "Subject: Offsite\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n" +
         newText + "\r\n\r\nOn Mon, 2 Nov 2026, Sam Lee <sam@example.org> wrote:\r\n" + thread;
}

std::string quotedLines(const std::string& word, int lines) {
  std::string out;
  for (int i = 0; i < lines; ++i) out += "> " + word + " " + std::to_string(i) + "\r\n";
  return out;
}

TEST(MailReaderBudget, TheOldestPartOfTheThreadGoesFirstThenTheEndOfTheNewText) {
  const std::string newText = "Could you send the agenda by Friday? Ünïcödé ✓ " + std::string(1500, 'x');
  const std::string raw = replyWithThread(newText, quotedLines("earlier säge", 400));
  const MailReading whole = MailReader::read(raw, 100'000);
  ASSERT_FALSE(whole.shortened);
  const size_t full = whole.characters;

  struct Case {
    size_t budget;
    bool threadCut;
    bool threadGone;
    bool newCut;
  };
  const Case cases[] = {
      {full, false, false, false},
      {full - 1, true, false, false},
      {full / 2, true, false, false},
      {1'000, false, true, true},  // no room for the thread at all: the new text is cut too
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.budget);
    const MailReading r = MailReader::read(raw, c.budget);
    expectWellFormed(r, c.budget);
    EXPECT_EQ(r.shortened, c.budget < full);
    if (c.budget == full) {
      EXPECT_EQ(r.text, whole.text);
    }
    EXPECT_EQ(r.text.find("characters of older messages left out]") != std::string::npos,
              c.threadCut);
    EXPECT_EQ(r.text.find("the earlier messages,") != std::string::npos, c.threadGone);
    EXPECT_EQ(r.text.find("the rest of this message,") != std::string::npos, c.newCut);
    // The header lines and the start of the new text always stand.
    EXPECT_TRUE(r.text.starts_with("From: Carla Mendes <carla@example.org>\n"));
    EXPECT_NE(r.text.find("Could you send the agenda"), std::string::npos);
    // What is kept of the thread is its start: the newest message.
    if (c.threadCut) {
      EXPECT_NE(r.text.find("> earlier säge 0\n"), std::string::npos);
      EXPECT_EQ(r.text.find("> earlier säge 399"), std::string::npos);
    }
  }
}

// An invitation whose only text is its calendar: read as its summary, with a character that a
// fold of the line splits in two read whole.
TEST(MailReaderCalendar, AnInvitationAloneIsReadAsItsSummary) {
  const MailReading r = MailReader::read(
      "From: Carla <carla@example.org>\r\nDate: Tue, 3 Nov 2026 09:12:44 +0100\r\n"
      "Content-Type: text/calendar; method=REQUEST; charset=utf-8\r\n\r\n"
      "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nSUMMARY:Caf\xC3\r\n \xA9 au lait\r\n"
      "DTSTART:20261112T140000Z\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  EXPECT_EQ(r.newText, "Calendar invitation: Café au lait\nWhen: 2026-11-12 14:00 UTC");
  EXPECT_TRUE(r.attachments.empty());
}

TEST(MailReaderBudget, ABudgetBelowTheLeastIsRaisedToIt) {
  const std::string raw = replyWithThread(std::string(3000, 'y'), quotedLines("z", 100));
  const MailReading r = MailReader::read(raw, 10);
  expectWellFormed(r, 10);
  EXPECT_EQ(r.characters, MailReader::kLeastMaxCharacters);
}

// ---- hostile shapes: each finishes with well-formed text (their speed is a benchmark's) ----

TEST(MailReaderHostile, DeepAndWideShapesAreReadWithoutRecursionOrFailure) {
  struct Case {
    std::string name;
    std::string raw;
  };
  std::vector<Case> cases;
  {
    // Multiparts nested far past the reader's limit of 64.
    std::string raw = "Date: x\r\n";
    const int depth = 20'000;
    for (int i = 0; i < depth; ++i)
      raw += "Content-Type: multipart/mixed; boundary=b" + std::to_string(i) + "\r\n\r\n--b" +
             std::to_string(i) + "\r\n";
    raw += "Content-Type: text/plain\r\n\r\ninnermost\r\n";
    cases.push_back({"nested multiparts", std::move(raw)});
  }
  {
    // A hundred thousand sibling parts, half text, half attachments.
    std::string raw = "Date: x\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n";
    for (int i = 0; i < 100'000; ++i)
      raw += i % 2 ? "--b\r\nContent-Type: image/png; name=p.png\r\n\r\nxx\r\n"
                   : "--b\r\nContent-Type: text/plain\r\n\r\nline\r\n";
    raw += "--b--\r\n";
    cases.push_back({"many parts", std::move(raw)});
  }
  {
    // Attached messages inside attached messages.
    std::string raw = "Date: x\r\n";
    for (int i = 0; i < 10'000; ++i) raw += "Content-Type: message/rfc822\r\n\r\nSubject: s\r\n";
    raw += "\r\nbottom\r\n";
    cases.push_back({"nested messages", std::move(raw)});
  }
  {
    std::string html;
    for (int i = 0; i < 100'000; ++i) html += "<blockquote>a";
    cases.push_back({"deep HTML", htmlMessage(html)});
  }
  cases.push_back({"deep quoting",
                   "Date: x\r\n\r\nnew\r\n" + std::string(300'000, '>') + " old\r\n" +
                       std::string(300'000, '>') + " older\r\n"});
  cases.push_back({"encoded words without end",
                   "Date: x\r\nSubject: " + [] {
                     std::string s;
                     for (int i = 0; i < 50'000; ++i) s += "=?utf-8?q?a";
                     return s;
                   }() + "\r\n\r\nbody\r\n"});
  cases.push_back({"header without end", "From: a@b\r\nX: " + std::string(500'000, 'h')});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const MailReading r = MailReader::read(c.raw);
    expectWellFormed(r, MailReader::kDefaultMaxCharacters);
  }
}

TEST(MailReaderHostile, DeepQuotingShowsABoundedRunOfMarks) {
  const MailReading r =
      MailReader::read("Date: x\r\n\r\nnew text\r\n\r\nOn Mon, Sam wrote:\r\n" +
                       std::string(100'000, '>') + " old\r\n");
  EXPECT_EQ(r.newText, "new text");
  EXPECT_EQ(r.thread, "On Mon, Sam wrote:\n> > > > > > > > old");
}

}  // namespace
}  // namespace lumora
