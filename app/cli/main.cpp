// quillane-cli: the engine from a shell. Three verbs (inspect, analyze, compress), JSON with
// sorted keys on stdout, errors of a whole command on stderr.
//
// Exit status: 0 when the verb ran (single files may still have failed: they stand in the
// JSON), 6 when the compress command as a whole failed, 2 for a command line that can't be
// read, 3 when standard output could not take the JSON.
//
// Arguments are taken as bytes from argv, not through QString: file names that are not valid
// UTF-8 reach the engine, and the JSON, byte for byte.

#include <QByteArrayList>
#include <QCoreApplication>
#include <QFile>
#include <QLocale>
#include <QStringList>
#include <QUrl>
#include <QVariant>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "QuillaneVersion.h"
#include "app/cli/InspectCommands.h"
#include "automation/CompressScriptCommand.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"
#include "services/LanguageManager.h"

namespace {

using namespace quillane;

constexpr int kUsageError = 2;
constexpr int kOutputError = 3;

const char kHelp[] =
    "Usage: quillane-cli VERB [OPTIONS] FILE...\n"
    "\n"
    "Makes image files smaller, as the Quillane window does, from a shell. Every verb prints one\n"
    "JSON array with one object a file, in the order given, keys sorted.\n"
    "\n"
    "Verbs:\n"
    "  inspect FILE...\n"
    "      What the reader sees in each file: path, format (png, jpeg, heic, avif, webp or jxl),\n"
    "      pixelWidth and pixelHeight (as displayed, orientation applied), fileSizeBytes,\n"
    "      frameCount. A file that can't be read gives path and error.\n"
    "\n"
    "  analyze [--quality Q] FILE...\n"
    "      The picture's measurements (characteristics: width, height, contentClass,\n"
    "      distinctColorCount, colorCountSaturated, flatFraction, edgeFraction,\n"
    "      gradientFraction, noiseLevel, hasAlpha, hasPartialAlpha) and, for every output\n"
    "      format, the encoding plan at quality Q (plans: mode, modeQuality or\n"
    "      nearLosslessLevel, effort, quality, alternative and alternativeQuality,\n"
    "      dithering, prefersLossless).\n"
    "      --quality Q   perceptual quality from 1 to 100 (default 75)\n"
    "\n"
    "  compress FILE... [--to DIR] [--format NAME] [--quality Q] [--profile NAME]\n"
    "           [--max-width W] [--max-height H] [--max-bytes SIZE] [--skip-larger]\n"
    "      Compresses the files into DIR, as many at a time as there are processors and\n"
    "      memory allows, and prints one record a file, in the order given:\n"
    "      path, originalSizeBytes, and either compressedSizeBytes, ratio, destination and\n"
    "      butteraugli (how different the result looks from its source: below 1 no\n"
    "      visible difference; absent where it can't be measured), or error. Output names are the source's "
    "name with the format's extension; two\n"
    "      sources of the same name get \"-2\", \"-3\"... A file of that name already in DIR\n"
    "      is replaced.\n"
    "      --to DIR        output folder (a path or a file:// URL), created if missing\n"
    "      --format NAME   png, jpeg, heic, avif, webp or jxl, in any case; another name is\n"
    "                      ignored, with a warning on stderr\n"
    "      --quality Q     perceptual quality from 1 to 100; a value that is no number is\n"
    "                      ignored, one outside the range taken as 1 or 100, with a warning\n"
    "      --profile NAME  an export profile saved in Quillane, by name (any case); it gives\n"
    "                      whatever the options above leave out. Without it, the default\n"
    "                      profile does, if there is one; else jpeg at 75.\n"
    "      --max-width W, --max-height H\n"
    "                      scale each picture down, proportions kept, to fit W x H pixels\n"
    "                      (either or both); a smaller picture is left as it is\n"
    "      --max-bytes SIZE\n"
    "                      keep each file within SIZE bytes (\"500k\", \"1.5M\": k and M are\n"
    "                      1,000 and 1,000,000) at the highest quality, up to Q, that fits;\n"
    "                      a file that can't get under it even at quality 1 fails and is\n"
    "                      not written\n"
    "      --skip-larger   write no result that is not smaller than its source; its record\n"
    "                      says \"skipped\": true and the reason\n"
    "      Records of written files also give quality (the one used) and the result's\n"
    "      pixelWidth and pixelHeight.\n"
    "      Without a folder from --to or a profile, nothing is written.\n"
    "\n"
    "  --help, -h\n"
    "      This text.\n"
    "\n"
    "  --version\n"
    "      The version of quillane-cli, which is Quillane's.\n"
    "\n"
    "Options may also be written --name=VALUE; \"--\" ends the options, so that the\n"
    "arguments after it (\"-h\" too) are files. File names are passed through byte for byte,\n"
    "also when they are not valid UTF-8. In the JSON, which stays valid UTF-8, each byte of a\n"
    "name that is not part of valid UTF-8 is written as the character U+F700 plus the byte\n"
    "(\\uf780 to \\uf7ff), as is each byte of such a character a name really holds: read\n"
    "back, U+F780 to U+F7FF is one byte (the code less 0xF700), any other character its UTF-8.\n"
    "\n"
    "compress never replaces one of its own input files: a destination that is the same file\n"
    "as an input (compressing in place, or a second input in DIR) gets the next free name,\n"
    "\"photo-2.jpg\". Files are written through a temporary \".quillane-XXXXXX.tmp\" in DIR and\n"
    "renamed; a symbolic link at the destination is replaced, never written through, and a\n"
    "folder, pipe, device or socket there is left as it is (that file's \"error\" says so).\n"
    "An output is no more readable than its source (a private photo gives a private output).\n"
    "\n"
    "Exit status: 0 when the verb ran, even if some files failed (see their \"error\");\n"
    "6 when compress failed as a whole (no files, no output folder, unknown profile, a folder\n"
    "that can't be made or written, named in the message), with the reason on stderr and no\n"
    "file touched; 2 for an unknown verb or option; 3 when the JSON could not be written to\n"
    "standard output (a full disk, a closed pipe), with the reason on stderr.\n";

struct CommandLine {
  QByteArrayList files;
  std::map<QByteArray, QByteArray> options;  // without the leading "--"
};

// Splits arguments into files, the options named in `known`, each of which takes a value,
// and the switches named in `flags`, which take none. Returns an error text for anything else.
std::optional<std::string> parse(const QByteArrayList& arguments, const QByteArrayList& known,
                                 CommandLine& out, const QByteArrayList& flags = {}) {
  bool optionsEnded = false;
  for (qsizetype i = 0; i < arguments.size(); ++i) {
    const QByteArray& argument = arguments[i];
    if (optionsEnded || !argument.startsWith("--") || argument == "--") {
      if (argument == "--" && !optionsEnded) {
        optionsEnded = true;
        continue;
      }
      out.files.append(argument);
      continue;
    }
    QByteArray name = argument.mid(2);
    if (flags.contains(name)) {
      out.options[name] = {};
      continue;
    }
    QByteArray value;
    const qsizetype equals = name.indexOf('=');
    if (equals >= 0) {
      value = name.mid(equals + 1);
      name = name.left(equals);
    } else {
      if (!known.contains(name)) return "unknown option --" + name.toStdString();
      if (i + 1 >= arguments.size()) return "option --" + name.toStdString() + " needs a value";
      value = arguments[++i];
    }
    if (!known.contains(name)) return "unknown option --" + name.toStdString();
    out.options[name] = value;
  }
  return std::nullopt;
}

// Standard output is checked once, at the end: a failed write (a full disk, a closed pipe)
// is an error of its own, since the records are lost.
int outputErrno = 0;  // the first failure of a write to standard output

void printJson(const std::string& json) {
  if ((std::fwrite(json.data(), 1, json.size(), stdout) != json.size() || std::fputc('\n', stdout) == EOF) &&
      !outputErrno)
    outputErrno = errno;
}

int finish(int status) {
  errno = 0;
  if (std::fflush(stdout) != 0 && !outputErrno) outputErrno = errno ? errno : EIO;
  if (std::ferror(stdout) && !outputErrno) outputErrno = EIO;
  if (!outputErrno) return status;
  std::fprintf(stderr, "quillane-cli: standard output: %s\n", std::strerror(outputErrno));
  return kOutputError;
}

QString text(const QByteArray& bytes) { return QFile::decodeName(bytes); }

int usageError(const std::string& message) {
  std::fprintf(stderr, "quillane-cli: %s\nTry 'quillane-cli --help'.\n", message.c_str());
  return kUsageError;
}

// The number the whole text reads as (in the C locale). "nan" and "inf" read as doubles but
// are no quality: the engine would quietly turn them into its lowest or highest setting.
std::optional<double> finiteNumber(const QByteArray& text) {
  bool ok = false;
  const double number = QLocale::c().toDouble(QString::fromLatin1(text.trimmed()), &ok);
  if (!ok || !std::isfinite(number)) return std::nullopt;
  return number;
}

// A number when the text reads as one, else the text itself, which the command then ignores.
QVariant qualityValue(const QByteArray& value) {
  const std::optional<double> number = finiteNumber(value);
  return number ? QVariant(*number) : QVariant(text(value));
}

void warn(const std::string& message) { std::fprintf(stderr, "quillane-cli: %s\n", message.c_str()); }

// "--to" as a path, or as a file:// URL whose percent-encoded bytes are the path's (also
// those that are not UTF-8). Nothing, with `error` set, for a URL of another host.
std::optional<QByteArray> folderArgument(const QByteArray& value, std::string& error) {
  if (!value.startsWith("file://")) return value;
  // Bytes a shell passed unencoded (spaces, names that are not UTF-8) are encoded first, so
  // that the URL parser sees only ASCII.
  QByteArray encoded;
  for (const char c : value) {
    if ((unsigned char)c < 0x80 && c != ' ')
      encoded += c;
    else
      encoded += '%' + QByteArray::number((unsigned char)c, 16).rightJustified(2, '0').toUpper();
  }
  const QUrl url = QUrl::fromEncoded(encoded);
  const QString host = url.host();
  if (!url.isValid() || (!host.isEmpty() && host != QLatin1String("localhost")) || url.path().isEmpty()) {
    error = "--to: not a local file URL: " + value.toStdString();
    return std::nullopt;
  }
  return QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1());
}

