#pragma once
// The C library's own translations of its error descriptions ("No space left on device"), read
// from its message catalogue (/usr/share/locale/<language>/LC_MESSAGES/libc.mo, Debian's
// libc-l10n), so that a system error reads in the language chosen in the application rather than
// in the desktop's.

#include <string>
#include <string_view>
#include <unordered_map>

#include "engine/Localization.h"
#include "services/AppLanguage.h"

namespace quillane::SystemMessages {

// English -> translation, from the bytes of a catalogue in the GNU .mo format; empty for bytes
// that are no such catalogue or are cut short.
std::unordered_map<std::string, std::string> parseCatalogue(std::string_view bytes);

// The translation into `language` (the identity for English, and where the system has no
// catalogue for it or the catalogue can't be read), for Localization::setSystemMessages.
Localization::Lookup translatorFor(AppLanguage language);

}  // namespace quillane::SystemMessages
