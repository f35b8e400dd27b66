#pragma once
// What an image row, a failure row and the control bar show, computed from the model's state
// alone: the show-when rules and texts that the painted rows and the tests share. No drawing
// and no disk access here; every text is looked up at the moment of the call.
//
// GUI thread only.

#include <QString>
#include <cstdint>
#include <vector>

#include "batch/BatchViewModel.h"
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

// How a result looks beside its source, from its measured distance: the row's short word, its
// tone and the help that gives the number. Empty texts until the distance is measured.
// Below kLooksIdentical no difference shows at a normal viewing distance; below kLooksClose
// it is slight (bench/README.md, "Perceptual distance", for why these two).
inline constexpr double kLooksIdentical = 1.0;
inline constexpr double kLooksClose = 2.0;
struct Look {
  QString word;
  Tone tone = Tone::secondary;
  QString help;
};
Look look(const ImportedImage& image);
// A distance as the views show it: two decimals in the locale's digits ("0.84").
QString distanceText(double distance);

// The short notes that end a row's second line, in reading order: the image's own quality,
// when it has one, and that its transparency turns white, when the output is JPEG.
struct Note {
  QString text;
  Tone tone = Tone::secondary;
};
std::vector<Note> notes(const ImportedImage& image, ImageFormat outputFormat);

// The line under the list: before, after and the saving of the ready results, in bytes and
// percent; empty while no result is ready. Pass-through rows count at their own size.
QString batchTotalText(const ImageList& images);

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