// The command falls back without failing on a format or quality it can't use; the user hears
// of it here.
void warnAboutFallbacks(const std::map<QByteArray, QByteArray>& options) {
  if (auto format = options.find("format"); format != options.end()) {
    if (!ImageFormats::fromRawValue(text(format->second).toLower().toStdString()))
      warn("unknown format '" + format->second.toStdString() +
           "' ignored: the profile's format, or jpeg, is used (png, jpeg, heic, avif, webp, jxl)");
  }
  if (auto quality = options.find("quality"); quality != options.end()) {
    const std::optional<double> number = finiteNumber(quality->second);
    if (!number)
      warn("quality '" + quality->second.toStdString() + "' is no number: ignored");
    else if (*number < 1 || *number > 100)
      warn("quality " + quality->second.toStdString() +
           " is outside 1 to 100: " + (*number < 1 ? "1" : "100") + " is used");
  }
}

int runCompress(const QByteArrayList& arguments) {
  CommandLine line;
  if (auto error =
          parse(arguments, {"to", "format", "quality", "profile", "max-width", "max-height", "max-bytes"},
                line, {"skip-larger"}))
    return usageError(*error);
  QVariantMap evaluated;
  // Paths stay bytes (QByteArray); names of formats and profiles are text.
  if (line.options.count("to")) {
    std::string error;
    const std::optional<QByteArray> folder = folderArgument(line.options["to"], error);
    if (!folder) return usageError(error);
    evaluated[CompressScriptCommand::toArgument] = *folder;
  }
  warnAboutFallbacks(line.options);
  if (line.options.count("format"))
    evaluated[CompressScriptCommand::formatArgument] = text(line.options["format"]);
  if (line.options.count("quality"))
    evaluated[CompressScriptCommand::qualityArgument] = qualityValue(line.options["quality"]);
  if (line.options.count("profile"))
    evaluated[CompressScriptCommand::profileArgument] = text(line.options["profile"]);
  for (const auto& [option, argument] : {std::pair{"max-width", CompressScriptCommand::maxWidthArgument},
                                         std::pair{"max-height", CompressScriptCommand::maxHeightArgument}}) {
    if (!line.options.count(option)) continue;
    bool ok = false;
    const int pixels = line.options[option].toInt(&ok);
    if (!ok || pixels < 1)
      return usageError(std::string("--") + option + " needs a whole number of pixels above 0");
    evaluated[argument] = pixels;
  }
  if (line.options.count("max-bytes")) {
    const auto budget = ImageCompressor::parseByteCount(line.options["max-bytes"].toStdString());
    if (!budget) return usageError("--max-bytes needs a size in bytes, such as 250000, 500k or 1.5M");
    evaluated[CompressScriptCommand::maxBytesArgument] = qlonglong(*budget);
  }
  if (line.options.count("skip-larger")) evaluated[CompressScriptCommand::skipLargerArgument] = true;
  QVariantList files;
  for (const QByteArray& file : line.files) files.append(file);

  const auto outcome = CompressScriptCommand::performDefaultImplementation(files, evaluated);
  if (!outcome.json) {
    std::fprintf(stderr, "%s\n", outcome.errorString.c_str());
    return outcome.errorNumber;
  }
  printJson(*outcome.json);
  return 0;
}

