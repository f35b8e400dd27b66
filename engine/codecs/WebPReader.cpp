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
  // Around a frame smaller than the canvas the picture is transparent, opaque frames or not.
  const bool coversCanvas = uint32_t(frame.width) == canvasWidth && uint32_t(frame.height) == canvasHeight;
  DecodedImage image = allocateImage(int(canvasWidth), int(canvasHeight), 8,
                                     alpha || !coversCanvas ? AlphaInfo::straight : AlphaInfo::none);
  if (!coversCanvas) std::fill(image.pixels8.begin(), image.pixels8.end(), uint8_t(0));
  const size_t stride = size_t(canvasWidth) * 4;
  const size_t start = size_t(frame.y_offset) * stride + size_t(frame.x_offset) * 4;
  decodeInto(bitstream, image.pixels8.data() + start, int(stride), image.pixels8.size() - start, 0, 0);
  return image;
}

// A WebP file's chunks as read from a source by their headers, payloads passed unread.
struct Chunk {
  uint64_t offset = 0;  // of the chunk's header
  uint64_t size = 0;    // of its payload
  bool found() const { return offset > 0; }
  uint64_t end() const { return offset + 8 + size + (size & 1); }
};
struct Layout {
  Chunk vp8x, iccp, anim, exif, frame, alpha, picture;  // frame: the first ANMF; alpha and
                                                        // picture: the first frame's
  int frames = 0;                                       // ANMF chunks
};

uint32_t le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The chunks of [begin, end) into `layout`: the first of each kind, and every ANMF counted.
// Each header is read alone, so that a file of holes costs only its headers.
void walkChunks(ByteSource& source, uint64_t begin, uint64_t end, Layout& layout, bool inFrame) {
  for (uint64_t at = begin; end >= 8 && at <= end - 8;) {
    uint8_t header[8];
    if (!source.seek(at) || source.read(header, 8) != 8) break;
    const Chunk chunk{at, le32(header + 4)};
    if (chunk.end() > end) {
      if (!std::memcmp(header, "VP8", 3) && !layout.picture.found())
        layout.picture = chunk;  // cut short: fails to decode
      break;
    }
    auto is = [&header](const char* fourcc) { return std::memcmp(header, fourcc, 4) == 0; };
    auto first = [](Chunk& slot, const Chunk& c) {
      if (!slot.found()) slot = c;
    };
    if (inFrame) {
      if (is("ALPH") && !layout.picture.found()) first(layout.alpha, chunk);
      if (is("VP8 ") || is("VP8L")) first(layout.picture, chunk);
    } else if (is("ANMF")) {
      if (++layout.frames == 1 && chunk.size >= 16) {
        layout.frame = chunk;
        walkChunks(source, chunk.offset + 8 + 16, chunk.offset + 8 + chunk.size, layout, true);
      }
    } else if (is("VP8X")) {
      first(layout.vp8x, chunk);
    } else if (is("ICCP")) {
      first(layout.iccp, chunk);
    } else if (is("ANIM")) {
      first(layout.anim, chunk);
    } else if (is("EXIF")) {
      first(layout.exif, chunk);
    } else if (is("ALPH") && !layout.picture.found()) {
      first(layout.alpha, chunk);
    } else if (is("VP8 ") || is("VP8L")) {
      first(layout.picture, chunk);
      if (!layout.vp8x.found()) break;  // a simple file ends with its picture
    }
    at = chunk.end();
  }
}

std::optional<Layout> layoutOf(ByteSource& source) {
  uint8_t riff[12];
  source.rewind();
  if (source.read(riff, 12) != 12 || std::memcmp(riff, "RIFF", 4) != 0 ||
      std::memcmp(riff + 8, "WEBP", 4) != 0)
    return std::nullopt;
  Layout layout;
  walkChunks(source, 12, std::min<uint64_t>(source.size(), uint64_t(le32(riff + 4)) + 8), layout, false);
  if (!layout.picture.found()) return std::nullopt;
  return layout;
}

// The bitstream features of the first frame, from the first bytes of its picture chunk.
std::optional<WebPBitstreamFeatures> featuresOf(ByteSource& source, const Layout& layout) {
  const std::vector<uint8_t> head = source.readAt(layout.picture.offset, 64);
  WebPBitstreamFeatures features;
  if (WebPGetFeatures(head.data(), head.size(), &features) != VP8_STATUS_OK || features.width <= 0 ||
      features.height <= 0)
    return std::nullopt;
  features.has_alpha |= layout.alpha.found();
  return features;
}

