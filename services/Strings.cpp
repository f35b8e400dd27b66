#include "services/Strings.h"

#include "engine/Localization.h"
#include "services/StringTables.h"

namespace quillane::Strings {

namespace {
std::string lookUp(const std::string& key) {
  return Localization::text(key, StringTables::frenchDefault(key));
}
}  // namespace

QString text(const char* key) { return QString::fromStdString(lookUp(key)); }

QString text(const QString& key) { return QString::fromStdString(lookUp(key.toStdString())); }

namespace detail {

std::string toArg(double value) { return QString::number(value, 'g', 15).toStdString(); }

QString formatStrings(const char* key, std::initializer_list<std::string_view> args) {
  return QString::fromStdString(Localization::formatArgs(lookUp(key), args));
}

}  // namespace detail
}  // namespace quillane::Strings
