#include "services/BaseDirectories.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace quillane::BaseDirectories {

namespace {
bool isAbsolute(const char* path) { return path != nullptr && path[0] == '/'; }
}  // namespace

void settle() {
  for (const char* variable :
       {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_RUNTIME_DIR"}) {
    const char* value = std::getenv(variable);
    if (value != nullptr && !isAbsolute(value)) ::unsetenv(variable);
  }
  if (isAbsolute(std::getenv("HOME"))) return;
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size_t(size > 0 ? size : 16384));
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
      isAbsolute(found->pw_dir))
    ::setenv("HOME", found->pw_dir, 1);
}

}  // namespace quillane::BaseDirectories
