#include "api/LocalAPIDTOs.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <algorithm>

#include "batch/BatchViewModel.h"
#include "records/ExportProfile.h"

namespace quillane::LocalAPIDTOs {

namespace {

std::string utf8(const QString& text) { return text.toStdString(); }

JsonValue formatList() {
  JsonValue list = JsonValue::array();
  for (ImageFormat format : ImageFormats::allCases) list.push(ImageFormats::rawValue(format));
  return list;
}

}  // namespace

std::optional<QJsonObject> parseObject(const std::string& body) {
  QJsonParseError error{};
  QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(body), &error);
  if (error.error != QJsonParseError::NoError || !document.isObject()) return std::nullopt;
  return document.object();
}

bool optionalDouble(const QJsonObject& object, const QString& key, std::optional<double>& out) {
  out.reset();
  QJsonValue value = object.value(key);
  if (value.isUndefined() || value.isNull()) return true;
  if (!value.isDouble()) return false;
  out = value.toDouble();
  return true;
}

bool optionalString(const QJsonObject& object, const QString& key, std::optional<QString>& out) {
  out.reset();
  QJsonValue value = object.value(key);
  if (value.isUndefined() || value.isNull()) return true;
  if (!value.isString()) return false;
  out = value.toString();
  return true;
}

bool requiredDouble(const QJsonObject& object, const QString& key, double& out) {
  std::optional<double> value;
  if (!optionalDouble(object, key, value) || !value) return false;
  out = *value;
  return true;
}

bool requiredString(const QJsonObject& object, const QString& key, QString& out) {
  std::optional<QString> value;
  if (!optionalString(object, key, value) || !value) return false;
  out = *value;
  return true;
}

bool requiredStringArray(const QJsonObject& object, const QString& key, QStringList& out) {
  out.clear();
  QJsonValue value = object.value(key);
  if (!value.isArray()) return false;
  const QJsonArray array = value.toArray();
  for (const auto& item : array) {
    if (!item.isString()) return false;
    out.push_back(item.toString());
  }
  return true;
}

std::string idText(const QUuid& id) { return utf8(id.toString(QUuid::WithoutBraces).toUpper()); }

std::optional<QUuid> parseCanonicalUUID(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (dash ? c != '-' : !hex) return std::nullopt;
  }
  QUuid id = QUuid::fromString(QLatin1String(text.data(), qsizetype(text.size())));
  if (id.isNull() && text != "00000000-0000-0000-0000-000000000000") return std::nullopt;
  return id;
}

double ratio(int64_t compressedSizeBytes, int64_t originalSizeBytes) {
  return 1.0 - double(compressedSizeBytes) / double(std::max<int64_t>(originalSizeBytes, 1));
}

JsonValue statusDTO(const BatchViewModel& viewModel) {
  QString version = QCoreApplication::applicationVersion();
  JsonValue dto = JsonValue::object();
  dto.set("apiVersion", "v1")
      .set("appVersion", version.isEmpty() ? std::string("unknown") : utf8(version))
      .set("availableFormats", formatList())
      .set("imageCount", int64_t(viewModel.images().size()))
      .set("isEncoding", viewModel.isEncoding())
      .set("outputFormat", ImageFormats::rawValue(viewModel.outputFormat()))
      .set("quality", viewModel.quality());
  // The size options, present only while on.
  const CompressionOptions& sizing = viewModel.compressionOptions();
  if (sizing.maxWidth > 0) dto.set("maxWidth", sizing.maxWidth);
  if (sizing.maxHeight > 0) dto.set("maxHeight", sizing.maxHeight);
  if (sizing.maxBytes > 0) dto.set("maxBytes", sizing.maxBytes);
  if (sizing.skipLarger) dto.set("skipLarger", true);
  return dto;
}

JsonValue imageDTO(const ImportedImage& image) {
  EncodeState state = image.encodeState();
  JsonValue dto = JsonValue::object();
  if (auto distance = image.butteraugli()) dto.set("butteraugli", *distance);
  if (state.isReady()) dto.set("compressedSizeBytes", state.sizeBytes);
  if (state.isFailed()) dto.set("error", utf8(state.message));
  dto.set("frameCount", image.frameCount())
      .set("height", image.height())
      .set("id", idText(image.id()))
      .set("isAnimated", image.isAnimated())
      .set("name", utf8(image.fileName()))
      .set("originalFormat", ImageFormats::rawValue(image.originalFormat()))
      .set("originalSizeBytes", image.originalSizeBytes());
  if (auto quality = image.qualityOverride()) dto.set("qualityOverride", *quality);
  if (state.isReady()) dto.set("ratio", ratio(state.sizeBytes, image.originalSizeBytes()));
  if (const auto& shape = image.resultShape(); shape && state.isReady()) {
    dto.set("resultQuality", shape->quality)
        .set("resultWidth", shape->width)
        .set("resultHeight", shape->height);
    if (shape->keptOriginal) dto.set("keptOriginal", true);
  }
  dto.set("state", state.name()).set("width", image.width());
  return dto;
}

JsonValue exportResultDTO(const ExportOutcome& outcome) {
  const ImportedImage& image = *outcome.image;
  EncodeState state = image.encodeState();
  JsonValue dto = JsonValue::object();
  if (auto distance = image.butteraugli()) dto.set("butteraugli", *distance);
  if (state.isReady()) dto.set("compressedSizeBytes", state.sizeBytes);
  if (outcome.destinationURL) dto.set("destination", utf8(outcome.destinationURL->toLocalFile()));
  if (outcome.errorDescription) dto.set("error", utf8(*outcome.errorDescription));
  dto.set("id", idText(image.id()))
      .set("name", utf8(image.fileName()))
      .set("originalSizeBytes", image.originalSizeBytes());
  if (state.isReady()) dto.set("ratio", ratio(state.sizeBytes, image.originalSizeBytes()));
  if (outcome.keptOriginal) dto.set("keptOriginal", true);
  return dto;
}

JsonValue profileDTO(const ExportProfile& profile) {
  JsonValue dto = JsonValue::object();
  if (profile.destinationFolder) dto.set("destinationFolder", utf8(*profile.destinationFolder));
  return dto.set("format", ImageFormats::rawValue(profile.format))
      .set("id", idText(profile.id))
      .set("name", utf8(profile.name))
      .set("quality", profile.quality);
}

std::string unknownFormatMessage(const QString& value) {
  std::string list = "[";
  for (ImageFormat format : ImageFormats::allCases) {
    if (list.size() > 1) list += ", ";
    list += "\"";
    list += ImageFormats::rawValue(format);
    list += "\"";
  }
  list += "]";
  return "Unknown format '" + utf8(value) + "' \u2014 expected one of " + list;
}

}  // namespace quillane::LocalAPIDTOs
