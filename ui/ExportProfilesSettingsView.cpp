#include "ui/ExportProfilesSettingsView.h"

#include <QCheckBox>
#include <QDir>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QToolButton>
#include <QVBoxLayout>
#include <string>

#include "batch/BatchViewModel.h"
#include "records/ExportProfile.h"
#include "services/Strings.h"
#include "ui/Icons.h"
#include "ui/Mnemonics.h"
#include "ui/QualityControls.h"
#include "ui/SettingsForm.h"
#include "ui/SizeControls.h"

namespace quillane::ui {
namespace {
QString formatLabel(ImageFormat format) {
  return QString::fromUtf8(std::string(ImageFormats::label(format)));
}
}  // namespace

QString ExportProfilesSettingsView::subtitle(const ExportProfile& profile) {
  QString result = formatLabel(profile.format) + QStringLiteral(" · ") +
                   QString::number(int(profile.quality)) + QLatin1Char('%');
  if (profile.sizing.any()) result += QStringLiteral(" · ") + sizeOptionsText(profile.sizing);
  if (profile.destinationFolder && !profile.destinationFolder->isEmpty())
    result += QStringLiteral(" — ") + QDir::toNativeSeparators(*profile.destinationFolder);
  return result;
}

ExportProfilesSettingsView::ExportProfilesSettingsView(BatchViewModel& viewModel, FolderChooser chooseFolder,
                                                       QWidget* parent)
    : QWidget(parent), viewModel_(viewModel), chooseFolder_(std::move(chooseFolder)) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(12);

  existing_ = new QGroupBox(Strings::text("settings.profiles.existingSection"), this);
  rows_ = new QVBoxLayout(existing_);
  layout->addWidget(existing_);

  form_ = new QGroupBox(this);
  auto* form = new QFormLayout(form_);
  form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
  form->setRowWrapPolicy(QFormLayout::WrapLongRows);
  name_ = new QLineEdit(form_);
  name_->setPlaceholderText(Strings::text("settings.profiles.nameHelp"));
  connect(name_, &QLineEdit::textChanged, this, &ExportProfilesSettingsView::refreshForm);
  form->addRow(Strings::text("settings.profiles.nameField"), name_);

  const FormatField format = makeFormatField(form_, [this](ImageFormat chosen) { setNewFormat(chosen); });
  formatButton_ = format.button;
  formatMenu_ = format.menu;
  form->addRow(Strings::text("format.label"), formatButton_);

  auto* qualityRow = new QHBoxLayout;
  const QualityField quality = makeQualityField(form_, qualityRow, 40, [this](int value) {
    newQuality_ = value;
    refreshForm();
  });
  quality_ = quality.slider;
  qualityReadout_ = quality.readout;
  {
    const QSignalBlocker block(quality_);  // the form is not built yet
    quality_->setValue(75);
  }
  form->addRow(Strings::text("quality.label"), qualityRow);
  size_ = new SizeOptionsEditor(form_);
  form->addRow(Strings::text("size.label"), size_);

  auto* folderRow = new QHBoxLayout;
  folderLabel_ = new ElidedLabel(QString(), Qt::ElideMiddle, form_);
  folderLabel_->setMinimumWidth(60);
  chooseFolderButton_ = new QPushButton(Strings::text("settings.profiles.chooseFolder"), form_);
  clearFolder_ = new QPushButton(Strings::text("settings.profiles.clearFolder"), form_);
  for (QPushButton* button : {chooseFolderButton_, clearFolder_})
    button->setAccessibleDescription(Strings::text("settings.profiles.folderField"));
  connect(chooseFolderButton_, &QPushButton::clicked, this, &ExportProfilesSettingsView::chooseFolder);
  connect(clearFolder_, &QPushButton::clicked, this, [this] { setNewFolder(std::nullopt); });
  folderRow->addWidget(folderLabel_, 1);
  folderRow->addWidget(chooseFolderButton_);
  folderRow->addWidget(clearFolder_);
  form->addRow(Strings::text("settings.profiles.folderField"), folderRow);

  isDefault_ = new QCheckBox(Strings::text("settings.profiles.defaultToggle"), form_);
  isDefault_->setToolTip(Strings::text("settings.profiles.defaultHelp"));
  form->addRow(isDefault_);

  const FormButtons buttons = makeFormButtons(form_);
  cancel_ = buttons.cancel;
  save_ = buttons.save;
  connect(cancel_, &QPushButton::clicked, this, &ExportProfilesSettingsView::resetForm);
  connect(save_, &QPushButton::clicked, this, &ExportProfilesSettingsView::save);
  connect(name_, &QLineEdit::returnPressed, this, &ExportProfilesSettingsView::save);
  form->addRow(buttons.row);
  layout->addWidget(form_);
  layout->addStretch(1);

  connect(&viewModel_, &BatchViewModel::exportProfilesChanged, this,
          &ExportProfilesSettingsView::rebuildList);
  rebuildList();
  resetForm();
}

void ExportProfilesSettingsView::setNewFormat(ImageFormat format) {
  newFormat_ = format;
  refreshForm();
}

void ExportProfilesSettingsView::setNewFolder(std::optional<QUrl> folder) {
  newFolder_ = std::move(folder);
  refreshForm();
}

