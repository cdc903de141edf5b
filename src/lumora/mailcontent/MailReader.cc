#include "lumora/mailcontent/MailReader.h"

#include <algorithm>
#include <array>

#include "lumora/mailcontent/html/Document.h"
#include "lumora/mailcontent/reading/BodyText.h"
#include "lumora/mailcontent/reading/Calendar.h"
#include "lumora/mailcontent/reading/HeaderText.h"
#include "lumora/mailcontent/reading/HtmlLines.h"
#include "lumora/mailcontent/reading/MessageTree.h"
#include "lumora/mailcontent/reading/ThreadSplit.h"
#include "lumora/platform/Text.h"

namespace lumora {
namespace {

using reading::Entity;
using reading::MessageTree;
using reading::TextLines;

// The lines that mark the parts of the text, for the model.
constexpr std::string_view kThreadHeading = "----- Earlier messages in the thread -----";
constexpr std::string_view kAnsweredHeading = "----- The message being answered -----";
constexpr std::string_view kDraftIntro = "The reply written so far:";
constexpr std::string_view kAttachmentsIntro = "Attachments (named only): ";

// Header values are shown, never the place for a whole text.
constexpr size_t kLongestName = 200;
constexpr size_t kLongestSubject = 400;
constexpr size_t kLongestDate = 100;
constexpr size_t kMostAttachmentsNamed = 20;

size_t codePoints(std::string_view s) { return text::codePointCount(s); }

// The byte length of the first `count` code points of `s` (all of it if it has fewer).
size_t prefixBytes(std::string_view s, size_t count) {
  size_t i = 0;
  size_t seen = 0;
  for (; i < s.size(); ++i) {
    if ((static_cast<unsigned char>(s[i]) & 0xC0) != 0x80) {
      if (seen == count) return i;
      ++seen;
    }
  }
  return s.size();
}

// At most `count` code points of `s`, cut at a line end when one is near.
std::string_view cutText(std::string_view s, size_t count) {
  const size_t bytes = prefixBytes(s, count);
  if (bytes >= s.size()) return s;
  const size_t lineEnd = s.rfind('\n', bytes);
  if (lineEnd != std::string_view::npos && lineEnd >= bytes - bytes / 5) return s.substr(0, lineEnd);
  return s.substr(0, bytes);
}

std::string grouped(size_t n) { return text::groupedCount(n); }

// A header value for one line: control characters gone, blanks made one, at most `longest`
// code points.
std::string oneLine(std::string_view value, size_t longest) {
  std::string out;
  bool blank = false;
  for (const char c : value) {
    const auto b = static_cast<unsigned char>(c);
    if (b < 0x20 || b == 0x7F) {
      blank = true;
      continue;
    }
    if (c == ' ') {
      blank = true;
      continue;
    }
    if (blank && !out.empty()) out += ' ';
    blank = false;
    out += c;
  }
  if (codePoints(out) > longest) out = std::string(out.substr(0, prefixBytes(out, longest))) + "…";
  return out;
}

// The multiparts whose parts are read otherwise than in turn.
enum class Multipart : uint8_t { alternative, related, signedPart, other };

Multipart multipartOf(std::string_view type) {
  if (type == "multipart/alternative") return Multipart::alternative;
  if (type == "multipart/related") return Multipart::related;
  if (type == "multipart/signed") return Multipart::signedPart;
  return Multipart::other;
}

// What a leaf is to the reader.
enum class Role : uint8_t {
  attachment,  // named, never read
  calendar,    // an invitation: read as its summary when nothing better is there
  html,
  prose,  // plain text
};

struct PartInfo {
  std::string type;  // lower case; text/plain when the part says nothing
  reading::StructuredValue contentType;
  std::string disposition;
  std::string fileName;
  reading::TransferEncoding encoding = reading::TransferEncoding::identity;
};

PartInfo describe(const MessageTree& tree, const Entity& entity) {
  PartInfo info;
  const reading::HeaderLookup fields(tree.header(entity),
                                     {"Content-Type", "Content-Disposition",
                                      "Content-Transfer-Encoding"});
  if (const auto* field = fields.find("Content-Type")) {
    info.contentType =
        reading::parseStructuredValue(field->body, {"charset", "name", "format", "delsp"});
    info.type = info.contentType.value;
  }
  if (info.type.empty() || info.type.find('/') == std::string::npos) info.type = "text/plain";
  if (const auto* field = fields.find("Content-Disposition")) {
    reading::StructuredValue disposition =
        reading::parseStructuredValue(field->body, {"filename"});
    info.disposition = disposition.value;
    info.fileName = disposition.parameter("filename").value_or("");
  }
  if (info.fileName.empty()) info.fileName = info.contentType.parameter("name").value_or("");
  if (const auto* field = fields.find("Content-Transfer-Encoding"))
    info.encoding = reading::transferEncodingOf(reading::unfolded(field->body));
  return info;
}

Role roleOf(const PartInfo& info) {
  const std::string& t = info.type;
  if (info.disposition == "attachment") return Role::attachment;
  const bool named = !info.fileName.empty() && info.disposition != "inline";
  static constexpr std::array<std::string_view, 10> kProse{
      "text/plain",           "text/enriched",   "text/richtext",
      "text/markdown",        "text/x-markdown", "text/x-patch",
      "text/x-diff",          "text/rfc822-headers", "message/delivery-status",
      "message/disposition-notification"};
  if (std::find(kProse.begin(), kProse.end(), t) != kProse.end())
    return named ? Role::attachment : Role::prose;
  if (t == "text/html") return named ? Role::attachment : Role::html;
  if (t == "text/calendar" || t == "application/ics")
    return named ? Role::attachment : Role::calendar;
  // A multipart left a leaf has no boundary to split it by: its body is all there is to read.
  if (t.starts_with("multipart/")) return Role::prose;
  return Role::attachment;
}

// How good a text a part can give: prose before HTML before an invitation, 0 for none.
uint8_t rank(Role role) {
  switch (role) {
    case Role::prose: return 3;
    case Role::html: return 2;
    case Role::calendar: return 1;
    case Role::attachment: return 0;
  }
  return 0;
}

class Reader {
 public:
  explicit Reader(std::string_view raw) : tree_(raw) {}

