#include "engine/Exif.h"

#include <libexif/exif-data.h>

#include <cstring>
#include <memory>
#include <vector>

#include "engine/CHandle.h"

namespace quillane::Exif {
namespace {
using ExifDataPtr = CHandle<ExifData, exif_data_unref>;

constexpr uint8_t kPrefix[6] = {'E', 'x', 'i', 'f', 0, 0};
// libexif looks at no more than this; larger blocks are cut rather than copied whole.
constexpr size_t kMaxBlock = 1 << 20;
}  // namespace

std::optional<int> orientation(std::span<const uint8_t> block) {
  if (block.size() < 8) return std::nullopt;
  // libexif only parses data that begins with the "Exif\0\0" prefix.
  std::vector<uint8_t> data;
  bool prefixed = std::memcmp(block.data(), kPrefix, sizeof kPrefix) == 0;
  size_t length = std::min(block.size(), kMaxBlock);
  data.reserve(length + sizeof kPrefix);
  if (!prefixed) data.insert(data.end(), kPrefix, kPrefix + sizeof kPrefix);
  data.insert(data.end(), block.begin(), block.begin() + std::ptrdiff_t(length));

  ExifDataPtr exif(exif_data_new());
  if (!exif) return std::nullopt;
  // No maker notes (they are parsed by vendor code we have no use for) and no repairs.
  exif_data_set_option(exif.get(), EXIF_DATA_OPTION_IGNORE_UNKNOWN_TAGS);
  exif_data_unset_option(exif.get(), EXIF_DATA_OPTION_FOLLOW_SPECIFICATION);
  exif_data_unset_option(exif.get(), EXIF_DATA_OPTION_DONT_CHANGE_MAKER_NOTE);
  exif_data_load_data(exif.get(), data.data(), unsigned(data.size()));

  ExifEntry* entry = exif_content_get_entry(exif->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION);
  if (!entry || entry->components < 1 || !entry->data) return std::nullopt;
  // The standard stores it as a 16-bit SHORT, but some cameras write a 32-bit LONG (or a signed
  // form) and viewers honour it all the same. The repairs that would rewrite such a tag are off,
  // so every integer type is read here.
  const ExifByteOrder order = exif_data_get_byte_order(exif.get());
  const size_t size = exif_format_get_size(entry->format);
  if (size == 0 || entry->size < size) return std::nullopt;
  long value;
  switch (entry->format) {
    case EXIF_FORMAT_SHORT:
      value = exif_get_short(entry->data, order);
      break;
    case EXIF_FORMAT_SSHORT:
      value = exif_get_sshort(entry->data, order);
      break;
    case EXIF_FORMAT_LONG:
      value = long(exif_get_long(entry->data, order));
      break;
    case EXIF_FORMAT_SLONG:
      value = exif_get_slong(entry->data, order);
      break;
    default:
      return std::nullopt;
  }
  if (value < 1 || value > 8) return std::nullopt;
  return int(value);
}

}  // namespace quillane::Exif
