#include "hotfolders/FileCompleteness.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace quillane::FileCompleteness {
namespace {

// Bytes of a file at any offset through one 64 KiB window read with pread.
class Reader {
 public:
  explicit Reader(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~Reader() {
    if (fd_ >= 0) ::close(fd_);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  bool isOpen() const { return fd_ >= 0; }

  // The byte at `at`, or -1 past the end.
  int byte(uint64_t at) {
    if (at < start_ || at >= start_ + length_) {
      const ssize_t n = ::pread(fd_, buffer_.data(), buffer_.size(), off_t(at));
      start_ = at;
      length_ = n > 0 ? uint64_t(n) : 0;
      if (length_ == 0) return -1;
    }
    return buffer_[at - start_];
  }
  // Big-endian integer of `count` bytes at `at`, or -1 past the end.
  int64_t bigEndian(uint64_t at, int count) {
    int64_t value = 0;
    for (int i = 0; i < count; ++i) {
      const int b = byte(at + uint64_t(i));
      if (b < 0) return -1;
      value = value << 8 | b;
    }
    return value;
  }

 private:
  int fd_;
  std::array<uint8_t, size_t{64} * 1024> buffer_{};
  uint64_t start_ = 0, length_ = 0;
};

bool isCompletePNG(Reader& file) {
  for (uint64_t at = 8;;) {  // past the signature
    const int64_t length = file.bigEndian(at, 4), type = file.bigEndian(at + 4, 4);
    if (length < 0 || type < 0) return false;
    if (type == 0x49454E44) return true;  // IEND
    at += 12 + uint64_t(length);          // length, type, data, CRC
  }
}

bool isStandalone(int marker) { return marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7); }

bool isCompleteJPEG(Reader& file) {
  for (uint64_t at = 2;;) {                                     // past SOI
    if (const int b = file.byte(at); b != 0xFF) return b >= 0;  // no marker there: the decoder's call
    int marker;
    while ((marker = file.byte(++at)) == 0xFF) {
    }
    if (marker < 0) return false;
    ++at;
    if (marker == 0xD9) return true;  // EOI
    if (isStandalone(marker)) continue;
    const int64_t length = file.bigEndian(at, 2);
    if (length < 2) return false;
    at += uint64_t(length);
    if (marker != 0xDA) continue;
    // Entropy-coded data runs to the next marker other than a stuffed 0xFF00 or a restart.
    for (;;) {
      const int b = file.byte(at);
      if (b < 0) return false;
      if (b == 0xFF) {
        const int next = file.byte(at + 1);
        if (next < 0) return false;
        if (next != 0x00 && !(next >= 0xD0 && next <= 0xD7)) break;
        at += 2;
        continue;
      }
      ++at;
    }
  }
}

}  // namespace

bool isComplete(const std::string& path, ImageFormat format) {
  if (format != ImageFormat::jpeg && format != ImageFormat::png) return true;
  Reader file(path);
  if (!file.isOpen()) return true;  // the compression reports it
  return format == ImageFormat::png ? isCompletePNG(file) : isCompleteJPEG(file);
}

}  // namespace quillane::FileCompleteness
