#pragma once
// Texts shown to a user are looked up by a dotted key at the moment they are needed.
// The engine knows only the keys and their French defaults; the application installs the
// real string tables at start-up (services/LanguageManager). Until then, and for any key
// the tables lack, the default stands in.

#include <functional>
#include <string>
#include <string_view>

namespace quillane::Localization {

// Returns the text for `key`, or the key itself when the tables have none.
using Lookup = std::function<std::string(const std::string& key)>;

// Installs the lookup. Call once at start-up, before any other thread asks for a text.
void setLookup(Lookup lookup);

// The text for `key`; `fallback` when the lookup gives back the key itself.
std::string text(const std::string& key, std::string_view fallback);

// Replaces the first "%@" of `format` by `arg` (and "%1$@"-style numbered forms in order).
std::string formatArgs(std::string_view format, std::initializer_list<std::string_view> args);

// The C library's description of the error number `error` ("No space left on device"), in the
// language of the tables where the installed translation has it, else in English: never in the
// desktop's language when the application speaks another.
std::string systemError(int error);

// Installs the translation of the C library's English descriptions (the identity when none is
// installed), as setLookup() installs the tables.
void setSystemMessages(Lookup translate);

// text() followed by formatArgs(): for keys that end in "Format".
std::string format(const std::string& key, std::string_view fallback,
                   std::initializer_list<std::string_view> args);

}  // namespace quillane::Localization
