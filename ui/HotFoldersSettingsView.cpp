#include "ui/HotFoldersSettingsView.h"

#include <QActionGroup>
#include <QCheckBox>
#include <QDir>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QToolButton>
#include <QVBoxLayout>

#include "batch/BatchViewModel.h"
#include "hotfolders/HotFoldersManager.h"
#include "records/ExportProfile.h"
#include "services/Strings.h"
#include "ui/BackgroundSettingsSection.h"
#include "ui/DesktopFileDialogs.h"
#include "ui/Icons.h"
#include "ui/Mnemonics.h"
#include "ui/QualityControls.h"
#include "ui/SettingsForm.h"
#include "ui/SizeControls.h"

namespace quillane::ui {
namespace {

constexpr int kActivityShown = 5;
constexpr int kErrorsShown = 20;

QString formatLabel(ImageFormat format) {
  return QString::fromUtf8(std::string(ImageFormats::label(format)));
}
QString pathText(const QString& path) { return QDir::toNativeSeparators(path); }

void clearLayout(QVBoxLayout* layout) {
  while (QLayoutItem* item = layout->takeAt(0)) {
    if (QWidget* widget = item->widget()) widget->deleteLater();
    delete item;
  }
}

}  // namespace

QString HotFoldersSettingsView::subtitle(const HotFolder& hotFolder) {
  QString result =
      pathText(hotFolder.sourceFolder) + QStringLiteral(" → ") + pathText(hotFolder.destinationFolder);
  if (hotFolder.profileName) {
    result += QStringLiteral(" · ") + *hotFolder.profileName;
  } else if (hotFolder.format) {
    result += QStringLiteral(" · ") + formatLabel(*hotFolder.format);
    if (hotFolder.quality)
      result += QLatin1Char(' ') + QString::number(int(*hotFolder.quality)) + QLatin1Char('%');
  }
  if (hotFolder.sizing.any()) result += QStringLiteral(" · ") + sizeOptionsText(hotFolder.sizing);
  return result;
}

HotFoldersSettingsView::FolderChooser HotFoldersSettingsView::folderChooser(DesktopFileDialogs* dialogs) {
  return [dialogs](const std::optional<QString>& start) -> std::optional<QString> {
    if (!dialogs) return std::nullopt;
    const std::optional<QUrl> chosen =
        dialogs->chooseFolder(start ? std::optional<QUrl>(QUrl::fromLocalFile(*start)) : std::nullopt);
    return chosen ? std::optional<QString>(chosen->toLocalFile()) : std::nullopt;
  };
}

HotFoldersSettingsView::HotFoldersSettingsView(HotFoldersManager& manager, BatchViewModel& viewModel,
                                               FolderChooser chooseFolder, QWidget* parent)
    : QWidget(parent), manager_(manager), viewModel_(viewModel), chooseFolder_(std::move(chooseFolder)) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(12);
  layout->addWidget(makeNote(Strings::text("settings.hotFolders.enableHelp"), this));

  existing_ = new QGroupBox(Strings::text("settings.hotFolders.existingSection"), this);
  rows_ = new QVBoxLayout(existing_);
  Mnemonics::leaveOut(existing_);  // every row's switch is "Enabled"
  layout->addWidget(existing_);

  // The form.
  form_ = new QGroupBox(this);
  auto* form = new QFormLayout(form_);
  form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
  form->setRowWrapPolicy(QFormLayout::WrapLongRows);
  name_ = new QLineEdit(form_);
  name_->setPlaceholderText(Strings::text("settings.hotFolders.nameHelp"));
  connect(name_, &QLineEdit::textChanged, this, &HotFoldersSettingsView::refreshForm);
  connect(name_, &QLineEdit::returnPressed, this, &HotFoldersSettingsView::save);
  form->addRow(Strings::text("settings.profiles.nameField"), name_);

  auto folderPicker = [this, form](const char* key, QLabel*& label,
                                   void (HotFoldersSettingsView::*choose)()) {
    auto* row = new QHBoxLayout;
    label = new ElidedLabel(QString(), Qt::ElideMiddle, form_);
    label->setMinimumWidth(60);
    auto* button = new QPushButton(Strings::text("settings.profiles.chooseFolder"), form_);
    button->setAccessibleDescription(Strings::text(key));  // which of the two folders
    connect(button, &QPushButton::clicked, this, choose);
    row->addWidget(label, 1);
    row->addWidget(button);
    form->addRow(Strings::text(key), row);
  };
  folderPicker("settings.hotFolders.sourceField", sourceLabel_, &HotFoldersSettingsView::chooseSource);
  folderPicker("settings.profiles.folderField", destinationLabel_,
               &HotFoldersSettingsView::chooseDestination);
  sameFolderWarning_ = new QLabel(Strings::text("settings.hotFolders.sameFolderWarning"), form_);
  sameFolderWarning_->setWordWrap(true);
  sameFolderWarning_->setStyleSheet(QStringLiteral("color: %1").arg(Icons::orangeColor().name()));
  form->addRow(sameFolderWarning_);

