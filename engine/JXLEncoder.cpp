// JPEG XL through libjxl: pixels encoded lossily or losslessly, and JPEG files repackaged
// without going through pixels. Each call owns one encoder, with the default memory manager
// and a serial runner that stops when the call is cancelled, destroyed on every path.

#include <jxl/encode.h>
#include <jxl/encode_cxx.h>
#include <jxl/thread_parallel_runner_cxx.h>

#include <algorithm>
#include <string>

#include "engine/Cancellation.h"
#include "engine/EncodeCost.h"
#include "engine/Encoders.h"
#include "engine/Errors.h"
#include "engine/Exif.h"
#include "engine/PageRelease.h"
#include "engine/codecs/QuietStderr.h"

namespace quillane::JXLEncoder {
namespace {

constexpr size_t kDrainChunk = 1'048'576;
constexpr int64_t kWholeFramePixels = 8'000'000;
constexpr int kLossyStrips = 4;
// From this distance libjxl 0.7 codes a frame's DC as a frame of its own, 4 to 42 % smaller
// at equal butteraugli on large photographs; it can do so only for a frame of the whole
// picture (a DC frame has no crop). There a picture of up to kWholeFrameLowQualityPixels goes
// in whole where the machine's memory and address space hold the costliest such frame
// (EncodeCost::lossyJXLFrameBytes, a graphic with alpha) beside the caller's picture of 4 bytes
// a pixel: at 24 megapixels some 1.2 GB without alpha and 1.6 GB with it, within
// EncodeCost::allowance's floor of 1.5 GiB. Elsewhere the strips.
constexpr float kProgressiveDCDistance = 4.5f;
constexpr int64_t kWholeFrameLowQualityPixels = 24'000'000;

ImageProcessingError jxlFailed(const std::string& call) {
  return ImageProcessingError::encodingFailed("JPEG XL", call + " failed");
}

// A failure caused by a raised cancellation flag is reported as the cancellation.
void check(JxlEncoderStatus status, const char* call) {
  if (status == JXL_ENC_SUCCESS) return;
  Cancellation::check();
  throw jxlFailed(call);
}

// libjxl prints its failures; callers hold a QuietStderr. No runner that fails: libjxl 0.7
// aborts the process when a work item of some of its passes fails, so a runner may not stop
// it half way. A raised flag is seen before the encode and between rounds of output.
JxlEncoderPtr makeEncoder() {
  Cancellation::check();
  JxlEncoderPtr encoder = JxlEncoderMake(nullptr);
  if (!encoder) throw jxlFailed("JxlEncoderCreate");
  return encoder;
}

// The colour samples of `rows` rows from `firstRow`; with `releasable` (the buffer's samples),
// each stretch of the buffer goes back to the system once copied.
Bytes stripAlpha(const RGBABuffer& rgba, uint8_t* releasable, size_t firstRow, size_t rows) {
  const size_t begin = firstRow * size_t(rgba.width), count = rows * size_t(rgba.width);
  Bytes rgb(count * 3);
  const uint8_t* src = rgba.pixels.data() + begin * 4;
  PageRelease::Releaser releaser(releasable ? releasable + begin * 4 : nullptr);
  for (size_t i = 0; i < count; ++i) {
    rgb[i * 3] = src[i * 4];
    rgb[i * 3 + 1] = src[i * 4 + 1];
    rgb[i * 3 + 2] = src[i * 4 + 2];
    if ((i & 0xFFFF) == 0xFFFF) releaser.readUpTo((i + 1) * 4);
  }
  return rgb;
}

// Pulls what the encoder has made so far out through one 1 MiB buffer, reused for every
// round, onto the end of `result`.
void drainOutput(JxlEncoder* encoder, Bytes& result) {
  Bytes buffer(kDrainChunk, 0);
  for (;;) {
    uint8_t* next = buffer.data();
    size_t available = buffer.size();
    const JxlEncoderStatus status = JxlEncoderProcessOutput(encoder, &next, &available);
    const size_t written = buffer.size() - available;
    result.insert(result.end(), buffer.begin(), buffer.begin() + ptrdiff_t(written));
    if (status == JXL_ENC_SUCCESS) return;
    Cancellation::check();
    if (status != JXL_ENC_NEED_MORE_OUTPUT || written == 0) throw jxlFailed("JxlEncoderProcessOutput");
  }
}

Bytes drainOutput(JxlEncoder* encoder) {
  Bytes result;
  drainOutput(encoder, result);
  return result;
}

// What the transcoder must be told about a JPEG before its frame is added: libjxl 0.7 fills
// the basic info from the JPEG itself but leaves the EXIF orientation out of the codestream.
struct JPEGHeader {
  uint32_t width = 0, height = 0;
  int precision = 0;  // bits a sample
  int components = 0;
  int orientation = 1;
};

constexpr uint8_t kExif[6] = {'E', 'x', 'i', 'f', 0, 0};

// Walks the markers up to the first scan. Nothing when the bytes aren't a JPEG with a frame header.
std::optional<JPEGHeader> readJPEGHeader(std::span<const uint8_t> jpeg) {
  if (jpeg.size() < 4 || jpeg[0] != 0xFF || jpeg[1] != 0xD8) return std::nullopt;
  JPEGHeader header;
  bool sawOrientation = false, sawFrame = false;
  size_t at = 2;
  while (at + 4 <= jpeg.size()) {
    if (jpeg[at] != 0xFF) return std::nullopt;
    const uint8_t marker = jpeg[at + 1];
    if (marker == 0xFF) {  // fill byte
      ++at;
      continue;
    }
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {  // no length
      at += 2;
      continue;
    }
    if (marker == 0xDA || marker == 0xD9) break;  // start of scan, end of image
    const size_t length = size_t(jpeg[at + 2]) << 8 | jpeg[at + 3];
    if (length < 2 || at + 2 + length > jpeg.size()) return std::nullopt;
    const std::span<const uint8_t> payload = jpeg.subspan(at + 4, length - 2);
    const bool isFrame =
        marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
    if (isFrame && payload.size() >= 6) {
      header.precision = payload[0];
      header.height = uint32_t(payload[1]) << 8 | payload[2];
      header.width = uint32_t(payload[3]) << 8 | payload[4];
      header.components = payload[5];
      sawFrame = true;
    } else if (marker == 0xE1 && !sawOrientation && payload.size() >= 6 &&
               std::equal(kExif, kExif + sizeof kExif, payload.begin())) {
      // The first EXIF block counts, even after other APP1 data such as XMP.
      header.orientation = Exif::orientation(payload).value_or(1);
      sawOrientation = true;
    }
    at += 2 + length;
  }
  if (!sawFrame || header.width == 0 || header.height == 0) return std::nullopt;
  return header;
}

Bytes transcode(std::span<const uint8_t> jpeg, int effort) {
  // Only 8-bit grey and colour JPEGs are repackaged, with their basic info set by us, EXIF
  // orientation included, so that the orientation can't fall out of the codestream. Anything
  // else (CMYK, 12-bit, a header we can't walk) goes to pixels without asking libjxl, which
  // would refuse it and print its refusal on stderr, or drop the orientation.
  const auto header = readJPEGHeader(jpeg);
  if (!header || header->precision != 8 || (header->components != 1 && header->components != 3))
    throw jxlFailed("JPEG not repackageable");
  codecs::QuietStderr quiet;
  JxlEncoderPtr encoder = makeEncoder();
  check(JxlEncoderUseContainer(encoder.get(), JXL_TRUE), "JxlEncoderUseContainer");
  check(JxlEncoderStoreJPEGMetadata(encoder.get(), JXL_TRUE), "JxlEncoderStoreJPEGMetadata");
  JxlEncoderFrameSettings* settings = JxlEncoderFrameSettingsCreate(encoder.get(), nullptr);
  if (!settings) throw jxlFailed("JxlEncoderFrameSettingsCreate");
  JxlEncoderFrameSettingsSetOption(settings, JXL_ENC_FRAME_SETTING_EFFORT, effort);

  JxlBasicInfo info;
  JxlEncoderInitBasicInfo(&info);
  info.xsize = header->width;
  info.ysize = header->height;
  info.bits_per_sample = 8;
  info.num_color_channels = uint32_t(header->components);
  info.uses_original_profile = JXL_TRUE;
  info.orientation = JxlOrientation(header->orientation);
  check(JxlEncoderSetBasicInfo(encoder.get(), &info), "JxlEncoderSetBasicInfo");
  check(JxlEncoderAddJPEGFrame(settings, jpeg.data(), jpeg.size()), "JxlEncoderAddJPEGFrame");
  JxlEncoderCloseInput(encoder.get());
  return drainOutput(encoder.get());
}

}  // namespace

float distance(double quality) {
  const double c = std::clamp(quality, 0.0, 99.0);
  if (c >= 30) return float(0.1 + (100 - c) * 0.09);
  // Below 30 a quadratic takes over, meeting the line at 6.4 and reaching 25 at quality 0.
  return float(25.0 + c * -1.15 + c * c * 53 / 3000);
}

int lossyStripRows(int width, int height, double quality) {
  const int64_t pixels = int64_t(width) * height;
  if (width <= 0 || height <= 0 || pixels <= kWholeFramePixels ||
      (distance(quality) >= kProgressiveDCDistance && pixels <= kWholeFrameLowQualityPixels &&
       EncodeCost::fitsInMemory(uint64_t(pixels) * 4 + EncodeCost::lossyJXLFrameBytes(uint64_t(pixels)))))
    return std::max(height, 0);
  // Whole blocks of 8 rows; strips aligned on libjxl's groups of 256 came out larger (the last
  // one a sliver).
  const int rows = (height + kLossyStrips - 1) / kLossyStrips;
  return std::min(height, (rows + 7) / 8 * 8);
}

namespace {

// libjxl copies the frame into planes of its own as it is added: `releasable` (the buffer's
// samples, when the caller gave them away) goes back to the system then. A `forcedEffort`
// above 0 replaces the plan's.
Bytes encodePixels(const RGBABuffer& rgba, uint8_t* releasable, bool hasAlpha, const EncodingPlan& plan,
                   int forcedEffort = 0) {
  if (rgba.width <= 0 || rgba.height <= 0 ||
      rgba.pixels.size() < size_t(rgba.width) * size_t(rgba.height) * 4)
    throw jxlFailed("pixel size check");
  codecs::QuietStderr quiet;
  // libjxl's own runner with one worker, which fails no work item and takes 8 to 17 % less CPU
  // than no runner on screenshots, for the same bytes (the same on photographs).
  const JxlThreadParallelRunnerPtr runner = JxlThreadParallelRunnerMake(nullptr, 1);
  if (!runner) throw jxlFailed("JxlThreadParallelRunnerCreate");
  JxlEncoderPtr encoder = makeEncoder();
  check(JxlEncoderSetParallelRunner(encoder.get(), JxlThreadParallelRunner, runner.get()),
        "JxlEncoderSetParallelRunner");
  JxlEncoderFrameSettings* settings = JxlEncoderFrameSettingsCreate(encoder.get(), nullptr);
  if (!settings) throw jxlFailed("JxlEncoderFrameSettingsCreate");

  const bool lossless = plan.mode.kind == EncodingPlan::Mode::Kind::lossless;
  JxlBasicInfo info;
  JxlEncoderInitBasicInfo(&info);
  info.xsize = uint32_t(rgba.width);
  info.ysize = uint32_t(rgba.height);
  info.bits_per_sample = 8;
  info.num_color_channels = 3;
  info.num_extra_channels = hasAlpha ? 1 : 0;
  info.alpha_bits = hasAlpha ? 8 : 0;
  info.uses_original_profile = lossless ? JXL_TRUE : JXL_FALSE;
  check(JxlEncoderSetBasicInfo(encoder.get(), &info), "JxlEncoderSetBasicInfo");

  if (const auto icc = ColorProfile::embeddableICC(rgba.colorSpace)) {
    check(JxlEncoderSetICCProfile(encoder.get(), icc->data(), icc->size()), "JxlEncoderSetICCProfile");
  } else {
    JxlColorEncoding srgb;
    JxlColorEncodingSetToSRGB(&srgb, JXL_FALSE);
    check(JxlEncoderSetColorEncoding(encoder.get(), &srgb), "JxlEncoderSetColorEncoding");
  }

  float frameDistance = 0.0f;
  switch (plan.mode.kind) {
    case EncodingPlan::Mode::Kind::lossless:
      check(JxlEncoderSetFrameLossless(settings, JXL_TRUE), "JxlEncoderSetFrameLossless");
      break;
    case EncodingPlan::Mode::Kind::lossy:
      frameDistance = distance(plan.mode.quality);
      break;
    case EncodingPlan::Mode::Kind::nearLossless:
      throw jxlFailed("near-lossless mode");  // planned for WebP only
  }
  check(JxlEncoderSetFrameDistance(settings, frameDistance), "JxlEncoderSetFrameDistance");
  const JxlPixelFormat format{hasAlpha ? 4u : 3u, JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
  const size_t width = size_t(rgba.width), height = size_t(rgba.height);
  const size_t stripRows =
      lossless ? height : size_t(lossyStripRows(rgba.width, rgba.height, plan.mode.quality));
  // The light lossless effort (4) takes well under half the memory of 5 and above on
  // graphics (EncodeCost). A photograph in strips runs at effort 5 whatever its size: each
  // strip's frame carries entropy codes of its own, which effort 5 pays back, writing fewer
  // bytes than 6 at the same butteraugli distance for less CPU; 7 took twice the CPU and
  // memory, and libjxl 0.7 wrote cropped frames at 7 that its decoder refuses
  // (bench/README.md, "The cost model").
  const int effort = forcedEffort > 0                          ? forcedEffort
                     : lossless && plan.lightLossless          ? 4
                     : stripRows < height && plan.photographic ? 5
                                                               : std::clamp(plan.effort, 0, 2) + 5;
  JxlEncoderFrameSettingsSetOption(settings, JXL_ENC_FRAME_SETTING_EFFORT, effort);
  // libjxl 0.7 turns progressive DC on by itself from kProgressiveDCDistance, and a cropped
  // frame with it carries a DC frame of the whole picture, with garbage along its edges when
  // the library's memory held some: strips go without.
  if (stripRows < height)
    check(JxlEncoderFrameSettingsSetOption(settings, JXL_ENC_FRAME_SETTING_PROGRESSIVE_DC, 0),
          "JxlEncoderFrameSettingsSetOption");
  Bytes result;
  for (size_t firstRow = 0; firstRow < height; firstRow += stripRows) {
    const size_t rows = std::min(stripRows, height - firstRow);
    if (rows < height) {
      // A strip replaces its rows of the picture, which every earlier strip left as it was.
      JxlFrameHeader header;
      JxlEncoderInitFrameHeader(&header);
      header.layer_info.have_crop = JXL_TRUE;
      header.layer_info.crop_x0 = 0;
      header.layer_info.crop_y0 = int32_t(firstRow);
      header.layer_info.xsize = uint32_t(width);
      header.layer_info.ysize = uint32_t(rows);
      header.layer_info.blend_info.blendmode = JXL_BLEND_REPLACE;
      check(JxlEncoderSetFrameHeader(settings, &header), "JxlEncoderSetFrameHeader");
      if (hasAlpha)
        check(JxlEncoderSetExtraChannelBlendInfo(settings, 0, &header.layer_info.blend_info),
              "JxlEncoderSetExtraChannelBlendInfo");
    }
    if (hasAlpha) {
      check(JxlEncoderAddImageFrame(settings, &format, rgba.pixels.data() + firstRow * width * 4,
                                    rows * width * 4),
            "JxlEncoderAddImageFrame");
    } else {
      const Bytes rgb = stripAlpha(rgba, releasable, firstRow, rows);
      check(JxlEncoderAddImageFrame(settings, &format, rgb.data(), rgb.size()), "JxlEncoderAddImageFrame");
    }
    // libjxl holds the strip in planes of its own from here.
    if (releasable) PageRelease::release(releasable + firstRow * width * 4, rows * width * 4);
    if (firstRow + rows >= height) JxlEncoderCloseInput(encoder.get());
    drainOutput(encoder.get(), result);
  }
  return result;
}

}  // namespace

Bytes encode(const RGBABuffer& rgba, bool hasAlpha, const EncodingPlan& plan) {
  return encodePixels(rgba, nullptr, hasAlpha, plan);
}

Bytes encode(RGBABuffer&& rgba, bool hasAlpha, const EncodingPlan& plan) {
  return encodePixels(rgba, rgba.pixels.data(), hasAlpha, plan);
}

size_t quickLosslessSize(const RGBABuffer& rgba, bool hasAlpha) {
  EncodingPlan plan;
  plan.mode = EncodingPlan::Mode::lossless();
  return encodePixels(rgba, nullptr, hasAlpha, plan, 1).size();
}

std::optional<Bytes> transcodeJPEG(std::span<const uint8_t> jpeg, int effort) {
  try {
    return transcode(jpeg, effort);
  } catch (const std::exception&) {
    Cancellation::check();
    return std::nullopt;  // the caller encodes the decoded pixels instead
  }
}

}  // namespace quillane::JXLEncoder
