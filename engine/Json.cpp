#include "engine/Json.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace quillane {

JsonValue& JsonValue::set(std::string key, JsonValue value) {
  auto& object = std::get<Object>(v_);
  for (auto& [k, v] : object) {
    if (k == key) {
      v = std::move(value);
      return *this;
    }
  }
  object.emplace_back(std::move(key), std::move(value));
  return *this;
}

JsonValue& JsonValue::push(JsonValue value) {
  std::get<Array>(v_).push_back(std::move(value));
  return *this;
}

std::string JsonValue::write() const { return write(WriteOptions{}); }

std::string JsonValue::writeSorted() const { return write(WriteOptions{true, true}); }

std::string JsonValue::write(WriteOptions options) const {
  std::string out;
  writeTo(out, options);
  return out;
}

void JsonValue::writeTo(std::string& out, const WriteOptions& options) const {
  struct Visitor {
    std::string& out;
    const WriteOptions& options;
    void operator()(std::nullptr_t) const { out += "null"; }
    void operator()(bool b) const { out += b ? "true" : "false"; }
    void operator()(int64_t i) const { out += std::to_string(i); }
    void operator()(double d) const { out += Json::formatDouble(d); }
    void operator()(const std::string& s) const { Json::appendString(out, s, options.escapeSlashes); }
    void operator()(const Array& a) const {
      out += '[';
      for (size_t i = 0; i < a.size(); ++i) {
        if (i) out += ',';
        a[i].writeTo(out, options);
      }
      out += ']';
    }
    void operator()(const Object& o) const {
      std::vector<const std::pair<std::string, JsonValue>*> entries;
      entries.reserve(o.size());
      for (const auto& e : o) entries.push_back(&e);
      if (options.sortKeys) {
        std::stable_sort(entries.begin(), entries.end(),
                         [](auto* a, auto* b) { return a->first < b->first; });
      }
      out += '{';
      for (size_t i = 0; i < entries.size(); ++i) {
        if (i) out += ',';
        Json::appendString(out, entries[i]->first, options.escapeSlashes);
        out += ':';
        entries[i]->second.writeTo(out, options);
      }
      out += '}';
    }
  };
  std::visit(Visitor{out, options}, v_);
}

namespace Json {

namespace {

// The length of the well-formed UTF-8 sequence at the start of `s` (no overlong forms, no
// surrogates, nothing above U+10FFFF) and its code point; 0 when there is none.
size_t utf8Sequence(std::string_view s, char32_t& codePoint) {
  const auto byte = [&](size_t i) { return (unsigned char)s[i]; };
  const unsigned char lead = byte(0);
  size_t length;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    codePoint = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    codePoint = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    codePoint = lead & 0x07;
  } else {
    return 0;
  }
  if (s.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    codePoint = (codePoint << 6) | (byte(i) & 0x3F);
  }
  if ((length == 3 && codePoint < 0x800) || (length == 4 && (codePoint < 0x10000 || codePoint > 0x10FFFF)) ||
      (codePoint >= 0xD800 && codePoint <= 0xDFFF))
    return 0;
  return length;
}

void appendByteEscape(std::string& out, unsigned char byte) {
  static const char* hex = "0123456789abcdef";
  out += "\\uf7";
  out += hex[byte >> 4];
  out += hex[byte & 15];
}

}  // namespace

void appendString(std::string& out, std::string_view s, bool escapeSlashes) {
  static const char* hex = "0123456789abcdef";
  out += '"';
  for (size_t i = 0; i < s.size(); ++i) {
    const unsigned char c = (unsigned char)s[i];
    if (c >= 0x80) {
      char32_t codePoint = 0;
      const size_t length = utf8Sequence(s.substr(i), codePoint);
      if (length == 0) {
        appendByteEscape(out, c);
      } else if (codePoint >= byteEscapeFirst && codePoint <= byteEscapeLast) {
        // A name that really holds one of these characters: its bytes, so that reading
        // back stays unambiguous.
        for (size_t k = 0; k < length; ++k) appendByteEscape(out, (unsigned char)s[i + k]);
        i += length - 1;
      } else {
        out.append(s.substr(i, length));
        i += length - 1;
      }
      continue;
    }
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '/':
        if (escapeSlashes)
          out += "\\/";
        else
          out += '/';
        break;
      default:
        if (c < 0x20) {
          out += "\\u00";
          out += hex[c >> 4];
          out += hex[c & 15];
        } else {
          out += char(c);
        }
    }
  }
  out += '"';
}

std::string formatDouble(double d) {
  if (!std::isfinite(d)) return "0";
  if (d == std::trunc(d) && std::fabs(d) < 1e15) {
    return std::to_string(int64_t(d));
  }
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, d);
  if (ec != std::errc()) return "0";
  return std::string(buf, end);
}

}  // namespace Json
}  // namespace quillane
