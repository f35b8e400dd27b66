// WebP through libwebp: still pictures with the incremental decoder (scaled while decoding
// for thumbnails, cancellable between slices of the input), animations through the demuxer
// (the first frame, on its canvas for a full decode); ICCP and EXIF chunks from the demuxer.

#include <webp/decode.h>
#include <webp/demux.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>

#include "engine/CHandle.h"
#include "engine/Cancellation.h"
#include "engine/ColorConvert.h"
#include "engine/Exif.h"
#include "engine/codecs/Readers.h"

namespace quillane::codecs {
namespace {
using DemuxPtr = CHandle<WebPDemuxer, WebPDemuxDelete>;

// Releases a chunk iterator on every path.
struct ChunkGuard {
  WebPChunkIterator it{};
  bool found = false;
  ChunkGuard(const WebPDemuxer* demux, const char* fourcc) {
    found = WebPDemuxGetChunk(demux, fourcc, 1, &it) != 0;
  }
  ~ChunkGuard() {
    if (found) WebPDemuxReleaseChunkIterator(&it);
  }
  std::span<const uint8_t> bytes() const {
    return found ? std::span(it.chunk.bytes, it.chunk.size) : std::span<const uint8_t>();
  }
};

DemuxPtr demuxer(Input bytes) {
  WebPData data{bytes.data(), bytes.size()};
  return DemuxPtr(WebPDemux(&data));
}

using IDecoderPtr = CHandle<WebPIDecoder, WebPIDelete>;

// The frame's pixels as libwebp decodes them, into `out` (RGBA rows of `stride` bytes), or
// scaled to `scaledWidth` x `scaledHeight` when those are above 0. The incremental decoder is
// shown the bitstream a slice longer at a time (in place, never copied), so that a cancelled
// call stops between slices.
void decodeInto(Input bitstream, uint8_t* out, int stride, size_t size, int scaledWidth, int scaledHeight) {
  constexpr size_t kSlice = 262'144;
  WebPDecoderConfig config;
  if (!WebPInitDecoderConfig(&config)) fail("WebPInitDecoderConfig");
  if (scaledWidth > 0 && scaledHeight > 0) {
    config.options.use_scaling = 1;
    config.options.scaled_width = scaledWidth;
    config.options.scaled_height = scaledHeight;
  }
  config.output.colorspace = MODE_RGBA;
  config.output.is_external_memory = 1;
  config.output.u.RGBA.rgba = out;
  config.output.u.RGBA.stride = stride;
  config.output.u.RGBA.size = size;
  IDecoderPtr decoder(WebPIDecode(nullptr, 0, &config));
  if (!decoder) fail("WebPIDecode");
  VP8StatusCode status = VP8_STATUS_SUSPENDED;
  for (size_t shown = 0; status == VP8_STATUS_SUSPENDED && shown < bitstream.size();) {
    Cancellation::check();
    shown = std::min(bitstream.size(), shown + kSlice);
    status = WebPIUpdate(decoder.get(), bitstream.data(), shown);
  }
  if (status != VP8_STATUS_OK) fail("WebPIUpdate");
}

// A picture of `bitstream` (a still file, or one frame of an animation), at full size or,
// with `minLongSide` above 0, scaled by libwebp while it decodes so that its longer side is
// `minLongSide`: the full-size picture is never held.
DecodedImage decodeStill(Input bitstream, int minLongSide) {
  WebPBitstreamFeatures features;
  if (WebPGetFeatures(bitstream.data(), bitstream.size(), &features) != VP8_STATUS_OK)
    fail("WebPGetFeatures");
  checkSize(uint64_t(std::max(features.width, 0)), uint64_t(std::max(features.height, 0)));
  int width = features.width, height = features.height, scaledWidth = 0, scaledHeight = 0;
  const int longSide = std::max(width, height);
  if (minLongSide > 0 && longSide > minLongSide) {
    const double scale = double(minLongSide) / longSide;
    width = scaledWidth = std::max(1, int(std::lround(features.width * scale)));
    height = scaledHeight = std::max(1, int(std::lround(features.height * scale)));
  }
  DecodedImage image =
      allocateImage(width, height, 8, features.has_alpha ? AlphaInfo::straight : AlphaInfo::none);
  decodeInto(bitstream, image.pixels8.data(), width * 4, image.pixels8.size(), scaledWidth, scaledHeight);
  return image;
}

// The first frame of an animation. At full size it is drawn on a transparent canvas of the
// animation's size, as a player shows it; a reduced picture is the frame alone at its own
// size, so that a huge canvas around a tiny frame costs nothing to inspect.
DecodedImage decodeFirstFrame(const WebPDemuxer* demux, bool alpha, int minLongSide) {
  WebPIterator frame;
  if (!WebPDemuxGetFrame(demux, 1, &frame)) fail("WebPDemuxGetFrame");
  struct Release {
    WebPIterator* it;
    ~Release() { WebPDemuxReleaseIterator(it); }
  } release{&frame};
  const Input bitstream(frame.fragment.bytes, frame.fragment.size);
  if (minLongSide > 0) return decodeStill(bitstream, minLongSide);
  const uint32_t canvasWidth = WebPDemuxGetI(demux, WEBP_FF_CANVAS_WIDTH);
  const uint32_t canvasHeight = WebPDemuxGetI(demux, WEBP_FF_CANVAS_HEIGHT);
  if (frame.x_offset < 0 || frame.y_offset < 0 || frame.width <= 0 || frame.height <= 0 ||
      uint64_t(frame.x_offset) + uint64_t(frame.width) > canvasWidth ||
      uint64_t(frame.y_offset) + uint64_t(frame.height) > canvasHeight)
    fail("WebPDemuxGetFrame: frame outside the canvas");
  DecodedImage image =
      allocateImage(int(canvasWidth), int(canvasHeight), 8, alpha ? AlphaInfo::straight : AlphaInfo::none);
  std::fill(image.pixels8.begin(), image.pixels8.end(), uint8_t(0));
  const size_t stride = size_t(canvasWidth) * 4;
  const size_t start = size_t(frame.y_offset) * stride + size_t(frame.x_offset) * 4;
  decodeInto(bitstream, image.pixels8.data() + start, int(stride), image.pixels8.size() - start, 0, 0);
  return image;
}

}  // namespace

std::optional<Properties> webpProperties(Input bytes) {
  DemuxPtr demux = demuxer(bytes);
  const bool whole = bool(demux);
  if (!whole) {
    // The first bytes of a longer file: the canvas is in the header, the frames are those
    // seen so far, and an animation counts as one even when only its first frame was seen.
    WebPData data{bytes.data(), bytes.size()};
    WebPDemuxState state = WEBP_DEMUX_PARSE_ERROR;
    demux = DemuxPtr(WebPDemuxPartial(&data, &state));
    if (!demux || state < WEBP_DEMUX_PARSED_HEADER) return std::nullopt;
  }
  Properties props;
  props.width = int(WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_WIDTH));
  props.height = int(WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_HEIGHT));
  props.frameCount = std::max(1, int(WebPDemuxGetI(demux.get(), WEBP_FF_FRAME_COUNT)));
  if (!whole && (WebPDemuxGetI(demux.get(), WEBP_FF_FORMAT_FLAGS) & ANIMATION_FLAG))
    props.frameCount = std::max(props.frameCount, 2);
  if (props.width <= 0 || props.height <= 0) return std::nullopt;
  ChunkGuard exif(demux.get(), "EXIF");
  if (exif.found) props.orientation = Exif::orientation(exif.bytes());
  return props;
}

