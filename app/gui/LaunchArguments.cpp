#include "app/gui/LaunchArguments.h"

#include <array>
#include <optional>
#include <string_view>

#include "batch/ImportedImage.h"
#include "services/Strings.h"

namespace quillane {

namespace {

// Qt's own options (QGuiApplication and QApplication take them out of argv), which Qt also
// accepts with two dashes.
constexpr std::array<std::string_view, 14> kQtOptionsWithValue = {
    "platform",    "platformpluginpath", "platformtheme", "plugin",  "qwindowgeometry",
    "qwindowicon", "qwindowtitle",       "session",       "display", "style",
    "stylesheet",  "geometry",           "name",          "title"};
constexpr std::array<std::string_view, 5> kQtSwitches = {"reverse", "widgetcount", "nograb", "dograb",
                                                         "sync"};

template <size_t N>
bool contains(const std::array<std::string_view, N>& names, std::string_view name) {
  for (std::string_view each : names)
    if (each == name) return true;
  return false;
}

std::string_view qtOptionName(std::string_view argument) {
  argument.remove_prefix(argument.starts_with("--") ? 2 : 1);
  return argument;
}

QUrl fileURL(const QByteArray& argument, const QByteArray& workingFolder) {
  const QByteArray path = argument.startsWith('/') ? argument : workingFolder + '/' + argument;
  return QUrl::fromEncoded("file://" + path.toPercentEncoding("/"));
}

}  // namespace

LaunchArguments LaunchArguments::parse(int argc, const char* const* argv, const QByteArray& workingFolder) {
  LaunchArguments result;
  bool help = false, version = false, compress = false, background = false, service = false;
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument(argv[i]);
    if (optionsEnded || argument.empty() || argument[0] != '-' || argument == "-") {
      const QByteArray bytes(argv[i]);
      if (!isURLText(argument)) {
        result.files.append(fileURL(bytes, workingFolder));
      } else if (const std::optional<QUrl> file = localFileOfURL(bytes)) {
        result.files.append(*file);
      } else {
        result.notLocal.append(bytes);
      }
    } else if (argument == "--") {
      optionsEnded = true;
    } else if (argument == "-h" || argument == "--help") {
      help = true;
    } else if (argument == "--version") {
      version = true;
    } else if (argument == "--compress") {
      compress = true;
    } else if (argument == "--background") {
      background = true;
    } else if (argument == "--service") {
      service = true;
    } else if (contains(kQtOptionsWithValue, qtOptionName(argument)) && i + 1 < argc) {
      ++i;
    } else if (!contains(kQtSwitches, qtOptionName(argument)) && result.unknownOption.isEmpty()) {
      result.unknownOption = QByteArray(argv[i]);
    }
  }
  if (help)
    result.mode = Mode::help;
  else if (!result.unknownOption.isEmpty())
    result.mode = Mode::usageError;
  else if (version)
    result.mode = Mode::version;
  else if (compress)
    result.mode = result.files.isEmpty() && result.notLocal.isEmpty() ? Mode::window : Mode::compress;
  else if (service)
    result.mode = Mode::service;
  else if (background)
    result.mode = Mode::background;
  if (result.mode == Mode::service || result.mode == Mode::background) result.files.clear();
  return result;
}

QString LaunchArguments::usage() {
  const auto line = [](const char* option, const char* key) {
    return QStringLiteral("  %1  %2\n")
        .arg(QString::fromLatin1(option).leftJustified(20), Strings::text(key));
  };
  return Strings::text("launch.usage.title") +
         QStringLiteral(
             "\n  quillane [FILE...]\n  quillane --compress FILE...\n  quillane --background\n\n") +
         line("FILE...", "launch.usage.files") + line("--compress FILE...", "launch.usage.compress") +
         line("--background", "launch.usage.background") + line("-h, --help", "launch.usage.help") +
         line("--version", "launch.usage.version");
}

}  // namespace quillane
