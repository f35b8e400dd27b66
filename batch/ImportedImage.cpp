#include "batch/ImportedImage.h"

#include <QFileInfo>
#include <cctype>

namespace quillane {

std::string localFilePath(const QUrl& url) {
  if (!url.isLocalFile()) return {};
  return QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1()).toStdString();
}

QUrl localFileURL(const std::string& path) {
  return QUrl::fromEncoded("file://" + QByteArray::fromStdString(path).toPercentEncoding("/"));
}

bool isURLText(std::string_view argument) {
  if (argument.starts_with("file:/")) return true;
  const size_t colon = argument.find("://");
  if (colon == std::string_view::npos || colon == 0 || !std::isalpha(uchar(argument[0]))) return false;
  for (char c : argument.substr(0, colon))
    if (!std::isalnum(uchar(c)) && c != '+' && c != '-' && c != '.') return false;
  return true;
}

std::optional<QUrl> localFileOfURL(const QByteArray& argument) {
  const QUrl url = QUrl::fromEncoded(argument);
  if (!url.isValid() || !url.isLocalFile() || url.path().isEmpty()) return std::nullopt;
  if (!url.host().isEmpty() && url.host() != QLatin1String("localhost")) return std::nullopt;
  return QUrl::fromEncoded("file://" + url.path(QUrl::FullyEncoded).toLatin1());
}

const char* EncodeState::name() const {
  switch (kind) {
    case Kind::idle:
      return "idle";
    case Kind::encoding:
      return "encoding";
    case Kind::ready:
      return "ready";
    case Kind::failed:
      return "failed";
  }
  return "idle";
}

namespace {
// Whether any pixel of an 8-bit picture is less than opaque. A thumbnail averages pixels, so a
// transparent pixel of the source still shows in it as one below full alpha.
bool anyTransparent(const DecodedImage& image) {
  if (!image.hasAlphaChannel() || image.bitsPerComponent != 8) return false;
  for (size_t i = 3; i < image.pixels8.size(); i += 4)
    if (image.pixels8[i] < 255) return true;
  return false;
}
}  // namespace

ImportedImage::ImportedImage(QUrl sourceURL, const ImageDecoder::LightDecodedImage& decoded, QObject* parent)
    : QObject(parent),
      id_(QUuid::createUuid()),
      sourceURL_(std::move(sourceURL)),
      originalFormat_(decoded.format),
      originalSizeBytes_(decoded.fileSizeBytes),
      width_(decoded.pixelWidth),
      height_(decoded.pixelHeight),
      frameCount_(decoded.frameCount),
      heldCellPixels_(decoded.heldCellPixels),
      thumbnail_(decoded.thumbnail),
      hasTransparency_(anyTransparent(thumbnail_)) {}

QString ImportedImage::fileName() const { return sourceURL_.fileName(); }

QString ImportedImage::baseName() const {
  const QString name = fileName();
  const qsizetype dot = name.lastIndexOf(u'.');
  return dot > 0 ? name.left(dot) : name;
}

void ImportedImage::setQualityOverride(std::optional<double> quality) {
  qualityOverride_ = quality;
  emit qualityOverrideChanged();
}

void ImportedImage::setSizingOverride(std::optional<CompressionOptions> sizing) {
  sizingOverride_ = sizing;
  emit sizingOverrideChanged();
}

void ImportedImage::setEncodeState(EncodeState state) {
  if (state == encodeState_) return;
  encodeState_ = std::move(state);
  emit encodeStateChanged();
}

void ImportedImage::setCompressedData(std::optional<QByteArray> data) {
  compressedData_ = std::move(data);
  emit compressedDataChanged();
  if (butteraugli_ || !resultThumbnail_.empty()) setResultLook(std::nullopt, {});
}

void ImportedImage::setResultLook(std::optional<double> butteraugli, DecodedImage thumbnail) {
  butteraugli_ = butteraugli;
  resultThumbnail_ = std::move(thumbnail);
  emit resultLookChanged();
}

void ImportedImage::setThumbnail(DecodedImage thumbnail) {
  thumbnail_ = std::move(thumbnail);
  hasTransparency_ = anyTransparent(thumbnail_);
  emit thumbnailChanged();
}

void ImportedImage::setExportError(std::optional<QString> error) {
  if (error == exportError_) return;
  exportError_ = std::move(error);
  emit exportErrorChanged();
}

}  // namespace quillane
