#pragma once
// What an image row, a failure row and the control bar show, computed from the model's state
// alone: the show-when rules and texts that the painted rows and the tests share. No drawing
// and no disk access here; every text is looked up at the moment of the call.
//
// GUI thread only.

#include <QString>
#include <cstdint>

#include "batch/ImportedImage.h"
#include "engine/ImageFormat.h"

namespace quillane::ui::RowRules {

// An animated image whose source format is the output format is kept as it came.
bool isPassThrough(const ImportedImage& image, ImageFormat outputFormat);

// Help of the stack symbol beside an animated image's name.
QString animatedHelp(const ImportedImage& image, ImageFormat outputFormat);
// Help of the quality button: pass-through, then custom quality, then global.
QString qualityHelp(const ImportedImage& image, ImageFormat outputFormat);
// "row.metaFormat": width, height, format label, original size.
QString metaText(const ImportedImage& image);

enum class Tone { primary, secondary, green, orange, red, link };

// The size summary column, by encode state.
struct SizeSummary {
  enum class Kind { dash, spinner, lines };
  Kind kind = Kind::dash;
  QString firstLine;
  Tone firstTone = Tone::primary;
  QString secondLine;
  Tone secondTone = Tone::secondary;
  bool secondIsRetry = false;  // failed: the second line is the retry link
  QString help;                // help of the block (failed) or of the second line
};
SizeSummary sizeSummary(const ImportedImage& image, ImageFormat outputFormat);

// The bar's imported-count text: singular for exactly one image.
QString importedCountText(int count);
// "progress.format" with completed and total, the total at least 1.
QString progressText(int completed, int imageCount);

// The save dialog's suggested name: the source name without extension, the output extension.
QString suggestedExportName(const ImportedImage& image, ImageFormat outputFormat);

// Export (menu command and button) is disabled while encoding, while a debounced recompute
// waits, or with an empty batch.
bool canExportAll(bool isEncoding, bool hasPendingRecompute, bool hasImages);

}  // namespace quillane::ui::RowRules
