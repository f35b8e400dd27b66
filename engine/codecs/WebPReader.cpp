// WebP through libwebp: still pictures with WebPDecode, animations through the demuxer and
// WebPAnimDecoder (first frame, composited on its canvas); ICCP and EXIF chunks from the
// demuxer.

#include <webp/decode.h>
#include <webp/demux.h>

#include <cstring>
#include <memory>

#include "engine/CHandle.h"
#include "engine/ColorConvert.h"
#include "engine/Exif.h"
#include "engine/codecs/Readers.h"

namespace quillane::codecs {
namespace {
using DemuxPtr = CHandle<WebPDemuxer, WebPDemuxDelete>;
using AnimDecoderPtr = CHandle<WebPAnimDecoder, WebPAnimDecoderDelete>;

// Releases a chunk iterator on every path.
struct ChunkGuard {
  WebPChunkIterator it{};
  bool found = false;
  ChunkGuard(const WebPDemuxer* demux, const char* fourcc) { found = WebPDemuxGetChunk(demux, fourcc, 1, &it) != 0; }
  ~ChunkGuard() {
    if (found) WebPDemuxReleaseChunkIterator(&it);
  }
  std::span<const uint8_t> bytes() const { return found ? std::span(it.chunk.bytes, it.chunk.size) : std::span<const uint8_t>(); }
};

DemuxPtr demuxer(Input bytes) {
  WebPData data{bytes.data(), bytes.size()};
  return DemuxPtr(WebPDemux(&data));
}

void decodeStill(Input bytes, DecodedImage& image) {
  WebPDecoderConfig config;
  if (!WebPInitDecoderConfig(&config)) fail("WebPInitDecoderConfig");
  if (WebPGetFeatures(bytes.data(), bytes.size(), &config.input) != VP8_STATUS_OK) fail("WebPGetFeatures");
  image = allocateImage(config.input.width, config.input.height, 8,
                        config.input.has_alpha ? AlphaInfo::straight : AlphaInfo::none);
  config.output.colorspace = MODE_RGBA;
  config.output.is_external_memory = 1;
  config.output.u.RGBA.rgba = image.pixels8.data();
  config.output.u.RGBA.stride = image.width * 4;
  config.output.u.RGBA.size = image.pixels8.size();
  VP8StatusCode status = WebPDecode(bytes.data(), bytes.size(), &config);
  WebPFreeDecBuffer(&config.output);
  if (status != VP8_STATUS_OK) fail("WebPDecode");
}

void decodeFirstAnimationFrame(Input bytes, bool alpha, DecodedImage& image) {
  WebPAnimDecoderOptions options;
  if (!WebPAnimDecoderOptionsInit(&options)) fail("WebPAnimDecoderOptionsInit");
  options.color_mode = MODE_RGBA;
  options.use_threads = 0;
  WebPData data{bytes.data(), bytes.size()};
  AnimDecoderPtr decoder(WebPAnimDecoderNew(&data, &options));
  if (!decoder) fail("WebPAnimDecoderNew");
  WebPAnimInfo info;
  if (!WebPAnimDecoderGetInfo(decoder.get(), &info)) fail("WebPAnimDecoderGetInfo");
  image = allocateImage(int(info.canvas_width), int(info.canvas_height), 8, alpha ? AlphaInfo::straight : AlphaInfo::none);
  uint8_t* canvas = nullptr;
  int timestamp = 0;
  if (!WebPAnimDecoderGetNext(decoder.get(), &canvas, &timestamp) || !canvas) fail("WebPAnimDecoderGetNext");
  std::memcpy(image.pixels8.data(), canvas, image.pixels8.size());
}

}  // namespace

std::optional<Properties> webpProperties(Input bytes) {
  DemuxPtr demux = demuxer(bytes);
  if (!demux) return std::nullopt;
  Properties props;
  props.width = int(WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_WIDTH));
  props.height = int(WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_HEIGHT));
  props.frameCount = std::max(1, int(WebPDemuxGetI(demux.get(), WEBP_FF_FRAME_COUNT)));
  if (props.width <= 0 || props.height <= 0) return std::nullopt;
  ChunkGuard exif(demux.get(), "EXIF");
  if (exif.found) props.orientation = Exif::orientation(exif.bytes());
  return props;
}

DecodedImage decodeWebp(Input bytes) {
  DemuxPtr demux = demuxer(bytes);
  if (!demux) fail("WebPDemux: damaged or truncated WebP");
  uint32_t flags = WebPDemuxGetI(demux.get(), WEBP_FF_FORMAT_FLAGS);
  checkSize(WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_WIDTH), WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_HEIGHT));
  DecodedImage image;
  if (flags & ANIMATION_FLAG)
    decodeFirstAnimationFrame(bytes, (flags & ALPHA_FLAG) != 0, image);
  else
    decodeStill(bytes, image);
  ChunkGuard icc(demux.get(), "ICCP");
  auto profile = icc.bytes();
  image.colorSpace = ColorConvert::rgbSpace(std::vector<uint8_t>(profile.begin(), profile.end()));
  return image;
}

}  // namespace quillane::codecs