// A WebP of its own holding what a decode of the first frame needs: the extended header,
// colour profile and animation header, and the first frame (or the alpha and the picture);
// nothing of the metadata or of the other frames.
std::vector<uint8_t> firstFrameFile(ByteSource& source, const Layout& layout) {
  constexpr uint64_t kMaxProfileBytes = 64ull << 20;
  std::vector<uint8_t> file = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'E', 'B', 'P'};
  auto append = [&](const Chunk& chunk) {
    if (!chunk.found()) return;
    const std::vector<uint8_t> bytes = source.readAt(chunk.offset, size_t(chunk.end() - chunk.offset));
    file.insert(file.end(), bytes.begin(), bytes.end());
  };
  append(layout.vp8x);
  if (layout.vp8x.found() && layout.iccp.size <= kMaxProfileBytes) append(layout.iccp);
  if (layout.frame.found()) {
    append(layout.anim);
    append(layout.frame);
  } else {
    if (layout.vp8x.found()) append(layout.alpha);
    append(layout.picture);
  }
  const uint32_t riffSize = uint32_t(file.size() - 8);
  for (int i = 0; i < 4; ++i) file[4 + size_t(i)] = uint8_t(riffSize >> (8 * i));
  return file;
}

uint64_t reducedBytes(const WebPBitstreamFeatures& features, int minLongSide) {
  // Scaling applies to the output only: a lossless frame is decoded whole (4 bytes a pixel),
  // a lossy one row by row, but with its alpha plane whole.
  const uint64_t pixels = uint64_t(features.width) * uint64_t(features.height);
  const uint64_t perPixel = features.format != 1 ? 4 : features.has_alpha ? 2 : 0;
  const uint64_t side = uint64_t(std::max(minLongSide, 1));
  return pixels * perPixel + uint64_t(features.width) * 64 + side * side * 4 + (1u << 20);
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
  return reducedBytes(features, minLongSide);
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

std::optional<Properties> webpProperties(ByteSource& source) {
  if (const auto whole = source.contiguous()) return webpProperties(*whole);
  const auto layout = layoutOf(source);
  if (!layout) return std::nullopt;
  Properties props;
  if (layout->vp8x.found() && layout->vp8x.size >= 10) {
    // The canvas: 24-bit width and height less one, after the flags and 3 reserved bytes.
    const std::vector<uint8_t> vp8x = source.readAt(layout->vp8x.offset + 8, 10);
    if (vp8x.size() != 10) return std::nullopt;
    props.width = int(uint32_t(vp8x[4]) | uint32_t(vp8x[5]) << 8 | uint32_t(vp8x[6]) << 16) + 1;
    props.height = int(uint32_t(vp8x[7]) | uint32_t(vp8x[8]) << 8 | uint32_t(vp8x[9]) << 16) + 1;
    if ((vp8x[0] & ANIMATION_FLAG) && layout->frames > 0) props.frameCount = layout->frames;
    if (layout->exif.found())
      props.orientation = Exif::orientation(
          source.readAt(layout->exif.offset + 8, size_t(std::min<uint64_t>(layout->exif.size, 1u << 20))));
  } else {
    const auto features = featuresOf(source, *layout);
    if (!features) return std::nullopt;
    props.width = features->width;
    props.height = features->height;
  }
  return props;
}

std::optional<uint64_t> webpReducedDecodeBytes(ByteSource& source, int minLongSide) {
  if (const auto whole = source.contiguous()) return webpReducedDecodeBytes(*whole, minLongSide);
  const auto layout = layoutOf(source);
  if (!layout) return std::nullopt;
  const auto features = featuresOf(source, *layout);
  if (!features) return std::nullopt;
  return reducedBytes(*features, minLongSide);
}

DecodedImage decodeWebp(ByteSource& source, int minLongSide) {
  if (const auto whole = source.contiguous()) return decodeWebp(*whole, minLongSide);
  const auto layout = layoutOf(source);
  if (!layout) fail("WebPDemux: damaged or truncated WebP");
  return decodeWebp(firstFrameFile(source, *layout), minLongSide);
}

}  // namespace quillane::codecs
