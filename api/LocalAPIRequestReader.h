#pragma once
// Reads one HTTP/1.1 request from the bytes of one connection, chunk by chunk. It knows
// no sockets and no clock: the connection feeds it what each receive returned and tells
// it when the peer has finished; the deadline is the connection's business.
//
// Framing: the head ends at the first CR LF CR LF; lines end with CR LF only; the body is
// exactly Content-Length bytes, surplus bytes are dropped. The whole buffer may not exceed
// headerLimit while the head is being looked for, and a declared body may not exceed
// bodyLimit. Any thread; one instance per connection.

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "api/LocalAPIRequest.h"

namespace quillane {

class LocalAPIRequestReader {
 public:
  static constexpr size_t headerLimit = 0x100000;  // 1,048,576
  static constexpr int64_t bodyLimit = 0x800000;   // 8,388,608
  static constexpr size_t maxChunk = 65536;        // the most one receive asks for

  enum class Outcome { needMore, request, malformed, payloadTooLarge };

  // Takes the bytes of one receive (empty is allowed and changes nothing). Once an outcome
  // other than needMore has been returned, further calls return it again and read nothing.
  Outcome receive(std::string_view chunk);
  // The peer finished, or the connection failed, with no bytes.
  Outcome end();

  Outcome outcome() const { return outcome_; }
  // The request's line and headers (method, path, query, headers; no body yet) as soon as
  // the head has been read, so that a request can be refused before its body is; null
  // before then and when the head was malformed.
  const LocalAPIRequest* head() const { return headRead_ ? &request_ : nullptr; }
  // Bytes held for this request so far (allocated, not only used).
  size_t bufferedBytes() const { return buffer_.capacity(); }
  // REQUIRES: outcome() == Outcome::request.
  LocalAPIRequest takeRequest() { return std::move(request_); }

 private:
  Outcome parseHead(size_t terminator);
  Outcome finishIfComplete();

  enum class Phase { head, body, done };
  Phase phase_ = Phase::head;
  Outcome outcome_ = Outcome::needMore;
  std::string buffer_;     // head phase: everything so far; body phase: the body so far
  size_t searchFrom_ = 0;  // the terminator can't start before this offset
  int64_t bodyLength_ = 0;
  bool headRead_ = false;
  LocalAPIRequest request_;
};

namespace LocalAPIHTTP {

// Splits a request target into the path before the first "?" and the query pairs after
// it. Pieces are separated by "&" (empty ones dropped) and split on the first "="; names
// and values are percent-decoded, a part that doesn't decode stays as it came, "+" stays
// "+", and a later name replaces an earlier one.
std::pair<std::string, std::map<std::string, std::string>> splitQuery(std::string_view target);

// "%41" -> "A". Nothing when an escape is broken or the result isn't UTF-8.
std::optional<std::string> percentDecode(std::string_view text);

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::string_view text);

// An optional "+" or "-", then one or more ASCII digits, fitting a signed 64-bit integer.
std::optional<int64_t> parseDecimal(std::string_view text);

}  // namespace LocalAPIHTTP
}  // namespace quillane
