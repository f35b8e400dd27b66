#pragma once
// CompressScriptCommand: one-shot compression for scripts, free of any transport. A front end
// (the quillane-cli tool, later a D-Bus method) hands over the direct parameter and the named
// arguments as variants; the command compresses the files into one folder, as many at a time
// as there are processors and the batch's memory budget allows, and answers with a JSON text
// of one record a file, in the order of the arguments.
//
// Returns only when every file is done (worker threads of its own, joined before it returns),
// from any calling thread, and never touches the batch model.

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>
#include <optional>
#include <string>
#include <vector>

#include "engine/Errors.h"
#include "engine/ImageCompressor.h"

namespace quillane {

// An error of the command as a whole. Its message is also its description.
class ScriptCommandError : public QuillaneError {
 public:
  static ScriptCommandError noFiles();
  static ScriptCommandError invalidDirectParameter();
  static ScriptCommandError missingOutputDirectory();
  // The output folder can't be made or written: "<folder>: <the system's text>".
  static ScriptCommandError folderUnusable(const std::string& folder, const std::string& reason);
  // A size, byte budget or switch argument of the wrong kind: "maxBytes: not a size: 12x".
  static ScriptCommandError invalidOption(const std::string& name, const std::string& value);

  const std::string& message() const { return message_; }
  std::string description() const override { return message_; }

 private:
  explicit ScriptCommandError(std::string message) : QuillaneError(message), message_(std::move(message)) {}
  std::string message_;
};

namespace CompressScriptCommand {

// Names of the arguments in `evaluatedArguments`.
inline constexpr char toArgument[] = "to";            // a QUrl, a QString or QByteArray taken as a path
inline constexpr char formatArgument[] = "format";    // a QString in any case; unknown names ignored
inline constexpr char qualityArgument[] = "quality";  // a number; any other form ignored
inline constexpr char profileArgument[] = "profile";  // a QString
// Fit within maxWidth x maxHeight pixels (whole numbers above 0), keep each file within
// maxBytes (a number, or a QString such as "500k" or "1.5M"), and write no result that is not
// smaller than its source (skipLarger, a bool). Absent: off. A value of another kind fails
// the command with invalidOption.
inline constexpr char maxWidthArgument[] = "maxWidth";
inline constexpr char maxHeightArgument[] = "maxHeight";
inline constexpr char maxBytesArgument[] = "maxBytes";
inline constexpr char skipLargerArgument[] = "skipLarger";

// The error number a failed command reports, as script hosts expect it.
inline constexpr int commandErrorNumber = 6;

struct Outcome {
  std::optional<std::string> json;  // the result, absent on failure
  int errorNumber = 0;              // commandErrorNumber on failure
  std::string errorString;          // the failure's description
};

// Runs the command: the JSON text of the records on success; on any error of the command
// itself (no files, a bad direct parameter, no output folder, an unknown profile, a folder
// that can't be made or written) no file is touched, json stays empty and the error is
// reported. Failures of single files stand in the JSON. No destination is ever the same file
// as one of the command's inputs: such a name gets the next number ("photo-2.jpg").
Outcome performDefaultImplementation(const QVariant& directParameter, const QVariantMap& evaluatedArguments);

// The same, raising the command's error (a QuillaneError) instead of reporting it.
std::string perform(const QVariant& directParameter, const QVariantMap& evaluatedArguments);

// The paths of a direct parameter, as file system bytes: a QUrl (its local path), a QString
// (as it is, with no expansion), a QByteArray (the bytes as they are, for names that are not
// valid UTF-8), or a list of these, nested to any depth, flattened in order. Anything else,
// or nothing, raises invalidDirectParameter.
std::vector<std::string> filePaths(const QVariant& value);

// The size options of the arguments; raises invalidOption for a value of the wrong kind.
CompressionOptions compressionOptions(const QVariantMap& evaluatedArguments);

// A folder argument as bytes: a local QUrl's path, a QString or QByteArray as a path,
// anything else nothing.
std::optional<std::string> url(const QVariant& value);

}  // namespace CompressScriptCommand
}  // namespace quillane
