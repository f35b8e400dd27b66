#include "ui/RowRules.h"

#include <QLocale>
#include <QString>
#include <QStringList>
#include <cmath>
#include <string>

#include "services/Strings.h"
#include "ui/UiText.h"

namespace quillane::ui::RowRules {
namespace {
QString label(ImageFormat format) { return QString::fromUtf8(std::string(ImageFormats::label(format))); }
}  // namespace

bool isPassThrough(const ImportedImage& image, ImageFormat outputFormat) {
  return image.frameCount() > 1 && image.originalFormat() == outputFormat;
}

QString animatedHelp(const ImportedImage& image, ImageFormat outputFormat) {
  const auto frames = image.frameCount();
  if (isPassThrough(image, outputFormat)) return Strings::format("row.animatedPassthroughHelpFormat", frames);
  return Strings::format("row.animatedConvertHelpFormat", frames);
}

QString qualityHelp(const ImportedImage& image, ImageFormat outputFormat) {
  if (isPassThrough(image, outputFormat)) return Strings::text("row.qualityPassthroughHelp");
  if (image.qualityOverride()) return Strings::text("row.qualityCustomHelp");
  return Strings::text("row.qualityGlobalHelp");
}

QString metaText(const ImportedImage& image) {
  // One left-to-right run: the dimensions keep their order ("1600 × 1200") in a right-to-left layout.
  return leftToRightIsolate(Strings::format("row.metaFormat", image.width(), image.height(),
                                            label(image.originalFormat()),
                                            formatByteCount(image.originalSizeBytes())));
}

namespace {
bool keptOriginal(const ImportedImage& image) {
  return image.encodeState().isReady() && image.resultShape() && image.resultShape()->keptOriginal;
}
}  // namespace

QString shapeText(const ImportedImage& image) {
  const std::optional<ResultShape>& shape = image.resultShape();
  if (!shape || !image.encodeState().isReady()) return {};
  if (shape->keptOriginal) return Strings::text("row.keptOriginal");
  QStringList parts;
  if (shape->sizing.fits() && int64_t(shape->width) * shape->height < int64_t(image.width()) * image.height())
    parts << Strings::format("row.fittedFormat", shape->width, shape->height);
  if (shape->sizing.maxBytes > 0 && shape->quality < shape->askedQuality)
    parts << Strings::format("row.budgetFormat", int(std::lround(shape->quality)),
                             formatByteLimit(shape->sizing.maxBytes));
  return parts.join(QStringLiteral(" · "));
}

SizeSummary sizeSummary(const ImportedImage& image, ImageFormat outputFormat) {
  const EncodeState state = image.encodeState();
  SizeSummary summary;
  switch (state.kind) {
    case EncodeState::Kind::idle:
      summary.kind = SizeSummary::Kind::dash;
      summary.firstLine = Strings::text("common.dash");
      summary.firstTone = Tone::secondary;
      break;
    case EncodeState::Kind::encoding:
      summary.kind = SizeSummary::Kind::spinner;
      break;
    case EncodeState::Kind::ready: {
      summary.kind = SizeSummary::Kind::lines;
      summary.firstLine = formatByteCount(state.sizeBytes);
      if (keptOriginal(image)) {
        summary.firstLine = formatByteCount(image.originalSizeBytes());
        summary.secondLine = Strings::text("row.keptOriginal");
        summary.secondTone = Tone::secondary;
        summary.help = Strings::format("result.keptOriginalFormat", formatByteCount(state.sizeBytes));
      } else if (isPassThrough(image, outputFormat)) {
        summary.secondLine = Strings::text("row.uncompressed");
        summary.secondTone = Tone::secondary;
        summary.help = Strings::text("row.passthroughHelp");
      } else {
        const SizeChange change = sizeChange(state.sizeBytes, image.originalSizeBytes());
        summary.secondLine = sizeChangeText(change);
        summary.secondTone = change.reduced ? Tone::green : Tone::orange;
        summary.help =
            change.reduced ? Strings::text("row.sizeReducedHelp") : Strings::text("row.sizeIncreasedHelp");
      }
      break;
    }
    case EncodeState::Kind::failed:
      summary.kind = SizeSummary::Kind::lines;
      summary.firstLine = Strings::text("row.encodeFailedShort");
      summary.firstTone = Tone::red;
      summary.secondLine = Strings::text("common.retry");
      summary.secondTone = Tone::link;
      summary.secondIsRetry = true;
      summary.help = state.message;
      break;
  }
  return summary;
}

Look look(const ImportedImage& image) {
  Look result;
  const auto distance = image.butteraugli();
  if (!distance) return result;
  if (*distance < kLooksIdentical) {
    result.word = Strings::text("look.identical");
    result.tone = Tone::green;
  } else if (*distance < kLooksClose) {
    result.word = Strings::text("look.close");
    result.tone = Tone::secondary;
  } else {
    result.word = Strings::text("look.different");
    result.tone = Tone::orange;
  }
  result.help = Strings::format("look.helpFormat", distanceText(*distance));
  return result;
}

std::vector<Note> notes(const ImportedImage& image, ImageFormat outputFormat) {
  std::vector<Note> notes;
  if (image.qualityOverride() && !isPassThrough(image, outputFormat))
    notes.push_back(
        {Strings::format("row.ownQualityFormat", qualityReadout(*image.qualityOverride())), Tone::link});
  if (outputFormat == ImageFormat::jpeg && image.hasTransparency())
    notes.push_back({Strings::text("row.transparencyWhite"), Tone::orange});
  return notes;
}

QString distanceText(double distance) { return QLocale().toString(distance, 'f', 2); }

QString batchTotalText(const ImageList& images) {
  int64_t before = 0, after = 0;
  for (const auto& image : images) {
    const EncodeState state = image->encodeState();
    if (!state.isReady()) continue;
    before += image->originalSizeBytes();
    after += keptOriginal(*image) ? image->originalSizeBytes() : state.sizeBytes;
  }
  if (before == 0 && after == 0) return {};
  const SizeChange change = sizeChange(after, before);
  if (!change.reduced)
    return Strings::format("list.totalIncreasedFormat", formatByteCount(before), formatByteCount(after),
                           formatByteCount(after - before), sizeChangeText(change));
  return Strings::format("list.totalFormat", formatByteCount(before), formatByteCount(after),
                         formatByteCount(before - after), sizeChangeText(change));
}

QString importedCountText(int count) {
  if (count == 1) return Strings::format("controls.importedCountSingularFormat", count);
  return Strings::format("controls.importedCountFormat", count);
}

QString progressText(int completed, int imageCount) {
  return Strings::format("progress.format", completed, std::max(imageCount, 1));
}

QString suggestedExportName(const ImportedImage& image, ImageFormat outputFormat) {
  return image.baseName() + QLatin1Char('.') +
         QString::fromUtf8(std::string(ImageFormats::fileExtension(outputFormat)));
}

bool canExportAll(bool isEncoding, bool hasPendingRecompute, bool hasImages) {
  return !isEncoding && !hasPendingRecompute && hasImages;
}

}  // namespace quillane::ui::RowRules
