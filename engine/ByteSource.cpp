#include "engine/ByteSource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "engine/FileIO.h"
#include "engine/Localization.h"

namespace quillane {

size_t MemorySource::read(uint8_t* out, size_t size) noexcept {
  const size_t count = std::min(size, bytes_.size() - position_);
  if (count > 0) std::memcpy(out, bytes_.data() + position_, count);
  position_ += count;
  return count;
}

bool MemorySource::skip(uint64_t count) noexcept {
  if (count > bytes_.size() - position_) {
    position_ = bytes_.size();
    return false;
  }
  position_ += size_t(count);
  return true;
}

bool MemorySource::seek(uint64_t position) noexcept {
  position_ = size_t(std::min<uint64_t>(position, bytes_.size()));
  return position <= bytes_.size();
}

FileSource::FileSource(const std::string& path) : buffer_(64 << 10) {
  fd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd_ < 0) throw FileError(path, Localization::systemError(errno));
  struct stat st {};
  if (::fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd_);
    throw FileIO::NotARegularFile(path);
  }
  size_ = uint64_t(st.st_size);
}

FileSource::~FileSource() { ::close(fd_); }

size_t FileSource::read(uint8_t* out, size_t size) noexcept {
  size_t done = 0;
  while (done < size && position_ < size_) {
    if (position_ < bufferStart_ || position_ >= bufferStart_ + buffered_) {
      const size_t want = size_t(std::min<uint64_t>(buffer_.size(), size_ - position_));
      ssize_t got;
      do {
        got = ::pread(fd_, buffer_.data(), want, off_t(position_));
      } while (got < 0 && errno == EINTR);
      if (got <= 0) break;
      bufferStart_ = position_;
      buffered_ = size_t(got);
    }
    const size_t offset = size_t(position_ - bufferStart_);
    const size_t count = std::min(size - done, buffered_ - offset);
    std::memcpy(out + done, buffer_.data() + offset, count);
    done += count;
    position_ += count;
  }
  return done;
}

bool FileSource::skip(uint64_t count) noexcept {
  if (count > size_ - position_) {
    position_ = size_;
    return false;
  }
  position_ += count;
  return true;
}

bool FileSource::seek(uint64_t position) noexcept {
  position_ = std::min(position, size_);
  return position <= size_;
}

std::vector<uint8_t> ByteSource::readAt(uint64_t offset, size_t size) {
  std::vector<uint8_t> bytes;
  if (!seek(offset)) return bytes;
  bytes.resize(size_t(std::min<uint64_t>(size, this->size() - offset)));
  bytes.resize(read(bytes.data(), bytes.size()));
  return bytes;
}

}  // namespace quillane
