#pragma once
// quillane-cli's command line read without running anything: the split into files and
// options, and the compress verb's options turned into the script command's arguments.

#include <QByteArray>
#include <QByteArrayList>
#include <QVariantList>
#include <QVariantMap>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quillane::cli {

struct CommandLine {
  QByteArrayList files;
  std::map<QByteArray, QByteArray> options;  // without the leading "--"
};

// Splits arguments into files, the options named in `known`, each of which takes a value
// ("--name VALUE" or "--name=VALUE"), and the switches named in `flags`, which take none;
// after "--" every argument is a file. Returns an error text for anything else.
std::optional<std::string> parse(const QByteArrayList& arguments, const QByteArrayList& known,
                                 CommandLine& out, const QByteArrayList& flags = {});

// The number the whole text reads as (in the C locale). "nan" and "inf" read as doubles but
// are no quality: the engine would quietly turn them into its lowest or highest setting.
std::optional<double> finiteNumber(const QByteArray& text);

struct CompressRequest {
  QVariantList files;                 // as bytes, each a QByteArray
  QVariantMap arguments;              // CompressScriptCommand's evaluated arguments
  std::vector<std::string> warnings;  // what the command will fall back on, for stderr
  std::optional<std::string> error;   // a command line that can't be read: nothing runs
};

// The compress verb's arguments (after the verb).
CompressRequest readCompress(const QByteArrayList& arguments);

}  // namespace quillane::cli
