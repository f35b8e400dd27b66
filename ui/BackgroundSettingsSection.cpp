#include "ui/BackgroundSettingsSection.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QLabel>
#include <QVBoxLayout>

#include "services/BackgroundSettings.h"
#include "services/Strings.h"
#include "ui/SettingsForm.h"

namespace quillane::ui {

BackgroundSettingsSection::BackgroundSettingsSection(QWidget* parent)
    : QGroupBox(Strings::text("settings.hotFolders.background"), parent) {
  setObjectName(QStringLiteral("backgroundSection"));
  auto* layout = new QVBoxLayout(this);
  keepWatching_ = new QCheckBox(Strings::text("settings.hotFolders.keepWatching"), this);
  keepWatching_->setObjectName(QStringLiteral("keepWatchingToggle"));
  keepWatching_->setChecked(BackgroundSettings::keepsWatching());
  connect(keepWatching_, &QCheckBox::toggled, this,
          [](bool on) { BackgroundSettings::setKeepsWatching(on); });
  layout->addWidget(keepWatching_);
  layout->addWidget(makeNote(Strings::text("settings.hotFolders.keepWatchingHelp"), this));

  startAtLogin_ = new QCheckBox(Strings::text("settings.hotFolders.startAtLogin"), this);
  startAtLogin_->setObjectName(QStringLiteral("startAtLoginToggle"));
  startAtLogin_->setChecked(BackgroundSettings::startsAtLogin());
  connect(startAtLogin_, &QCheckBox::toggled, this, [this](bool on) {
    BackgroundSettings::setStartsAtLogin(on, QCoreApplication::applicationFilePath());
    // What is on disk, also when the entry could not be written or removed.
    const QSignalBlocker blocker(startAtLogin_);
    startAtLogin_->setChecked(BackgroundSettings::startsAtLogin());
  });
  layout->addWidget(startAtLogin_);
}

}  // namespace quillane::ui