std::optional<uint64_t> webpReducedDecodeBytes(Input bytes, int minLongSide) {
  // The first frame's header is enough, from a whole file or its first bytes.
  WebPData data{bytes.data(), bytes.size()};
  WebPDemuxState state = WEBP_DEMUX_PARSE_ERROR;
  DemuxPtr demux(WebPDemuxPartial(&data, &state));
  if (!demux || state < WEBP_DEMUX_PARSED_HEADER) return std::nullopt;
  WebPIterator frame;
  if (!WebPDemuxGetFrame(demux.get(), 1, &frame)) return std::nullopt;
  WebPBitstreamFeatures features;
  const VP8StatusCode status = WebPGetFeatures(frame.fragment.bytes, frame.fragment.size, &features);
  WebPDemuxReleaseIterator(&frame);
  if (status != VP8_STATUS_OK || features.width <= 0 || features.height <= 0) return std::nullopt;
  // Scaling applies to the output only: a lossless frame is decoded whole (4 bytes a pixel),
  // a lossy one row by row, but with its alpha plane whole.
  const uint64_t pixels = uint64_t(features.width) * uint64_t(features.height);
  const uint64_t perPixel = features.format != 1 ? 4 : features.has_alpha ? 2 : 0;
  const uint64_t side = uint64_t(std::max(minLongSide, 1));
  return pixels * perPixel + uint64_t(features.width) * 64 + side * side * 4 + (1u << 20);
}

DecodedImage decodeWebp(Input bytes, int minLongSide) {
  DemuxPtr demux = demuxer(bytes);
  if (!demux) fail("WebPDemux: damaged or truncated WebP");
  uint32_t flags = WebPDemuxGetI(demux.get(), WEBP_FF_FORMAT_FLAGS);
  checkSize(WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_WIDTH),
            WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_HEIGHT));
  DecodedImage image = (flags & ANIMATION_FLAG)
                           ? decodeFirstFrame(demux.get(), (flags & ALPHA_FLAG) != 0, minLongSide)
                           : decodeStill(bytes, minLongSide);
  ChunkGuard icc(demux.get(), "ICCP");
  auto profile = icc.bytes();
  image.colorSpace = ColorConvert::rgbSpace(std::vector<uint8_t>(profile.begin(), profile.end()));
  return image;
}

}  // namespace quillane::codecs
