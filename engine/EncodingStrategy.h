#pragma once
// From a decoded picture and one slider value to encoder settings that suit the picture:
// ImageAnalyzer measures and classes, EncodingStrategy plans, QualityCalibration maps a
// perceptual quality to a codec's. All pure functions, any thread.

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "engine/ImageFormat.h"
#include "engine/RGBABuffer.h"

namespace quillane {

struct ImageCharacteristics {
  enum class ContentClass { flatGraphic, screenText, illustration, photo, noisyPhoto };

  int width = 0;
  int height = 0;
  ContentClass contentClass = ContentClass::flatGraphic;
  int distinctColorCount = 0;
  bool colorCountSaturated = false;
  double flatFraction = 0;
  double edgeFraction = 0;
  double gradientFraction = 0;
  double noiseLevel = 0;
  bool hasAlpha = false;
  bool hasPartialAlpha = false;

  static std::string_view name(ContentClass c);  // "flatGraphic", ...
};

struct EncodingPlan {
  struct Mode {
    enum class Kind { lossy, nearLossless, lossless };
    Kind kind = Kind::lossy;
    double quality = 0;  // lossy: the codec's quality, 0...100
    int level = 0;       // nearLossless: the level

    static Mode lossy(double q) { return {Kind::lossy, q, 0}; }
    static Mode nearLossless(int level) { return {Kind::nearLossless, 0, level}; }
    static Mode lossless() { return {Kind::lossless, 0, 0}; }
    bool operator==(const Mode&) const = default;
  };
  // A second encoding that competes with the first: lossy(q) or lossless only.
  using Alternative = Mode;

  Mode mode;
  int effort = 2;  // 0, 1 or 2; 2 is the most work
  double quality = 75;
  std::optional<Alternative> alternative;
  float dithering = 0.0f;  // libimagequant's dithering level for the palette, 0 to 1
  bool prefersLossless = false;
  bool photographic = false;  // photo, noisy photo or illustration: no graphic, no screen text
  // Photographic with more than 4,096 colours: not a drawing of few colours, whose flat areas
  // would start an encoder's screen content tools.
  bool continuousTone = false;
  // JPEG XL: lossless at the encoder's light effort, whose memory fits where the plan's
  // effort would not (EncodeCost::allowance).
  bool lightLossless = false;

  static std::string_view modeName(Mode::Kind kind);  // "lossy", "nearLossless", "lossless"
};

namespace ImageAnalyzer {
// Samples at most about 1.2 million points, whatever the size.
ImageCharacteristics analyze(const RGBABuffer& rgba);
// The distance between samples, in both directions: max(1, ceil(sqrt(N / 1,200,000))).
int samplingStep(uint64_t pixelCount);
// The class from the measurements: the first of flatGraphic, screenText, illustration,
// noisyPhoto whose rule holds, else photo. analyze() ends with it.
ImageCharacteristics::ContentClass classify(const ImageCharacteristics& characteristics);
}  // namespace ImageAnalyzer

namespace QualityCalibration {
struct Anchor {
  double perceptual, jpeg, heic, avif, webp;
};
extern const std::array<Anchor, 9> anchors;
inline constexpr double calibrationWeight = 0.0;
double codecQuality(double perceptual, ImageFormat format);
}  // namespace QualityCalibration

namespace EncodingStrategy {
// Every encoding of the plan keeps within EncodeCost::allowance where the format has a
// cheaper way: a lossless JPEG XL that would exceed it runs at the light effort, or, where
// that too would, gives way to the lossy encoding.
EncodingPlan plan(const ImageCharacteristics& characteristics, ImageFormat format, double perceptualQuality);
EncodingPlan::Mode mode(const ImageCharacteristics& characteristics, ImageFormat format, double quality);
// Whether a lossless WebP of this picture can come out smaller than a lossy one in `lossy`
// mode. Not where more than 3 % of the samples are gentle gradients (shading, anti-aliasing,
// a photo in a window), the picture has at least 16,384 pixels and the lossy quality is at
// most 85: on 99 screenshots, wallpapers and logos at qualities 50, 75 and 80 lossless lost every
// time there, by 5 % to 20 times, while costing 3 to 10 times the lossy encoding, and on the
// 57 flat graphics among 110 pictures at 85 every lossless win had a gradient fraction of at
// most 0.024 (at 90 one had 0.2, but 500 colours). Above 85 the same holds where more than
// 1,024 colours were sampled: at 85, 90 and 95 lossless lost every time there, by 7 % to 34
// times. Never against a near-lossless encoding: on the 30 such screenshots, wallpapers and
// icons among them, at 85, 90 and 95, lossless tied on a 16 x 16 icon and lost everywhere
// else, by 9 to 53 %.
bool losslessWebPMayWin(const ImageCharacteristics& characteristics, const EncodingPlan::Mode& lossy);
// The same for JPEG XL up to quality 80, whose lossless coder also wins on gentle gradients where
// a picture has few colours: on the same pictures at qualities 50 to 80 it lost every time (by 1.3 to 27
// times the lossy bytes) where, besides the WebP conditions, more than 1,024 colours were
// sampled; every win had at most 500.
bool losslessJXLMayWin(const ImageCharacteristics& characteristics, const EncodingPlan::Mode& lossy);
// Where losslessJXLMayWin lets it compete, whether lossless at the plan's effort can beat
// `lossyBytes`, judged by `quickLosslessBytes`, its size at libjxl's fastest effort
// (JXLEncoder::quickLosslessSize). Lossless wins only where the quick size over the lossy bytes
// is below the effort's gain (the quick size over the plan's lossless bytes): on 88 screenshots
// and graphics at qualities 50 to 90 that gain was 1.5 to 2.96 where at most 1,024 colours were
// sampled and 1.2 to 2.1 above, so the full encoding runs only where the quick size is at most 3
// times the lossy bytes, or 2.2 times among more colours. Every one of the 41 wins had it at most
// 1.97 times; 137 of the 189 losing lossless encodings are left out.
bool losslessJXLMayBeat(const ImageCharacteristics& characteristics, uint64_t lossyBytes,
                        uint64_t quickLosslessBytes);
// Whether a WebP plan's competing lossless encoding, where losslessWebPMayWin lets it compete,
// is first judged by a quick one (losslessWebPMayBeat): on a picture of at least 16,384 pixels
// and more than 3 % gentle gradients, which only a lossy quality above 85 among few colours lets
// compete, and where lossless lost by 5.7 times (a screenshot of 255 colours at 90) or won by
// 1 % (a top bar of 500 colours at 90). Elsewhere lossless mostly wins, and the quick encoding
// (a fifth to a tenth of the plan's) would only add to its cost.
bool losslessWebPJudgedQuickly(const ImageCharacteristics& characteristics);
// Whether lossless WebP at the plan's method can beat `lossyBytes`, judged by
// `quickLosslessBytes`, its size at libwebp's fastest method (WebPEncoder::quickLosslessSize):
// not where that is above 4 times the lossy bytes. On 108 screenshots, wallpapers and icons at
// qualities 50 to 95, the 93 lossless encodings that losslessWebPMayWin lets compete came out
// 1.1 to 3.7 times smaller at the plan's method than at the fastest, so none above 3.7 could win.
bool losslessWebPMayBeat(uint64_t lossyBytes, uint64_t quickLosslessBytes);
// losslessWebPMayWin or losslessJXLMayWin by format; true for the formats without a
// competing lossless encoding.
bool losslessMayWin(ImageFormat format, const ImageCharacteristics& characteristics,
                    const EncodingPlan::Mode& lossy);
}  // namespace EncodingStrategy

}  // namespace quillane
