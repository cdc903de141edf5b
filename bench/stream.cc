// How fast a streamed chat reply goes through lumora::OpenAIClient, measured against the curl
// command fetching the same body from the same loopback server in the same run.
//
// The default run prints a plain report (see bench/README.md for what each number means):
//   1. a 100,000-record chat stream: median time through OpenAIClient and through
//      `curl -s -o /dev/null`, alternated round by round, and their ratio;
//   2. the cost per chunk of replies of 1 KiB, 100 KiB and 1 MiB made of fixed 4-byte deltas,
//      which should not grow with the length of the reply;
//   3. the decode speed of one stream record with nlohmann::json, simdjson's DOM parser and
//      the library's WireDecoder, over the same records.
// `--gbench` runs the same measurements as Google Benchmark entries instead.
#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "ChatStreamBody.h"
#include "Common.h"
#include "Spawn.h"
#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/ChatRequest.h"
#include "lumora/routing/OpenAIClient.h"
#include "lumora/chat/Payloads.h"
#include "lumora/chat/Service.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Http.h"
#include "lumora/store/DefaultsStore.h"
#include "support/ScriptedServer.h"
#include "support/TempDir.h"

namespace {

using Clock = std::chrono::steady_clock;
using lumora::bench::appendRecord;
using lumora::bench::Body;
using lumora::bench::chatStream;
using lumora::bench::kDone;
using lumora::bench::kRecordHead;
using lumora::bench::kRecordTail;
using lumora::bench::perRecordChunks;
using lumora::testing::Response;
using lumora::testing::ScriptedServer;

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "bench_stream: %s\n", what.c_str());
  std::exit(1);
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t mid = values.size() / 2;
  return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

// ---------------------------------------------------------------------------------------------
// Stream bodies

// A reply of `contentBytes` bytes made of 4-byte deltas, so the number of chunks grows with the
// length and the cost of one chunk can be compared across lengths.
constexpr std::string_view kFixedDelta = " and";
Body fixedDeltaReply(size_t contentBytes) {
  if (contentBytes % kFixedDelta.size() != 0) die("reply size must be a multiple of 4");
  const size_t records = contentBytes / kFixedDelta.size();
  std::string text;
  text.reserve(records * (kRecordHead.size() + kRecordTail.size() + kFixedDelta.size()) +
               kDone.size());
  for (size_t i = 0; i < records; ++i) appendRecord(text, kFixedDelta);
  text += kDone;
  return {std::make_shared<const std::string>(std::move(text)), records, contentBytes};
}

// The JSON of each record line, without "data: " and the blank line.
std::vector<std::string_view> recordJson(const Body& body) {
  std::vector<std::string_view> lines;
  lines.reserve(body.records);
  std::string_view rest = *body.text;
  constexpr std::string_view kData = "data: ";
  while (!rest.empty()) {
    const size_t end = rest.find("\n\n");
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 2);
    if (line == kDone.substr(0, kDone.size() - 2)) continue;
    line.remove_prefix(kData.size());
    lines.push_back(line);
  }
  return lines;
}

// ---------------------------------------------------------------------------------------------
// The loopback server and the two clients

struct Drained {
  double seconds = 0;
  size_t chunks = 0;
};

