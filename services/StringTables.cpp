#include "services/StringTables.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <array>
#include <mutex>

// Registers the resource of the string tables. qt_add_resources on a static library
// normally links an initializer into the executable, but calling it is cheap and makes the
// tables available even where a linker dropped that object. Outside any namespace, as
// Q_INIT_RESOURCE requires.
static void initStringResources() { Q_INIT_RESOURCE(quillane_strings); }

namespace quillane {

const std::string* StringTable::find(const std::string& key) const {
  auto it = entries_.find(key);
  return it == entries_.end() ? nullptr : &it->second;
}

QStringList StringTable::keys() const {
  QStringList out;
  out.reserve(qsizetype(entries_.size()));
  for (const auto& [key, text] : entries_) out.append(QString::fromStdString(key));
  out.sort();
  return out;
}

namespace StringTables {

std::optional<StringTable> parse(const QByteArray& json) {
  QJsonParseError error{};
  QJsonDocument document = QJsonDocument::fromJson(json, &error);
  if (error.error != QJsonParseError::NoError || !document.isObject()) return std::nullopt;
  std::unordered_map<std::string, std::string> entries;
  const QJsonObject object = document.object();
  for (auto it = object.begin(); it != object.end(); ++it) {
    if (!it.value().isString()) return std::nullopt;
    entries.emplace(it.key().toStdString(), it.value().toString().toStdString());
  }
  return StringTable(std::move(entries));
}

const StringTable& table(AppLanguage language) {
  static std::once_flag once;
  static std::array<StringTable, 15> tables;
  std::call_once(once, [] {
    initStringResources();
    for (AppLanguage each : AppLanguages::allCases()) {
      QFile file(QStringLiteral(":/strings/%1.json").arg(AppLanguages::rawValue(each)));
      if (!file.open(QIODevice::ReadOnly)) continue;
      if (std::optional<StringTable> parsed = parse(file.readAll()))
        tables[size_t(each)] = std::move(*parsed);
    }
  });
  return tables[size_t(language)];
}

std::optional<AppLanguage> sibling(AppLanguage language) {
  switch (language) {
    case AppLanguage::enGB:
      return AppLanguage::enUS;
    case AppLanguage::enUS:
      return AppLanguage::enGB;
    case AppLanguage::esES:
      return AppLanguage::esLatam;
    case AppLanguage::esLatam:
      return AppLanguage::esES;
    case AppLanguage::ptPT:
      return AppLanguage::ptBR;
    case AppLanguage::ptBR:
      return AppLanguage::ptPT;
    default:
      return std::nullopt;
  }
}

Localization::Lookup lookupFor(AppLanguage language) {
  const StringTable* own = &table(language);
  std::optional<AppLanguage> other = sibling(language);
  const StringTable* fallback = other ? &table(*other) : nullptr;
  return [own, fallback](const std::string& key) -> std::string {
    if (const std::string* text = own->find(key)) return *text;
    if (fallback)
      if (const std::string* text = fallback->find(key)) return *text;
    return key;
  };
}

std::string frenchDefault(const std::string& key) {
  const std::string* text = table(AppLanguage::fr).find(key);
  return text ? *text : key;
}

}  // namespace StringTables
}  // namespace quillane
