#include "ui/ControlsBar.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedLayout>
#include <QToolButton>

#include "batch/BatchViewModel.h"
#include "records/ExportProfile.h"
#include "records/ExportRecord.h"
#include "services/Strings.h"
#include "ui/BarLayout.h"
#include "ui/ExportHistoryView.h"
#include "ui/Icons.h"
#include "ui/ImageRowDelegate.h"
#include "ui/PopupButton.h"
#include "ui/ProfileMenuView.h"
#include "ui/QualityControls.h"
#include "ui/RowRules.h"
#include "ui/SizeControls.h"

namespace quillane::ui {

ControlsBar::ControlsBar(BatchViewModel& viewModel, QWidget* parent)
    : QWidget(parent), viewModel_(viewModel) {
  auto* layout = new BarLayout(this);
  layout->setContentsMargins(12, 8, 12, 8);
  layout->setSpacing(6);

  // Import and clear all show their icons only, named by tooltip and for screen readers, so
  // that the bar holds on one line at the default window size in the longer languages too.
  import_ = new QPushButton(Icons::icon("plus"), QString(), this);
  import_->setAccessibleName(Strings::text("controls.importLabel"));
  import_->setToolTip(Strings::text("controls.importHelp"));
  connect(import_, &QPushButton::clicked, this, [this] { viewModel_.promptImport(); });
  layout->addBarWidget(import_);
  layout->addDivider(makeBarDivider(20, this));
  quality_ = new QualitySliderView(viewModel_, this);
  layout->addBarWidget(quality_);
  layout->addDivider(makeBarDivider(20, this));
  format_ = new FormatPickerView(viewModel_, this);
  layout->addBarWidget(format_);
  size_ = new SizeButtonView(viewModel_, this);
  layout->addBarWidget(size_);
  profileDivider_ = makeBarDivider(20, this);
  layout->addDivider(profileDivider_);
  profiles_ = new ExportProfileMenuView(viewModel_, this);
  layout->addBarWidget(profiles_);
  countDivider_ = makeBarDivider(20, this);
  layout->addDivider(countDivider_);
  count_ = new QLabel(this);
  count_->setFont(smallFont(count_->font()));
  Icons::makeSecondary(count_);
  layout->addBarWidget(count_);

  layout->addStretch();

  clearAll_ = new QPushButton(this);
  Icons::followPalette(clearAll_, [this] {
    clearAll_->setIcon(Icons::tinted("trash", Icons::redColor(clearAll_->palette())));
  });
  clearAll_->setAccessibleName(Strings::text("common.clearAll"));
  clearAll_->setToolTip(Strings::text("controls.clearAllHelp"));
  connect(clearAll_, &QPushButton::clicked, this, [this] { viewModel_.clearAll(); });
  layout->addBarWidget(clearAll_);

  // Export is disabled while encoding, and the progress takes its place meanwhile: one slot as
  // wide as the wider of the two, so that encoding starting or ending moves nothing.
  exportSlot_ = new QWidget(this);
  exportStack_ = new QStackedLayout(exportSlot_);
  export_ = new QPushButton(Strings::text("menu.exportAll"), exportSlot_);
  makeProminent(export_);
  Icons::followPalette(export_, [this] {
    export_->setIcon(
        Icons::tinted("square.and.arrow.down", export_->palette().color(QPalette::HighlightedText)));
  });
  export_->setToolTip(Strings::text("controls.exportAllHelp"));
  connect(export_, &QPushButton::clicked, this, [this] { viewModel_.promptExportAll(); });
  progressGroup_ = new QWidget(exportSlot_);
  auto* progressLayout = new QHBoxLayout(progressGroup_);
  progressLayout->setContentsMargins(0, 0, 0, 0);
  progress_ = new QProgressBar(progressGroup_);
  progress_->setFixedWidth(72);
  progress_->setTextVisible(false);
  progress_->setAccessibleName(Strings::text("controls.progressHelp"));
  progressLabel_ = new QLabel(progressGroup_);
  progressLabel_->setFont(smallFont(progressLabel_->font()));
  progressLayout->addWidget(progress_);
  progressLayout->addWidget(progressLabel_);
  progressGroup_->setToolTip(Strings::text("controls.progressHelp"));
  exportStack_->addWidget(export_);
  exportStack_->addWidget(progressGroup_);
  layout->addBarWidget(exportSlot_);

  history_ = new PopupButton(this);
  history_->setAutoRaise(true);
  history_->setIcon(Icons::icon("clock.arrow.circlepath"));
  history_->setIconSize(QSize(18, 18));
  history_->setToolTip(Strings::text("history.title"));
  history_->setAccessibleName(Strings::text("history.title"));
  connect(history_, &QToolButton::clicked, this, &ControlsBar::showHistory);
  layout->addBarWidget(history_);

  connect(&viewModel_, &BatchViewModel::imagesChanged, this, &ControlsBar::refresh);
  connect(&viewModel_, &BatchViewModel::imagesChanged, this, &ControlsBar::watchImages);
  connect(&viewModel_, &BatchViewModel::isEncodingChanged, this, &ControlsBar::refresh);
  connect(&viewModel_, &BatchViewModel::hasPendingRecomputeChanged, this, &ControlsBar::refresh);
  connect(&viewModel_, &BatchViewModel::exportProfilesChanged, this, &ControlsBar::refresh);
  connect(&viewModel_, &BatchViewModel::exportHistoryChanged, this, &ControlsBar::refresh);
  watchImages();
  refresh();
}

void ControlsBar::watchImages() {
  for (const auto& image : viewModel_.images())
    connect(image.get(), &ImportedImage::encodeStateChanged, this, &ControlsBar::refreshProgress,
            Qt::UniqueConnection);
}

void ControlsBar::refresh() {
  const bool hasImages = !viewModel_.images().empty();
  const bool hasProfiles = !viewModel_.exportProfiles().empty();
  profileDivider_->setVisible(hasProfiles);
  profiles_->setVisible(hasProfiles);
  countDivider_->setVisible(hasImages);
  count_->setVisible(hasImages);
  count_->setText(RowRules::importedCountText(int(viewModel_.images().size())));
  clearAll_->setVisible(hasImages);
  exportSlot_->setVisible(hasImages || viewModel_.isEncoding());
  exportStack_->setCurrentWidget(viewModel_.isEncoding() ? progressGroup_ : export_);
  export_->setEnabled(
      RowRules::canExportAll(viewModel_.isEncoding(), viewModel_.hasPendingRecompute(), hasImages));
  const bool hasHistory = !viewModel_.exportHistory().empty();
  history_->setVisible(hasHistory);
  // The popup goes with its button.
  if (!hasHistory && historyPopup_) historyPopup_->close();
  refreshProgress();
}

void ControlsBar::refreshProgress() {
  const int total = std::max<int>(1, int(viewModel_.images().size()));
  const int completed = viewModel_.encodingCompletedCount();
  progress_->setRange(0, total);
  progress_->setValue(std::min(completed, total));
  progressLabel_->setText(RowRules::progressText(completed, int(viewModel_.images().size())));
}

void ControlsBar::showHistory() {
  if (historyPopup_) historyPopup_->close();
  historyPopup_ = new ExportHistoryView(viewModel_, true, this);
  historyPopup_->popUp(QRect(history_->mapToGlobal(QPoint(0, 0)), history_->size()));
}

}  // namespace quillane::ui