  profileButton_ = new QPushButton(form_);
  profileButton_->setAccessibleName(Strings::text("settings.hotFolders.profileField"));
  profileMenu_ = new QMenu(profileButton_);
  profileButton_->setMenu(profileMenu_);
  form->addRow(Strings::text("settings.hotFolders.profileField"), profileButton_);

  const FormatField format = makeFormatField(form_, [this](ImageFormat chosen) { setNewFormat(chosen); });
  formatButton_ = format.button;
  // As wide as its name and at least as the format button below it: stretched across the form,
  // its centred name would stand apart from the label it belongs to.
  profileButton_->setMinimumWidth(formatButton_->minimumWidth());
  profileButton_->setSizePolicy(QSizePolicy::Maximum, QSizePolicy::Fixed);
  formatMenu_ = format.menu;
  formatRowLabel_ = new QLabel(Strings::text("format.label"), form_);
  formatRow_ = formatButton_;
  form->addRow(formatRowLabel_, formatButton_);

  qualityRow_ = new QWidget(form_);
  auto* qualityLayout = new QHBoxLayout(qualityRow_);
  qualityLayout->setContentsMargins(0, 0, 0, 0);
  const QualityField quality = makeQualityField(qualityRow_, qualityLayout, 44, [this](int value) {
    newQuality_ = value;
    refreshForm();
  });
  quality_ = quality.slider;
  qualityReadout_ = quality.readout;
  qualityRowLabel_ = new QLabel(Strings::text("quality.label"), form_);
  form->addRow(qualityRowLabel_, qualityRow_);
  // Apart from the profile's: each option set here wins over the profile's.
  size_ = new SizeOptionsEditor(form_);
  form->addRow(Strings::text("size.label"), size_);

  isEnabled_ = new QCheckBox(Strings::text("settings.hotFolders.enabledToggle"), form_);
  form->addRow(isEnabled_);

  const FormButtons buttons = makeFormButtons(form_);
  cancel_ = buttons.cancel;
  save_ = buttons.save;
  connect(cancel_, &QPushButton::clicked, this, &HotFoldersSettingsView::resetForm);
  connect(save_, &QPushButton::clicked, this, &HotFoldersSettingsView::save);
  form->addRow(buttons.row);
  layout->addWidget(form_);

  // Recent activity, with its clear button, and the error log.
  activity_ = new QGroupBox(Strings::text("settings.hotFolders.activitySection"), this);
  auto* activityLayout = new QVBoxLayout(activity_);
  auto* header = new QHBoxLayout;
  header->addStretch(1);
  clearActivity_ = new QPushButton(Strings::text("common.clearAll"), activity_);
  clearActivity_->setToolTip(Strings::text("settings.hotFolders.clearActivityHelp"));
  connect(clearActivity_, &QPushButton::clicked, this, [this] { manager_.clearActivity(); });
  header->addWidget(clearActivity_);
  activityLayout->addLayout(header);
  activityLines_ = new QVBoxLayout;
  activityLayout->addLayout(activityLines_);
  layout->addWidget(activity_);

  errors_ = new QGroupBox(Strings::text("settings.hotFolders.errorLogSection"), this);
  errorLines_ = new QVBoxLayout(errors_);
  layout->addWidget(errors_);
  layout->addWidget(new BackgroundSettingsSection(this));
  layout->addStretch(1);

  connect(&manager_, &HotFoldersManager::hotFoldersChanged, this, &HotFoldersSettingsView::rebuildList);
  connect(&manager_, &HotFoldersManager::progressChanged, this, &HotFoldersSettingsView::refreshProgress);
  connect(&manager_, &HotFoldersManager::statusChanged, this, &HotFoldersSettingsView::refreshStatus);
  connect(&manager_, &HotFoldersManager::recentActivityChanged, this,
          &HotFoldersSettingsView::rebuildActivity);
  connect(&viewModel_, &BatchViewModel::exportProfilesChanged, this,
          &HotFoldersSettingsView::rebuildProfileMenu);
  rebuildList();
  rebuildActivity();
  resetForm();
}

