#include "ui/RowRules.h"

#include <QLocale>
#include <QString>
#include <string>

#include "ui/UiText.h"

namespace quillane::ui::RowRules {
namespace {
QString label(ImageFormat format) { return QString::fromUtf8(std::string(ImageFormats::label(format))); }
}  // namespace

bool isPassThrough(const ImportedImage& image, ImageFormat outputFormat) {
  return image.frameCount() > 1 && image.originalFormat() == outputFormat;
}

QString animatedHelp(const ImportedImage& image, ImageFormat outputFormat) {
  const QString frames = integerArg(image.frameCount());
  if (isPassThrough(image, outputFormat))
    return format("row.animatedPassthroughHelpFormat",
                  "Image animée (%lld images) : conservée telle quelle dans son format d'origine.", {frames});
  return format("row.animatedConvertHelpFormat",
                "Image animée (%lld images) : seule la première image est convertie.", {frames});
}

QString qualityHelp(const ImportedImage& image, ImageFormat outputFormat) {
  if (isPassThrough(image, outputFormat))
    return text("row.qualityPassthroughHelp",
                "Image animée conservée telle quelle : la qualité ne s'applique pas.");
  if (image.qualityOverride()) return text("row.qualityCustomHelp", "Qualité personnalisée pour cette image");
  return text("row.qualityGlobalHelp", "Régler la qualité de cette image");
}

QString metaText(const ImportedImage& image) {
  return format("row.metaFormat", "%lld × %lld · %@ · %@",
                {integerArg(image.width()), integerArg(image.height()), label(image.originalFormat()),
                 formatByteCount(image.originalSizeBytes())});
}

SizeSummary sizeSummary(const ImportedImage& image, ImageFormat outputFormat) {
  const EncodeState state = image.encodeState();
  SizeSummary summary;
  switch (state.kind) {
    case EncodeState::Kind::idle:
      summary.kind = SizeSummary::Kind::dash;
      summary.firstLine = text("common.dash", "—");
      summary.firstTone = Tone::secondary;
      break;
    case EncodeState::Kind::encoding:
      summary.kind = SizeSummary::Kind::spinner;
      break;
    case EncodeState::Kind::ready: {
      summary.kind = SizeSummary::Kind::lines;
      summary.firstLine = formatByteCount(state.sizeBytes);
      if (isPassThrough(image, outputFormat)) {
        summary.secondLine = text("row.uncompressed", "Non compressée");
        summary.secondTone = Tone::secondary;
        summary.help =
            text("row.passthroughHelp", "Image animée conservée telle quelle, sans recompression.");
      } else {
        const SizeChange change = sizeChange(state.sizeBytes, image.originalSizeBytes());
        summary.secondLine = sizeChangeText(change);
        summary.secondTone = change.reduced ? Tone::green : Tone::orange;
        summary.help = change.reduced
                           ? text("row.sizeReducedHelp", "Gain par rapport à l'original")
                           : text("row.sizeIncreasedHelp", "Le résultat est plus lourd que l'original");
      }
      break;
    }
    case EncodeState::Kind::failed:
      summary.kind = SizeSummary::Kind::lines;
      summary.firstLine = text("row.encodeFailedShort", "Échec");
      summary.firstTone = Tone::red;
      summary.secondLine = text("common.retry", "Réessayer");
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
    result.word = text("look.identical", "Identique à l'œil");
    result.tone = Tone::green;
  } else if (*distance < kLooksClose) {
    result.word = text("look.close", "Très proche");
    result.tone = Tone::secondary;
  } else {
    result.word = text("look.different", "Différence visible");
    result.tone = Tone::orange;
  }
  result.help = format("look.helpFormat",
                       "Distance perceptuelle (butteraugli) : %@. Sous 1, aucune différence ne se voit ; "
                       "sous 2, elle est légère ; au-delà, elle se voit.",
                       {distanceText(*distance)});
  return result;
}

QString distanceText(double distance) { return QLocale().toString(distance, 'f', 2); }

QString batchTotalText(const ImageList& images) {
  int64_t before = 0, after = 0;
  for (const auto& image : images) {
    const EncodeState state = image->encodeState();
    if (!state.isReady()) continue;
    before += image->originalSizeBytes();
    after += state.sizeBytes;
  }
  if (before == 0 && after == 0) return {};
  const SizeChange change = sizeChange(after, before);
  if (!change.reduced)
    return format("list.totalIncreasedFormat", "Avant %1$@ · après %2$@ · %3$@ de plus (%4$@)",
                  {formatByteCount(before), formatByteCount(after), formatByteCount(after - before),
                   sizeChangeText(change)});
  return format("list.totalFormat", "Avant %1$@ · après %2$@ · gain %3$@ (%4$@)",
                {formatByteCount(before), formatByteCount(after), formatByteCount(before - after),
                 sizeChangeText(change)});
}

QString importedCountText(int count) {
  if (count == 1)
    return format("controls.importedCountSingularFormat", "%lld image importée", {integerArg(count)});
  return format("controls.importedCountFormat", "%lld images importées", {integerArg(count)});
}

QString progressText(int completed, int imageCount) {
  return format("progress.format", "%lld / %lld",
                {integerArg(completed), integerArg(std::max(imageCount, 1))});
}

QString suggestedExportName(const ImportedImage& image, ImageFormat outputFormat) {
  return image.baseName() + QLatin1Char('.') +
         QString::fromUtf8(std::string(ImageFormats::fileExtension(outputFormat)));
}

bool canExportAll(bool isEncoding, bool hasPendingRecompute, bool hasImages) {
  return !isEncoding && !hasPendingRecompute && hasImages;
}

}  // namespace quillane::ui::RowRules
