#include "engine/Localization.h"

#include <cstring>

namespace quillane::Localization {
namespace {
Lookup& currentLookup() {
  static Lookup lookup;
  return lookup;
}
Lookup& currentSystemMessages() {
  static Lookup translate;
  return translate;
}
}  // namespace

void setLookup(Lookup lookup) { currentLookup() = std::move(lookup); }

void setSystemMessages(Lookup translate) { currentSystemMessages() = std::move(translate); }

std::string systemError(int error) {
  // strerror() would answer in the desktop's language (Qt sets the locale from it).
  const char* description = ::strerrordesc_np(error);
  std::string english = description ? description : "Unknown error " + std::to_string(error);
  const Lookup& translate = currentSystemMessages();
  if (!translate) return english;
  std::string translated = translate(english);
  return translated.empty() ? english : translated;
}

std::string text(const std::string& key, std::string_view fallback) {
  const Lookup& lookup = currentLookup();
  if (lookup) {
    std::string found = lookup(key);
    if (found != key && !found.empty()) return found;
  }
  return std::string(fallback);
}

std::string formatArgs(std::string_view format, std::initializer_list<std::string_view> args) {
  std::string out;
  out.reserve(format.size() + 32);
  auto next = args.begin();
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 >= format.size()) {
      out += format[i];
      continue;
    }
    // "%@", "%lld", "%d" take the next argument; "%1$@" takes a numbered one; "%%" is a percent sign.
    size_t j = i + 1;
    if (format[j] == '%') {
      out += '%';
      i = j;
      continue;
    }
    size_t index = 0;
    bool numbered = false;
    while (j < format.size() && format[j] >= '0' && format[j] <= '9')
      index = index * 10 + size_t(format[j++] - '0');
    if (j < format.size() && format[j] == '$' && index > 0) {
      numbered = true;
      ++j;
    } else if (index > 0) {
      out += format.substr(i, j - i);
      i = j - 1;
      continue;
    }
    while (j < format.size() && format[j] == 'l') ++j;
    if (j >= format.size() ||
        (format[j] != '@' && format[j] != 'd' && format[j] != 's' && format[j] != 'u')) {
      out += format[i];
      continue;
    }
    std::string_view arg;
    if (numbered) {
      if (index <= args.size()) arg = *(args.begin() + (index - 1));
    } else if (next != args.end()) {
      arg = *next++;
    }
    out += arg;
    i = j;
  }
  return out;
}

std::string format(const std::string& key, std::string_view fallback,
                   std::initializer_list<std::string_view> args) {
  return formatArgs(text(key, fallback), args);
}

}  // namespace quillane::Localization
