#include "engine/ImageCompressor.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <iterator>
#include <limits>
#include <new>
#include <optional>
#include <utility>

#include "engine/Cancellation.h"
#include "engine/DecodedImage.h"
#include "engine/EncodeCost.h"
#include "engine/Encoders.h"
#include "engine/EncodingStrategy.h"
#include "engine/Errors.h"
#include "engine/FileIO.h"
#include "engine/ImageDecoder.h"
#include "engine/Json.h"
#include "engine/Localization.h"
#include "engine/PerceptualDistance.h"
#include "engine/RGBABuffer.h"
#include "engine/Resample.h"

namespace quillane {
namespace {

// The path without its "." steps ("/out/./a.jpg" is "/out/a.jpg", as a caller's "--to ."
// gives it); ".." stays, since through a link it need not lead back where it came from.
std::filesystem::path withoutDotSteps(const std::filesystem::path& path) {
  std::filesystem::path kept;
  for (const std::filesystem::path& step : path)
    if (step != ".") kept /= step;
  return kept;
}

using Bytes = std::vector<uint8_t>;

bool isNative(ImageFormat format) {
  return format == ImageFormat::jpeg || format == ImageFormat::heic || format == ImageFormat::avif;
}

// The picture in both forms the encoders read. The decoded frame is dropped as soon as the
// format's encoder doesn't need it, so that only one full-size copy stays alive.
struct Pictures {
  DecodedImage decoded;
  RGBABuffer rgba;
  std::optional<WebPEncoder::ARGBPicture> argb;  // WebP: the buffer's samples in libwebp's order
};

// One encoding of the plan, with `mode` as the plan's mode (the main encoding or the
// alternative). For PNG the lossy alternative is a quantized palette, or nothing where the
// lossless encoding has tried the picture's own.
// The `last` encoding of the plan consumes the picture where its encoder can (JPEG, HEIC,
// AVIF, JPEG XL): its memory goes back as the library takes its own copy.
Bytes encodeOnce(Pictures& pictures, ImageFormat format, const EncodingPlan& plan,
                 const ImageCharacteristics& characteristics, const EncodingPlan::Mode& mode,
                 bool alternative, bool last) {
  EncodingPlan p = plan;
  p.mode = mode;
  switch (format) {
    case ImageFormat::jpeg:
    case ImageFormat::heic:
    case ImageFormat::avif:
      return last ? NativeImageIOEncoder::encode(std::move(pictures.decoded), pictures.rgba.hasAlpha, format,
                                                 p)
                  : NativeImageIOEncoder::encode(pictures.decoded, pictures.rgba.hasAlpha, format, p);
    case ImageFormat::webp:
      return pictures.argb ? WebPEncoder::encode(*pictures.argb, p, characteristics)
                           : WebPEncoder::encode(pictures.rgba, p, characteristics);
    case ImageFormat::jxl:
      return last ? JXLEncoder::encode(std::move(pictures.rgba), pictures.rgba.hasAlpha, p)
                  : JXLEncoder::encode(pictures.rgba, pictures.rgba.hasAlpha, p);
    case ImageFormat::png:
      if (!alternative) return PNGQuantEncoder::encode(pictures.rgba, plan);
      if (mode.kind == EncodingPlan::Mode::Kind::lossless)
        return PNGQuantEncoder::encodeLossless(pictures.rgba, plan);
      return PNGQuantEncoder::encodeLossyAlternative(pictures.rgba, plan);
  }
  throw ImageProcessingError::encodingFailed(std::string(ImageFormats::label(format)), "unknown format");
}

// encodeOnce, with an encoder that runs out of memory reported as that format's failure.
Bytes encodeWith(Pictures& pictures, ImageFormat format, const EncodingPlan& plan,
                 const ImageCharacteristics& characteristics, const EncodingPlan::Mode& mode,
                 bool alternative, bool last) {
  try {
    return encodeOnce(pictures, format, plan, characteristics, mode, alternative, last);
  } catch (const std::bad_alloc&) {
    throw ImageProcessingError::encodingFailed(std::string(ImageFormats::label(format)), "out of memory");
  }
}

// A WebP or JPEG XL plan whose lossy and lossless encodings compete, either one the main
// encoding: the lossy one first, then lossless at the plan's effort only where a quick lossless
// encoding says it can beat the lossy bytes (EncodingStrategy::losslessWebPMayBeat,
// losslessJXLMayBeat). The smaller wins, the main encoding on a tie; a failed encoding leaves
// the other standing.
Bytes encodeJudgedCompeting(Pictures& pictures, ImageFormat format, const EncodingPlan& plan,
                            const ImageCharacteristics& characteristics, bool mainLossless, bool consume) {
  const EncodingPlan::Mode lossless = EncodingPlan::Mode::lossless();
  Bytes lossy;
  try {
    lossy = encodeWith(pictures, format, plan, characteristics, mainLossless ? *plan.alternative : plan.mode,
                       mainLossless, false);
  } catch (const std::exception&) {
    if (!mainLossless) throw;
    return encodeWith(pictures, format, plan, characteristics, lossless, false, consume);
  }
  Cancellation::check();
  try {
    const bool mayBeat = format == ImageFormat::webp
                             ? EncodingStrategy::losslessWebPMayBeat(
                                   lossy.size(), WebPEncoder::quickLosslessSize(*pictures.argb))
                             : EncodingStrategy::losslessJXLMayBeat(
                                   characteristics, lossy.size(),
                                   JXLEncoder::quickLosslessSize(pictures.rgba, pictures.rgba.hasAlpha));
    if (!mayBeat) return lossy;
  } catch (const std::exception&) {
    // no estimate: lossless runs as if there were no estimate
  }
  Cancellation::check();
  try {
    Bytes full = encodeWith(pictures, format, plan, characteristics, lossless, !mainLossless, consume);
    if (full.size() < lossy.size() || (mainLossless && full.size() == lossy.size())) return full;
  } catch (const std::exception&) {
  }
  return lossy;
}

// The source's last path component without its extension ("a/b/photo.tar.png" gives
// "photo.tar"); a name that starts with its only dot keeps it (".hidden").
std::string baseName(const std::string& path) {
  return std::filesystem::path(path).filename().stem().string();
}

}  // namespace

std::string BudgetError::description() const {
  return Localization::format(
      "error.budgetUnreachableFormat", "Impossible de descendre sous %1$@ en %2$@ × %3$@.",
      {ImageCompressor::byteCountText(maxBytes_), std::to_string(width_), std::to_string(height_)});
}

std::string ImageCompressionResult::toJSON() const {
  JsonValue object = JsonValue::object();
  object.set("path", path);
  object.set("originalSizeBytes", originalSizeBytes);
  if (compressedSizeBytes) object.set("compressedSizeBytes", *compressedSizeBytes);
  if (ratio) object.set("ratio", *ratio);
  if (destination) object.set("destination", *destination);
  if (butteraugli) object.set("butteraugli", *butteraugli);
  if (error) object.set("error", *error);
  if (quality) object.set("quality", *quality);
  if (pixelWidth) object.set("pixelWidth", *pixelWidth);
  if (pixelHeight) object.set("pixelHeight", *pixelHeight);
  if (skipped) {
    object.set("skipped", true);
    object.set("reason", *skipped);
  }
  return object.writeSorted();
}

namespace ImageCompressor {

namespace {

// How the logarithm of a file's size moves with quality, up to a constant: the byte budget's
// search reads its first encode's size through it. WebP's, measured over the bench corpus
// (bench/README.md, "Fit and byte budget"), falls about linearly below 75, halving only some
// 50 steps down, and climbs steeply above; the other formats halve about every 20 steps.
double sizeModel(ImageFormat format, double quality) {
  if (format != ImageFormat::webp) return quality * std::log(2.0) / 20.0;
  static constexpr std::pair<double, double> kWebP[] = {
      {0, -1.24},   {1, -1.181},  {4, -1.029},  {8, -0.92},   {15, -0.755},
      {25, -0.596}, {35, -0.448}, {45, -0.328}, {55, -0.211}, {65, -0.108},
      {75, 0.0},    {85, 0.441},  {90, 0.788},  {95, 1.248},  {100, 1.624}};
  quality = std::clamp(quality, 0.0, 100.0);
  for (size_t i = 1; i < std::size(kWebP); ++i) {
    if (quality <= kWebP[i].first) {
      const auto [q0, v0] = kWebP[i - 1];
      const auto [q1, v1] = kWebP[i];
      return v0 + (v1 - v0) * (quality - q0) / (q1 - q0);
    }
  }
  return kWebP[std::size(kWebP) - 1].second;
}

// The quality, 0 to 100, at which sizeModel gives `value` (it rises with quality).
double qualityForModel(ImageFormat format, double value) {
  double low = 0, high = 100;
  for (int i = 0; i < 30; ++i) {
    const double middle = (low + high) / 2;
    (sizeModel(format, middle) < value ? low : high) = middle;
  }
  return (low + high) / 2;
}

// A byte budget's search, once the first encoding (in `result`, at `quality`) came out larger
// than `budget`: it leaves in `result` the highest whole quality below that whose file fits,
// or one whose file comes within 5 % under the budget, which ends the search early. The
// logarithm of the size is taken as a + b * sizeModel(format, quality): through the one point
// known at first b is 1, and a and b are then fitted to the two closest qualities known (both
// too large at first, then the bracket's ends), aiming 5 % under the budget. When the same end
// of the bracket moves again, the other end is taken as half as far from the aim each time
// (the Illinois rule), so that a curve that bends away from the model still closes in.
// `fitsAt` holds the best fitting encoding so far. `encodeAtQuality` encodes the kept picture
// at a whole quality. Throws BudgetError when quality 1 does not fit either.
void searchBudget(Encoded& result, ImageFormat format, uint64_t budget, double quality,
                  const std::function<Bytes(int)>& encodeAtQuality) {
  constexpr int kMaxEncodes = 7;
  const double target = std::log(double(budget) * 0.95), closeEnough = double(budget) * 0.95;
  int high = int(std::ceil(quality));  // too large here
  double highLog = std::log(double(result.bytes.size()));
  std::optional<std::pair<int, double>> aboveHigh;  // the previous too-large point
  int low = 0;                                      // fits here; 0 while no quality is known to fit
  double lowLog = 0;
  int lastSide = 0, sameSide = 0;  // +1 when the last step moved high, -1 low
  std::optional<Bytes> fitsAt;
  bool done = false;
  const auto tryQuality = [&](int q) {
    Cancellation::check();
    Bytes bytes = encodeAtQuality(q);
    ++result.encodes;
    const double size = std::log(double(std::max<size_t>(bytes.size(), 1)));
    const int side = bytes.size() <= budget ? -1 : 1;
    sameSide = side == lastSide ? sameSide + 1 : 1;
    lastSide = side;
    if (side < 0) {
      low = q, lowLog = size;
      done = double(bytes.size()) >= closeEnough;
      fitsAt = std::move(bytes);
    } else {
      aboveHigh = {high, highLog};
      high = q, highLog = size;
    }
  };
  // The quality where the model through (q1, log1) and (q2, log2) meets the aim; NaN where
  // the two points do not fall with quality.
  const auto through = [&](int q1, double log1, int q2, double log2) {
    const double u1 = sizeModel(format, q1), u2 = sizeModel(format, q2);
    const double b = (log1 - log2) / (u1 - u2);
    if (!(b > 0)) return std::numeric_limits<double>::quiet_NaN();
    return qualityForModel(format, u2 + (target - log2) / b);
  };
  while (!done && high - low > 1 && result.encodes < kMaxEncodes) {
    double guess;
    if (low == 0) {
      guess = qualityForModel(format, sizeModel(format, high) + (target - highLog));
      if (aboveHigh && aboveHigh->first > high && aboveHigh->second > highLog)
        guess = through(aboveHigh->first, aboveHigh->second, high, highLog);
    } else {
      const double stale = sameSide >= 2 ? std::pow(0.5, sameSide - 1) : 1.0;
      guess = lastSide < 0 ? through(high, target + (highLog - target) * stale, low, lowLog)
                           : through(high, highLog, low, target - (target - lowLog) * stale);
    }
    if (!std::isfinite(guess)) guess = (low + high) / 2.0;
    tryQuality(std::clamp(int(std::floor(guess)), low + 1, high - 1));
  }
  if (!fitsAt && high > 1) tryQuality(1);
  if (!fitsAt) throw BudgetError(int64_t(budget), result.width, result.height);
  result.bytes = std::move(*fitsAt);
  result.quality = low;
}

// encode; `owned`, when given, holds the file's bytes (`fileData`), which go as soon as the
// picture is decoded unless a JPEG is to be repackaged as JPEG XL from them.
Encoded encodeSource(std::span<const uint8_t> fileData, Bytes* owned, ImageFormat format, double quality,
                     const CompressionOptions& options) {
  // Between its stages the pipeline stops when its caller gave up (Cancellation.h).
  ImageDecoder::DecodedSource source = ImageDecoder::decodeCGImageSource(fileData);
  const ImageFormat sourceFormat = source.format;
  if (owned && !(format == ImageFormat::jxl && sourceFormat == ImageFormat::jpeg && quality >= 90)) {
    Bytes().swap(*owned);
    fileData = {};
  }
  Cancellation::check();
  Encoded result;
  if (options.fits()) {
    const int width = source.image.width;
    source.image = Resample::fitBox(std::move(source.image), options.maxWidth, options.maxHeight);
    result.fitted = source.image.width != width;
    Cancellation::check();
  }
  result.width = source.image.width;
  result.height = source.image.height;
  Pictures pictures;
  // A JPEG, HEIC or AVIF writer reads the decoded frame, which differs from the RGBA buffer
  // only for 16 bits or alpha (the writer composites or keeps it itself). Otherwise the
  // buffer takes the decoded samples over, and hands them to the writer after the analysis:
  // one full-size picture in memory, never two.
  const bool keepDecoded =
      isNative(format) && (source.image.bitsPerComponent != 8 || source.image.alpha != AlphaInfo::none);
  if (keepDecoded) {
    pictures.rgba = RGBABuffer(source.image);
    pictures.decoded = std::move(source.image);
  } else {
    pictures.rgba = RGBABuffer(std::move(source.image));
  }
  // HEIC and AVIF keep alpha, and would code whatever colour the source hides under it.
  if (keepDecoded && format != ImageFormat::jpeg && pictures.rgba.hasAlpha)
    NativeImageIOEncoder::clearTransparentColour(pictures.decoded);
  const ImageCharacteristics characteristics = ImageAnalyzer::analyze(pictures.rgba);
  const EncodingPlan plan = EncodingStrategy::plan(characteristics, format, quality);
  // An encoding the machine cannot hold is refused before it starts, not when its memory is gone.
  uint64_t encoding = EncodeCost::encodingBytes(format, plan, plan.mode, characteristics);
  if (plan.alternative)
    encoding =
        std::max(encoding, EncodeCost::encodingBytes(format, plan, *plan.alternative, characteristics));
  if (!EncodeCost::fitsInMemory(pictures.rgba.pixels.size() + encoding))
    throw ImageProcessingError::encodingFailed(std::string(ImageFormats::label(format)),
                                               "needs more memory than the machine has");
  // A writer that reads the decoded frame needs of the buffer only its hasAlpha: its samples
  // served the analysis alone, and go before the writer makes its 8-bit copy.
  if (keepDecoded) SampleVector<uint8_t>().swap(pictures.rgba.pixels);
  if (isNative(format) && !keepDecoded) {
    // Opaque 8 bits: the buffer's samples are the frame's, with alpha at 255.
    pictures.decoded.width = pictures.rgba.width;
    pictures.decoded.height = pictures.rgba.height;
    pictures.decoded.colorSpace = pictures.rgba.colorSpace;
    pictures.decoded.pixels8 = std::move(pictures.rgba.pixels);
  }
  // Reordered once for all of the plan's encodings, in place, instead of an import each.
  if (format == ImageFormat::webp) pictures.argb.emplace(std::move(pictures.rgba));
  Cancellation::check();

  // One encoding of the picture at `q` under `attempt`. With `consume` its last encoding may take
  // the picture's memory; a budget's search keeps the picture for the next one.
  const auto encodeAt = [&](const EncodingPlan& attempt, double q, bool consume) -> Bytes {
    // A JPEG repackaged as JPEG XL loses nothing and is reconstructible byte for byte; below
    // 90 the user asked for a smaller file than that gives, so it is encoded from pixels.
    if (format == ImageFormat::jxl && sourceFormat == ImageFormat::jpeg && q >= 90 && !result.fitted) {
      if (auto transcoded = JXLEncoder::transcodeJPEG(fileData, attempt.effort + 5))
        return std::move(*transcoded);
    }

    // A WebP or JPEG XL plan whose lossless encoding cannot beat its lossy one runs the lossy
    // one alone: the bytes are those the smaller of the two gave, without the costlier encoding.
    if (attempt.alternative) {
      using Kind = EncodingPlan::Mode::Kind;
      const bool mainLossless = attempt.mode.kind == Kind::lossless;
      const bool losslessCompetes = mainLossless || attempt.alternative->kind == Kind::lossless;
      const EncodingPlan::Mode& lossy = mainLossless ? *attempt.alternative : attempt.mode;
      if (losslessCompetes && !EncodingStrategy::losslessMayWin(format, characteristics, lossy)) {
        if (!mainLossless)
          return encodeWith(pictures, format, attempt, characteristics, attempt.mode, false, consume);
        try {
          return encodeWith(pictures, format, attempt, characteristics, lossy, true, false);
        } catch (const std::exception&) {
          // a failed lossy encoding leaves the lossless main encoding to try
        }
        Cancellation::check();
        return encodeWith(pictures, format, attempt, characteristics, attempt.mode, false, consume);
      }
      // JPEG XL, and WebP on pictures of many gradients, run the lossy encoding first; lossless
      // at the plan's effort follows only where a lossless encoding at the fastest effort says
      // it can beat the lossy bytes. JPEG XL's fastest effort takes more memory than its light
      // one, whose plans go without it.
      const bool judged = format == ImageFormat::jxl
                              ? !attempt.lightLossless
                              : format == ImageFormat::webp && pictures.argb &&
                                    EncodingStrategy::losslessWebPJudgedQuickly(characteristics);
      if (losslessCompetes && judged)
        return encodeJudgedCompeting(pictures, format, attempt, characteristics, mainLossless, consume);
    }

    Bytes main = encodeWith(pictures, format, attempt, characteristics, attempt.mode, false,
                            consume && !attempt.alternative);
    if (!attempt.alternative) return main;
    Cancellation::check();
    Bytes second;
    try {
      second = encodeWith(pictures, format, attempt, characteristics, *attempt.alternative, true, consume);
    } catch (const std::exception&) {
      return main;  // a failed competitor leaves the main encoding standing
    }
    return !second.empty() && second.size() < main.size() ? second : main;
  };

  const auto budget = uint64_t(std::max<int64_t>(options.maxBytes, 0));
  result.quality = quality;
  result.bytes = encodeAt(plan, quality, budget == 0);
  result.encodes = 1;
  if (budget == 0 || result.bytes.size() <= budget) return result;

  searchBudget(result, format, budget, quality,
               [&](int q) { return encodeAt(EncodingStrategy::plan(characteristics, format, q), q, false); });
  return result;
}

}  // namespace

Bytes encodeData(std::span<const uint8_t> fileData, ImageFormat format, double quality) {
  return encodeSource(fileData, nullptr, format, quality, CompressionOptions{}).bytes;
}

Encoded encode(std::span<const uint8_t> fileData, ImageFormat format, double quality,
               const CompressionOptions& options) {
  return encodeSource(fileData, nullptr, format, quality, options);
}

std::string byteCountText(int64_t bytes) {
  const auto scaled = [](double value, const char* unit) {
    std::string text = Json::formatDouble(std::round(value * 10) / 10);
    return text + " " + unit;
  };
  if (bytes >= 1000000) return scaled(double(bytes) / 1e6, "MB");
  if (bytes >= 1000) return scaled(double(bytes) / 1e3, "kB");
  return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

ImageCompressionResult compress(const std::string& path, const std::string& directory, ImageFormat format,
                                double quality, const std::optional<std::string>& destinationFilename,
                                bool measure, const CompressionOptions& options,
                                const FileIO::ReplaceCheck& mayReplace) {
  ImageCompressionResult result;
  result.path = path;
  try {
    Bytes source = ImageDecoder::readSource(path);
    const auto original = int64_t(source.size());
    // The file's bytes go once decoded, unless the measure reads them afterwards.
    const Encoded encoded = encodeSource(source, measure ? nullptr : &source, format, quality, options);
    const Bytes& compressed = encoded.bytes;
    result.quality = encoded.quality;
    result.pixelWidth = encoded.width;
    result.pixelHeight = encoded.height;
    result.originalSizeBytes = original;
    if (options.skipLarger && int64_t(compressed.size()) >= original) {
      result.skipped = Localization::format("result.keptOriginalFormat",
                                            "Original conservé : le résultat (%1$@) n'était pas plus petit.",
                                            {byteCountText(int64_t(compressed.size()))});
      return result;
    }
    const std::string name = destinationFilename
                                 ? *destinationFilename
                                 : baseName(path) + "." + std::string(ImageFormats::fileExtension(format));
    const std::string destination = withoutDotSteps(std::filesystem::absolute(directory) / name).string();
    try {
      FileIO::writeFileAtomically(destination, compressed, FileIO::permissionsFor(path), mayReplace);
    } catch (const FileIO::WriteError&) {
      result.unwritten = true;
      throw;
    }
    const auto written = int64_t(compressed.size());
    result.originalSizeBytes = original;
    result.compressedSizeBytes = written;
    result.ratio = 1.0 - double(written) / double(std::max<int64_t>(original, 1));
    result.destination = destination;
    if (measure) {
      try {
        result.butteraugli = PerceptualDistance::between(source, compressed);
      } catch (const std::exception&) {
        // the file is written; only its measure is missing
      }
    }
  } catch (const std::exception& error) {
    result.originalSizeBytes = fileSize(path);
    result.error = describe(error);
  } catch (const Cancellation::Cancelled&) {
    result.originalSizeBytes = fileSize(path);
    result.error = ImageProcessingError::decodingFailed("cancelled").description();
  }
  return result;
}

std::optional<int64_t> parseByteCount(std::string_view text) {
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  if (!text.empty() && (text.back() == 'B' || text.back() == 'b')) text.remove_suffix(1);
  double unit = 1;
  if (!text.empty() && (text.back() == 'k' || text.back() == 'K')) unit = 1e3;
  if (!text.empty() && (text.back() == 'm' || text.back() == 'M')) unit = 1e6;
  if (unit > 1) text.remove_suffix(1);
  if (text.empty() || text.size() > 20) return std::nullopt;
  bool dot = false;
  for (char c : text) {
    if (c == '.' && !dot && unit > 1) {
      dot = true;
      continue;
    }
    if (c < '0' || c > '9') return std::nullopt;
  }
  const double value = std::strtod(std::string(text).c_str(), nullptr) * unit;
  if (!(value >= 1) || value > 9e18) return std::nullopt;
  return int64_t(std::llround(value));
}

int64_t fileSize(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return 0;
  return int64_t(st.st_size);
}

std::string jsonString(const std::vector<ImageCompressionResult>& results) {
  try {
    std::string out = "[";
    for (size_t i = 0; i < results.size(); ++i) {
      if (i) out += ',';
      out += results[i].toJSON();
    }
    return out + "]";
  } catch (const std::exception&) {
    return "[]";
  }
}

}  // namespace ImageCompressor
}  // namespace quillane