bool HotFoldersSettingsView::isFormValid() const {
  return !name_->text().trimmed().isEmpty() && newSourceFolder_ && newDestinationFolder_ && !sameFolders_;
}

void HotFoldersSettingsView::save() {
  if (!isFormValid()) return;
  HotFolder hotFolder;
  hotFolder.id = editingID_.value_or(QUuid::createUuid());
  hotFolder.name = name_->text().trimmed();
  hotFolder.sourceFolder = *newSourceFolder_;
  hotFolder.destinationFolder = *newDestinationFolder_;
  hotFolder.profileName = newProfileName_;
  if (!newProfileName_) {
    hotFolder.format = newFormat_;
    hotFolder.quality = newQuality_;
  }
  hotFolder.isEnabled = isEnabled_->isChecked();
  hotFolder.sizing = size_->options();
  manager_.upsert(hotFolder);
  resetForm();
}

void HotFoldersSettingsView::startEditing(const HotFolder& hotFolder) {
  editingID_ = hotFolder.id;
  name_->setText(hotFolder.name);
  newSourceFolder_ = hotFolder.sourceFolder;
  newDestinationFolder_ = hotFolder.destinationFolder;
  // A saved pair was checked when it was chosen, and the manager checks it again: the form asks
  // nothing of a folder that may be on a mount that no longer answers.
  sameFolders_ = QDir::cleanPath(hotFolder.sourceFolder) == QDir::cleanPath(hotFolder.destinationFolder);
  newProfileName_ = hotFolder.profileName;
  newFormat_ = hotFolder.format.value_or(ImageFormat::jpeg);
  isEnabled_->setChecked(hotFolder.isEnabled);
  size_->setOptions(hotFolder.sizing);
  setNewQuality(hotFolder.quality.value_or(75));
}

void HotFoldersSettingsView::resetForm() {
  editingID_.reset();
  name_->clear();
  newSourceFolder_.reset();
  newDestinationFolder_.reset();
  sameFolders_ = false;
  newProfileName_.reset();
  newFormat_ = ImageFormat::jpeg;
  isEnabled_->setChecked(true);
  size_->setOptions({});
  setNewQuality(75);
}

void HotFoldersSettingsView::chooseSource() {
  if (!chooseFolder_) return;
  if (auto folder = chooseFolder_(newSourceFolder_)) newSourceFolder_ = *folder;
  checkFolders();
  refreshForm();
}

void HotFoldersSettingsView::chooseDestination() {
  if (!chooseFolder_) return;
  if (auto folder = chooseFolder_(newDestinationFolder_)) newDestinationFolder_ = *folder;
  checkFolders();
  refreshForm();
}

// Once a folder is chosen, as the chooser has just read it: a refresh of the form (each move of
// the quality slider) never waits on the file system.
void HotFoldersSettingsView::checkFolders() {
  sameFolders_ = newSourceFolder_ && newDestinationFolder_ &&
                 HotFolders::isSameFolder(*newSourceFolder_, *newDestinationFolder_);
}

void HotFoldersSettingsView::setNewProfileName(const std::optional<QString>& name) {
  newProfileName_ = name;
  refreshForm();
}

void HotFoldersSettingsView::setNewFormat(ImageFormat format) {
  newFormat_ = format;
  refreshForm();
}

void HotFoldersSettingsView::setNewQuality(double quality) {
  // The slider moves in whole steps; a stored 80.5 stays 80.5 unless the slider is moved.
  newQuality_ = quality;
  const QSignalBlocker block(quality_);
  quality_->setValue(int(quality));
  refreshForm();
}

std::vector<HotFolderActivity> HotFoldersSettingsView::errorActivities() const {
  std::vector<HotFolderActivity> lines;
  for (const HotFolderActivity& line : manager_.recentActivity()) {
    if (line.isError()) lines.push_back(line);
  }
  return lines;
}

