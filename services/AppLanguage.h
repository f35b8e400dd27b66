#pragma once
// The fifteen languages the application ships string tables for, in the order of the
// language picker. Language names are never translated: each is shown in its own script.
//
// Any thread (pure functions over constant data).

#include <QString>
#include <array>
#include <optional>

namespace quillane {

enum class AppLanguage { enGB, enUS, fr, esES, esLatam, ptPT, ptBR, it, de, ru, hi, ja, ko, zhHans, zhHant };

namespace AppLanguages {

// Every case, in picker order.
const std::array<AppLanguage, 15>& allCases();

// The locale code ("en-GB", "es-419", "zh-Hant"); also the language's id and the name of
// its string table.
QString rawValue(AppLanguage language);

// The language's own name ("Français", "日本語").
QString nativeName(AppLanguage language);

// The case whose raw value equals `raw` exactly (case-sensitive), if any.
std::optional<AppLanguage> fromRawValue(const QString& raw);

// The base language code of a locale tag: "fr" for "fr-CA", "zh" for "zh-Hans", "es" for
// "es_MX.UTF-8". Nothing for tags without one ("C", "POSIX", "", "*").
std::optional<QString> languageCode(const QString& tag);

// The table that best serves a locale tag, if any: an exact raw value first (ignoring
// case and "_" versus "-"), then by language, with the region or script choosing between
// variants ("en-AU" gives enGB, "es-MX" gives esLatam, "pt" gives ptBR, "zh-TW" gives
// zhHant, "fr-CA" gives fr). Nothing for a language outside the fifteen.
std::optional<AppLanguage> bestMatch(const QString& tag);

}  // namespace AppLanguages
}  // namespace quillane