void ExportProfilesSettingsView::setNewQuality(double quality) {
  // The slider moves in whole steps; a stored 80.5 stays 80.5 unless the slider is moved.
  newQuality_ = quality;
  const QSignalBlocker block(quality_);
  quality_->setValue(int(quality));
  refreshForm();
}

void ExportProfilesSettingsView::startEditing(const ExportProfile& profile) {
  editingProfileID_ = profile.id;
  name_->setText(profile.name);
  newFormat_ = profile.format;
  setNewQuality(profile.quality);
  size_->setOptions(profile.sizing);
  newFolder_ = profile.destinationFolder
                   ? std::optional<QUrl>(QUrl::fromLocalFile(*profile.destinationFolder))
                   : std::nullopt;
  isDefault_->setChecked(profile.isDefault);
  refreshForm();
}

void ExportProfilesSettingsView::resetForm() {
  editingProfileID_.reset();
  name_->clear();
  newFormat_ = ImageFormat::jpeg;
  setNewQuality(75.0);
  size_->setOptions({});
  newFolder_.reset();
  isDefault_->setChecked(false);
  refreshForm();
}

void ExportProfilesSettingsView::chooseFolder() {
  if (!chooseFolder_) return;
  if (auto folder = chooseFolder_(newFolder_)) setNewFolder(*folder);
}

void ExportProfilesSettingsView::save() {
  const QString name = name_->text().trimmed();
  if (name.isEmpty()) return;
  ExportProfile profile;
  profile.id = editingProfileID_.value_or(QUuid::createUuid());
  profile.name = name;
  profile.format = newFormat_;
  profile.quality = newQuality_;
  profile.sizing = size_->options();
  if (newFolder_) profile.destinationFolder = newFolder_->toLocalFile();
  profile.isDefault = isDefault_->isChecked();
  viewModel_.upsertExportProfile(profile);
  resetForm();
}

void ExportProfilesSettingsView::deleteProfile(const ExportProfile& profile) {
  const QUuid id = profile.id;
  viewModel_.deleteExportProfile(profile);
  if (editingProfileID_ == id) resetForm();
}

void ExportProfilesSettingsView::refreshForm() {
  const bool editing = editingProfileID_.has_value();
  form_->setTitle(editing ? Strings::text("settings.profiles.editSection")
                          : Strings::text("settings.profiles.addSection"));
  showFormat(formatButton_, newFormat_);
  for (QAction* action : formatMenu_->actions())
    action->setChecked(action->data().toInt() == int(newFormat_));
  qualityReadout_->setText(QString::number(int(newQuality_)));
  folderLabel_->setText(newFolder_ ? QDir::toNativeSeparators(newFolder_->toLocalFile())
                                   : Strings::text("settings.profiles.folderNone"));
  clearFolder_->setVisible(newFolder_.has_value());
  cancel_->setVisible(editing);
  Mnemonics::setText(
      save_, editing ? Strings::text("settings.profiles.update") : Strings::text("settings.profiles.save"));
  save_->setEnabled(!name_->text().trimmed().isEmpty());
}

void ExportProfilesSettingsView::rebuildList() {
  rebuildRows(
      rows_, [this] { addRows(); }, name_);
  existing_->setVisible(!viewModel_.exportProfiles().empty());
  orderTabStops(this);
}

void ExportProfilesSettingsView::addRows() {
  for (const ExportProfile& profile : viewModel_.exportProfiles()) {
    auto* row = new QWidget(existing_);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 2, 0, 2);
    auto* texts = new QVBoxLayout;
    texts->setSpacing(1);
    auto* first = new QHBoxLayout;
    auto* name = new ElidedLabel(profile.name, Qt::ElideRight, row);
    first->addWidget(name, 1);
    if (profile.isDefault) {
      auto* badge = new QLabel(Strings::text("settings.profiles.defaultBadge"), row);
      badge->setObjectName(QStringLiteral("defaultBadge"));
      // Outlined in the secondary text colour, which reads on a dark palette too (its mid tone
      // is about the window's own there).
      badge->setStyleSheet(
          QStringLiteral("QLabel { border: 1px solid %1; border-radius: 4px; padding: 0px 5px; }")
              .arg(Icons::secondaryColor(palette()).name(QColor::HexArgb)));
      badge->setFont(makeNote(QString(), row)->font());
      first->addWidget(badge, 0);
    }
    texts->addLayout(first);
    texts->addWidget(makeElidedNote(subtitle(profile), Qt::ElideMiddle, row));
    layout->addLayout(texts, 1);

    const ExportProfile copy = profile;
    auto* edit = makeRowButton(row, Icons::icon("pencil"), "common.edit", profile.name);
    edit->setObjectName(QStringLiteral("editButton"));
    connect(edit, &QToolButton::clicked, this, [this, copy] { startEditing(copy); });
    auto* remove =
        makeRowButton(row, Icons::tinted("trash", Icons::redColor(palette())), "common.delete", profile.name);
    remove->setObjectName(QStringLiteral("deleteButton"));
    // No confirmation is asked.
    connect(remove, &QToolButton::clicked, this, [this, copy] { deleteProfile(copy); });
    layout->addWidget(edit);
    layout->addWidget(remove);
    rows_->addWidget(row);
  }
}

}  // namespace quillane::ui
