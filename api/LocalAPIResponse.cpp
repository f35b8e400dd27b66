#include "api/LocalAPIRequest.h"
#include "engine/Json.h"

namespace quillane {

LocalAPIResponse LocalAPIResponse::json(int status, const JsonValue& value) {
  std::string body;
  try {
    body = value.writeSorted();
  } catch (...) {
    // Nothing a response value holds can fail to write; this only keeps a bad_alloc from
    // tearing down a connection task.
    body = "{}";
  }
  return LocalAPIResponse{status, std::move(body)};
}

LocalAPIResponse LocalAPIResponse::error(int status, std::string_view message) {
  return json(status, JsonValue::object().set("error", message));
}

std::string_view statusText(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 413:
      return "Payload Too Large";
    case 500:
      return "Internal Server Error";
    case 503:
      return "Service Unavailable";
    default:
      return "Unknown";
  }
}

std::string LocalAPIResponse::statusLine() const {
  std::string line = "HTTP/1.1 " + std::to_string(status) + " ";
  line += statusText(status);
  return line;
}

std::string LocalAPIResponse::serialize() const {
  std::string out = statusLine();
  out += "\r\nContent-Type: application/json; charset=utf-8\r\nContent-Length: ";
  out += std::to_string(body.size());
  out += "\r\nConnection: close\r\n\r\n";
  out += body;
  return out;
}

}  // namespace quillane
