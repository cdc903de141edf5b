// The whole `lumora reply` command, from spawn to exit, set beside other programs doing the same
// job in the same run (see bench/README.md and docs/benchmarks.md for what each number means):
//   1. stream: `lumora reply` reading a 100,000-record chat stream from a loopback server,
//      against the floor client (bench/floor: libcurl, a line split and a simdjson parse of
//      every record, nothing else), and, for reference, `curl -s -o /dev/null` fetching the same
//      body and the official openai Node SDK (bench/node/stream.mjs) reading it chunk by chunk;
//      alternated round by round;
//   2. dryrun: `lumora reply --dry-run` on the example reply message, against the start of
//      /bin/true (the cost of a process) and of Python importing what a mail client in Python
//      would need (the start of any command-line client written in it);
//   3. memory: the peak resident memory of a dry run on a 10 MB message (one large HTML part,
//      tens of thousands of quoted passages) and of a 1 MB streamed reply, against that of
//      `lumora --version` (the program and its libraries alone).
// Every run's result is checked: a program that gets or prints the wrong thing stops the report.
#include <unistd.h>
#include <sys/wait.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ChatStreamBody.h"
#include "Common.h"
#include "Spawn.h"
#include "support/ScriptedServer.h"
#include "support/TempDir.h"

namespace {

namespace bench = lumora::bench;
using lumora::testing::Response;
using lumora::testing::ScriptedServer;

constexpr const char* kSourceDir = LUMORA_SOURCE_DIR;
constexpr const char* kModel = "gpt-4o";

[[noreturn]] void fail(const std::string& what) { bench::die("bench_e2e", what); }

std::string messageFile() { return std::string(kSourceDir) + "/examples/reply-to-meeting.eml"; }

// What a failed run said, on one line, for the reason given when the report stops.
std::string described(const bench::Exit& exit) {
  std::string err = exit.err.substr(0, 400);
  std::replace(err.begin(), err.end(), '\n', ' ');
  return "exit status " + std::to_string(exit.status) + (err.empty() ? "" : ", stderr: " + err);
}

// A home of lumora's own: settings and store in a temporary directory, the OpenAI key set, and
// OpenAI requests going to the loopback server.
class Home {
 public:
  Home(std::string binary, const std::string& baseUrl) : binary_(std::move(binary)) {
    std::vector<std::string> unset = {"LUMORA_DEBUG", "OPENAI_API_KEY"};
    for (const std::string& name : bench::proxyVariables()) unset.push_back(name);
    environment_ = bench::environmentWith({{"XDG_CONFIG_HOME", (dir_.path() / "config").string()},
                                           {"XDG_DATA_HOME", (dir_.path() / "data").string()},
                                           {"LUMORA_OPENAI_BASE_URL", baseUrl}},
                                          unset);
    const bench::Command set = lumora({"settings", "set", "apiKey", "sk-test"});
    if (const bench::Exit exit = bench::run(set, bench::Output::keep); exit.status != 0)
      fail("lumora settings set apiKey failed: " + described(exit));
  }

  // `lumora ARGS...` in this home.
  bench::Command lumora(std::vector<std::string> args) const {
    args.insert(args.begin(), binary_);
    return bench::Command(std::move(args), environment_);
  }
  // Another program with the same environment.
  bench::Command other(std::vector<std::string> argv) const {
    return bench::Command(std::move(argv), environment_);
  }

