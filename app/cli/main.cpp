// quillane-cli: the engine from a shell. Three verbs (inspect, analyze, compress), JSON with
// sorted keys on stdout, errors of a whole command on stderr.
//
// Exit status: 0 when the verb ran (single files may still have failed: they stand in the
// JSON), 6 when the compress command as a whole failed, 2 for a command line that can't be
// read, 3 when standard output could not take what it prints.
//
// Arguments are taken as bytes from argv, not through QString: file names that are not valid
// UTF-8 reach the engine, and the JSON, byte for byte.

#include <QByteArrayList>
#include <QCoreApplication>
#include <QStringList>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "QuillaneVersion.h"
#include "app/cli/CompressArguments.h"
#include "app/cli/InspectCommands.h"
#include "automation/CompressScriptCommand.h"
#include "automation/TerminationSignals.h"
#include "engine/FileIO.h"
#include "services/BaseDirectories.h"
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
    "      --quality Q   perceptual quality from 1 to 100 (default 75); one outside the\n"
    "                    range is taken as 1 or 100, with a warning\n"
    "\n"
    "  compress FILE... [--to DIR] [--format NAME] [--quality Q] [--profile NAME]\n"
    "           [--max-width W] [--max-height H] [--max-bytes SIZE] [--skip-larger]\n"
    "      Compresses the files into DIR, as many at a time as there are processors and\n"
    "      memory allows, and prints one record a file, in the order given:\n"
    "      path, originalSizeBytes, and either compressedSizeBytes, ratio, destination and\n"
    "      butteraugli (how different the result looks from its source: below 1 no\n"
    "      visible difference; absent where it can't be measured), or error. Output\n"
    "      names are the source's name with the format's extension; two sources of the\n"
    "      same name get \"-2\", \"-3\"... A file of that name already in DIR is replaced.\n"
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
    "Interrupted (Ctrl+C, SIGTERM, SIGHUP), it ends once the file it is writing is whole, leaving\n"
    "no temporary behind; a second interruption ends it at once.\n"
    "\n"
    "Exit status: 0 when the verb ran, even if some files failed (see their \"error\");\n"
    "6 when compress failed as a whole (no files, no output folder, unknown profile, a folder\n"
    "that can't be made or written, named in the message), with the reason on stderr and no\n"
    "file touched; 2 for an unknown verb or option; 3 when what it prints (the JSON, this\n"
    "text, the version) could not be written to standard output (a full disk, a closed\n"
    "pipe), with the reason on stderr.\n";

// Standard output is checked once, at the end: a failed write (a full disk, a closed pipe)
// is an error of its own, since the records are lost.
int outputErrno = 0;  // the first failure of a write to standard output

// Writes `text` to standard output, noting the reason of the first failure: a buffer flushed
// on the way may fail while the whole text is still taken.
void print(std::string_view text) {
  if ((std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::ferror(stdout)) &&
      !outputErrno)
    outputErrno = errno ? errno : EIO;
}

void printJson(const std::string& json) {
  print(json);
  print("\n");
}

int finish(int status) {
  errno = 0;
  if (std::fflush(stdout) != 0 && !outputErrno) outputErrno = errno ? errno : EIO;
  if (std::ferror(stdout) && !outputErrno) outputErrno = EIO;
  if (!outputErrno) return status;
  std::fprintf(stderr, "quillane-cli: standard output: %s\n", std::strerror(outputErrno));
  return kOutputError;
}

int usageError(const std::string& message) {
  std::fprintf(stderr, "quillane-cli: %s\nTry 'quillane-cli --help'.\n", message.c_str());
  return kUsageError;
}

int runCompress(const QByteArrayList& arguments) {
  const cli::CompressRequest request = cli::readCompress(arguments);
  if (request.error) return usageError(*request.error);
  for (const std::string& warning : request.warnings)
    std::fprintf(stderr, "quillane-cli: %s\n", warning.c_str());
  const auto outcome = CompressScriptCommand::performDefaultImplementation(request.files, request.arguments);
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
  cli::CommandLine line;
  if (auto error = cli::parse(arguments, {}, line)) return usageError(*error);
  printJson(cli::inspect(paths(line.files)).writeSorted());
  return 0;
}

int runAnalyze(const QByteArrayList& arguments) {
  cli::CommandLine line;
  if (auto error = cli::parse(arguments, {"quality"}, line)) return usageError(*error);
  double quality = 75;
  if (line.options.count("quality")) {
    const std::optional<double> number = cli::finiteNumber(line.options["quality"]);
    if (!number) return usageError("--quality needs a number");
    quality = std::clamp(*number, 1.0, 100.0);
    if (quality != *number)
      std::fprintf(stderr, "quillane-cli: quality %s is outside 1 to 100: %s is used\n",
                   line.options["quality"].constData(), quality == 1 ? "1" : "100");
  }
  printJson(cli::analyze(paths(line.files), quality).writeSorted());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  BaseDirectories::settle();
  // Started without a standard output (`>&-`), the records can't be written: told at the end.
  for (int fd : FileIO::openClosedStandardDescriptors())
    if (fd == 1) outputErrno = EBADF;
  // A reader that went away (a closed pipe) is a failed write, told by the exit status, not a
  // signal that ends the tool.
  std::signal(SIGPIPE, SIG_IGN);
  TerminationSignals::endOnceWritesAreWhole();
  // Answered before anything is set up: scripts and package checks call it often.
  if (argc == 2 && std::string_view(argv[1]) == "--version") {
    print(std::string("quillane-cli ") + kAppVersion + "\n");
    return finish(0);
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
    print(kHelp);
    return finish(0);
  }
  const QByteArray verb = arguments.takeFirst();
  // A help option asks for help only before "--"; after it, "-h" is a file's name.
  for (const QByteArray& argument : arguments) {
    if (argument == "--") break;
    if (isHelp(argument)) {
      print(kHelp);
      return finish(0);
    }
  }
  if (verb == "compress") return finish(runCompress(arguments));
  if (verb == "inspect") return finish(runInspect(arguments));
  if (verb == "analyze") return finish(runAnalyze(arguments));
  return usageError("unknown verb '" + verb.toStdString() + "'");
}