  void run(bool draft, MailReading& out) {
    const std::deque<Entity>& entities = tree_.entities();
    classify();
    readHeader(entities[0], draft, out);
    // Parts in document order.
    std::vector<Visit> stack{{0, false, false}};
    while (!stack.empty()) {
      const Visit visit = stack.back();
      stack.pop_back();
      if (visit.siblings) {
        pushNextPart(visit, stack);
        continue;
      }
      const Entity& e = entities[visit.id];
      switch (e.kind) {
        case Entity::Kind::leaf:
          if (!visit.namesOnly || roles_[visit.id] == Role::attachment) leaf(visit, out);
          break;
        case Entity::Kind::message:
          if (e.firstChild != reading::kNoEntity && !visit.namesOnly) {
            attachedMessage(entities[e.firstChild]);
            stack.push_back({e.firstChild, true, false});
          }
          break;
        case Entity::Kind::multipart:
          pushParts(visit, stack);
          break;
      }
    }
  }

  TextLines& body() { return body_; }
  TextLines& attachedThread() { return attached_; }
  size_t attachedMessages() const { return attachedMessages_; }

 private:
  // Roles of the leaves, and the rank of the best text below each part, children first.
  void classify() {
    const std::deque<Entity>& entities = tree_.entities();
    roles_.assign(entities.size(), Role::attachment);
    ranks_.assign(entities.size(), 0);
    kinds_.assign(entities.size(), Multipart::other);
    for (size_t i = entities.size(); i-- > 0;) {
      const Entity& e = entities[i];
      if (e.kind == Entity::Kind::leaf) {
        roles_[i] = roleOf(describe(tree_, e));
        ranks_[i] = rank(roles_[i]);
        continue;
      }
      if (e.kind == Entity::Kind::message) continue;  // the thread, never the new text
      kinds_[i] = multipartOf(describe(tree_, e).type);
      uint8_t best = 0;
      for (uint32_t c = e.firstChild; c != reading::kNoEntity; c = entities[c].nextSibling) {
        best = std::max(best, ranks_[c]);
        if (kinds_[i] == Multipart::related || kinds_[i] == Multipart::signedPart) break;
      }
      ranks_[i] = best;
    }
  }

  // One part to read: whether it belongs to the thread, and whether only its attachments are
  // named (an alternative not read, whose images are still the message's). With `siblings`, the
  // part and those after it among its parent's parts, `inThread` and `namesOnly` being the
  // parent's and `best` the part an alternative reads: a multipart's parts are taken one at a
  // time, so a million of them never stand on the stack at once.
  struct Visit {
    uint32_t id;
    bool inThread;
    bool namesOnly;
    bool siblings = false;
    uint32_t best = reading::kNoEntity;
  };

