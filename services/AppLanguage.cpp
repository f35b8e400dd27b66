#include "services/AppLanguage.h"

#include <QStringList>

namespace quillane::AppLanguages {

namespace {

struct LanguageInfo {
  AppLanguage language;
  const char* raw;
  const char* nativeName;
};

// Texts in UTF-8; order is the picker's.
constexpr std::array<LanguageInfo, 15> kLanguages{{
    {AppLanguage::enGB, "en-GB", "English (UK)"},
    {AppLanguage::enUS, "en-US", "English (US)"},
    {AppLanguage::fr, "fr", "Français"},
    {AppLanguage::esES, "es-ES", "Español (España)"},
    {AppLanguage::esLatam, "es-419", "Español (Latinoamérica)"},
    {AppLanguage::ptPT, "pt-PT", "Português (Portugal)"},
    {AppLanguage::ptBR, "pt-BR", "Português (Brasil)"},
    {AppLanguage::it, "it", "Italiano"},
    {AppLanguage::de, "de", "Deutsch"},
    {AppLanguage::ru, "ru", "Русский"},
    {AppLanguage::hi, "hi", "हिन्दी"},
    {AppLanguage::ja, "ja", "日本語"},
    {AppLanguage::ko, "ko", "한국어"},
    {AppLanguage::zhHans, "zh-Hans", "中文（简体）"},
    {AppLanguage::zhHant, "zh-Hant", "中文（繁體）"},
}};

const LanguageInfo& info(AppLanguage language) { return kLanguages[size_t(language)]; }

// Splits a POSIX or BCP 47 tag ("pt_BR.UTF-8@euro", "zh-Hant-TW") into lower-cased subtags.
QStringList subtags(const QString& tag) {
  QString cleaned = tag.section(QLatin1Char('@'), 0, 0).section(QLatin1Char('.'), 0, 0);
  cleaned.replace(QLatin1Char('_'), QLatin1Char('-'));
  return cleaned.toLower().split(QLatin1Char('-'), Qt::SkipEmptyParts);
}

bool isAsciiAlpha(const QString& s) {
  for (QChar c : s)
    if (c.unicode() > 0x7f || !c.isLetter()) return false;
  return true;
}

// Regions that read American English; every other region gets the British table.
bool isAmericanRegion(const QString& region) {
  static const QStringList regions{"us", "pr", "um", "vi", "as", "gu", "mp"};
  return regions.contains(region);
}

bool isTraditionalChineseRegion(const QString& region) {
  return region == QLatin1String("tw") || region == QLatin1String("hk") || region == QLatin1String("mo");
}

}  // namespace

const std::array<AppLanguage, 15>& allCases() {
  static const std::array<AppLanguage, 15> cases = [] {
    std::array<AppLanguage, 15> out{};
    for (size_t i = 0; i < kLanguages.size(); ++i) out[i] = kLanguages[i].language;
    return out;
  }();
  return cases;
}

QString rawValue(AppLanguage language) { return QString::fromLatin1(info(language).raw); }

QString nativeName(AppLanguage language) { return QString::fromUtf8(info(language).nativeName); }

std::optional<AppLanguage> fromRawValue(const QString& raw) {
  for (const LanguageInfo& entry : kLanguages)
    if (raw == QLatin1String(entry.raw)) return entry.language;
  return std::nullopt;
}

std::optional<QString> languageCode(const QString& tag) {
  QStringList parts = subtags(tag);
  if (parts.isEmpty()) return std::nullopt;
  const QString& first = parts.front();
  if (first.size() < 2 || first.size() > 3 || !isAsciiAlpha(first)) return std::nullopt;
  return first;
}

std::optional<AppLanguage> bestMatch(const QString& tag) {
  QStringList parts = subtags(tag);
  for (const LanguageInfo& entry : kLanguages)
    if (parts == subtags(QLatin1String(entry.raw))) return entry.language;

  std::optional<QString> code = languageCode(tag);
  if (!code) return std::nullopt;
  // The subtags after the language: a four-letter script, or a region (two letters or
  // three digits), in that order when both are present.
  QString script, region;
  for (qsizetype i = 1; i < parts.size(); ++i) {
    if (parts[i].size() == 4 && script.isEmpty() && region.isEmpty())
      script = parts[i];
    else if (region.isEmpty() && (parts[i].size() == 2 || parts[i].size() == 3))
      region = parts[i];
  }

  if (*code == QLatin1String("en"))
    return region.isEmpty() || isAmericanRegion(region) ? AppLanguage::enUS : AppLanguage::enGB;
  if (*code == QLatin1String("es"))
    return region.isEmpty() || region == QLatin1String("es") ? AppLanguage::esES : AppLanguage::esLatam;
  if (*code == QLatin1String("pt"))
    return region.isEmpty() || region == QLatin1String("br") ? AppLanguage::ptBR : AppLanguage::ptPT;
  if (*code == QLatin1String("zh")) {
    if (script == QLatin1String("hant")) return AppLanguage::zhHant;
    if (script == QLatin1String("hans")) return AppLanguage::zhHans;
    return isTraditionalChineseRegion(region) ? AppLanguage::zhHant : AppLanguage::zhHans;
  }
  for (const LanguageInfo& entry : kLanguages)
    if (*code == QLatin1String(entry.raw)) return entry.language;
  return std::nullopt;
}

}  // namespace quillane::AppLanguages