void HotFoldersSettingsView::refreshForm() {
  const bool editing = editingID_.has_value();
  form_->setTitle(editing ? Strings::text("settings.hotFolders.editSection")
                          : Strings::text("settings.hotFolders.addSection"));
  const QString none = Strings::text("settings.profiles.folderNone");
  sourceLabel_->setText(newSourceFolder_ ? pathText(*newSourceFolder_) : none);
  destinationLabel_->setText(newDestinationFolder_ ? pathText(*newDestinationFolder_) : none);
  sameFolderWarning_->setVisible(sameFolders_);
  rebuildProfileMenu();
  // Format and quality belong to the form only while no profile is chosen; they keep their
  // values meanwhile.
  const bool explicitSettings = !newProfileName_.has_value();
  for (QWidget* widget : {static_cast<QWidget*>(formatRowLabel_), formatRow_,
                          static_cast<QWidget*>(qualityRowLabel_), qualityRow_}) {
    widget->setVisible(explicitSettings);
  }
  showFormat(formatButton_, newFormat_);
  for (QAction* action : formatMenu_->actions()) {
    action->setChecked(action->data().toInt() == int(newFormat_));
  }
  qualityReadout_->setText(QString::number(int(newQuality_)) + QLatin1Char('%'));
  cancel_->setVisible(editing);
  Mnemonics::setText(
      save_, editing ? Strings::text("settings.profiles.update") : Strings::text("settings.profiles.save"));
  save_->setEnabled(isFormValid());
}

// What exists now; a stored name whose profile is gone still stands on the button.
void HotFoldersSettingsView::rebuildProfileMenu() {
  const QString noProfile = Strings::text("settings.hotFolders.noProfile");
  profileButton_->setText(Mnemonics::literal(newProfileName_.value_or(noProfile)));
  profileButton_->setAccessibleDescription(newProfileName_.value_or(noProfile));
  profileMenu_->clear();
  // The chosen one checked, one of several, as the profile menu of the window checks its own.
  qDeleteAll(profileMenu_->findChildren<QActionGroup*>(Qt::FindDirectChildrenOnly));
  auto* choices = new QActionGroup(profileMenu_);
  auto add = [this, choices](const QString& label, const std::optional<QString>& name) {
    QAction* action = profileMenu_->addAction(label);
    action->setCheckable(true);
    action->setChecked(name == newProfileName_);
    choices->addAction(action);
    connect(action, &QAction::triggered, this, [this, name] { setNewProfileName(name); });
  };
  add(noProfile, std::nullopt);
  for (const ExportProfile& profile : viewModel_.exportProfiles()) add(profile.name, profile.name);
  Mnemonics::assign(profileMenu_);
}

void HotFoldersSettingsView::rebuildList() {
  progressWidgets_.clear();
  statusLabels_.clear();
  rebuildRows(
      rows_,
      [this] {
        for (const HotFolder& hotFolder : manager_.hotFolders()) rows_->addWidget(makeRow(hotFolder));
      },
      name_);
  existing_->setVisible(!manager_.hotFolders().empty());
  orderTabStops(this);
  refreshProgress();
  refreshStatus();
  if (editingID_ && std::none_of(manager_.hotFolders().begin(), manager_.hotFolders().end(),
                                 [&](const HotFolder& folder) { return folder.id == *editingID_; })) {
    resetForm();  // the folder being edited was deleted
  }
}

QWidget* HotFoldersSettingsView::makeRow(const HotFolder& hotFolder) {
  auto* row = new QWidget(existing_);
  auto* outer = new QVBoxLayout(row);
  outer->setContentsMargins(0, 2, 0, 2);
  auto* line = new QHBoxLayout;
  auto* texts = new QVBoxLayout;
  texts->setSpacing(1);
  auto* name = new ElidedLabel(hotFolder.name, Qt::ElideRight, row);
  texts->addWidget(name);
  texts->addWidget(makeElidedNote(subtitle(hotFolder), Qt::ElideMiddle, row));
  line->addLayout(texts, 1);

  auto* enabled = new QCheckBox(Strings::text("settings.hotFolders.enabledToggle"), row);
  enabled->setObjectName(QStringLiteral("enabledSwitch"));
  enabled->setAccessibleDescription(hotFolder.name);  // every row's switch is "Enabled"
  enabled->setChecked(hotFolder.isEnabled);
  const HotFolder copy = hotFolder;
  // Queued: the switch's own row is rebuilt by the change it makes.
  connect(enabled, &QCheckBox::toggled, this, [this, copy](bool on) {
    HotFolder changed = copy;
    changed.isEnabled = on;
    QMetaObject::invokeMethod(
        this, [this, changed] { manager_.upsert(changed); }, Qt::QueuedConnection);
  });
  auto* edit = makeRowButton(row, Icons::icon("pencil"), "common.edit", hotFolder.name);
  edit->setObjectName(QStringLiteral("editButton"));
  connect(edit, &QToolButton::clicked, this, [this, copy] { startEditing(copy); });
  auto* remove =
      makeRowButton(row, Icons::tinted("trash", Icons::redColor(palette())), "common.delete", hotFolder.name);
  remove->setObjectName(QStringLiteral("deleteButton"));
  // No confirmation is asked; queued for the same reason as the switch.
  connect(remove, &QToolButton::clicked, this, [this, copy] {
    QMetaObject::invokeMethod(
        this, [this, copy] { manager_.remove(copy); }, Qt::QueuedConnection);
  });
  line->addWidget(enabled);
  line->addWidget(edit);
  line->addWidget(remove);
  outer->addLayout(line);

  auto* bar = new QProgressBar(row);
  bar->setTextVisible(false);
  bar->setMaximumHeight(8);
  QLabel* count = makeNote(QString(), row);
  count->setObjectName(QStringLiteral("progressText"));
  outer->addWidget(bar);
  outer->addWidget(count);
  bar->setAccessibleName(hotFolder.name);  // read with its value, the share of files done
  progressWidgets_[hotFolder.id] = {bar, count};
  QLabel* status = makeNote(QString(), row);
  status->setObjectName(QStringLiteral("statusText"));
  status->setWordWrap(true);
  texts->addWidget(status);
  statusLabels_[hotFolder.id] = status;
  return row;
}

