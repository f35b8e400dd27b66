#pragma once
// The string tables: one per AppLanguage, compiled into the program as JSON resources
// (services/strings/<raw value>.json, a flat object from dotted key to text), parsed once
// on first use and immutable afterwards.
//
// Any thread: tables are read-only once loaded, and loading is guarded.

#include <QString>
#include <QStringList>
#include <memory>
#include <string>
#include <unordered_map>

#include "engine/Localization.h"
#include "services/AppLanguage.h"

namespace quillane {

class StringTable {
 public:
  StringTable() = default;
  explicit StringTable(std::unordered_map<std::string, std::string> entries) : entries_(std::move(entries)) {}

  // The text for `key`, or nullptr when the table has none.
  const std::string* find(const std::string& key) const;
  QStringList keys() const;
  size_t size() const { return entries_.size(); }

 private:
  std::unordered_map<std::string, std::string> entries_;
};

namespace StringTables {

// The embedded table of `language`. Empty if its resource is missing or not a JSON object
// of strings (a build fault that the tests catch).
const StringTable& table(AppLanguage language);

// Parses a table from JSON text; nothing when the text is not an object of strings.
std::optional<StringTable> parse(const QByteArray& json);

// The other table of the same language that stands in for a key the language's own table
// lacks: en-US for en-GB and back, es-ES for es-419 and back, pt-PT for pt-BR and back.
// Nothing for the rest (the two Chinese scripts do not stand in for each other).
std::optional<AppLanguage> sibling(AppLanguage language);

// A lookup for Localization::setLookup: `language`'s table, then its sibling's, then the key
// itself, so that the caller's French default stands in.
Localization::Lookup lookupFor(AppLanguage language);

// The French table's text for `key`, or the key itself: the default of the UI helpers.
std::string frenchDefault(const std::string& key);

}  // namespace StringTables
}  // namespace quillane