class Loopback {
 public:
  Loopback()
      : store_(dir_ / "group.tech.zorvel.openai.json"),
        environment_{store_, lumora::defaultTransport(), std::chrono::milliseconds(60'000), {}} {
    store_.set("apiKey", "sk-test-0000");
    // The client builds its URL from this at each request; curl gets the same URL.
    if (::setenv("LUMORA_OPENAI_BASE_URL", server_.baseUrl().c_str(), 1) != 0)
      die("cannot set LUMORA_OPENAI_BASE_URL");
    // The traffic is loopback only: a proxy from the environment would measure the proxy.
    for (const char* name : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"})
      ::unsetenv(name);
    url_ = server_.baseUrl() + std::string(lumora::kChatPath);
    const std::string curl = lumora::bench::onPath("curl");
    if (curl.empty()) die("curl is not on the PATH");
    curl_ = std::make_unique<lumora::bench::Command>(
        std::vector<std::string>{curl, "-s", "-o", "/dev/null", url_},
        lumora::bench::environmentWith({}));
  }

  const std::string& url() const { return url_; }

  // One request through OpenAIClient, drained to its end; the reply is checked after timing.
  Drained viaClient(const Response& response, const Body& body) {
    server_.enqueue(Response(response));  // copied before the clock starts
    const auto start = Clock::now();
    size_t chunks = 0;
    size_t completed = 0;
    {
      lumora::OpenAIClient client(lumora::Service(lumora::OpenAiService{"sk-test-0000"}),
                                  environment_);
      lumora::ChunkStream stream =
          client.streamChat("gpt-4o", {{"user", "hi", std::nullopt}}, 1.0, std::stop_token{});
      while (std::optional<lumora::StreamChunk> chunk = stream.next()) {
        ++chunks;
        completed = chunk->completed.size();
      }
    }
    const double elapsed = seconds(Clock::now() - start);
    if (completed != body.contentBytes || chunks != body.records) {
      die("OpenAIClient read " + std::to_string(chunks) + " chunks and a reply of " +
          std::to_string(completed) + " bytes; expected " + std::to_string(body.records) +
          " chunks and " + std::to_string(body.contentBytes) + " bytes");
    }
    return {elapsed, chunks};
  }

  // `curl -s -o /dev/null URL` as its own process, timed from spawn to exit.
  double viaCurl(const Response& response) {
    server_.enqueue(Response(response));
    const lumora::bench::Exit exit = lumora::bench::run(*curl_, lumora::bench::Output::discard);
    if (exit.status != 0) die("curl failed with status " + std::to_string(exit.status));
    return exit.seconds;
  }

  // Once, untimed: curl receives the whole body with status 200, so the timed runs (which
  // cannot look at what curl got) are known to fetch the same thing as the client.
  void checkCurlGetsWholeBody(const Response& response, const Body& body) {
    server_.enqueue(Response(response));
    const std::string command =
        "curl -s -o /dev/null -w '%{http_code} %{size_download}' '" + url_ + "'";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) die("cannot run curl");
    char out[128] = {};
    const size_t n = std::fread(out, 1, sizeof out - 1, pipe);
    const int status = ::pclose(pipe);
    const std::string got(out, n);
    const std::string want = "200 " + std::to_string(body.text->size());
    if (status != 0 || got != want)
      die("curl fetched \"" + got + "\" (exit " + std::to_string(status) + "), expected \"" + want +
          "\"");
  }

 private:
  lumora::testing::TempDir dir_;
  lumora::DefaultsStore store_;
  ScriptedServer server_;
  lumora::ChatEnvironment environment_;
  std::string url_;
  std::unique_ptr<lumora::bench::Command> curl_;
};

// ---------------------------------------------------------------------------------------------
// Record decoding

// Each decoder reads the record and takes out the delta's content, so no parse is skipped and
// the three do the same job. Returns the content bytes seen, to check that they agree.
size_t decodeNlohmann(const std::vector<std::string_view>& lines) {
  size_t content = 0;
  for (std::string_view line : lines) {
    const nlohmann::json record = nlohmann::json::parse(line);
    content += record["choices"][0]["delta"]["content"].get_ref<const std::string&>().size();
  }
  return content;
}

// simdjson wants padding after the input; the library copies each line into a reused padded
// buffer, and so does this, so the copy is part of what is measured.
size_t decodeSimdjson(simdjson::dom::parser& parser, std::string& padded,
                      const std::vector<std::string_view>& lines) {
  size_t content = 0;
  for (std::string_view line : lines) {
    if (padded.size() < line.size() + simdjson::SIMDJSON_PADDING)
      padded.resize(line.size() + simdjson::SIMDJSON_PADDING);
    std::memcpy(padded.data(), line.data(), line.size());
    simdjson::dom::element record;
    if (parser.parse(padded.data(), line.size(), false).get(record)) die("simdjson parse failed");
    std::string_view text;
    if (record["choices"].at(0)["delta"]["content"].get_string().get(text))
      die("simdjson found no content");
    content += text.size();
  }
  return content;
}

// The decoder as the stream reads each line (streamLine(): the usual record without a tree),
// or, with `tree`, through the whole tree as every other line is read.
size_t decodeWire(lumora::WireDecoder& decoder, const std::vector<std::string_view>& lines,
                  bool tree = false) {
  size_t content = 0;
  for (std::string_view line : lines) {
    const lumora::ChatDelta* delta = nullptr;
    if (tree) {
      if (decoder.parse(line)) delta = &decoder.streamRecord();
    } else {
      delta = decoder.streamLine(line);
    }
    if (!delta) die("WireDecoder parse failed: " + decoder.error());
    content += delta->choices.front().delta->content->size();
  }
  return content;
}

// ---------------------------------------------------------------------------------------------
// The report

struct Options {
  int runs = 9;
  size_t records = 100'000;
  bool gbench = false;
  std::string only;  // "stream", "chunks" or "decode"; empty runs all three
};

constexpr size_t kReplySizes[] = {1024, 100 * 1024, 1024 * 1024};
// Requests per round for each reply length: enough for about this many chunks, so that the
// short replies are timed over many requests rather than one.
constexpr size_t kChunksPerRound = 50'000;

size_t requestsFor(const Body& body) {
  const size_t chunks = std::max<size_t>(1, body.records);
  return (kChunksPerRound + chunks - 1) / chunks;
}

void reportStream(Loopback& loopback, const Options& options) {
  const Body body = chatStream(options.records);
  const Response response = perRecordChunks(body);
  loopback.checkCurlGetsWholeBody(response, body);
  loopback.viaClient(response, body);  // warm both: page cache, first connections
  loopback.viaCurl(response);

  std::vector<double> lumoraTimes, curlTimes, ratios;
  for (int round = 0; round < options.runs; ++round) {
    // Alternating which goes first spreads slow moments of the machine over both.
    double client = 0, curl = 0;
    if (round % 2 == 0) {
      client = loopback.viaClient(response, body).seconds;
      curl = loopback.viaCurl(response);
    } else {
      curl = loopback.viaCurl(response);
      client = loopback.viaClient(response, body).seconds;
    }
    lumoraTimes.push_back(client);
    curlTimes.push_back(curl);
    ratios.push_back(client / curl);
  }
  const double mb = static_cast<double>(body.text->size()) / 1e6;
  const double lumora = median(lumoraTimes), curl = median(curlTimes);
  std::printf(
      "1. Chat stream: %zu records, %.1f MB (%.0f bytes/record), one HTTP chunk per "
      "record, loopback\n",
      body.records, mb, static_cast<double>(body.text->size()) / body.records);
  std::printf("   OpenAIClient, drained       %8.1f ms  %7.0f MB/s\n", lumora * 1e3, mb / lumora);
  std::printf("   curl -s -o /dev/null        %8.1f ms  %7.0f MB/s\n", curl * 1e3, mb / curl);
  std::printf(
      "   ratio OpenAIClient/curl     %8.2f      (goal: at most 1.5; per-round ratios "
      "%.2f..%.2f, median %.2f)\n\n",
      lumora / curl, *std::min_element(ratios.begin(), ratios.end()),
      *std::max_element(ratios.begin(), ratios.end()), median(ratios));
}

void reportChunkCost(Loopback& loopback, const Options& options) {
  // An empty reply (only the end marker) costs what every request costs whatever its length:
  // connection, request, head, the reading thread. Each request of a case is paired with one
  // of these, one after the other, so the fixed cost taken off is that of the same moments.
  const Body empty{std::make_shared<const std::string>(kDone), 0, 0};
  const Response emptyResponse = perRecordChunks(empty);
  struct Case {
    size_t bytes;
    Body body;
    Response response;
    size_t requests;
    std::vector<double> perChunk, netPerChunk, fixed;
  };
  std::vector<Case> cases;
  for (size_t bytes : kReplySizes) {
    Body body = fixedDeltaReply(bytes);
    Response response = perRecordChunks(body);
    const size_t requests = requestsFor(body);
    cases.push_back({bytes, std::move(body), std::move(response), requests, {}, {}, {}});
  }
  loopback.viaClient(emptyResponse, empty);
  for (Case& c : cases) loopback.viaClient(c.response, c.body);

  for (int round = 0; round < options.runs; ++round) {
    for (Case& c : cases) {
      double total = 0, fixed = 0;
      for (size_t i = 0; i < c.requests; ++i) {
        total += loopback.viaClient(c.response, c.body).seconds;
        fixed += loopback.viaClient(emptyResponse, empty).seconds;
      }
      const double n = static_cast<double>(c.requests);
      const double chunks = static_cast<double>(c.body.records);
      c.perChunk.push_back(total / n / chunks);
      c.netPerChunk.push_back((total - fixed) / n / chunks);
      c.fixed.push_back(fixed / n);
    }
  }
  std::printf("2. Cost per chunk through OpenAIClient (%zu-byte deltas, one record per chunk)\n",
              kFixedDelta.size());
  std::printf("   %-9s %8s %9s %12s %14s %16s\n", "reply", "chunks", "requests", "ns/chunk",
              "ns/chunk net", "fixed/request");
  std::vector<double> net;
  for (const Case& c : cases) {
    net.push_back(median(c.netPerChunk) * 1e9);
    std::printf("   %4zu KiB  %8zu %9zu %12.0f %14.0f %13.0f us\n", c.bytes / 1024, c.body.records,
                c.requests, median(c.perChunk) * 1e9, net.back(), median(c.fixed) * 1e6);
  }
  std::printf(
      "   flatness: net ns/chunk of 1 MiB over 1 KiB = %.2f, 1 MiB over 100 KiB = %.2f "
      "(1.0 is flat)\n\n",
      net[2] / net[0], net[2] / net[1]);
}

void reportDecode(const Options& options) {
  const Body body = chatStream(options.records);
  const std::vector<std::string_view> lines = recordJson(body);
  size_t bytes = 0;
  for (std::string_view line : lines) bytes += line.size();

  simdjson::dom::parser parser;
  std::string padded;
  lumora::WireDecoder decoder;
  struct Row {
    const char* name;
    std::function<size_t()> decode;
    std::vector<double> times;
  };
  std::vector<Row> rows;
  rows.push_back({"nlohmann::json::parse", [&] { return decodeNlohmann(lines); }, {}});
  rows.push_back(
      {"simdjson dom::parser", [&] { return decodeSimdjson(parser, padded, lines); }, {}});
  rows.push_back({"WireDecoder, the tree", [&] { return decodeWire(decoder, lines, true); }, {}});
  rows.push_back({"WireDecoder::streamLine", [&] { return decodeWire(decoder, lines); }, {}});
  for (Row& row : rows) {
    if (row.decode() != body.contentBytes) die(std::string(row.name) + " read the wrong content");
  }
  for (int round = 0; round < options.runs; ++round) {
    for (Row& row : rows) {
      const auto start = Clock::now();
      benchmark::DoNotOptimize(row.decode());
      row.times.push_back(seconds(Clock::now() - start));
    }
  }
  std::printf(
      "3. Decoding one record (the JSON of a line of stream 1, %zu records, %.0f bytes "
      "each; parse and read the delta's content)\n",
      lines.size(), static_cast<double>(bytes) / lines.size());
  const double mb = static_cast<double>(bytes) / 1e6;
  const double nlohmannTime = median(rows[0].times);
  for (const Row& row : rows) {
    const double t = median(row.times);
    std::printf("   %-24s %7.0f MB/s  %6.0f ns/record  (%.1fx nlohmann)\n", row.name, mb / t,
                t / lines.size() * 1e9, nlohmannTime / t);
  }
}

// ---------------------------------------------------------------------------------------------
// The same measurements as Google Benchmark entries (--gbench)

Loopback& sharedLoopback() {
  static Loopback loopback;
  return loopback;
}

void BM_ChatStream_OpenAIClient(benchmark::State& state) {
  static const Body body = chatStream(100'000);
  static const Response response = perRecordChunks(body);
  for (auto _ : state) state.SetIterationTime(sharedLoopback().viaClient(response, body).seconds);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * body.text->size()));
}
BENCHMARK(BM_ChatStream_OpenAIClient)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_ChatStream_Curl(benchmark::State& state) {
  static const Body body = chatStream(100'000);
  static const Response response = perRecordChunks(body);
  for (auto _ : state) state.SetIterationTime(sharedLoopback().viaCurl(response));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * body.text->size()));
}
BENCHMARK(BM_ChatStream_Curl)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_ReplyPerChunk(benchmark::State& state) {
  const Body body = fixedDeltaReply(static_cast<size_t>(state.range(0)));
  const Response response = perRecordChunks(body);
  for (auto _ : state) state.SetIterationTime(sharedLoopback().viaClient(response, body).seconds);
  state.counters["per_chunk"] = benchmark::Counter(
      static_cast<double>(body.records),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ReplyPerChunk)
    ->Arg(1024)
    ->Arg(100 * 1024)
    ->Arg(1024 * 1024)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

const std::vector<std::string_view>& decodeLines() {
  static const Body body = chatStream(100'000);
  static const std::vector<std::string_view> lines = recordJson(body);
  return lines;
}

size_t totalBytes(const std::vector<std::string_view>& lines) {
  size_t bytes = 0;
  for (std::string_view line : lines) bytes += line.size();
  return bytes;
}

void BM_DecodeRecord_Nlohmann(benchmark::State& state) {
  const auto& lines = decodeLines();
  for (auto _ : state) benchmark::DoNotOptimize(decodeNlohmann(lines));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * totalBytes(lines)));
}
BENCHMARK(BM_DecodeRecord_Nlohmann)->Unit(benchmark::kMillisecond);

