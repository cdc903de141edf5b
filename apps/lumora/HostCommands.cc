// The mail host's rules as commands a mail client calls: `check-recipients`, `headers`,
// `colour`, and `sendmail`, a drop-in wrapper around the real sendmail.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "Support.h"
#include "lumora/mailcontent/mime/MimeHeader.h"
#include "lumora/panel/SessionHandlers.h"
#include "lumora/platform/Subprocess.h"
#include "lumora/platform/Text.h"

namespace lumora::cli {
namespace {

// sendmail's exit statuses (sysexits.h), which mail clients understand.
constexpr int kExitDataError = 65;    // the message may not be sent
constexpr int kExitUnavailable = 69;  // the real sendmail could not be run
constexpr int kExitIoError = 74;      // the real sendmail did not take the whole message

const char* colourName(MessageColor colour) { return colour == MessageColor::red ? "red" : ""; }

// The extra header lines, each ended with `eol`.
std::string extraHeaderLines(std::string_view eol) {
  std::string lines;
  for (const auto& [name, values] : ComposeSessionHandler().additionalHeaders(
           SimpleComposeSession())) {
    for (const std::string& value : values) lines += name + ": " + value + std::string(eol);
  }
  return lines;
}

// Where a message's header block ends: the offset of its first empty line (npos when it has
// none), and the line ending its first line uses.
struct HeaderBlock {
  size_t end = std::string::npos;
  std::string_view eol = "\n";
};

HeaderBlock headerBlock(std::string_view message) {
  HeaderBlock block;
  for (size_t pos = 0; pos < message.size();) {
    const size_t newline = message.find('\n', pos);
    if (newline == std::string_view::npos) break;
    const bool crlf = newline > pos && message[newline - 1] == '\r';
    if (pos == 0 && crlf) block.eol = "\r\n";
    if (newline - pos == (crlf ? 1u : 0u)) {
      block.end = pos;
      break;
    }
    pos = newline + 1;
  }
  return block;
}

// `message` with the extra header at the end of its header block, in the line ending the
// block uses. Nothing else changes.
std::string withExtraHeader(const std::string& message) {
  const HeaderBlock block = headerBlock(message);
  if (block.end != std::string::npos)
    return message.substr(0, block.end) + extraHeaderLines(block.eol) + message.substr(block.end);
  // Headers only: the header goes at the end.
  std::string out = message;
  if (!out.empty() && out.back() != '\n') out += block.eol;
  return out + extraHeaderLines(block.eol);
}

// The addresses of an address list as written, split at commas outside quotes and brackets.
void splitAddresses(std::string_view list, std::vector<std::string>& out) {
  bool quoted = false;
  int angle = 0;
  size_t start = 0;
  for (size_t i = 0; i <= list.size(); ++i) {
    const char c = i < list.size() ? list[i] : ',';
    if (c == '"' && (i == 0 || list[i - 1] != '\\')) quoted = !quoted;
    if (!quoted && c == '<') ++angle;
    if (!quoted && c == '>' && angle > 0) --angle;
    if (c == ',' && !quoted && angle == 0) {
      const std::string_view address = text::trimmed(list.substr(start, i - start));
      if (!address.empty()) out.emplace_back(address);
      start = i + 1;
    }
  }
}

// sendmail's options that take their value as the next argument.
bool takesValue(std::string_view option) {
  static constexpr std::string_view kWithValue[] = {"-f", "-F", "-r", "-N", "-R", "-V",
                                                    "-B", "-C", "-L", "-O", "-X", "-h"};
  for (std::string_view o : kWithValue)
    if (option == o) return true;
  return false;
}

// The recipients of a sendmail call: its address arguments, and with -t the message's To,
// Cc and Bcc.
std::vector<std::string> recipients(const Args& args, const std::string& message) {
  std::vector<std::string> out;
  bool fromHeaders = false;
  bool options = true;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (options && a == "--") {
      options = false;
    } else if (options && a.size() > 1 && a[0] == '-') {
      if (a == "-t") fromHeaders = true;
      if (takesValue(a)) ++i;
    } else {
      splitAddresses(a, out);
    }
  }
  if (fromHeaders) {
    const std::string_view header =
        std::string_view(message).substr(0, headerBlock(message).end);
    for (const RFC822HeaderField& field : headerFields(header)) {
      const std::string_view name = text::trimmed(field.name);
      for (const char* wanted : {"To", "Cc", "Bcc"})
        if (text::equalsIgnoringCase(name, wanted)) splitAddresses(field.body, out);
    }
  }
  return out;
}

}  // namespace

