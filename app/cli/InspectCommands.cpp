#include "app/cli/InspectCommands.h"

#include <charconv>
#include <cstdlib>
#include <exception>
#include <functional>

#include "engine/Errors.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageFormat.h"
#include "engine/Localization.h"
#include "engine/RGBABuffer.h"

namespace quillane::cli {
namespace {

// One object a path: `fill` adds the keys of a success; a failure gives path and error.
JsonValue eachPath(const std::vector<std::string>& paths,
                   const std::function<void(const std::string&, JsonValue&)>& fill) {
  JsonValue results = JsonValue::array();
  for (const std::string& path : paths) {
    JsonValue object = JsonValue::object();
    object.set("path", path);
    try {
      fill(path, object);
    } catch (const std::exception& error) {
      object = JsonValue::object();
      object.set("path", path);
      object.set("error", describe(error));
    }
    results.push(std::move(object));
  }
  return results;
}

// The float as the shortest decimal that reads back as it (0.7, not 0.699999988).
double shortestDouble(float value) {
  char text[32];
  auto end = std::to_chars(text, text + sizeof text - 1, value).ptr;
  *end = 0;
  return std::strtod(text, nullptr);
}

}  // namespace

JsonValue inspect(const std::vector<std::string>& paths) {
  return eachPath(paths, [](const std::string& path, JsonValue& object) {
    const ImageDecoder::LightDecodedImage light = ImageDecoder::inspect(path);
    object.set("format", ImageFormats::rawValue(light.format));
    object.set("pixelWidth", light.pixelWidth);
    object.set("pixelHeight", light.pixelHeight);
    object.set("fileSizeBytes", light.fileSizeBytes);
    object.set("frameCount", light.frameCount);
  });
}

JsonValue characteristicsJson(const ImageCharacteristics& c) {
  JsonValue object = JsonValue::object();
  object.set("width", c.width);
  object.set("height", c.height);
  object.set("contentClass", ImageCharacteristics::name(c.contentClass));
  object.set("distinctColorCount", c.distinctColorCount);
  object.set("colorCountSaturated", c.colorCountSaturated);
  object.set("flatFraction", c.flatFraction);
  object.set("edgeFraction", c.edgeFraction);
  object.set("gradientFraction", c.gradientFraction);
  object.set("noiseLevel", c.noiseLevel);
  object.set("hasAlpha", c.hasAlpha);
  object.set("hasPartialAlpha", c.hasPartialAlpha);
  return object;
}

JsonValue planJson(const EncodingPlan& plan) {
  using Kind = EncodingPlan::Mode::Kind;
  JsonValue object = JsonValue::object();
  object.set("mode", EncodingPlan::modeName(plan.mode.kind));
  if (plan.mode.kind == Kind::lossy) object.set("modeQuality", plan.mode.quality);
  if (plan.mode.kind == Kind::nearLossless) object.set("nearLosslessLevel", plan.mode.level);
  object.set("effort", plan.effort);
  object.set("quality", plan.quality);
  if (plan.alternative) {
    object.set("alternative", EncodingPlan::modeName(plan.alternative->kind));
    if (plan.alternative->kind == Kind::lossy) object.set("alternativeQuality", plan.alternative->quality);
  }
  object.set("dithering", shortestDouble(plan.dithering));
  object.set("prefersLossless", plan.prefersLossless);
  return object;
}

JsonValue analyze(const std::vector<std::string>& paths, double quality) {
  return eachPath(paths, [quality](const std::string& path, JsonValue& object) {
    const std::vector<uint8_t> bytes = ImageDecoder::readSource(path);
    const ImageDecoder::DecodedSource source = ImageDecoder::decodeCGImageSource(bytes);
    const RGBABuffer rgba(source.image);
    const ImageCharacteristics characteristics = ImageAnalyzer::analyze(rgba);
    object.set("characteristics", characteristicsJson(characteristics));
    JsonValue plans = JsonValue::object();
    for (ImageFormat format : ImageFormats::allCases)
      plans.set(std::string(ImageFormats::rawValue(format)),
                planJson(EncodingStrategy::plan(characteristics, format, quality)));
    object.set("plans", std::move(plans));
  });
}

}  // namespace quillane::cli