  // The parts of a multipart to visit, in their order.
  void pushParts(const Visit& visit, std::vector<Visit>& stack) {
    const std::deque<Entity>& entities = tree_.entities();
    const uint32_t first = entities[visit.id].firstChild;
    if (first == reading::kNoEntity) return;
    uint32_t best = first;
    if (kinds_[visit.id] == Multipart::alternative) {
      // The best text; of equals the first, which is the plainest by the sender's order.
      for (uint32_t c = first; c != reading::kNoEntity; c = entities[c].nextSibling)
        if (ranks_[c] > ranks_[best]) best = c;
    }
    stack.push_back({first, visit.inThread, visit.namesOnly, true, best});
  }

  // The next part of a multipart, with the rest of them behind it on the stack.
  void pushNextPart(const Visit& rest, std::vector<Visit>& stack) {
    const std::deque<Entity>& entities = tree_.entities();
    const uint32_t c = rest.id;
    const uint32_t parent = entities[c].parent;
    if (entities[c].nextSibling != reading::kNoEntity) {
      Visit next = rest;
      next.id = entities[c].nextSibling;
      stack.push_back(next);
    }
    const Multipart kind = kinds_[parent];
    bool namesOnly = rest.namesOnly;
    if (kind == Multipart::alternative) {
      namesOnly = namesOnly || c != rest.best;
    } else {
      // Beside the first part of a multipart/related stand what it shows (the images of an
      // HTML body), and beside the first of a multipart/signed its signature: named, as every
      // part that is not text is, but never read as text.
      namesOnly = namesOnly || (c != entities[parent].firstChild &&
                                (kind == Multipart::related || kind == Multipart::signedPart));
    }
    stack.push_back({c, rest.inThread, namesOnly});
  }

  void readHeader(const Entity& root, bool draft, MailReading& out) {
    const reading::HeaderLookup fields(
        tree_.header(root), {"Date", "Message-ID", "Received", "From", "Sender", "To", "Subject"});
    const auto value = [&](std::string_view name) -> std::optional<std::string_view> {
      if (const auto* field = fields.find(name)) return field->body;
      return std::nullopt;
    };
    // A sent message carries a Date (RFC 5322 asks for one) and a Message-ID, and a received one
    // Received fields: a header block with none of them is a draft being written.
    out.draft = draft || (!value("Date") && !value("Message-ID") && !value("Received"));
    const std::optional<std::string_view> from = value("From") ? value("From") : value("Sender");
    if (!out.draft && from) {
      const reading::Mailbox mailbox = reading::firstMailbox(*from);
      out.senderName = oneLine(mailbox.name, kLongestName);
      out.senderAddress = oneLine(mailbox.address, kLongestName);
    }
    if (out.draft) {
      if (auto to = value("To")) {
        const reading::Mailbox mailbox = reading::firstMailbox(*to);
        out.recipient = oneLine(mailboxText(mailbox), kLongestName * 2);
      }
    }
    if (auto subject = value("Subject"))
      out.subject = oneLine(reading::decodedWords(reading::unfolded(*subject)), kLongestSubject);
    if (auto date = value("Date"))
      out.date = oneLine(reading::headerBytesAsText(reading::unfolded(*date)), kLongestDate);
  }

  // An attached message's own header lines, at the head of its part of the thread.
  void attachedMessage(const Entity& message) {
    ++attachedMessages_;
    const reading::HeaderLookup fields(tree_.header(message), {"From", "Date", "Subject"});
    if (!attached_.empty()) attached_.add("", 0);
    const auto line = [&](std::string_view label, std::string_view value) {
      if (value.empty()) return;
      std::string text(label);
      text += value;
      attached_.add(text, 0);
    };
    if (const auto* from = fields.find("From"))
      line("From: ", oneLine(mailboxText(reading::firstMailbox(from->body)), kLongestName * 2));
    if (const auto* date = fields.find("Date"))
      line("Date: ", oneLine(reading::headerBytesAsText(reading::unfolded(date->body)), kLongestDate));
    if (const auto* subject = fields.find("Subject"))
      line("Subject: ", oneLine(reading::decodedWords(reading::unfolded(subject->body)),
                                kLongestSubject));
    attached_.add("", 0);
  }

