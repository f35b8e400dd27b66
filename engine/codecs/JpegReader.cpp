// JPEG through libjpeg-turbo: the libjpeg API for markers (EXIF, multi-marker ICC, Adobe),
// CMYK and the DCT scales that TurboJPEG offers, so that thumbnails decode at 1/8 to 1/2.

#include <turbojpeg.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

// jpeglib.h expects stdio's FILE and size_t before it.
#include <jpeglib.h>
// After jpeglib.h: the warning codes.
#include <jerror.h>

#include "engine/CHandle.h"
#include "engine/Cancellation.h"
#include "engine/ColorConvert.h"
#include "engine/Exif.h"
#include "engine/codecs/Readers.h"

namespace quillane::codecs {
namespace {

struct ErrorManager {
  jpeg_error_mgr pub;
  jmp_buf jump;
};

void onError(j_common_ptr cinfo) { std::longjmp(reinterpret_cast<ErrorManager*>(cinfo->err)->jump, 1); }
// Warnings are never printed. A file that ends early (a partly downloaded photo) decodes as far
// as it goes, and libjpeg fills the rest, as every viewer shows it.
void onMessage(j_common_ptr, int) {}
void onOutput(j_common_ptr) {}

// A progressive file may hold any number of scans, and each one walks every block of the
// picture: thousands of near-empty scans cost minutes of CPU for a small file. No encoder
// writes more than a few dozen. At most 1,000 scans, and fewer for large pictures: no more
// walking than 1,000 scans of 4 megapixels (about 3 s of CPU), but always at least 100.
constexpr uint64_t kMaxScans = 1000, kMinScanLimit = 100, kMaxScanWork = kMaxScans * 4'000'000;
uint64_t scanLimit(j_decompress_ptr cinfo) {
  const uint64_t pixels = std::max<uint64_t>(1, uint64_t(cinfo->image_width) * cinfo->image_height);
  return std::clamp(kMaxScanWork / pixels, kMinScanLimit, kMaxScans);
}

// Called by libjpeg once per row or per iMCU row while it reads: stops a file with too many
// scans, and a read whose caller gave up.
struct ProgressMonitor {
  jpeg_progress_mgr pub;
  bool tooManyScans;
  bool cancelled;
};
void onProgress(j_common_ptr cinfo) {
  auto* monitor = reinterpret_cast<ProgressMonitor*>(cinfo->progress);
  auto* decompress = reinterpret_cast<j_decompress_ptr>(cinfo);
  if (uint64_t(std::max(decompress->input_scan_number, 0)) > scanLimit(decompress))
    monitor->tooManyScans = true;
  if (Cancellation::requested()) monitor->cancelled = true;
  if (monitor->tooManyScans || monitor->cancelled) cinfo->err->error_exit(cinfo);
}

// Plain data between decodeWithLibjpeg and its callers: trivially destructible, so that a
// longjmp out of libjpeg skips no destructor.
struct JpegJob {
  ByteSource* source;  // at its first byte
  JOCTET* buffer;      // what libjpeg reads from it at a time
  size_t bufferSize;
  bool headerOnly;
  int numerator, denominator;  // DCT scale chosen for minLongSide
  int minLongSide;
  long memoryLimit;  // of libjpeg's own buffers (a progressive file's coefficients); 0: none
  const tjscalingfactor* factors;
  int factorCount;
  // Header.
  int width, height, components;
  J_COLOR_SPACE colorSpace;
  bool adobe;
  uint64_t coefficientBytes;  // what libjpeg holds for a file it must buffer whole
  bool tooLarge;
  bool tooManyScans;
  // Output.
  int outWidth, outHeight, outComponents;
  JOCTET* icc;  // malloc'd by libjpeg; the caller frees it
  unsigned int iccLength;
  // Called by decodeWithLibjpeg itself, never from inside libjpeg. Both are noexcept.
  void* context;
  void (*exifFound)(void* context, const uint8_t* data, size_t size) noexcept;
  uint8_t* (*allocate)(void* context, const JpegJob& job) noexcept;  // null refuses the picture
};

// libjpeg's source manager over a ByteSource. A source that ends early ends with an EOI marker,
// as libjpeg's own memory source does, so that a cut file decodes as far as it goes.
struct StreamSource {
  jpeg_source_mgr pub;
  ByteSource* source;
  JOCTET* buffer;
  size_t bufferSize;
};
constexpr JOCTET kEndOfImage[2] = {0xFF, JPEG_EOI};

void initSource(j_decompress_ptr) {}
void termSource(j_decompress_ptr) {}
boolean fillInput(j_decompress_ptr cinfo) {
  auto* s = reinterpret_cast<StreamSource*>(cinfo->src);
  const size_t count = s->source->read(s->buffer, s->bufferSize);
  if (count == 0) {
    WARNMS(cinfo, JWRN_JPEG_EOF);
    s->pub.next_input_byte = kEndOfImage;
    s->pub.bytes_in_buffer = 2;
  } else {
    s->pub.next_input_byte = s->buffer;
    s->pub.bytes_in_buffer = count;
  }
  return TRUE;
}
void skipInput(j_decompress_ptr cinfo, long count) {
  auto* s = reinterpret_cast<StreamSource*>(cinfo->src);
  if (count <= 0) return;
  if (size_t(count) <= s->pub.bytes_in_buffer) {
    s->pub.next_input_byte += count;
    s->pub.bytes_in_buffer -= size_t(count);
    return;
  }
  s->source->skip(uint64_t(count) - s->pub.bytes_in_buffer);  // past the end: the next fill ends it
  s->pub.bytes_in_buffer = 0;
}

void chooseScale(JpegJob& job) {
  job.numerator = job.denominator = 1;
  if (job.minLongSide <= 0 || !job.factors) return;
  long longSide = std::max(job.width, job.height);
  long best = longSide;
  for (int i = 0; i < job.factorCount; ++i) {
    const tjscalingfactor& f = job.factors[i];
    long scaled = TJSCALED(longSide, f);
    if (scaled >= job.minLongSide && scaled < best && f.num <= f.denom) {
      best = scaled;
      job.numerator = f.num;
      job.denominator = f.denom;
    }
  }
}

// Every libjpeg call sits in this one function; returns false on any error.
bool decodeWithLibjpeg(JpegJob& job) {
  jpeg_decompress_struct cinfo;
  ErrorManager err;
  cinfo.err = jpeg_std_error(&err.pub);
  err.pub.error_exit = onError;
  err.pub.emit_message = onMessage;
  err.pub.output_message = onOutput;
  ProgressMonitor progress;
  progress.pub.progress_monitor = onProgress;
  progress.tooManyScans = progress.cancelled = false;
  if (setjmp(err.jump)) {
    job.tooManyScans = progress.tooManyScans;
    jpeg_destroy_decompress(&cinfo);
    return false;
  }
  jpeg_create_decompress(&cinfo);
  cinfo.progress = &progress.pub;
  if (job.memoryLimit > 0) cinfo.mem->max_memory_to_use = job.memoryLimit;
  StreamSource source{{}, job.source, job.buffer, job.bufferSize};
  source.pub.init_source = initSource;
  source.pub.fill_input_buffer = fillInput;
  source.pub.skip_input_data = skipInput;
  source.pub.resync_to_restart = jpeg_resync_to_restart;
  source.pub.term_source = termSource;
  cinfo.src = &source.pub;
  jpeg_save_markers(&cinfo, JPEG_APP0 + 1, 0xFFFF);
  if (!job.headerOnly) jpeg_save_markers(&cinfo, JPEG_APP0 + 2, 0xFFFF);
  if (jpeg_read_header(&cinfo, TRUE) != JPEG_HEADER_OK) {
    jpeg_destroy_decompress(&cinfo);
    return false;
  }
  job.width = int(cinfo.image_width);
  job.height = int(cinfo.image_height);
  job.components = cinfo.num_components;
  job.colorSpace = cinfo.jpeg_color_space;
  job.adobe = cinfo.saw_Adobe_marker;
  // A progressive file, or one whose first scan holds some components only, is buffered
  // whole as DCT coefficients (2 bytes each), whatever the output scale.
  job.coefficientBytes = 0;
  if (cinfo.progressive_mode || cinfo.comps_in_scan < cinfo.num_components)
    for (int c = 0; c < cinfo.num_components; ++c) {
      const jpeg_component_info& component = cinfo.comp_info[c];
      const uint64_t h = uint64_t(std::max(component.h_samp_factor, 1)),
                     v = uint64_t(std::max(component.v_samp_factor, 1));
      job.coefficientBytes += (uint64_t(component.width_in_blocks) + h - 1) / h * h *
                              ((uint64_t(component.height_in_blocks) + v - 1) / v * v) * sizeof(JBLOCK);
    }
  for (jpeg_saved_marker_ptr m = cinfo.marker_list; m; m = m->next)
    if (m->marker == JPEG_APP0 + 1 && m->data_length >= 6 && std::memcmp(m->data, "Exif\0\0", 6) == 0 &&
        job.exifFound) {
      job.exifFound(job.context, m->data, m->data_length);
      break;
    }
  // The pixel budget bounds what a header can make us allocate. There is no bound on pixels per
  // byte: arithmetic coding spends next to nothing on a flat picture.
  uint64_t area = uint64_t(job.width) * uint64_t(job.height);
  job.tooLarge = uint64_t(job.width) > uint64_t(kMaxDimension) ||
                 uint64_t(job.height) > uint64_t(kMaxDimension) || area > kMaxPixels;
  if (job.headerOnly || job.tooLarge) {
    jpeg_destroy_decompress(&cinfo);
    return job.headerOnly;
  }
  jpeg_read_icc_profile(&cinfo, &job.icc, &job.iccLength);
  switch (cinfo.jpeg_color_space) {
    case JCS_GRAYSCALE:
      cinfo.out_color_space = JCS_GRAYSCALE;
      break;
    case JCS_CMYK:
    case JCS_YCCK:
      cinfo.out_color_space = JCS_CMYK;
      break;
    default:
      cinfo.out_color_space = JCS_EXT_RGBA;
      break;
  }
  chooseScale(job);
  cinfo.scale_num = unsigned(job.numerator);
  cinfo.scale_denom = unsigned(job.denominator);
  if (job.denominator > job.numerator) {
    // A reduced picture is about to be averaged down further: speed matters more than the
    // last bit of precision.
    cinfo.dct_method = JDCT_IFAST;
    cinfo.do_fancy_upsampling = FALSE;
  }
  jpeg_start_decompress(&cinfo);
  job.outWidth = int(cinfo.output_width);
  job.outHeight = int(cinfo.output_height);
  job.outComponents = cinfo.output_components;
  uint8_t* pixels = job.allocate(job.context, job);
  if (!pixels) {
    jpeg_destroy_decompress(&cinfo);
    return false;
  }
  size_t stride = size_t(job.outWidth) * size_t(job.outComponents);
  while (cinfo.output_scanline < cinfo.output_height) {
    JSAMPROW row = pixels + size_t(cinfo.output_scanline) * stride;
    jpeg_read_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_decompress(&cinfo);
  jpeg_destroy_decompress(&cinfo);
  return true;
}

// A job reading `source` from its first byte through `buffer`.
JpegJob makeJob(ByteSource& source, std::vector<JOCTET>& buffer, bool headerOnly) {
  source.rewind();
  buffer.resize(64 << 10);
  JpegJob job{};
  job.source = &source;
  job.buffer = buffer.data();
  job.bufferSize = buffer.size();
  job.headerOnly = headerOnly;
  return job;
}

using MallocPtr = CHandle<JOCTET, std::free>;

}  // namespace

std::optional<Properties> jpegProperties(Input bytes) {
  MemorySource source(bytes);
  return jpegProperties(source);
}

std::optional<Properties> jpegProperties(ByteSource& source) {
  std::vector<JOCTET> buffer;
  JpegJob job = makeJob(source, buffer, true);
  std::optional<int> orientation;
  job.context = &orientation;
  job.exifFound = [](void* context, const uint8_t* data, size_t size) noexcept {
    try {
      *static_cast<std::optional<int>*>(context) = Exif::orientation({data, size});
    } catch (...) {
    }
  };
  if (!decodeWithLibjpeg(job) || job.width <= 0 || job.height <= 0) return std::nullopt;
  return Properties{job.width, job.height, orientation, 1};
}

std::optional<uint64_t> jpegReducedDecodeBytes(Input bytes, int minLongSide) {
  MemorySource source(bytes);
  return jpegReducedDecodeBytes(source, minLongSide);
}

std::optional<uint64_t> jpegReducedDecodeBytes(ByteSource& source, int minLongSide) {
  std::vector<JOCTET> buffer;
  JpegJob job = makeJob(source, buffer, true);
  if (!decodeWithLibjpeg(job) || job.width <= 0 || job.height <= 0) return std::nullopt;
  // The coefficients, then the output at the chosen DCT scale (at most 1/8 of the sides, or
  // below twice minLongSide) as RGBA, with libjpeg's rows and tables.
  const uint64_t pixels = uint64_t(job.width) * uint64_t(job.height);
  const uint64_t side = uint64_t(std::max(minLongSide, 1));
  return job.coefficientBytes + std::max(pixels / 64, 4 * side * side) * 4 + uint64_t(job.width) * 64 +
         (2u << 20);
}

DecodedImage decodeJpeg(Input bytes, int minLongSide) {
  if (bytes.size() < 4) fail("jpeg_read_header: too short");
  MemorySource source(bytes);
  return decodeJpeg(source, minLongSide);
}

DecodedImage decodeJpeg(ByteSource& source, int minLongSide) {
  std::vector<JOCTET> buffer;
  JpegJob job = makeJob(source, buffer, false);
  job.minLongSide = minLongSide;
  // A reduced picture for inspection keeps libjpeg within a fixed budget; a full decode was
  // measured against the machine's memory before it started.
  job.memoryLimit = minLongSide > 0 ? kReducedDecodeMemory : 0;
  job.factors = tjGetScalingFactors(&job.factorCount);
  DecodedImage image;
  job.context = &image;
  job.allocate = [](void* context, const JpegJob& j) noexcept -> uint8_t* {
    try {
      auto* out = static_cast<DecodedImage*>(context);
      *out = allocateImage(j.outWidth, j.outHeight, 8, AlphaInfo::none);
      return out->pixels8.data();
    } catch (...) {
      return nullptr;
    }
  };
  bool ok = decodeWithLibjpeg(job);
  MallocPtr iccOwner(job.icc);
  if (!ok) {
    Cancellation::check();
    fail(job.tooLarge ? kTooLarge : job.tooManyScans ? "libjpeg: too many scans" : "libjpeg: damaged JPEG");
  }
  std::vector<uint8_t> icc(job.icc, job.icc + (job.icc ? job.iccLength : 0));
  if (job.outComponents == 1) {
    ColorConvert::expandGreyInPlace(image, 1, &icc);
  } else if (job.outComponents == 4 && (job.colorSpace == JCS_CMYK || job.colorSpace == JCS_YCCK)) {
    ColorConvert::cmykToRGBInPlace(image, job.adobe, &icc);
  } else if (job.outComponents == 4) {
    image.colorSpace = ColorConvert::rgbSpace(std::move(icc));
  } else {
    fail("libjpeg: unsupported number of components");
  }
  return image;
}

}  // namespace quillane::codecs
