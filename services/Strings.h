#pragma once
// Texts for the user interface, looked up by dotted key in the running language:
//
//   label->setText(Strings::text("settings.updates.checkNow"));
//   status->setText(Strings::format("settings.updates.newVersionFormat", version));
//   count->setText(Strings::format("controls.importedCountFormat", images.size()));
//
// Both go through quillane::Localization, so they read the table LanguageManager installed;
// where that gives back the key, the French table's text stands in (and the key itself
// if even that lacks it). Arguments may be QString, std::string, C strings or numbers,
// which fill "%@", "%lld" and "%1$@"-style placeholders in order.
//
// Any thread once LanguageManager::shared() has been made at launch.

#include <QString>
#include <concepts>
#include <string>
#include <string_view>

namespace quillane::Strings {

QString text(const char* key);
QString text(const QString& key);

namespace detail {
inline std::string toArg(const QString& value) { return value.toStdString(); }
inline std::string toArg(const std::string& value) { return value; }
inline std::string toArg(std::string_view value) { return std::string(value); }
inline std::string toArg(const char* value) { return value ? std::string(value) : std::string(); }
template <std::integral T>
std::string toArg(T value) {
  return std::to_string(value);
}
std::string toArg(double value);

QString formatStrings(const char* key, std::initializer_list<std::string_view> args);
template <class... S>
QString formatConverted(const char* key, const S&... converted) {
  return formatStrings(key, {std::string_view(converted)...});
}
}  // namespace detail

// The format string of `key` with `args` in its placeholders.
template <class... Args>
QString format(const char* key, const Args&... args) {
  return detail::formatConverted(key, detail::toArg(args)...);
}

}  // namespace quillane::Strings