std::vector<std::string> paths(const QByteArrayList& files) {
  std::vector<std::string> out;
  for (const QByteArray& file : files) out.push_back(file.toStdString());
  return out;
}

int runInspect(const QByteArrayList& arguments) {
  CommandLine line;
  if (auto error = parse(arguments, {}, line)) return usageError(*error);
  printJson(cli::inspect(paths(line.files)).writeSorted());
  return 0;
}

int runAnalyze(const QByteArrayList& arguments) {
  CommandLine line;
  if (auto error = parse(arguments, {"quality"}, line)) return usageError(*error);
  double quality = 75;
  if (line.options.count("quality")) {
    const std::optional<double> number = finiteNumber(line.options["quality"]);
    if (!number) return usageError("--quality needs a number");
    quality = *number;
  }
  printJson(cli::analyze(paths(line.files), quality).writeSorted());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // Answered before anything is set up: scripts and package checks call it often.
  if (argc == 2 && std::string_view(argv[1]) == "--version") {
    std::printf("quillane-cli %s\n", kAppVersion);
    return 0;
  }
  QCoreApplication app(argc, argv);
  QCoreApplication::setOrganizationName("Quillane");
  QCoreApplication::setApplicationName("Quillane");
  // Texts (error descriptions, command errors) in the language the application uses.
  LanguageManager::installLookupReadOnly();
  QByteArrayList arguments;
  for (int i = 1; i < argc; ++i) arguments.append(QByteArray(argv[i]));
  auto isHelp = [](const QByteArray& a) { return a == "--help" || a == "-h"; };
  if (arguments.isEmpty() || isHelp(arguments.first()) || arguments.first() == "help") {
    std::fputs(kHelp, stdout);
    return finish(0);
  }
  const QByteArray verb = arguments.takeFirst();
  // A help option asks for help only before "--"; after it, "-h" is a file's name.
  for (const QByteArray& argument : arguments) {
    if (argument == "--") break;
    if (isHelp(argument)) {
      std::fputs(kHelp, stdout);
      return finish(0);
    }
  }
  if (verb == "compress") return finish(runCompress(arguments));
  if (verb == "inspect") return finish(runInspect(arguments));
  if (verb == "analyze") return finish(runAnalyze(arguments));
  return usageError("unknown verb '" + verb.toStdString() + "'");
}
