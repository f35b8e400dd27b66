#include "ui/ComparisonView.h"

#include <QAction>
#include <QCoreApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QKeySequence>
#include <QPointer>
#include <QScreen>
#include <QThreadPool>
#include <QToolButton>
#include <QVBoxLayout>
#include <span>
#include <string>
#include <vector>

#include "batch/BatchViewModel.h"
#include "budget/CompressionBudget.h"
#include "budget/CompressionCost.h"
#include "engine/ImageDecoder.h"
#include "engine/Resample.h"
#include "services/SettingsFile.h"
#include "services/Strings.h"
#include "ui/ChoiceButton.h"
#include "ui/ComparisonGeometry.h"
#include "ui/Icons.h"
#include "ui/SettingsForm.h"

namespace quillane::ui {

namespace {

const QString kGeometryKey = QStringLiteral("comparison/geometry");
constexpr int kMargin = 12, kSpacing = 8;
// A fit's picture is never smaller than this on its longer side, whatever the screen.
constexpr int kLeastFitPixels = 1600;

// A full picture's working memory a pixel: its RGBA pixels, the decoder's own buffers and the
// fit's picture made from it. A 48 MP JPEG takes about 8 (bench/README.md, "Comparison
// pictures"); the other formats' decoders hold a little more.
constexpr uint64_t kFullBytesPerPixel = 10;

// One side's pictures from a file's bytes, each decode within a claim on the process's
// compression budget: bounded by `fitSize` and, for a `full` size (not empty) whose decode fits
// in the whole budget, at full resolution too, the fit's picture then made from it. Null
// pictures when the bytes can't be decoded. Any thread but the GUI thread.
SidePictures decodeSide(std::span<const uint8_t> bytes, int fitSize, QSize full) {
  SidePictures side;
  CompressionBudget& budget = CompressionBudget::process();
  try {
    const int fullSide = std::max(full.width(), full.height());
    const int fullCost = CompressionCost::megabytes(
        bytes.size() + uint64_t(full.width()) * uint64_t(full.height()) * kFullBytesPerPixel);
    if (fullSide > fitSize && fullCost <= budget.limit()) {
      const CompressionBudget::Claim claim = budget.claim(fullCost);
      // The claim is the bound: the engine's own estimate of a reduced decode does not apply.
      if (std::optional<DecodedImage> picture = ImageDecoder::loadPreview(bytes, fullSide, UINT64_MAX)) {
        if (std::max(picture->width, picture->height) > fitSize)
          side.fit = toQImage(Resample::fitWithin(*picture, fitSize));
        side.full = toQImage(std::move(*picture));
        if (side.fit.isNull()) side.fit = side.full;
        return side;
      }
    }
    const CompressionBudget::Claim claim = budget.claim(CompressionCost::previewCostMB(bytes, fitSize));
    if (std::optional<DecodedImage> fit = ImageDecoder::loadPreview(bytes, fitSize))
      side.fit = toQImage(std::move(*fit));
  } catch (...) {
    // No picture: the row's thumbnail or the empty fill stays.
  }
  return side;
}

ChoiceButton* zoomButton(QWidget* parent, const QString& text, const QString& name, const QKeySequence& key) {
  auto* button = new ChoiceButton(parent);
  button->setText(text);
  button->setAutoRaise(true);
  // A click leaves the focus on the picture, whose keys then go on working.
  button->setFocusPolicy(Qt::TabFocus);
  button->setAccessibleName(name);
  button->setToolTip(name + QStringLiteral(" (") + key.toString(QKeySequence::NativeText) + QLatin1Char(')'));
  return button;
}

}  // namespace

ImageComparisonView::ImageComparisonView(BatchViewModel& viewModel, std::shared_ptr<ImportedImage> image,
                                         QWidget* parent)
    : QDialog(parent), viewModel_(viewModel), image_(std::move(image)) {
  setModal(false);
  setWindowFlags(Qt::Window | Qt::WindowTitleHint | Qt::WindowSystemMenuHint | Qt::WindowMinMaxButtonsHint |
                 Qt::WindowCloseButtonHint);
  setWindowTitle(image_->fileName());
  setAttribute(Qt::WA_DeleteOnClose);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(kMargin, kMargin, kMargin, kMargin);
  layout->setSpacing(kSpacing);

  auto* header = new QHBoxLayout;
  // Elided to the room the buttons leave; the whole name is the window's title.
  auto* name = new ElidedLabel(image_->fileName(), Qt::ElideMiddle, this);
  Icons::makeSecondary(name);
  name->setMinimumWidth(40);
  header->addWidget(name, 1);

  zoomButtons_ = new QButtonGroup(this);
  zoomButtons_->setExclusive(true);
  const int fitId = 0;
  auto* fit = zoomButton(this, Strings::text("comparison.zoomFit"), Strings::text("comparison.zoomFitName"),
                         QKeySequence(Qt::Key_0));
  zoomButtons_->addButton(fit, fitId);
  header->addWidget(fit);
  for (double level : ComparisonGeometry::zoomLevels) {
    const int percent = int(level * 100);
    const QString text = Strings::format("comparison.zoomPercentFormat", percent);
    auto* button = zoomButton(this, text, Strings::format("comparison.zoomToFormat", text),
                              QKeySequence(Qt::Key_0 + int(level)));
    zoomButtons_->addButton(button, percent);
    header->addWidget(button);
  }
  connect(zoomButtons_, &QButtonGroup::idClicked, this,
          [this](int id) { area_->setZoom(id == 0 ? std::nullopt : std::optional<double>(id / 100.0)); });

  auto* close = new QToolButton(this);
  close->setAutoRaise(true);
  Icons::followPalette(close, [close] {
    close->setIcon(Icons::tinted("xmark.circle.fill", Icons::secondaryColor(close->palette())));
  });
  close->setIconSize(QSize(20, 20));
  close->setToolTip(Strings::text("comparison.close"));
  close->setAccessibleName(Strings::text("comparison.close"));
  close->setFocusPolicy(Qt::TabFocus);
  close->setShortcut(QKeySequence(Qt::Key_Escape));
  connect(close, &QToolButton::clicked, this, &QDialog::reject);
  // Ctrl+W too, as the desktop closes a window.
  auto* closeWindow = new QAction(this);
  closeWindow->setShortcuts(QKeySequence::Close);
  connect(closeWindow, &QAction::triggered, this, &QDialog::reject);
  addAction(closeWindow);
  header->addWidget(close);
  layout->addLayout(header);

  area_ = new SplitCompareWidget(viewModel_, image_, this);
  area_->setObjectName(QStringLiteral("comparisonArea"));
  layout->addWidget(area_, 1);
  setFocusProxy(area_);
  area_->setFocus();
  connect(area_, &SplitCompareWidget::viewChanged, this, [this] {
    syncZoomButtons();
    ensureDetail();
  });
  syncZoomButtons();

  placeOnScreen();

  connect(image_.get(), &ImportedImage::compressedDataChanged, this,
          &ImageComparisonView::loadCompressedPreview);
  connect(&viewModel_, &BatchViewModel::imagesChanged, this, [this] {
    if (!viewModel_.image(image_->id())) this->close();
  });
  loadOriginalPreview();
  loadCompressedPreview();
}

void ImageComparisonView::placeOnScreen() {
  QScreen* screen = parentWidget() ? parentWidget()->screen() : this->screen();
  const QRect available = screen->availableGeometry();
  const double dpr = screen->devicePixelRatio();
  fitPixelSize_ = std::max(kLeastFitPixels, int(std::max(available.width(), available.height()) * dpr));
  const QByteArray remembered = SettingsFile::store()->value(kGeometryKey).toByteArray();
  if (!remembered.isEmpty() && restoreGeometry(remembered)) {
    // restoreGeometry keeps a window on a screen, but not necessarily wholly inside its free area.
    if (!isMaximized()) setGeometry(ComparisonGeometry::keptInside(geometry(), available));
    return;
  }
  const int headerHeight = layout()->itemAt(0)->sizeHint().height();
  const QSize chrome(2 * kMargin, 2 * kMargin + headerHeight + kSpacing);
  const QPoint anchor = parentWidget() ? parentWidget()->geometry().center() : available.center();
  setGeometry(ComparisonGeometry::openingRect(area_->pictureSize(), dpr, chrome, available, anchor));
}

void ImageComparisonView::done(int result) {
  auto settings = SettingsFile::store();
  settings->setValue(kGeometryKey, saveGeometry());
  SettingsFile::save(*settings);
  QDialog::done(result);
}

void ImageComparisonView::keyPressEvent(QKeyEvent* event) {
  if (!area_->handleKey(event)) QDialog::keyPressEvent(event);
}

void ImageComparisonView::syncZoomButtons() {
  const std::optional<double> zoom = area_->zoom();
  if (QAbstractButton* button = zoomButtons_->button(zoom ? int(*zoom * 100) : 0)) button->setChecked(true);
}

void ImageComparisonView::ensureDetail() {
  const QSize picture = area_->pictureSize();
  const int longest = std::max(picture.width(), picture.height());
  // Full pictures while the zoom shows more pixels than the fit's have; back at fit, both sides
  // come again as the fit's alone, and the full ones go with them.
  const bool wanted = longest > fitPixelSize_ && area_->shownFactor() * longest > fitPixelSize_ + 0.5;
  if (wanted == fullResolution_) return;
  fullResolution_ = wanted;
  loadOriginalPreview();
  loadCompressedPreview();
}

void ImageComparisonView::loadOriginalPreview() {
  const quint64 generation = ++originalGeneration_;
  QPointer<ImageComparisonView> self(this);
  const std::string path = image_->sourceFilePath();
  const QSize picture = area_->pictureSize();
  const int fitSize = fitPixelSize_;
  const QSize fullSize = fullResolution_ ? picture : QSize();
  QThreadPool::globalInstance()->start([self, path, fitSize, fullSize, generation] {
    SidePictures result;
    try {
      const std::vector<uint8_t> bytes = ImageDecoder::readSource(path);
      result = decodeSide(bytes, fitSize, fullSize);
    } catch (...) {
      // Unreadable now: the row's thumbnail stays.
    }
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [self, result = std::move(result), generation]() mutable {
          if (!self || generation != self->originalGeneration_ || result.fit.isNull()) return;
          self->area_->setOriginalPreview(std::move(result));
        },
        Qt::QueuedConnection);
  });
}

void ImageComparisonView::loadCompressedPreview() {
  const quint64 generation = ++compressedGeneration_;
  const std::optional<QByteArray>& compressed = image_->compressedData();
  if (!compressed) {
    area_->setCompressedPreview(std::nullopt);
    return;
  }
  QPointer<ImageComparisonView> self(this);
  const QByteArray bytes = *compressed;
  const QSize picture = area_->pictureSize();
  const int fitSize = fitPixelSize_;
  const QSize fullSize = fullResolution_ ? picture : QSize();
  QThreadPool::globalInstance()->start([self, bytes, fitSize, fullSize, generation] {
    const auto* begin = reinterpret_cast<const uint8_t*>(bytes.constData());
    SidePictures result =
        decodeSide(std::span<const uint8_t>(begin, size_t(bytes.size())), fitSize, fullSize);
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [self, result = std::move(result), generation]() mutable {
          // A newer result replaced this one while it was decoded.
          if (!self || generation != self->compressedGeneration_) return;
          self->area_->setCompressedPreview(
              result.fit.isNull() ? std::nullopt : std::optional<SidePictures>(std::move(result)));
        },
        Qt::QueuedConnection);
  });
}

}  // namespace quillane::ui
