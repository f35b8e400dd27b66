#pragma once
// Error types of the engine. Every error carries a localised description, looked up by
// key at the moment it is asked for (see Localization.h).

#include <exception>
#include <string>

namespace quillane {

// Base of every error the system raises. what() gives the internal message (the failing
// call, for debugging); description() gives the text a user sees.
class QuillaneError : public std::exception {
 public:
  explicit QuillaneError(std::string internal = {}) : internal_(std::move(internal)) {}
  virtual std::string description() const = 0;
  const char* what() const noexcept override { return internal_.c_str(); }

 private:
  std::string internal_;
};

class ImageProcessingError : public QuillaneError {
 public:
  enum class Kind { decodingFailed, contextCreationFailed, encodingFailed };

  static ImageProcessingError decodingFailed(std::string internal = {}) {
    return ImageProcessingError(Kind::decodingFailed, {}, std::move(internal));
  }
  static ImageProcessingError contextCreationFailed(std::string internal = {}) {
    return ImageProcessingError(Kind::contextCreationFailed, {}, std::move(internal));
  }
  // `label` is the format's label ("JPEG XL"), never translated.
  static ImageProcessingError encodingFailed(std::string label, std::string internal = {}) {
    return ImageProcessingError(Kind::encodingFailed, std::move(label), std::move(internal));
  }

  Kind kind() const { return kind_; }
  const std::string& label() const { return label_; }
  std::string description() const override;

 private:
  ImageProcessingError(Kind kind, std::string label, std::string internal)
      : QuillaneError(std::move(internal)), kind_(kind), label_(std::move(label)) {}
  Kind kind_;
  std::string label_;
};

// zlib failed inside the PNG writer. It has no text of its own: the generic one stands.
class ZlibError : public QuillaneError {
 public:
  using QuillaneError::QuillaneError;
  std::string description() const override;
};

// The text of a failure that has no text of its own.
std::string genericErrorText();
// What a user is told of `error`: its own description, else the generic text.
std::string describe(const std::exception& error);

// A file could not be read or written; `message` is the system's text (Localization::systemError).
class FileError : public QuillaneError {
 public:
  FileError(std::string path, std::string message)
      : QuillaneError(path + ": " + message), path_(std::move(path)), message_(std::move(message)) {}
  std::string description() const override;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::string message_;
};

}  // namespace quillane
