#pragma once
// A small JSON value and writer, written once for every place that produces JSON: the
// state files (compact, keys in insertion order) and the local API and command-line tool
// (sorted keys, "/" escaped as "\/"). Doubles that are whole print without a fraction,
// others in their shortest round-trip form. Reading is done by Qt's parser in the Qt layers.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace quillane {

class JsonValue {
 public:
  using Array = std::vector<JsonValue>;
  using Object = std::vector<std::pair<std::string, JsonValue>>;  // insertion order kept

  JsonValue() : v_(nullptr) {}
  JsonValue(std::nullptr_t) : v_(nullptr) {}
  JsonValue(bool b) : v_(b) {}
  JsonValue(int i) : v_(int64_t(i)) {}
  JsonValue(int64_t i) : v_(i) {}
  JsonValue(double d) : v_(d) {}
  JsonValue(const char* s) : v_(std::string(s)) {}
  JsonValue(std::string s) : v_(std::move(s)) {}
  JsonValue(std::string_view s) : v_(std::string(s)) {}
  JsonValue(Array a) : v_(std::move(a)) {}
  JsonValue(Object o) : v_(std::move(o)) {}

  static JsonValue object() { return JsonValue(Object{}); }
  static JsonValue array() { return JsonValue(Array{}); }

  // On an object: sets (or replaces) a key, keeping first-insertion order. Returns *this.
  JsonValue& set(std::string key, JsonValue value);
  // On an array: appends.
  JsonValue& push(JsonValue value);

  bool isNull() const { return std::holds_alternative<std::nullptr_t>(v_); }
  bool isObject() const { return std::holds_alternative<Object>(v_); }
  bool isArray() const { return std::holds_alternative<Array>(v_); }

  struct WriteOptions {
    bool sortKeys = false;
    bool escapeSlashes = false;
  };
  std::string write() const;
  std::string write(WriteOptions options) const;
  // Sorted keys and escaped slashes: the form of the local API and the command-line tool.
  std::string writeSorted() const;

 private:
  void writeTo(std::string& out, const WriteOptions& options) const;
  std::variant<std::nullptr_t, bool, int64_t, double, std::string, Array, Object> v_;
};

namespace Json {
// Appends `s` as a JSON string literal. Text is UTF-8, but a file name need not be: so that
// every output is valid JSON and such a name can still be told apart and read back, a byte
// that is not part of well-formed UTF-8 is written as the character U+F700 plus its value
// ("\uf780" to "\uf7ff"), and so is each byte of a character of that range that `s` holds.
// Read back, each character from U+F780 to U+F7FF is one byte (its code less 0xF700), and
// every other character its UTF-8 bytes.
void appendString(std::string& out, std::string_view s, bool escapeSlashes);
inline constexpr char32_t byteEscapeFirst = 0xF780, byteEscapeLast = 0xF7FF;
// Whole numbers without a fraction ("3"), others shortest round-trip ("0.1"); NaN and
// infinities, which JSON can't hold, as 0.
std::string formatDouble(double d);
}  // namespace Json

}  // namespace quillane
