// Fuzz target for the local API's request reader: arbitrary bytes, cut into arbitrary
// chunks, must never crash, and must be read the same way whatever the chunking.
//
// Built with libFuzzer when the compiler has it; otherwise (QUILLANE_FUZZ_DRIVER) a plain
// driver replays a bounded number of generated and mutated requests through the same entry.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "api/LocalAPIRequest.h"
#include "api/LocalAPIRequestReader.h"

namespace {

using quillane::LocalAPIRequest;
using quillane::LocalAPIRequestReader;
namespace HTTP = quillane::LocalAPIHTTP;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "request_reader_fuzz: %s\n", what);
  std::abort();
}

struct Result {
  LocalAPIRequestReader::Outcome outcome;
  LocalAPIRequest request;
};

// Feeds `bytes` in chunks whose sizes come from `pattern`, then ends the stream.
Result read(std::string_view bytes, std::string_view pattern) {
  LocalAPIRequestReader reader;
  auto outcome = LocalAPIRequestReader::Outcome::needMore;
  size_t at = 0, step = 0;
  while (at < bytes.size() && outcome == LocalAPIRequestReader::Outcome::needMore) {
    size_t length =
        pattern.empty() ? bytes.size() : 1 + size_t(uint8_t(pattern[step++ % pattern.size()])) % 64;
    length = std::min(length, bytes.size() - at);
    outcome = reader.receive(bytes.substr(at, length));
    at += length;
  }
  if (outcome == LocalAPIRequestReader::Outcome::needMore) outcome = reader.end();
  Result result{outcome, {}};
  if (outcome == LocalAPIRequestReader::Outcome::request) result.request = reader.takeRequest();
  return result;
}

bool isTrimmed(const std::string& s) {
  auto blank = [](char c) { return c == ' ' || c == '\t'; };
  return s.empty() || (!blank(s.front()) && !blank(s.back()));
}

void checkRequest(const LocalAPIRequest& request) {
  for (const auto& [name, value] : request.headers) {
    for (char c : name) {
      if (c >= 'A' && c <= 'Z') fail("header name not lower case");
    }
    if (!isTrimmed(name) || !isTrimmed(value)) fail("header not trimmed");
  }
  if (int64_t(request.body.size()) > LocalAPIRequestReader::bodyLimit) fail("body above the limit");
  if (request.path.find('?') != std::string::npos) fail("query left in the path");
  // The response that would carry these strings back must be well formed.
  auto response = quillane::LocalAPIResponse::error(200, request.path + request.method + request.body);
  if (response.body.size() < 12 || response.body.front() != '{' || response.body.back() != '}')
    fail("bad JSON");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first bytes choose the chunking; the rest is the stream.
  size_t patternLength = std::min<size_t>(data[0] % 8, size - 1);
  std::string_view pattern(reinterpret_cast<const char*>(data + 1), patternLength);
  std::string_view bytes(reinterpret_cast<const char*>(data + 1 + patternLength), size - 1 - patternLength);

  Result whole = read(bytes, {});
  Result chunked = read(bytes, pattern);
  // Below the header limit, chunk boundaries can't change what is read.
  if (bytes.size() <= LocalAPIRequestReader::headerLimit) {
    if (whole.outcome != chunked.outcome) fail("outcome depends on chunking");
    if (whole.outcome == LocalAPIRequestReader::Outcome::request &&
        (whole.request.method != chunked.request.method || whole.request.path != chunked.request.path ||
         whole.request.headers != chunked.request.headers || whole.request.query != chunked.request.query ||
         whole.request.body != chunked.request.body)) {
      fail("request depends on chunking");
    }
  }
  if (whole.outcome == LocalAPIRequestReader::Outcome::request) checkRequest(whole.request);

  auto decoded = HTTP::percentDecode(bytes);
  if (decoded && !HTTP::isValidUTF8(*decoded)) fail("percentDecode gave invalid UTF-8");
  HTTP::splitQuery(bytes);
  HTTP::parseDecimal(bytes);
  return 0;
}

#ifdef QUILLANE_FUZZ_DRIVER
// Without libFuzzer: seeds of real requests, mutated with a fixed-seed generator.
#include <random>
#include <vector>

int main(int argc, char** argv) {
  long runs = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 20000;
  const std::vector<std::string> seeds = {
      "GET /v1/status HTTP/1.1\r\nAuthorization: Bearer qlne_x\r\n\r\n",
      "POST /v1/import?a=b=c&%41=%zz HTTP/1.1\r\nContent-Length: 13\r\n\r\n{\"paths\":[]}x",
      "POST /x HTTP/1.1\r\nContent-Length: +5\r\nX-A:\t v \t\r\nno colon\r\n\r\nhello",
      "DELETE /v1/profiles/My%20Web HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
      "GET\r\n\r\n",
      "PUT  /a b c\r\nContent-Length: 8388609\r\n\r\n",
      "GET /\xc3\xa9\xff HTTP/1.1\nHost: lf-only\n\n",
  };
  const std::vector<std::string> tokens = {"\r\n",
                                           "\r\n\r\n",
                                           ":",
                                           " ",
                                           "Content-Length: ",
                                           "%",
                                           "%e2%82",
                                           "?",
                                           "&",
                                           "=",
                                           "-",
                                           "+",
                                           "99999999999999999999",
                                           "\xc0\xaf",
                                           std::string(1, '\0')};
  std::mt19937_64 random(20240601);
  std::string input;
  for (long run = 0; run < runs; ++run) {
    input = seeds[random() % seeds.size()];
    int mutations = int(random() % 6);
    for (int m = 0; m < mutations && !input.empty(); ++m) {
      size_t at = random() % input.size();
      switch (random() % 4) {
        case 0:
          input[at] = char(random());
          break;
        case 1:
          input.erase(at, random() % 8);
          break;
        case 2:
          input.insert(at, tokens[random() % tokens.size()]);
          break;
        default:
          input.insert(at, std::string(random() % 64, char('a' + random() % 26)));
          break;
      }
    }
    std::string framed(1, char(random()));
    for (int i = 0; i < 7; ++i) framed.push_back(char(random()));
    framed += input;
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(framed.data()), framed.size());
  }
  std::printf("request_reader_fuzz: %ld inputs, no failure\n", runs);
  return 0;
}
#endif