const Command& checkRecipientsDeclaration() {
  static const Command command{
      .name = "check-recipients",
      .summary = "mark recipients that mail may not go to",
      .usage = "lumora check-recipients ADDRESS...\n",
      .help = {{.text = R"(
Prints "ADDRESS: TEXT" for each address that the recipient rule marks. When sending to
these addresses would be refused, writes the refusal to standard error and exits 1.
)"}},
      .rules = operandsOnly(
          {.name = "ADDRESS", .least = 1, .tooFew = "check-recipients needs at least one ADDRESS"},
          HelpAt::alone),
      .run = checkRecipientsCommand,
  };
  return command;
}

const Command& headersDeclaration() {
  static const Command command{
      .name = "headers",
      .summary = "print the extra header of outgoing mail",
      .usage = "lumora headers\n",
      .help = {{.text = "Prints the extra header(s) of outgoing mail, as \"Name: value\".\n"}},
      .rules = operandsOnly({.most = 0, .tooMany = "headers takes no arguments"}, HelpAt::alone),
      .run = headersCommand,
  };
  return command;
}

const Command& colourDeclaration() {
  static const Command command{
      .name = "colour",
      .summary = "print the colour of a message by its subject",
      .usage = "lumora colour SUBJECT\n",
      .help = {{.text = R"(
Prints the colour of a message with SUBJECT, or nothing and exits 1 when it has none.
)"}},
      .rules = operandsOnly(exactlyOne("SUBJECT", "colour takes one SUBJECT"), HelpAt::alone),
      .run = colourCommand,
  };
  return command;
}

const Command& sendmailDeclaration() {
  static const Command command{
      .name = "sendmail",
      .summary = "send a message through the real sendmail, with the rules applied",
      .usage = "lumora sendmail [ARGS...]\n",
      .help = {{.text = R"(
A drop-in sendmail for the mail client: reads the message on standard input, applies the
recipient rule, adds the extra header and hands the message with the same ARGS to the
real sendmail (LUMORA_SENDMAIL, default /usr/sbin/sendmail).
Exit status: the real sendmail's, 65 when the recipient rule refuses the message (the
refusal on standard error, nothing sent), 69 when the real sendmail cannot be run.
)"}},
      // Only --help alone: every other argument is the real sendmail's (-h among them), and a
      // mail client never calls sendmail with this one.
      .rules = {.help = HelpAt::alone, .shortHelp = false, .optionWords = OptionWords::none},
      .run = sendmailCommand,
  };
  return command;
}

int checkRecipientsCommand(const Args& args) {
  Parsed parsed;
  if (const auto end = readArguments(args, checkRecipientsDeclaration(), parsed)) return *end;
  for (const std::string& address : args) {
    const auto annotations = ComposeSessionHandler::annotations({address});
    if (auto it = annotations.find(address); it != annotations.end())
      std::printf("%s: %s\n", address.c_str(), it->second.c_str());
  }
  if (auto refusal = ComposeSessionHandler::refusal(args)) {
    std::fprintf(stderr, "%s\n", refusal->what());
    return kExitFailed;
  }
  return kExitOk;
}

int headersCommand(const Args& args) {
  Parsed parsed;
  if (const auto end = readArguments(args, headersDeclaration(), parsed)) return *end;
  std::fputs(extraHeaderLines("\n").c_str(), stdout);
  return kExitOk;
}

int colourCommand(const Args& args) {
  Parsed parsed;
  if (const auto end = readArguments(args, colourDeclaration(), parsed)) return *end;
  std::optional<MessageActionDecision> decision;
  MessageActionHandler::shared().decideAction(args[0], [&](auto d) { decision = d; });
  if (!decision) return kExitFailed;
  std::printf("%s\n", colourName(decision->backgroundColor));
  return kExitOk;
}

int sendmailCommand(const Args& args) {
  Parsed parsed;
  if (const auto end = readArguments(args, sendmailDeclaration(), parsed)) return *end;
  const std::optional<std::string> message = readMessage("-");
  if (!message) return kExitFailed;
  if (auto refusal = ComposeSessionHandler::refusal(recipients(args, *message))) {
    std::fprintf(stderr, "%s\n", refusal->what());
    return kExitDataError;
  }
  const char* configured = std::getenv("LUMORA_SENDMAIL");
  const std::string program =
      configured && *configured ? configured : "/usr/sbin/sendmail";
  Args argv{program};
  argv.insert(argv.end(), args.begin(), args.end());
  const std::string sent = withExtraHeader(*message);
  const subprocess::RunResult run = subprocess::runWithInput(argv, sent);
  if (run.end == subprocess::RunResult::End::exited && run.code == 0 && !run.inputTaken) {
    // A sendmail that stopped reading and still said it succeeded may have sent part of the
    // mail, or none: the mail client must not count it as sent.
    std::fprintf(stderr,
                 "lumora: %s exited without reading the whole message (%zu bytes); it may not "
                 "have been sent\n",
                 program.c_str(), sent.size());
    return kExitIoError;
  }
  if (run.end == subprocess::RunResult::End::exited) return run.code;
  if (run.end == subprocess::RunResult::End::signalled) return 128 + run.code;
  // Without a time limit the only other end is a failed start.
  std::fprintf(stderr, "lumora: cannot run %s: %s\n", program.c_str(), std::strerror(run.code));
  return kExitUnavailable;
}

}  // namespace lumora::cli