  void leaf(const Visit& visit, MailReading& out) {
    const Entity& e = tree_.entities()[visit.id];
    const Role role = roles_[visit.id];
    const PartInfo info = describe(tree_, e);
    if (role == Role::attachment) {
      out.attachments.push_back({oneLine(info.fileName, kLongestName), info.type});
      return;
    }
    TextLines& lines = visit.inThread ? attached_ : body_;
    if (!lines.empty()) lines.add("", 0);
    // The text is read where it stands in the message when it needs no decoding: a large body
    // is then held once, not three times.
    std::string owned;
    std::string_view text = tree_.body(e);
    // Quoted-printable text without an "=" is its own decoding, and is read where it stands too.
    const bool decodesToItself = info.encoding == reading::TransferEncoding::quotedPrintable &&
                                 text.find('=') == std::string_view::npos;
    if (info.encoding != reading::TransferEncoding::identity && !decodesToItself) {
      owned = reading::transferDecoded(text, info.encoding);
      text = owned;
    }
    const std::string charset = info.contentType.parameter("charset").value_or("");
    if (role == Role::calendar) {
      // An invitation's lines are unfolded before its characters are decoded: a fold may fall
      // inside a character, which iCalendar allows.
      const std::string summary = reading::calendarSummary(text);
      const std::optional<std::string> converted = reading::convertedText(summary, charset);
      reading::addPlainLines(converted ? *converted : summary, false, false, lines);
      return;
    }
    if (auto converted = reading::convertedText(text, charset)) {
      owned = std::move(*converted);
      text = owned;
    }
    switch (role) {
      case Role::prose: {
        const bool flowed =
            text::equalsIgnoringCase(info.contentType.parameter("format").value_or(""), "flowed");
        const bool delSp =
            text::equalsIgnoringCase(info.contentType.parameter("delsp").value_or(""), "yes");
        reading::addPlainLines(text, flowed, delSp, lines);
        break;
      }
      case Role::html: {
        constexpr auto kept = html::Document::Attributes::classAndId;
        const auto document = owned.empty() ? html::Document::parseUnowned(text, kept)
                                            : html::Document::parse(std::move(owned), kept);
        reading::addHtmlLines(*document, lines);
        break;
      }
      case Role::calendar:  // read above
      case Role::attachment:
        break;
    }
  }

  static std::string mailboxText(const reading::Mailbox& mailbox) {
    if (mailbox.name.empty()) return mailbox.address;
    if (mailbox.address.empty()) return mailbox.name;
    return mailbox.name + " <" + mailbox.address + ">";
  }

  MessageTree tree_;
  std::vector<Role> roles_;
  std::vector<uint8_t> ranks_;
  std::vector<Multipart> kinds_;  // the kind of each multipart
  TextLines body_;
  TextLines attached_;
  size_t attachedMessages_ = 0;
};

std::string attachmentsLine(const std::vector<MailAttachment>& attachments) {
  if (attachments.empty()) return {};
  std::string line(kAttachmentsIntro);
  const size_t named = std::min(attachments.size(), kMostAttachmentsNamed);
  for (size_t i = 0; i < named; ++i) {
    if (i > 0) line += ", ";
    const MailAttachment& a = attachments[i];
    line += a.name.empty() ? "unnamed" : a.name;
    line += " (" + a.type + ")";
  }
  if (attachments.size() > named) line += ", and " + grouped(attachments.size() - named) + " more";
  return line;
}

// The pieces of the text, joined with an empty line between those present.
std::string joined(std::initializer_list<std::string_view> pieces) {
  std::string out;
  for (const std::string_view piece : pieces) {
    if (piece.empty()) continue;
    if (!out.empty()) out += "\n\n";
    out += piece;
  }
  return out;
}

// The text's pieces, and how long a text they make, counted without making it: a long thread is
// counted once and copied once, however the budget cuts it.
class Layout {
 public:
  explicit Layout(const MailReading& r)
      : attachments_(attachmentsLine(r.attachments)),
        intro_(r.draft && !r.newText.empty() ? kDraftIntro : ""),
        heading_(r.draft ? kAnsweredHeading : kThreadHeading) {
    std::string sender = r.senderName;
    if (!r.senderAddress.empty())
      sender = sender.empty() ? r.senderAddress : sender + " <" + r.senderAddress + ">";
    line("From: ", sender);
    line("To: ", r.recipient);
    line("Date: ", r.date);
    line("Subject: ", r.subject);
  }

  // The code points of the text with a new text and a thread of these many code points.
  size_t length(size_t newText, size_t thread) const {
    size_t total = 0;
    size_t pieces = 0;
    const auto piece = [&](bool present, size_t length) {
      if (!present) return;
      total += length;
      ++pieces;
    };
    piece(!head_.empty(), codePoints(head_));
    piece(!intro_.empty() || newText > 0,
          intro_.empty() ? newText : codePoints(intro_) + 1 + newText);
    piece(!attachments_.empty(), codePoints(attachments_));
    piece(thread > 0, codePoints(heading_) + 1 + thread);
    return total + (pieces > 0 ? 2 * (pieces - 1) : 0);
  }