 private:
  std::string binary_;
  lumora::testing::TempDir dir_;
  std::vector<std::string> environment_;
};

// One program of a comparison: how it is run, and what makes one of its runs right.
struct Contender {
  std::string name;
  bench::Command command;
  bench::Output output;
  std::function<void(const bench::Exit&)> check;  // stops the report when the run went wrong
  std::vector<double> times{};
  std::vector<double> cpuTimes{};  // user + system, for the same runs
};

// Runs every contender once per round, each round starting with the next one, so that a slow
// moment of the machine falls on each in turn. `before` runs ahead of each run, untimed.
void alternate(std::vector<Contender*>& contenders, int rounds,
               const std::function<void()>& before) {
  for (int round = 0; round < rounds; ++round) {
    for (size_t k = 0; k < contenders.size(); ++k) {
      Contender& c = *contenders[(round + k) % contenders.size()];
      before();
      const bench::Exit exit = bench::run(c.command, c.output);
      c.check(exit);
      c.times.push_back(exit.seconds);
      c.cpuTimes.push_back(exit.cpuSeconds);
    }
  }
}

// The median of a/b over the rounds, and its smallest and largest.
struct RoundRatios {
  double low, mid, high;
};
RoundRatios roundRatios(const std::vector<double>& a, const std::vector<double>& b) {
  std::vector<double> ratios;
  for (size_t i = 0; i < a.size(); ++i) ratios.push_back(a[i] / b[i]);
  return {*std::min_element(ratios.begin(), ratios.end()), bench::median(ratios),
          *std::max_element(ratios.begin(), ratios.end())};
}

struct Options {
  int streamRuns = 11;
  int dryRunRuns = 31;
  size_t records = 100'000;
  bench::Ids ids = bench::Ids::shared;
  int memoryRuns = 5;
  std::string only;  // "stream", "dryrun" or "memory"; empty runs all
  std::string lumora = LUMORA_BINARY;
};

// ---------------------------------------------------------------------------------------------
// 1. The streamed reply

// Why the Node SDK cannot be run here, or empty when it can.
std::string whyNoNode(const std::string& node) {
  if (node.empty()) return "node is not on the PATH";
  const std::filesystem::path sdk =
      std::filesystem::path(kSourceDir) / "bench/node/node_modules/openai/package.json";
  if (!std::filesystem::exists(sdk)) return "the SDK is not installed (cd bench/node && npm ci)";
  return {};
}

void reportStream(ScriptedServer& server, const Home& home, const Options& options) {
  const bench::Body body = bench::chatStream(options.records, options.ids);
  const Response response = bench::perRecordChunks(body);
  const std::string reply = bench::chatStreamReply(options.records) + "\n";
  if (reply.size() != body.contentBytes + 1) fail("the expected reply does not match the body");
  const std::string curl = bench::onPath("curl");
  if (curl.empty()) fail("curl is not on the PATH");
  const std::string node = bench::onPath("node");
  const std::string noNode = whyNoNode(node);
  const std::string url = server.baseUrl() + "/v1/chat/completions";

  // A client that hangs up before the end of the body shows here, even when its output went to
  // /dev/null and cannot be looked at.
  auto wholeBodyRead = [&](const std::string& who) {
    if (server.waitForClientDisconnect(std::chrono::milliseconds(0)))
      fail(who + " hung up before the end of the stream");
  };
  Contender lumora{"lumora reply", home.lumora({"reply", "--model", kModel, messageFile()}),
                   bench::Output::discard, [&](const bench::Exit& exit) {
                     if (exit.status != 0 || !exit.err.empty())
                       fail("lumora reply failed: " + described(exit));
                     wholeBodyRead("lumora reply");
                   }};
  // The floor: a client that checks every record as lumora does (libcurl, a line split, a
  // simdjson DOM parse of each record, the delta written out) and does nothing else.
  Contender floor{"floor client", home.other({LUMORA_FLOOR_CLIENT, url}), bench::Output::discard,
                  [&](const bench::Exit& exit) {
                    if (exit.status != 0) fail("the floor client failed: " + described(exit));
                    wholeBodyRead("the floor client");
                  }};
  const std::string curlWant = "200 " + std::to_string(body.text->size());
  Contender curlRun{
      "curl -s -o /dev/null",
      home.other({curl, "-s", "-o", "/dev/null", "-w", "%{http_code} %{size_download}", url}),
      bench::Output::keep, [&](const bench::Exit& exit) {
        if (exit.status != 0 || exit.out != curlWant)
          fail("curl fetched \"" + exit.out + "\" (" + described(exit) + "), expected \"" +
               curlWant + "\"");
      }};
  const std::string sdkWant =
      std::to_string(body.records) + " " + std::to_string(body.contentBytes) + "\n";
  Contender sdk{
      "openai Node SDK v4",
      home.other({node.empty() ? "node" : node, std::string(kSourceDir) + "/bench/node/stream.mjs",
                  server.baseUrl(), kModel}),
      bench::Output::keep, [&](const bench::Exit& exit) {
        if (exit.status != 0 || exit.out != sdkWant)
          fail("the Node SDK read \"" + exit.out + "\" (" + described(exit) + "), expected \"" +
               sdkWant + "\"");
        wholeBodyRead("the Node SDK");
      }};

  auto enqueue = [&] { server.enqueue(Response(response)); };
  // Once, untimed, with lumora's output kept: the reply it prints is the one served, to the
  // byte, so the timed runs (whose output goes to /dev/null) are known to do the whole job.
  enqueue();
  const bench::Exit kept = bench::run(lumora.command, bench::Output::keep);
  lumora.check(kept);
  if (kept.out != reply)
    fail("lumora reply printed " + std::to_string(kept.out.size()) + " bytes; expected the " +
         std::to_string(reply.size()) + " bytes of the reply served and a line feed");

  enqueue();
  const bench::Exit floorKept = bench::run(floor.command, bench::Output::keep);
  floor.check(floorKept);
  if (floorKept.out != reply) fail("the floor client printed another reply than the one served");

  std::vector<Contender*> contenders = {&lumora, &floor, &curlRun};
  if (noNode.empty()) contenders.push_back(&sdk);
  for (Contender* c : contenders) {  // warm: page cache, the programs' files
    enqueue();
    c->check(bench::run(c->command, c->output));
  }
  alternate(contenders, options.streamRuns, enqueue);

  const double mb = static_cast<double>(body.text->size()) / 1e6;
  std::printf(
      "1. lumora reply on a chat stream: %zu records, %.1f MB, one HTTP chunk per record%s, "
      "loopback; each program timed from spawn to exit\n",
      body.records, mb, options.ids == bench::Ids::numbered ? ", each with its own id" : "");
  for (const Contender* c : contenders) {
    const double t = bench::median(c->times);
    std::printf("   %-26s %9.1f ms  %7.0f MB/s\n", c->name.c_str(), t * 1e3, mb / t);
  }
  const RoundRatios toFloor = roundRatios(lumora.times, floor.times);
  std::printf(
      "   ratio lumora/floor client  %9.2f      (goal: at most 1.2; per round %.2f..%.2f, "
      "median %.2f)\n",
      bench::median(lumora.times) / bench::median(floor.times), toFloor.low, toFloor.high,
      toFloor.mid);
  // CPU time is what each program costs the machine, all its threads together; on a busy
  // machine it varies less than the time to exit, which waits on the scheduler too.
  const RoundRatios cpuToFloor = roundRatios(lumora.cpuTimes, floor.cpuTimes);
  std::printf(
      "   CPU time lumora/floor      %9.2f      (%.1f ms / %.1f ms; per round %.2f..%.2f, "
      "median %.2f)\n",
      bench::median(lumora.cpuTimes) / bench::median(floor.cpuTimes),
      bench::median(lumora.cpuTimes) * 1e3, bench::median(floor.cpuTimes) * 1e3, cpuToFloor.low,
      cpuToFloor.high, cpuToFloor.mid);
  const RoundRatios toCurl = roundRatios(lumora.times, curlRun.times);
  std::printf(
      "   ratio lumora/curl          %9.2f      (a reference: curl checks nothing; per round "
      "%.2f..%.2f, "
      "median %.2f)\n",
      bench::median(lumora.times) / bench::median(curlRun.times), toCurl.low, toCurl.high,
      toCurl.mid);
  if (noNode.empty()) {
    const RoundRatios toSdk = roundRatios(sdk.times, lumora.times);
    std::printf(
        "   ratio SDK/lumora           %9.1f      (goal: at least 20; per round %.1f..%.1f, "
        "median %.1f)\n",
        bench::median(sdk.times) / bench::median(lumora.times), toSdk.low, toSdk.high, toSdk.mid);
  } else {
    std::printf("   openai Node SDK: skipped, %s\n", noNode.c_str());
  }
  std::printf("\n");
}

// ---------------------------------------------------------------------------------------------
// 2. The dry run

void reportDryRun(ScriptedServer& server, const Home& home, const Options& options) {
  // The first run's output, checked by its content; every later run must print the same.
  std::string request;
  Contender lumora{"lumora reply --dry-run",
                   home.lumora({"reply", "--dry-run", "--model", kModel, messageFile()}),
                   bench::Output::keep, [&](const bench::Exit& exit) {
                     if (exit.status != 0 || !exit.err.empty())
                       fail("lumora reply --dry-run failed: " + described(exit));
                     if (!request.empty() && exit.out != request)
                       fail("lumora reply --dry-run printed another request than its first");
                   }};
  Contender python{"python3 -c 'import ...'",
                   home.other({"/usr/bin/python3", "-c", "import email, json, urllib.request"}),
                   bench::Output::discard, [&](const bench::Exit& exit) {
                     if (exit.status != 0) fail("python3 failed: " + described(exit));
                   }};
  Contender spawnFloor{"/bin/true", home.other({"/bin/true"}), bench::Output::discard,
                       [&](const bench::Exit& exit) {
                         if (exit.status != 0) fail("/bin/true failed: " + described(exit));
                       }};
  // The binary's start and exit alone, and those of curl, which loads the same libcurl and its
  // libraries: how much of the dry run is the loading of the program rather than its work.
  Contender version{"lumora --version", home.lumora({"--version"}), bench::Output::keep,
                    [&](const bench::Exit& exit) {
                      if (exit.status != 0 || !exit.out.starts_with("lumora "))
                        fail("lumora --version failed: " + described(exit));
                    }};
  const std::string curl = bench::onPath("curl");
  Contender curlVersion{"curl --version", home.other({curl.empty() ? "curl" : curl, "--version"}),
                        bench::Output::discard, [&](const bench::Exit& exit) {
                          if (exit.status != 0) fail("curl --version failed: " + described(exit));
                        }};

  const bench::Exit first = bench::run(lumora.command, bench::Output::keep);
  lumora.check(first);
  const auto printed = nlohmann::json::parse(first.out, nullptr, false);
  const std::string url = server.baseUrl() + "/v1/chat/completions";
  if (printed.is_discarded() || printed.value("url", "") != url ||
      printed["body"].value("model", "") != kModel || !printed["body"].value("stream", false) ||
      !printed["body"]["messages"].is_array() || printed["body"]["messages"].empty())
    fail("lumora reply --dry-run did not print the request for " + url + ": " +
         first.out.substr(0, 400));
  if (first.out.find("sk-test") != std::string::npos)
    fail("lumora reply --dry-run printed the key in clear");
  request = first.out;

  std::vector<Contender*> contenders = {&lumora, &version, &spawnFloor};
  if (!curl.empty()) contenders.push_back(&curlVersion);
  const bool havePython = ::access("/usr/bin/python3", X_OK) == 0;
  if (havePython) contenders.push_back(&python);
  for (Contender* c : contenders) c->check(bench::run(c->command, c->output));  // warm
  alternate(contenders, options.dryRunRuns, [] {});

  std::printf(
      "2. lumora reply --dry-run on examples/reply-to-meeting.eml (%zu bytes of request "
      "printed); each program timed from spawn to exit\n",
      request.size());
  for (const Contender* c : contenders)
    std::printf("   %-26s %9.2f ms\n", c->name.c_str(), bench::median(c->times) * 1e3);
  const double ours = bench::median(lumora.times);
  std::printf("   lumora median              %9.2f ms   (goal: at most 10 ms)\n", ours * 1e3);
  const RoundRatios toTrue = roundRatios(lumora.times, spawnFloor.times);
  std::printf("   ratio lumora//bin/true     %9.1f      (per round %.1f..%.1f)\n",
              ours / bench::median(spawnFloor.times), toTrue.low, toTrue.high);
  const RoundRatios toVersion = roundRatios(lumora.times, version.times);
  std::printf("   ratio lumora/--version     %9.2f      (per round %.2f..%.2f)\n",
              ours / bench::median(version.times), toVersion.low, toVersion.high);
  if (havePython) {
    const RoundRatios toPython = roundRatios(python.times, lumora.times);
    std::printf("   ratio python/lumora        %9.1f      (per round %.1f..%.1f)\n",
                bench::median(python.times) / ours, toPython.low, toPython.high);
  } else {
    std::printf("   python3: skipped, /usr/bin/python3 is missing\n");
  }
  std::printf("\n");
}

// ---------------------------------------------------------------------------------------------
// 3. Memory

// A message of about `bytes` bytes: one quoted-printable HTML part whose every other element is
// a quoted passage, in lines short enough for quoted-printable.
std::string largeMessage(size_t bytes) {
  std::string m =
      "From: Ann <ann@example.org>\r\nTo: Bo <bo@example.net>\r\nSubject: The long thread\r\n"
      "MIME-Version: 1.0\r\nContent-Type: text/html; charset=utf-8\r\n"
      "Content-Transfer-Encoding: quoted-printable\r\n\r\n<html><body>\r\n";
  for (size_t i = 0; m.size() < bytes; ++i) {
    const std::string n = std::to_string(i);
    m += "<p>Paragraph " + n + " of the thread, with a few words.</p>\r\n<blockquote>Passage " +
         n + ": could we meet on Friday?</blockquote>\r\n";
  }
  return m + "</body></html>\r\n";
}

// The peak memory of a child counts the memory of the process that started it, which the kernel
// carries over its exec, and this program holds a large stream. So each command is started by
// a fresh copy of this program (`--peak-memory COMMAND...`), small, which reports the command's
// peak on its last line of standard error.
constexpr std::string_view kPeakPrefix = "peak KiB ";

int measurePeak(char** command) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::execv(command[0], command);
    ::_exit(127);
  }
  int status = 0;
  rusage usage{};
  while (::wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  std::fprintf(stderr, "%s%ld\n", kPeakPrefix.data(), usage.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void reportMemory(ScriptedServer& server, const Home& home, const Options& options) {
  lumora::testing::TempDir dir;
  const std::string big = largeMessage(10'000'000);
  const std::string bigFile = (dir.path() / "large.eml").string();
  std::ofstream(bigFile, std::ios::binary) << big;
  constexpr size_t kReplyBytes = 1 << 20;
  std::string stream;
  const std::string piece(100, 'x');
  for (size_t sent = 0; sent < kReplyBytes; sent += piece.size())
    bench::appendRecord(stream, piece.substr(0, std::min(piece.size(), kReplyBytes - sent)));
  stream += "data: [DONE]\n\n";
  std::string small;
  bench::appendRecord(small, piece);
  small += "data: [DONE]\n\n";

  struct Part {
    const char* name;
    bench::Command command;
    size_t input;  // the bytes the goal is counted on; 0 for the anchor
    std::function<void()> before;
    std::vector<double> peaksKiB{};
  };
  const auto peakKiB = [](const char* what, const bench::Exit& exit) {
    const size_t at = exit.err.rfind(kPeakPrefix);
    if (exit.status != 0 || at == std::string::npos || exit.err.find('\n') + 1 != exit.err.size())
      fail(std::string(what) + " failed: " + described(exit));
    return std::stod(exit.err.substr(at + kPeakPrefix.size()));
  };
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  const auto measured = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {self, "--peak-memory", options.lumora});
    return home.other(std::move(args));
  };
  Part parts[] = {
      {"lumora --version", measured({"--version"}), 0, [] {}},
      {"dry run, 10 MB message", measured({"reply", "--dry-run", "--model", kModel, bigFile}),
       big.size(), [] {}},
      // The program with its network stack (libcurl and the thirty-odd libraries it loads):
      // the anchor of the streamed reply below it.
      {"reply of 100 B, streamed", measured({"reply", "--model", kModel, messageFile()}), 0,
       [&] { server.enqueue(Response::stream(small, 0)); }},
      {"reply of 1 MiB, streamed", measured({"reply", "--model", kModel, messageFile()}),
       kReplyBytes, [&] { server.enqueue(Response::stream(stream, 16 << 10)); }},
  };
  for (int round = 0; round < options.memoryRuns; ++round) {
    for (Part& part : parts) {
      part.before();
      part.peaksKiB.push_back(peakKiB(part.name, bench::run(part.command, bench::Output::discard)));
    }
  }
  std::printf("3. peak resident memory, median of %d runs (goal: 4 x input + 10 MB)\n",
              options.memoryRuns);
  double floor = 0;  // the anchor above the part: the nearest part without an input
  for (const Part& part : parts) {
    const double peak = bench::median(part.peaksKiB);
    if (part.input == 0) {
      std::printf("   %-26s %9.1f MiB  (anchor)\n", part.name, peak / 1024);
      floor = peak;
      continue;
    }
    const double goal = (4.0 * static_cast<double>(part.input) + 10e6) / 1024;
    std::printf("   %-26s %9.1f MiB  goal %.1f MiB; over the anchor: %.1f x the input\n",
                part.name, peak / 1024, goal / 1024,
                (peak - floor) * 1024 / static_cast<double>(part.input));
  }
  std::printf("\n");
}

