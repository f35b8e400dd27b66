// JPEG writing through libjpeg-turbo's libjpeg API, which (unlike TurboJPEG) can switch on
// optimised Huffman tables per call.

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

// jpeglib.h needs size_t and FILE declared first.
#include <jerror.h>
#include <jpeglib.h>

#include "engine/CHandle.h"
#include "engine/Errors.h"
#include "engine/PageRelease.h"
#include "engine/codecs/Writers.h"

namespace quillane::codecs {
namespace {

// Everything the setjmp frame touches is plain data, so that a longjmp out of libjpeg skips
// no destructor. The output buffer is malloc'ed by the destination manager below and freed
// by the caller on every path.
struct JpegJob {
  const uint8_t* pixels;
  uint8_t* releasable;  // the pixels again when their rows go back to the system once read
  JDIMENSION width;
  JDIMENSION height;
  int quality;
  bool chroma420;
  const JOCTET* icc;
  unsigned int iccSize;
  JOCTET* out;
  size_t outCapacity;
  size_t outSize;
  char message[JMSG_LENGTH_MAX];
};
static_assert(std::is_trivially_destructible_v<JpegJob>);
static_assert(std::is_trivially_destructible_v<PageRelease::Releaser>);

struct ErrorManager {
  jpeg_error_mgr pub;
  jmp_buf jump;
  JpegJob* job;
};

struct Destination {
  jpeg_destination_mgr pub;
  JpegJob* job;
};

constexpr size_t kInitialOutput = size_t(64) * 1024;

void initDestination(j_compress_ptr) {}

// Doubles the buffer; libjpeg has filled all of it when it calls here.
boolean growDestination(j_compress_ptr cinfo) {
  auto* dest = reinterpret_cast<Destination*>(cinfo->dest);
  JpegJob* job = dest->job;
  size_t grown = job->outCapacity * 2;
  auto* bigger = static_cast<JOCTET*>(std::realloc(job->out, grown));
  if (!bigger) ERREXIT(cinfo, JERR_OUT_OF_MEMORY);
  job->out = bigger;
  dest->pub.next_output_byte = bigger + job->outCapacity;
  dest->pub.free_in_buffer = grown - job->outCapacity;
  job->outCapacity = grown;
  return TRUE;
}

void termDestination(j_compress_ptr cinfo) {
  auto* dest = reinterpret_cast<Destination*>(cinfo->dest);
  dest->job->outSize = dest->job->outCapacity - dest->pub.free_in_buffer;
}

[[noreturn]] void onError(j_common_ptr cinfo) {
  auto* err = reinterpret_cast<ErrorManager*>(cinfo->err);
  (*cinfo->err->format_message)(cinfo, err->job->message);
  std::longjmp(err->jump, 1);
}

// Warnings would go to stderr: the system keeps quiet.
void onMessage(j_common_ptr) {}

// The one function with setjmp. Returns false with job->message set on any libjpeg error.
bool compressJpeg(JpegJob* job) {
  jpeg_compress_struct cinfo;
  ErrorManager err;
  Destination dest;
  std::memset(&cinfo, 0, sizeof cinfo);
  cinfo.err = jpeg_std_error(&err.pub);
  err.pub.error_exit = onError;
  err.pub.output_message = onMessage;
  err.job = job;
  if (setjmp(err.jump)) {
    jpeg_destroy_compress(&cinfo);
    return false;
  }
  jpeg_create_compress(&cinfo);

  job->out = static_cast<JOCTET*>(std::malloc(kInitialOutput));
  if (!job->out) ERREXIT(&cinfo, JERR_OUT_OF_MEMORY);
  job->outCapacity = kInitialOutput;
  dest.pub.init_destination = initDestination;
  dest.pub.empty_output_buffer = growDestination;
  dest.pub.term_destination = termDestination;
  dest.pub.next_output_byte = job->out;
  dest.pub.free_in_buffer = job->outCapacity;
  dest.job = job;
  cinfo.dest = &dest.pub;

  cinfo.image_width = job->width;
  cinfo.image_height = job->height;
  cinfo.input_components = 4;
  cinfo.in_color_space = JCS_EXT_RGBX;  // reads RGBA rows as they are, ignoring alpha
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, job->quality, TRUE);
  cinfo.optimize_coding = TRUE;
  int luma = job->chroma420 ? 2 : 1;
  cinfo.comp_info[0].h_samp_factor = luma;
  cinfo.comp_info[0].v_samp_factor = luma;
  cinfo.comp_info[1].h_samp_factor = cinfo.comp_info[1].v_samp_factor = 1;
  cinfo.comp_info[2].h_samp_factor = cinfo.comp_info[2].v_samp_factor = 1;

  jpeg_start_compress(&cinfo, TRUE);
  if (job->icc) jpeg_write_icc_profile(&cinfo, job->icc, job->iccSize);
  const size_t stride = size_t(job->width) * 4;
  // libjpeg converts each row into buffers of its own as it is written, and with optimised
  // tables keeps the whole picture as coefficients: rows already written are not read again.
  PageRelease::Releaser releaser(job->releasable);
  while (cinfo.next_scanline < cinfo.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(job->pixels + size_t(cinfo.next_scanline) * stride);
    jpeg_write_scanlines(&cinfo, &row, 1);
    releaser.readUpTo(size_t(cinfo.next_scanline) * stride);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  return true;
}

}  // namespace

JpegSettings jpegSettings(double quality) {
  JpegSettings s;
  s.quality = int(std::lround(std::clamp(quality, 0.0, 1.0) * 100.0));
  s.quality = std::clamp(s.quality, 1, 100);
  // Chroma subsampling halves the colour resolution, which shows on coloured edges and text:
  // below 90 the writer keeps full resolution only for pictures with such edges; at 90 and
  // above the user asks for fidelity, so colour always keeps it.
  if (s.quality >= 90) s.chroma = ChromaLayout::full;
  return s;
}

namespace {

Bytes write(const DecodedImage& image, uint8_t* releasable, const JpegSettings& settings,
            const std::optional<Bytes>& icc) {
  if (image.empty() || image.bitsPerComponent != 8 || image.pixels8.size() != image.pixelCount() * 4)
    throw ImageProcessingError::encodingFailed("JPEG", "writeJpeg: not an 8-bit RGBA picture");
  JpegJob job{};
  job.pixels = image.pixels8.data();
  job.releasable = releasable;
  job.width = JDIMENSION(image.width);
  job.height = JDIMENSION(image.height);
  job.quality = settings.quality;
  job.chroma420 = !usesFullChroma(settings.chroma, image, false);
  if (icc && !icc->empty()) {
    job.icc = icc->data();
    job.iccSize = unsigned(icc->size());
  }
  bool ok = compressJpeg(&job);
  CHandle<JOCTET, std::free> out(job.out);
  if (!ok) throw ImageProcessingError::encodingFailed("JPEG", std::string("libjpeg: ") + job.message);
  return Bytes(out.get(), out.get() + job.outSize);
}

}  // namespace

Bytes writeJpeg(const DecodedImage& image, const JpegSettings& settings, const std::optional<Bytes>& icc) {
  return write(image, nullptr, settings, icc);
}

Bytes writeJpeg(DecodedImage&& image, const JpegSettings& settings, const std::optional<Bytes>& icc) {
  return write(image, image.pixels8.data(), settings, icc);
}

}  // namespace quillane::codecs
