#include "engine/ImageFormat.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "engine/ImageService.h"

namespace quillane::ImageFormats {
namespace {
struct Row {
  ImageFormat format;
  std::string_view raw, label, extension, identifier, mime;
};
constexpr Row kRows[] = {
    {ImageFormat::png, "png", "PNG", "png", "public.png", "image/png"},
    {ImageFormat::jpeg, "jpeg", "JPEG", "jpg", "public.jpeg", "image/jpeg"},
    {ImageFormat::heic, "heic", "HEIC", "heic", "public.heic", "image/heic"},
    {ImageFormat::avif, "avif", "AVIF", "avif", "public.avif", "image/avif"},
    {ImageFormat::webp, "webp", "WebP", "webp", "org.webmproject.webp", "image/webp"},
    {ImageFormat::jxl, "jxl", "JPEG XL", "jxl", "public.jpeg-xl", "image/jxl"},
};
const Row& row(ImageFormat f) { return kRows[static_cast<int>(f)]; }
}  // namespace

std::string_view rawValue(ImageFormat f) { return row(f).raw; }
std::string_view label(ImageFormat f) { return row(f).label; }
std::string_view fileExtension(ImageFormat f) { return row(f).extension; }
std::string_view typeIdentifier(ImageFormat f) { return row(f).identifier; }
std::string_view mimeType(ImageFormat f) { return row(f).mime; }

std::optional<ImageFormat> fromRawValue(std::string_view raw) {
  for (const Row& r : kRows)
    if (r.raw == raw) return r.format;
  return std::nullopt;
}

std::optional<ImageFormat> fromTypeIdentifier(std::string_view identifier) {
  for (ImageFormat f : allCases)
    if (typeIdentifier(f) == identifier) return f;
  return std::nullopt;
}

std::optional<ImageFormat> detect(std::span<const uint8_t> bytes) {
  auto identifier = ImageService::typeIdentifier(bytes);
  if (!identifier) return std::nullopt;
  return fromTypeIdentifier(*identifier);
}

std::optional<ImageFormat> detect(const std::string& path) {
  // Non-blocking, and only a regular file is read: a pipe or a device in a watched folder
  // must not stall the caller.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return std::nullopt;
  }
  uint8_t head[ImageService::kSniffBytes];
  ssize_t total = 0;
  while (total < ssize_t(sizeof head)) {
    ssize_t n = ::read(fd, head + total, sizeof head - size_t(total));
    if (n <= 0) break;
    total += n;
  }
  ::close(fd);
  return detect(std::span<const uint8_t>(head, size_t(total)));
}

}  // namespace quillane::ImageFormats
