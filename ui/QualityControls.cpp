#include "ui/QualityControls.h"

#include <QActionGroup>
#include <QApplication>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QScreen>
#include <QSignalBlocker>
#include <QSlider>
#include <QStyle>
#include <QStyleOptionButton>
#include <QVBoxLayout>
#include <string>

#include "batch/BatchViewModel.h"
#include "services/Strings.h"
#include "ui/Icons.h"
#include "ui/ImageRowDelegate.h"
#include "ui/Mnemonics.h"
#include "ui/SizeControls.h"
#include "ui/UiText.h"

namespace quillane::ui {
namespace {

QSlider* makeQualitySlider(QWidget* parent) {
  auto* slider = new QSlider(Qt::Horizontal, parent);
  slider->setRange(1, 100);
  slider->setSingleStep(1);
  slider->setPageStep(5);
  slider->setFixedWidth(100);
  return slider;
}

QLabel* makeReadout(QWidget* parent) {
  auto* readout = new QLabel(parent);
  // Room for "100" in the readout's font.
  readout->setFixedWidth(readout->fontMetrics().horizontalAdvance(QStringLiteral("1000")));
  readout->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
  return readout;
}

QString formatLabel(ImageFormat format) {
  return QString::fromUtf8(std::string(ImageFormats::label(format)));
}

}  // namespace

QPushButton* makeLinkButton(const QString& text, QWidget* parent) {
  auto* button = new QPushButton(text, parent);
  button->setFlat(true);
  button->setCursor(Qt::PointingHandCursor);
  button->setStyleSheet(
      QStringLiteral("QPushButton { border: none; padding: 0px; text-align: left; color: palette(link); }"
                     "QPushButton:hover { text-decoration: underline; }"));
  return button;
}

void makeProminent(QPushButton* button) {
  // Again on a switch between light and dark: from the parent's palette, as the button would
  // have it without the accent, since the accent set on the button stays otherwise.
  Icons::followPalette(button, [button] {
    const QWidget* parent = button->parentWidget();
    const QPalette base = parent ? parent->palette() : QApplication::palette(button);
    QPalette palette = button->palette();
    palette.setColor(QPalette::Button, base.color(QPalette::Highlight));
    palette.setColor(QPalette::ButtonText, base.color(QPalette::HighlightedText));
    // A disabled prominent button looks like any disabled button: the colours of that group are
    // the parent's, or it would keep white text on the accent.
    palette.setColor(QPalette::Disabled, QPalette::Button, base.color(QPalette::Disabled, QPalette::Button));
    palette.setColor(QPalette::Disabled, QPalette::ButtonText,
                     base.color(QPalette::Disabled, QPalette::ButtonText));
    // As it is: setting it again would change the palette again, without end.
    if (button->testAttribute(Qt::WA_SetPalette) && palette == button->palette()) return;
    button->setPalette(palette);
  });
  button->setAutoDefault(false);
}

// ---- QualitySliderView ----

QualitySliderView::QualitySliderView(BatchViewModel& viewModel, QWidget* parent)
    : QWidget(parent), viewModel_(viewModel) {
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  label_ = new QLabel(this);
  Icons::makeSecondary(label_);
  slider_ = makeQualitySlider(this);
  readout_ = makeReadout(this);
  label_->setBuddy(slider_);  // names the slider for screen readers
  layout->addWidget(label_);
  layout->addWidget(slider_);
  layout->addWidget(readout_);

  // Every move writes the quality; while the thumb is held the model only marks the
  // recompute as pending, and letting go sends it.
  connect(slider_, &QSlider::valueChanged, this, [this](int value) { viewModel_.setQuality(value); });
  connect(slider_, &QSlider::sliderPressed, this, [this] { viewModel_.setQualitySliderEditing(true); });
  connect(slider_, &QSlider::sliderReleased, this, [this] { viewModel_.setQualitySliderEditing(false); });
  connect(&viewModel_, &BatchViewModel::qualityChanged, this, &QualitySliderView::syncFromModel);
  retranslate();
  syncFromModel();
}

void QualitySliderView::retranslate() {
  label_->setText(Strings::text("quality.label"));
  setToolTip(Strings::text("quality.sliderHelp"));
  // The tooltip is the row's; screen readers read the slider's own description.
  slider_->setAccessibleDescription(Strings::text("quality.sliderHelp"));
}

QString QualitySliderView::readoutText() const { return readout_->text(); }

void QualitySliderView::syncFromModel() {
  const int shown = qualityReadout(viewModel_.quality());
  readout_->setText(QString::number(shown));
  if (slider_->isSliderDown() && slider_->value() == shown) return;
  const QSignalBlocker block(slider_);
  slider_->setValue(shown);
}

// ---- FormatPickerView ----

void setMenuButtonText(QPushButton* button, const QString& label, int maxTextWidth) {
  const QFontMetrics metrics = button->fontMetrics();
  const QString shown = metrics.elidedText(label, Qt::ElideRight, maxTextWidth);
  button->setText(Mnemonics::literal(shown));
  QStyleOptionButton option;
  option.initFrom(button);
  option.features |= QStyleOptionButton::HasMenu;
  const int indicator = button->style()->pixelMetric(QStyle::PM_MenuButtonIndicator, &option, button);
  const int margin = button->style()->pixelMetric(QStyle::PM_ButtonMargin, &option, button);
  // Styles centre the label over the whole button and draw the arrow inside its right end, so
  // the arrow's room is kept on both sides of the text.
  button->setFixedWidth(metrics.horizontalAdvance(shown) + 2 * (indicator + margin));
}

void showFormat(QPushButton* button, ImageFormat format) {
  button->setText(formatLabel(format));
  button->setAccessibleName(Strings::text("format.label"));
  button->setAccessibleDescription(formatLabel(format));
}

void addFormatChoices(QMenu* menu, const std::function<void(ImageFormat)>& choose) {
  auto* group = new QActionGroup(menu);
  group->setExclusive(true);
  for (ImageFormat format : ImageFormats::allCases) {
    QAction* action = menu->addAction(formatLabel(format));
    action->setCheckable(true);
    action->setData(int(format));
    group->addAction(action);
    QObject::connect(action, &QAction::triggered, menu, [choose, format] { choose(format); });
  }
  Mnemonics::assign(menu);
}

FormatPickerView::FormatPickerView(BatchViewModel& viewModel, QWidget* parent)
    : QWidget(parent), viewModel_(viewModel) {
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  label_ = new QLabel(this);
  Icons::makeSecondary(label_);
  button_ = new QPushButton(this);
  menu_ = new QMenu(button_);
  button_->setMenu(menu_);
  // As wide as the longest format's name needs, whichever is shown.
  QString longest;
  for (ImageFormat format : ImageFormats::allCases)
    if (button_->fontMetrics().horizontalAdvance(formatLabel(format)) >
        button_->fontMetrics().horizontalAdvance(longest))
      longest = formatLabel(format);
  setMenuButtonText(button_, longest, 1000);
  // Choosing the current format is not filtered out: it recomputes all the same.
  addFormatChoices(menu_, [this](ImageFormat format) {
    viewModel_.setOutputFormat(format);
    syncFromModel();
  });
  layout->addWidget(label_);
  layout->addWidget(button_);
  connect(&viewModel_, &BatchViewModel::outputFormatChanged, this, &FormatPickerView::syncFromModel);
  retranslate();
  syncFromModel();
}

void FormatPickerView::retranslate() {
  label_->setText(Strings::text("format.label"));
  setToolTip(Strings::text("format.help"));
}

void FormatPickerView::syncFromModel() {
  showFormat(button_, viewModel_.outputFormat());
  for (QAction* action : menu_->actions())
    action->setChecked(action->data().toInt() == int(viewModel_.outputFormat()));
}

// ---- QualityOverridePopup ----

QualityOverridePopup::QualityOverridePopup(BatchViewModel& viewModel, std::shared_ptr<ImportedImage> image,
                                           QWidget* parent)
    : QFrame(parent, Qt::Popup), viewModel_(viewModel), image_(std::move(image)) {
  setAttribute(Qt::WA_DeleteOnClose);
  setFrameShape(QFrame::StyledPanel);
  setMinimumWidth(240);
  // What screen readers say as the keys come into it, as they do for the size popup.
  setAccessibleName(Strings::text("quality.overrideTitle"));
  setAccessibleDescription(image_->fileName());
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(14, 12, 14, 12);
  layout->setSpacing(8);

  auto* title = new QLabel(Strings::text("quality.overrideTitle"), this);
  QFont bold = title->font();
  bold.setBold(true);
  title->setFont(bold);
  title->setWordWrap(true);
  layout->addWidget(title);

  auto* row = new QHBoxLayout;
  slider_ = makeQualitySlider(this);
  slider_->setFixedWidth(160);  // the popup has room for a finer slider than the bar
  slider_->setAccessibleName(Strings::text("quality.overrideTitle"));
  readout_ = makeReadout(this);
  row->addWidget(slider_);
  row->addWidget(readout_);
  layout->addLayout(row);

  revert_ = makeLinkButton(QString(), this);
  following_ = new QLabel(Strings::text("quality.followingGlobal"), this);
  following_->setFont(smallFont(following_->font()));
  following_->setWordWrap(true);
  Icons::makeSecondary(following_);
  layout->addWidget(revert_);
  layout->addWidget(following_);

  auto* sizeTitle = new QLabel(Strings::text("size.label"), this);
  sizeTitle->setFont(bold);
  layout->addWidget(sizeTitle);
  sizeEditor_ = new SizeOptionsEditor(this);
  layout->addWidget(sizeEditor_);
  sizeRevert_ = makeLinkButton(Strings::text("size.revertToBatch"), this);
  layout->addWidget(sizeRevert_);
  connect(sizeEditor_, &SizeOptionsEditor::changed, this,
          [this](const CompressionOptions& options) { viewModel_.setSizingOverride(image_, options); });
  connect(sizeRevert_, &QPushButton::clicked, this,
          [this] { viewModel_.setSizingOverride(image_, std::nullopt); });
  connect(image_.get(), &ImportedImage::sizingOverrideChanged, this, &QualityOverridePopup::refresh);
  connect(&viewModel_, &BatchViewModel::compressionOptionsChanged, this, &QualityOverridePopup::refresh);

  // A drag moves only the draft; the override is written when the thumb is let go.
  connect(slider_, &QSlider::sliderMoved, this, [this](int value) {
    draftQuality_ = value;
    readout_->setText(readoutText());
  });
  connect(slider_, &QSlider::sliderPressed, this, [this] { editingChanged(true); });
  connect(slider_, &QSlider::sliderReleased, this, [this] { editingChanged(false); });
  // Keys, clicks on the groove, the wheel and a screen reader's value are whole edits of their own.
  connect(slider_, &QSlider::valueChanged, this, [this](int value) {
    if (slider_->isSliderDown()) return;
    draftQuality_ = value;
    editingChanged(false);
  });
  connect(revert_, &QPushButton::clicked, this, &QualityOverridePopup::revertToGlobal);
  connect(image_.get(), &ImportedImage::qualityOverrideChanged, this, &QualityOverridePopup::refresh);
  connect(&viewModel_, &BatchViewModel::qualityChanged, this, &QualityOverridePopup::refresh);
  refresh();
  // Alt with a letter reaches the size options and the links, as in the size popup.
  QString taken;
  Mnemonics::assignControls(this, taken);
}

double QualityOverridePopup::displayedQuality() const {
  if (draftQuality_) return *draftQuality_;
  if (image_->qualityOverride()) return *image_->qualityOverride();
  return viewModel_.quality();
}

QString QualityOverridePopup::readoutText() const {
  return QString::number(qualityReadout(displayedQuality()));
}

void QualityOverridePopup::editingChanged(bool editing) {
  if (editing || !draftQuality_) return;
  const double draft = *draftQuality_;
  draftQuality_.reset();
  viewModel_.setQualityOverride(image_, draft);
  refresh();
}

void QualityOverridePopup::revertToGlobal() {
  viewModel_.setQualityOverride(image_, std::nullopt);
  refresh();
}

void QualityOverridePopup::refresh() {
  readout_->setText(readoutText());
  if (!slider_->isSliderDown()) {
    const QSignalBlocker block(slider_);
    slider_->setValue(qualityReadout(displayedQuality()));
  }
  const bool custom = image_->qualityOverride().has_value();
  Mnemonics::setText(revert_, Strings::format("quality.revertFormat", qualityReadout(viewModel_.quality())));
  revert_->setVisible(custom);
  following_->setVisible(!custom);
  const CompressionOptions sizing = image_->sizingOverride().value_or(viewModel_.compressionOptions());
  if (sizeEditor_->options() != sizing) sizeEditor_->setOptions(sizing);
  sizeRevert_->setVisible(image_->sizingOverride().has_value());
  adjustSize();
}

void QualityOverridePopup::popUp(const QRect& anchor) {
  // As large as it asks, within the screen (adjustSize() would hold it to two thirds of the
  // screen, cutting its longer lines on a small screen or at a large scale).
  const QScreen* screen = QGuiApplication::screenAt(anchor.center());
  resize(screen ? sizeHint().boundedTo(screen->availableGeometry().size()) : sizeHint());
  QPoint pos(anchor.center().x() - width() / 2, anchor.bottom() + 4);
  if (screen) {
    const QRect area = screen->availableGeometry();
    pos.setX(std::clamp(pos.x(), area.left(), std::max(area.left(), area.right() - width())));
    if (pos.y() + height() > area.bottom()) pos.setY(anchor.top() - height() - 4);
  }
  move(pos);
  show();
  // The keys move the quality at once: the slider is what the popup is for.
  slider_->setFocus(Qt::PopupFocusReason);
}

}  // namespace quillane::ui
