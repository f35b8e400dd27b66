#include "ui/SmallSettingsViews.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDesktopServices>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include "services/Strings.h"
#include "services/UpdateChecker.h"
#include "ui/Icons.h"
#include "ui/QualityControls.h"
#include "ui/SettingsForm.h"

namespace quillane::ui {

// ---- UpdateSettingsView ----

UpdateSettingsView::UpdateSettingsView(UpdateChecker& checker, QWidget* parent)
    : QWidget(parent), checker_(checker) {
  auto* outer = new QVBoxLayout(this);
  outer->setContentsMargins(0, 0, 0, 0);
  auto* box = new QGroupBox(this);
  auto* layout = new QVBoxLayout(box);
  layout->setSpacing(10);
  enable_ = new QCheckBox(Strings::text("settings.updates.enable"), box);
  enable_->setChecked(UpdateChecker::isCheckAtLaunchEnabled());
  connect(enable_, &QCheckBox::toggled, this, &UpdateSettingsView::setEnabled);
  layout->addWidget(enable_);
  layout->addWidget(makeNote(Strings::text("settings.updates.enableHelp"), box));

  statusRow_ = new QWidget(box);
  auto* row = new QHBoxLayout(statusRow_);
  row->setContentsMargins(0, 0, 0, 0);
  spinner_ = new QProgressBar(statusRow_);
  spinner_->setRange(0, 0);  // busy
  spinner_->setFixedSize(60, 10);
  spinner_->setTextVisible(false);
  spinner_->setAccessibleName(Strings::text("settings.updates.checking"));
  status_ = new QLabel(statusRow_);
  status_->setWordWrap(true);
  status_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  download_ = new QPushButton(Strings::text("settings.updates.download"), statusRow_);
  connect(download_, &QPushButton::clicked, this, [this] {
    if (checker_.state().kind == UpdateChecker::State::Kind::updateAvailable)
      QDesktopServices::openUrl(checker_.state().url);
  });
  row->addWidget(spinner_);
  row->addWidget(status_, 1);
  row->addWidget(download_);
  layout->addWidget(statusRow_);

  checkNow_ = new QPushButton(Strings::text("settings.updates.checkNow"), box);
  // Runs whatever the toggle and the state say.
  connect(checkNow_, &QPushButton::clicked, this, [this] { checker_.checkNow(); });
  auto* buttons = new QHBoxLayout;
  buttons->addWidget(checkNow_);
  buttons->addStretch(1);
  layout->addLayout(buttons);
  outer->addWidget(box);
  outer->addStretch(1);

  connect(&checker_, &UpdateChecker::stateChanged, this, &UpdateSettingsView::refresh);
  refresh();
}

void UpdateSettingsView::setEnabled(bool on) {
  UpdateChecker::setCheckAtLaunchEnabled(on);
  // Turning it on checks at once; turning it off cancels nothing.
  if (on) checker_.checkNow();
}

void UpdateSettingsView::refresh() {
  using Kind = UpdateChecker::State::Kind;
  const UpdateChecker::State& state = checker_.state();
  statusRow_->setVisible(state.kind != Kind::idle);
  spinner_->setVisible(state.kind == Kind::checking);
  download_->setVisible(state.kind == Kind::updateAvailable);
  QPalette palette = status_->parentWidget()->palette();
  switch (state.kind) {
    case Kind::idle:
      status_->clear();
      break;
    case Kind::checking:
      status_->setText(Strings::text("settings.updates.checking"));
      break;
    case Kind::upToDate:
      status_->setText(Strings::text("settings.updates.upToDate"));
      break;
    case Kind::updateAvailable:
      status_->setText(Strings::format("settings.updates.newVersionFormat", state.version));
      break;
    case Kind::failed:
      status_->setText(Strings::format("settings.updates.checkFailedFormat", state.message));
      palette.setColor(QPalette::WindowText, Icons::redColor(palette));
      break;
  }
  status_->setPalette(palette);
}

// ---- LanguageSettingsView ----

LanguageSettingsView::LanguageSettingsView(LanguageManager& manager, QWidget* parent)
    : QWidget(parent), manager_(manager) {
  auto* outer = new QVBoxLayout(this);
  outer->setContentsMargins(0, 0, 0, 0);
  auto* box = new QGroupBox(this);
  auto* layout = new QVBoxLayout(box);
  layout->setSpacing(10);
  auto* form = new QFormLayout;
  form->setRowWrapPolicy(QFormLayout::WrapLongRows);
  picker_ = new QComboBox(box);
  picker_->addItem(Strings::text("settings.language.systemDefault"), -1);
  for (AppLanguage language : AppLanguages::allCases())
    picker_->addItem(AppLanguages::nativeName(language), int(language));
  connect(picker_, &QComboBox::activated, this, [this](int index) {
    const int value = picker_->itemData(index).toInt();
    choose(value < 0 ? std::nullopt : std::optional<AppLanguage>(AppLanguage(value)));
  });
  form->addRow(Strings::text("settings.language.title"), picker_);
  nameComboBox(picker_, "settings.language.title");
  layout->addLayout(form);

  note_ = new QLabel(Strings::text("settings.language.restartRequired"), box);
  note_->setWordWrap(true);
  layout->addWidget(note_);
  restart_ = new QPushButton(Strings::text("settings.language.restartNow"), box);
  makeProminent(restart_);
  connect(restart_, &QPushButton::clicked, this, &LanguageSettingsView::restartNow);
  auto* buttons = new QHBoxLayout;
  buttons->addWidget(restart_);
  buttons->addStretch(1);
  layout->addLayout(buttons);
  outer->addWidget(box);
  outer->addStretch(1);

  connect(&manager_, &LanguageManager::selectedLanguageChanged, this, &LanguageSettingsView::refresh);
  refresh();
}

void LanguageSettingsView::choose(std::optional<AppLanguage> language) {
  pending_.choose(language);
  refresh();
}

void LanguageSettingsView::restartNow() { manager_.confirm(pending_.currentSelection(manager_)); }

void LanguageSettingsView::refresh() {
  const std::optional<AppLanguage> shown = pending_.currentSelection(manager_);
  const int shownData = shown ? int(*shown) : -1;
  {
    const QSignalBlocker block(picker_);
    picker_->setCurrentIndex(picker_->findData(shownData));
  }
  const bool pending = pending_.hasPendingChange(manager_);
  note_->setVisible(pending);
  restart_->setVisible(pending);
}

}  // namespace quillane::ui