constexpr const char* kUsage =
    "usage: bench_e2e [--runs N] [--records N] [--numbered-ids] [--only stream|dryrun|memory]\n"
    "                 [--lumora PATH]\n"
    "  --runs N     rounds per part (default: 11 for stream, 31 for dryrun, 5 for memory)\n"
    "  --records N  records of the chat stream (default 100000)\n"
    "  --numbered-ids  each record of the chat stream with its own id, so that no record\n"
    "               repeats the one before but for its text and every one is read whole\n"
    "  --lumora PATH  the lumora binary to time (default: the one built with this program)\n";

// The options of the command line, or nullopt when it is not understood.
std::optional<Options> parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--runs" || arg == "--records") {
      const size_t value = bench::positiveArgument(i, argc, argv);
      if (value == 0) return std::nullopt;
      if (arg == "--records") {
        options.records = value;
      } else {
        options.streamRuns = options.dryRunRuns = options.memoryRuns =
            static_cast<int>(std::min<size_t>(value, 1000));
      }
    } else if (arg == "--numbered-ids") {
      options.ids = bench::Ids::numbered;
    } else if (arg == "--lumora" && i + 1 < argc) {
      options.lumora = argv[++i];
    } else if (arg == "--only" && i + 1 < argc) {
      options.only = argv[++i];
      if (options.only != "stream" && options.only != "dryrun" && options.only != "memory")
        return std::nullopt;
    } else {
      return std::nullopt;
    }
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 && std::string_view(argv[1]) == "--peak-memory") return measurePeak(argv + 2);
  const std::optional<Options> parsed = parseOptions(argc, argv);
  if (!parsed) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const Options& options = *parsed;
  try {
    ScriptedServer server;
    const Home home(options.lumora, server.baseUrl());
    std::printf(
        "bench_e2e: medians over rounds (stream %d, dryrun %d); loopback HTTP/1.1; lumora is "
        "%s\n\n",
        options.streamRuns, options.dryRunRuns, options.lumora.c_str());
    if (options.only.empty() || options.only == "stream") reportStream(server, home, options);
    if (options.only.empty() || options.only == "dryrun") reportDryRun(server, home, options);
    if (options.only.empty() || options.only == "memory") reportMemory(server, home, options);
  } catch (const std::exception& e) {
    fail(std::string("failed: ") + e.what());
  }
  return 0;
}
