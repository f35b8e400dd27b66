#include "api/LocalAPIRequestReader.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace quillane {

namespace {

constexpr std::string_view terminatorBytes = "\r\n\r\n";

std::string_view trimSpacesAndTabs(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

std::string asciiLower(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
  }
  return out;
}

// Splits on every occurrence of `separator`, keeping empty pieces.
std::vector<std::string_view> splitKeepingEmpty(std::string_view s, std::string_view separator) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  while (true) {
    size_t at = s.find(separator, start);
    if (at == std::string_view::npos) {
      pieces.push_back(s.substr(start));
      return pieces;
    }
    pieces.push_back(s.substr(start, at - start));
    start = at + separator.size();
  }
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

LocalAPIRequestReader::Outcome LocalAPIRequestReader::receive(std::string_view chunk) {
  if (phase_ == Phase::done) return outcome_;
  if (chunk.empty()) return outcome_;
  if (phase_ == Phase::body) {
    // Only what the declared length needs is kept; the surplus never becomes a request.
    size_t wanted = size_t(bodyLength_) - buffer_.size();
    buffer_.append(chunk.substr(0, std::min(wanted, chunk.size())));
    return finishIfComplete();
  }
  buffer_.append(chunk);
  size_t terminator = buffer_.find(terminatorBytes, searchFrom_);
  // The limit applies to the whole buffer, and before the search result is looked at: a
  // head completed by a chunk that pushed the buffer over the limit is refused too.
  if (buffer_.size() > headerLimit) {
    phase_ = Phase::done;
    return outcome_ = Outcome::malformed;
  }
  if (terminator == std::string::npos) {
    searchFrom_ = buffer_.size() >= 3 ? buffer_.size() - 3 : 0;
    return outcome_;
  }
  return parseHead(terminator);
}

LocalAPIRequestReader::Outcome LocalAPIRequestReader::end() {
  if (phase_ == Phase::done) return outcome_;
  // Whatever had arrived, a request cut short is malformed.
  phase_ = Phase::done;
  return outcome_ = Outcome::malformed;
}

LocalAPIRequestReader::Outcome LocalAPIRequestReader::parseHead(size_t terminator) {
  std::string_view all(buffer_);
  std::string_view head = all.substr(0, terminator);
  phase_ = Phase::done;
  if (!LocalAPIHTTP::isValidUTF8(head)) return outcome_ = Outcome::malformed;

  std::vector<std::string_view> lines = splitKeepingEmpty(head, "\r\n");
  std::vector<std::string_view> tokens = splitKeepingEmpty(lines.front(), " ");
  if (tokens.size() < 2) return outcome_ = Outcome::malformed;
  request_.method = std::string(tokens[0]);
  auto [path, query] = LocalAPIHTTP::splitQuery(tokens[1]);
  request_.path = std::move(path);
  request_.query = std::move(query);

  for (size_t i = 1; i < lines.size(); ++i) {
    std::string_view line = lines[i];
    size_t colon = line.find(':');
    if (line.empty() || colon == std::string_view::npos) continue;
    request_.headers[asciiLower(trimSpacesAndTabs(line.substr(0, colon)))] =
        std::string(trimSpacesAndTabs(line.substr(colon + 1)));
  }

  headRead_ = true;
  bodyLength_ = 0;
  if (auto it = request_.headers.find("content-length"); it != request_.headers.end()) {
    // Anything that isn't a plain decimal integer counts as no length at all.
    bodyLength_ = LocalAPIHTTP::parseDecimal(it->second).value_or(0);
  }
  if (bodyLength_ < 0) return outcome_ = Outcome::malformed;
  if (bodyLength_ > bodyLimit) return outcome_ = Outcome::payloadTooLarge;

  std::string rest(all.substr(terminator + terminatorBytes.size()));
  if (int64_t(rest.size()) > bodyLength_) rest.resize(size_t(bodyLength_));
  buffer_ = std::move(rest);
  phase_ = Phase::body;
  return finishIfComplete();
}

LocalAPIRequestReader::Outcome LocalAPIRequestReader::finishIfComplete() {
  if (int64_t(buffer_.size()) < bodyLength_) return outcome_;
  request_.body = std::move(buffer_);
  buffer_ = std::string();
  phase_ = Phase::done;
  return outcome_ = Outcome::request;
}

namespace LocalAPIHTTP {

std::pair<std::string, std::map<std::string, std::string>> splitQuery(std::string_view target) {
  std::map<std::string, std::string> query;
  size_t question = target.find('?');
  if (question == std::string_view::npos) return {std::string(target), query};
  auto decodedOrAsIs = [](std::string_view part) { return percentDecode(part).value_or(std::string(part)); };
  for (std::string_view piece : splitKeepingEmpty(target.substr(question + 1), "&")) {
    if (piece.empty()) continue;
    // At most two parts, empty parts dropped: "a=" and "=b" each leave one part.
    std::string_view name, value;
    size_t equals = piece.find('=');
    if (equals == std::string_view::npos) {
      name = piece;
    } else {
      std::string_view left = piece.substr(0, equals), right = piece.substr(equals + 1);
      if (left.empty() && right.empty()) continue;
      if (left.empty()) {
        name = right;
      } else {
        name = left;
        value = right;
      }
    }
    query[decodedOrAsIs(name)] = decodedOrAsIs(value);
  }
  return {std::string(target.substr(0, question)), query};
}

std::optional<std::string> percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    int high = hexValue(text[i + 1]), low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out.push_back(char(high * 16 + low));
    i += 2;
  }
  if (!isValidUTF8(out)) return std::nullopt;
  return out;
}

bool isValidUTF8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    int extra;
    uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
      extra = 1;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      extra = 2;
      cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      extra = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (end - p <= extra) return false;
    for (int k = 1; k <= extra; ++k) {
      if ((p[k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[k] & 0x3F);
    }
    if ((extra == 2 && cp < 0x800) || (extra == 3 && (cp < 0x10000 || cp > 0x10FFFF)) ||
        (cp >= 0xD800 && cp <= 0xDFFF)) {
      return false;
    }
    p += extra + 1;
  }
  return true;
}

std::optional<int64_t> parseDecimal(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return std::nullopt;
  // Accumulated as a negative number so that the most negative value fits too.
  int64_t value = 0;
  constexpr int64_t lowest = std::numeric_limits<int64_t>::min();
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    int digit = c - '0';
    if (value < (lowest + digit) / 10) return std::nullopt;
    value = value * 10 - digit;
  }
  if (negative) return value;
  if (value == lowest) return std::nullopt;
  return -value;
}

}  // namespace LocalAPIHTTP
}  // namespace quillane
