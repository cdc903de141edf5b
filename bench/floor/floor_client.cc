// The least a client of a chat stream must do, and nothing more: the floor `lumora reply` is
// timed against in bench_e2e. It posts a request with libcurl, splits the body into lines,
// parses every "data: " record with simdjson's DOM parser, and writes the delta's content to
// standard output; at the end, one line feed. No retries, no timeouts, no error texts, no
// settings, no threads: what remains is the work every record costs any checking client.
//   lumora_floor_client URL
#include <curl/curl.h>
#include <simdjson.h>

#include <cstdio>
#include <string>
#include <string_view>

namespace {

struct Reader {
  simdjson::dom::parser parser;
  std::string pending;  // the part of a line that has not ended yet
  std::string out;      // written out in large pieces
  bool failed = false;

  void line(std::string_view text) {
    if (!text.starts_with("data: ")) return;
    text.remove_prefix(6);
    if (text == "[DONE]") return;
    simdjson::dom::element record;
    if (parser.parse(text.data(), text.size()).get(record)) {
      failed = true;
      return;
    }
    std::string_view content;
    if (record["choices"].at(0)["delta"]["content"].get(content) == simdjson::SUCCESS)
      out += content;
    if (out.size() >= 1 << 16) flush();
  }

  void flush() {
    std::fwrite(out.data(), 1, out.size(), stdout);
    out.clear();
  }

  void take(std::string_view bytes) {
    // Lines whole within this piece are read in place; only a line cut by the piece's end is
    // copied, to be completed by the next piece.
    if (!pending.empty()) {
      const size_t end = bytes.find('\n');
      if (end == std::string_view::npos) {
        pending.append(bytes);
        return;
      }
      pending.append(bytes.substr(0, end));
      line(pending);
      pending.clear();
      bytes.remove_prefix(end + 1);
    }
    for (size_t end; (end = bytes.find('\n')) != std::string_view::npos;) {
      line(bytes.substr(0, end));
      bytes.remove_prefix(end + 1);
    }
    pending.assign(bytes);
  }
};

size_t received(char* data, size_t, size_t size, void* reader) {
  static_cast<Reader*>(reader)->take(std::string_view(data, size));
  return size;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: lumora_floor_client URL\n", stderr);
    return 2;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* easy = curl_easy_init();
  Reader reader;
  const std::string body =
      R"({"model":"gpt-4o","stream":true,"messages":[{"role":"user","content":"Hello"}]})";
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  headers = curl_slist_append(headers, "Authorization: Bearer sk-floor");
  curl_easy_setopt(easy, CURLOPT_URL, argv[1]);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, received);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &reader);
  const CURLcode code = curl_easy_perform(easy);
  if (!reader.pending.empty()) reader.line(reader.pending);
  reader.out += '\n';
  reader.flush();
  curl_slist_free_all(headers);
  curl_easy_cleanup(easy);
  curl_global_cleanup();
  return code == CURLE_OK && !reader.failed ? 0 : 1;
}
