#include "services/SystemMessages.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>

namespace quillane::SystemMessages {

namespace {

// The catalogue's folder under /usr/share/locale, or nothing for English.
std::optional<std::string> catalogueName(AppLanguage language) {
  switch (language) {
    case AppLanguage::enGB:
    case AppLanguage::enUS:
      return std::nullopt;
    case AppLanguage::esES:
    case AppLanguage::esLatam:
      return "es";
    case AppLanguage::ptPT:
      return "pt";
    case AppLanguage::ptBR:
      return "pt_BR";
    case AppLanguage::zhHans:
      return "zh_CN";
    case AppLanguage::zhHant:
      return "zh_TW";
    default:
      return AppLanguages::rawValue(language).toStdString();  // "fr", "de", "ja"...
  }
}

}  // namespace

std::unordered_map<std::string, std::string> parseCatalogue(std::string_view bytes) {
  // A header of 32-bit words in the writer's byte order: magic, revision, count, then the
  // offsets of two tables of (length, offset) pairs, the English strings and their translations.
  auto word = [&](uint64_t at, bool swapped) -> std::optional<uint32_t> {
    if (at + 4 > bytes.size()) return std::nullopt;
    uint32_t value = 0;
    std::memcpy(&value, bytes.data() + at, 4);
    return swapped ? __builtin_bswap32(value) : value;
  };
  const std::optional<uint32_t> magic = word(0, false);
  if (!magic || (*magic != 0x950412de && *magic != 0xde120495)) return {};
  const bool swapped = *magic == 0xde120495;
  auto string = [&](std::optional<uint32_t> table, uint32_t index) -> std::optional<std::string_view> {
    if (!table) return std::nullopt;
    const uint64_t entry = uint64_t(*table) + uint64_t(index) * 8;
    const std::optional<uint32_t> length = word(entry, swapped), offset = word(entry + 4, swapped);
    if (!length || !offset || uint64_t(*offset) + *length > bytes.size()) return std::nullopt;
    return bytes.substr(*offset, *length);
  };
  const std::optional<uint32_t> count = word(8, swapped);
  if (!count) return {};
  std::unordered_map<std::string, std::string> translations;
  for (uint32_t i = 0; i < *count; ++i) {
    const auto english = string(word(12, swapped), i), translated = string(word(16, swapped), i);
    if (!english || !translated) return {};
    // The header (an empty English string) and untranslated entries are left out; of plural
    // forms, separated by NULs, the first is kept.
    const std::string_view first = translated->substr(0, translated->find('\0'));
    if (!english->empty() && !first.empty()) translations.emplace(*english, first);
  }
  return translations;
}

Localization::Lookup translatorFor(AppLanguage language) {
  const std::optional<std::string> name = catalogueName(language);
  if (!name) return {};
  std::ifstream file("/usr/share/locale/" + *name + "/LC_MESSAGES/libc.mo", std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  auto translations =
      std::make_shared<const std::unordered_map<std::string, std::string>>(parseCatalogue(bytes));
  if (translations->empty()) return {};
  return [translations](const std::string& english) {
    const auto found = translations->find(english);
    return found == translations->end() ? english : found->second;
  };
}

}  // namespace quillane::SystemMessages
