#pragma once
// Bytes that a reader takes in order, from memory or from a file, so that a header or a
// reduced picture comes from the file as the codec asks for it, never from a copy of the whole
// file. One reader at a time; any thread.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace quillane {

class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Up to `size` bytes from the current position into `out`, moving past them; fewer only at
  // the end of the bytes (or of a file as it was opened), or when the file can't be read.
  virtual size_t read(uint8_t* out, size_t size) noexcept = 0;
  // Moves past `count` bytes without reading them; false, at the end, when fewer remain.
  virtual bool skip(uint64_t count) noexcept = 0;
  // Back to the first byte.
  void rewind() noexcept { seek(0); }
  // To byte `position`; false, at the end, when the bytes are shorter.
  virtual bool seek(uint64_t position) noexcept = 0;
  virtual uint64_t position() const noexcept = 0;
  virtual uint64_t size() const noexcept = 0;
  // All the bytes at once where they are in memory already, so that a library that takes them
  // whole needs no copy of them; nothing for a file.
  virtual std::optional<std::span<const uint8_t>> contiguous() const noexcept { return std::nullopt; }
  // Up to `size` bytes from `offset` (fewer at the end), leaving the position after them.
  std::vector<uint8_t> readAt(uint64_t offset, size_t size);
};

class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  size_t read(uint8_t* out, size_t size) noexcept override;
  bool skip(uint64_t count) noexcept override;
  bool seek(uint64_t position) noexcept override;
  uint64_t position() const noexcept override { return position_; }
  uint64_t size() const noexcept override { return bytes_.size(); }
  std::optional<std::span<const uint8_t>> contiguous() const noexcept override { return bytes_; }

 private:
  std::span<const uint8_t> bytes_;
  size_t position_ = 0;
};

// A regular file, read through a buffer of 64 KiB, up to the size it had when opened.
class FileSource final : public ByteSource {
 public:
  // Refuses what is not a regular file at once, without blocking on a pipe or a device.
  // Throws FileIO::NotARegularFile, or FileError with the system's text.
  explicit FileSource(const std::string& path);
  ~FileSource() override;
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;

  size_t read(uint8_t* out, size_t size) noexcept override;
  bool skip(uint64_t count) noexcept override;
  bool seek(uint64_t position) noexcept override;
  uint64_t position() const noexcept override { return position_; }
  uint64_t size() const noexcept override { return size_; }

 private:
  int fd_ = -1;
  uint64_t size_ = 0;
  uint64_t position_ = 0;     // of the next byte handed out
  uint64_t bufferStart_ = 0;  // file offset of buffer_[0]
  size_t buffered_ = 0;       // bytes valid in buffer_
  std::vector<uint8_t> buffer_;
};

}  // namespace quillane