  std::string build(std::string_view newText, std::string_view thread) const {
    std::string body;
    if (!intro_.empty()) body.append(intro_).append("\n");
    body.append(newText);
    std::string threadPart;
    if (!thread.empty()) threadPart.append(heading_).append("\n").append(thread);
    return joined({head_, body, attachments_, threadPart});
  }

 private:
  void line(std::string_view label, const std::string& value) {
    if (value.empty()) return;
    if (!head_.empty()) head_ += '\n';
    head_.append(label).append(value);
  }

  std::string head_;
  std::string attachments_;
  std::string_view intro_;
  std::string_view heading_;
};

std::string olderLeftOut(size_t characters) {
  return "[… " + grouped(characters) + " characters of older messages left out]";
}
std::string threadLeftOut(size_t characters) {
  return "[… the earlier messages, " + grouped(characters) + " characters, left out]";
}
std::string restLeftOut(size_t characters) {
  return "[… the rest of this message, " + grouped(characters) + " characters, left out]";
}

// `kept` of a text, with its note of what was left out on a line of its own.
std::string withNote(std::string_view kept, const std::string& note) {
  std::string out(kept);
  if (!out.empty()) out += '\n';
  out += note;
  return out;
}

void compose(MailReading& r, size_t budget) {
  const Layout layout(r);
  const size_t newCharacters = codePoints(r.newText);
  const size_t threadCharacters = codePoints(r.thread);
  if (layout.length(newCharacters, threadCharacters) <= budget) {
    r.text = layout.build(r.newText, r.thread);
    r.characters = codePoints(r.text);
    return;
  }
  r.shortened = true;
  std::string text;
  // The oldest messages stand last in the thread: it is cut from its end, its note counted at
  // its longest.
  const size_t fixed = layout.length(newCharacters, 0);
  const size_t overhead = layout.length(newCharacters, codePoints(olderLeftOut(threadCharacters)) + 1) - fixed;
  if (threadCharacters > 0 && fixed + overhead < budget) {
    const std::string_view kept = cutText(r.thread, budget - fixed - overhead);
    text = layout.build(r.newText,
                        withNote(kept, olderLeftOut(threadCharacters - codePoints(kept))));
  } else {
    // No room for any of the thread: then the new text is cut, the thread only noted.
    const std::string threadNote = threadCharacters > 0 ? threadLeftOut(threadCharacters) : "";
    const size_t without = layout.length(0, codePoints(threadNote));
    const size_t note = codePoints(restLeftOut(newCharacters)) + 1;
    const size_t room = budget > without + note + 2 ? budget - without - note - 2 : 0;
    const std::string_view kept = cutText(r.newText, room);
    text = kept.size() < r.newText.size()
               ? layout.build(withNote(kept, restLeftOut(newCharacters - codePoints(kept))),
                              threadNote)
               : layout.build(r.newText, threadNote);
  }
  // The header lines and the names alone never pass the least budget; should they, the text is
  // cut where the budget ends.
  if (codePoints(text) > budget) text.resize(prefixBytes(text, budget));
  r.text = std::move(text);
  r.characters = codePoints(r.text);
}

}  // namespace

MailReading MailReader::read(std::string_view raw, size_t maxCharacters, bool draft) {
  MailReading result;
  TextLines body;
  TextLines attached;
  size_t attachedMessages = 0;
  if (reading::hasHeaderBlock(raw)) {
    Reader reader(raw);
    reader.run(draft, result);
    body = std::move(reader.body());
    attached = std::move(reader.attachedThread());
    attachedMessages = reader.attachedMessages();
  } else {
    result.draft = true;
    const std::optional<std::string> converted = reading::convertedText(raw, "");
    reading::addPlainLines(converted ? std::string_view(*converted) : raw, false, false, body);
  }
  reading::SplitText split = reading::splitThread(body);
  body = TextLines();  // the lines are split: their memory goes before the text is made
  result.newText = std::move(split.newText);
  result.thread = std::move(split.thread);
  result.earlierMessages = split.earlierMessages + attachedMessages;
  if (!attached.empty()) {
    const std::string more = reading::renderLines(attached, 0, attached.size());
    if (!more.empty()) result.thread = joined({result.thread, more});
  }
  compose(result, std::max(maxCharacters, kLeastMaxCharacters));
  return result;
}

}  // namespace lumora
