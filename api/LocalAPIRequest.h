#pragma once
// The values that travel through the local API: one request read from a connection and
// the one response written back. Plain C++ with no Qt, so that the request reader can be
// driven without sockets (tests, fuzzing).

#include <map>
#include <string>
#include <string_view>

namespace quillane {

class JsonValue;

struct LocalAPIRequest {
  std::string method;                          // first token of the request line, case kept
  std::string path;                            // target before the first "?", still percent-encoded
  std::map<std::string, std::string> query;    // see splitQuery
  std::map<std::string, std::string> headers;  // names in lower case; a repeated name keeps the last value
  std::string body;                            // exactly Content-Length bytes
};

struct LocalAPIResponse {
  int status = 200;
  std::string body;  // always JSON text

  // `value` written compact with sorted keys and "/" escaped.
  static LocalAPIResponse json(int status, const JsonValue& value);
  // {"error": message}
  static LocalAPIResponse error(int status, std::string_view message);

  // "HTTP/1.1 200 OK", without the line ending.
  std::string statusLine() const;
  // The whole response as it goes on the wire: status line, the three headers, an empty
  // line, the body.
  std::string serialize() const;
};

// The reason phrase of `status`: eight known codes, "Unknown" for any other.
std::string_view statusText(int status);

}  // namespace quillane