void BM_DecodeRecord_SimdjsonDom(benchmark::State& state) {
  const auto& lines = decodeLines();
  simdjson::dom::parser parser;
  std::string padded;
  for (auto _ : state) benchmark::DoNotOptimize(decodeSimdjson(parser, padded, lines));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * totalBytes(lines)));
}
BENCHMARK(BM_DecodeRecord_SimdjsonDom)->Unit(benchmark::kMillisecond);

void BM_DecodeRecord_WireDecoder(benchmark::State& state) {
  const auto& lines = decodeLines();
  lumora::WireDecoder decoder;
  for (auto _ : state) benchmark::DoNotOptimize(decodeWire(decoder, lines));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * totalBytes(lines)));
}
BENCHMARK(BM_DecodeRecord_WireDecoder)->Unit(benchmark::kMillisecond);

void usage() {
  std::fprintf(
      stderr,
      "usage: bench_stream [--runs N] [--records N] [--only stream|chunks|decode]\n"
      "       bench_stream --gbench [--benchmark_filter=...] [other --benchmark_ flags]\n");
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::vector<char*> forwarded{argv[0]};
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    auto number = [&](const char* name) -> size_t {
      const size_t value = lumora::bench::positiveArgument(i, argc, argv);
      if (value == 0) {
        std::fprintf(stderr, "bench_stream: %s wants a positive number\n", name);
        usage();
      }
      return value;
    };
    if (arg == "--runs") {
      options.runs = static_cast<int>(std::min<size_t>(number("--runs"), 1000));
    } else if (arg == "--records") {
      options.records = number("--records");
    } else if (arg == "--only" && i + 1 < argc) {
      options.only = argv[++i];
      if (options.only != "stream" && options.only != "chunks" && options.only != "decode") usage();
    } else if (arg == "--gbench") {
      options.gbench = true;
    } else if (arg.starts_with("--benchmark_")) {
      forwarded.push_back(argv[i]);
    } else {
      usage();
    }
  }

  lumora::debug::setSink({});  // debug output off: the hot path must not format lines

  try {
    if (options.gbench) {
      int count = static_cast<int>(forwarded.size());
      benchmark::Initialize(&count, forwarded.data());
      benchmark::RunSpecifiedBenchmarks();
      benchmark::Shutdown();
      return 0;
    }
    std::printf("bench_stream: median of %d runs; loopback HTTP/1.1, debug output off\n\n",
                options.runs);
    auto wanted = [&](std::string_view part) {
      return options.only.empty() || options.only == part;
    };
    if (wanted("stream")) reportStream(sharedLoopback(), options);
    if (wanted("chunks")) reportChunkCost(sharedLoopback(), options);
    if (wanted("decode")) reportDecode(options);
  } catch (const std::exception& e) {
    die(std::string("failed: ") + e.what());
  }
  return 0;
}