// What each enabled folder is doing: watching, waiting for its folder, or refused and why.
void HotFoldersSettingsView::refreshStatus() {
  for (auto& [id, label] : statusLabels_) {
    const HotFoldersManager::Status status = manager_.status(id);
    using State = HotFoldersManager::Status::State;
    QString line;
    if (status.state == State::watching) {
      line = Strings::text("settings.hotFolders.stateWatching");
    } else if (status.state == State::waitingForFolder) {
      line = Strings::text("settings.hotFolders.stateWaiting");
    } else if (status.state == State::refused) {
      line = status.message;
    }
    label->setText(line);
    label->setVisible(!line.isEmpty());
    label->setStyleSheet(status.state == State::refused
                             ? QStringLiteral("color: %1").arg(Icons::redColor(palette()).name())
                             : QString());
  }
}

void HotFoldersSettingsView::refreshProgress() {
  for (auto& [id, widgets] : progressWidgets_) {
    const std::optional<HotFolderProgress> progress = manager_.progress(id);
    auto [bar, count] = widgets;
    bar->setVisible(progress.has_value());
    count->setVisible(progress.has_value());
    if (!progress) continue;
    bar->setRange(0, progress->total);
    bar->setValue(progress->completed);
    count->setText(
        Strings::format("settings.hotFolders.progressFormat", progress->completed, progress->total));
  }
}

QWidget* HotFoldersSettingsView::makeActivityLine(const HotFolderActivity& activity, bool errorOnly,
                                                  QWidget* parent) {
  auto* line = new QWidget(parent);
  auto* layout = new QVBoxLayout(line);
  layout->setContentsMargins(0, 1, 0, 1);
  layout->setSpacing(1);
  auto* first = new ElidedLabel(activity.hotFolderName + QStringLiteral(" — ") + activity.sourceFileName,
                                Qt::ElideMiddle, line);
  layout->addWidget(first);
  if (activity.error) {
    auto* error = new QLabel(*activity.error, line);
    error->setWordWrap(true);
    error->setStyleSheet(QStringLiteral("color: %1").arg(Icons::redColor(palette()).name()));
    layout->addWidget(error);
  } else if (activity.destinationURL && !errorOnly) {
    layout->addWidget(makeElidedNote(pathText(*activity.destinationURL), Qt::ElideMiddle, line));
  } else if (activity.note && !errorOnly) {
    auto* note = makeNote(*activity.note, line);
    note->setWordWrap(true);
    layout->addWidget(note);
  }
  return line;
}

void HotFoldersSettingsView::rebuildActivity() {
  clearLayout(activityLines_);
  const auto& lines = manager_.recentActivity();
  clearActivity_->setVisible(!lines.empty());
  if (lines.empty()) {
    activityLines_->addWidget(makeNote(Strings::text("settings.hotFolders.activityEmpty"), activity_));
  }
  for (size_t i = 0; i < lines.size() && i < size_t(kActivityShown); ++i) {
    activityLines_->addWidget(makeActivityLine(lines[i], false, activity_));
  }

  clearLayout(errorLines_);
  const std::vector<HotFolderActivity> errors = errorActivities();
  if (errors.empty()) {
    errorLines_->addWidget(makeNote(Strings::text("settings.hotFolders.errorLogEmpty"), errors_));
  }
  for (size_t i = 0; i < errors.size() && i < size_t(kErrorsShown); ++i) {
    errorLines_->addWidget(makeActivityLine(errors[i], true, errors_));
  }
}

}  // namespace quillane::ui
