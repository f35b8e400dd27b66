#include "app/cli/CompressArguments.h"

#include <QFile>
#include <QLocale>
#include <QUrl>
#include <cmath>

#include "automation/CompressScriptCommand.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"

namespace quillane::cli {

std::optional<std::string> parse(const QByteArrayList& arguments, const QByteArrayList& known,
                                 CommandLine& out, const QByteArrayList& flags) {
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
      if (flags.contains(name)) return "option --" + name.toStdString() + " takes no value";
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

std::optional<double> finiteNumber(const QByteArray& text) {
  bool ok = false;
  const double number = QLocale::c().toDouble(QString::fromLatin1(text.trimmed()), &ok);
  if (!ok || !std::isfinite(number)) return std::nullopt;
  return number;
}

namespace {

QString text(const QByteArray& bytes) { return QFile::decodeName(bytes); }

// "--to" as a path, or as a file:// URL whose percent-encoded bytes are the path's (also
// those that are not UTF-8). Nothing for a URL of another host.
std::optional<QByteArray> folderArgument(const QByteArray& value) {
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
  if (!url.isValid() || (!host.isEmpty() && host != QLatin1String("localhost")) || url.path().isEmpty())
    return std::nullopt;
  return QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1());
}

// The command falls back without failing on a format or quality it can't use; the user hears
// of it.
std::vector<std::string> fallbacks(const std::map<QByteArray, QByteArray>& options) {
  std::vector<std::string> warnings;
  if (auto format = options.find("format"); format != options.end()) {
    if (!ImageFormats::fromRawValue(text(format->second).toLower().toStdString()))
      warnings.push_back(
          "unknown format '" + format->second.toStdString() +
          "' ignored: the profile's format, or jpeg, is used (png, jpeg, heic, avif, webp, jxl)");
  }
  if (auto quality = options.find("quality"); quality != options.end()) {
    const std::optional<double> number = finiteNumber(quality->second);
    if (!number)
      warnings.push_back("quality '" + quality->second.toStdString() + "' is no number: ignored");
    else if (*number < 1 || *number > 100)
      warnings.push_back("quality " + quality->second.toStdString() +
                         " is outside 1 to 100: " + (*number < 1 ? "1" : "100") + " is used");
  }
  return warnings;
}

}  // namespace

CompressRequest readCompress(const QByteArrayList& arguments) {
  CompressRequest request;
  CommandLine line;
  if ((request.error =
           parse(arguments, {"to", "format", "quality", "profile", "max-width", "max-height", "max-bytes"},
                 line, {"skip-larger"})))
    return request;
  QVariantMap& evaluated = request.arguments;
  // Paths stay bytes (QByteArray); names of formats and profiles are text.
  if (line.options.count("to")) {
    const std::optional<QByteArray> folder = folderArgument(line.options["to"]);
    if (!folder) {
      request.error = "--to: not a local file URL: " + line.options["to"].toStdString();
      return request;
    }
    evaluated[CompressScriptCommand::toArgument] = *folder;
  }
  if (line.options.count("format"))
    evaluated[CompressScriptCommand::formatArgument] = text(line.options["format"]);
  // A number when the text reads as one, else the text itself, which the command then ignores.
  if (line.options.count("quality")) {
    const std::optional<double> number = finiteNumber(line.options["quality"]);
    evaluated[CompressScriptCommand::qualityArgument] =
        number ? QVariant(*number) : QVariant(text(line.options["quality"]));
  }
  if (line.options.count("profile"))
    evaluated[CompressScriptCommand::profileArgument] = text(line.options["profile"]);
  for (const auto& [option, argument] : {std::pair{"max-width", CompressScriptCommand::maxWidthArgument},
                                         std::pair{"max-height", CompressScriptCommand::maxHeightArgument}}) {
    if (!line.options.count(option)) continue;
    bool ok = false;
    const int pixels = line.options[option].toInt(&ok);
    if (!ok || pixels < 1) {
      request.error = std::string("--") + option + " needs a whole number of pixels above 0";
      return request;
    }
    evaluated[argument] = pixels;
  }
  if (line.options.count("max-bytes")) {
    const auto budget = ImageCompressor::parseByteCount(line.options["max-bytes"].toStdString());
    if (!budget) {
      request.error = "--max-bytes needs a size in bytes, such as 250000, 500k or 1.5M";
      return request;
    }
    evaluated[CompressScriptCommand::maxBytesArgument] = qlonglong(*budget);
  }
  if (line.options.count("skip-larger")) evaluated[CompressScriptCommand::skipLargerArgument] = true;
  for (const QByteArray& file : line.files) request.files.append(file);
  request.warnings = fallbacks(line.options);
  return request;
}

}  // namespace quillane::cli
