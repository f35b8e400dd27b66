#include "ui/SizeControls.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QGridLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QScreen>
#include <QSpinBox>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>

#include "batch/BatchViewModel.h"
#include "engine/DecodedImage.h"
#include "services/Strings.h"
#include "ui/Icons.h"
#include "ui/Mnemonics.h"
#include "ui/PopupButton.h"
#include "ui/SettingsForm.h"
#include "ui/UiText.h"

namespace quillane::ui {
namespace {

constexpr int64_t kKilo = 1000, kMega = kKilo * kKilo;
constexpr int kDefaultSide = 1920;

// A full stop or a comma typed is the decimal point, as the field shows at once: an amount of a
// few digits has no groups, and "1,5" in English or "1.5" in German is 1.5, not 15.
class AmountField final : public QDoubleSpinBox {
 public:
  using QDoubleSpinBox::QDoubleSpinBox;
  QValidator::State validate(QString& text, int& position) const override {
    const QChar point = locale().decimalPoint().front();
    for (QChar& c : text)
      if (c == u'.' || c == u',') c = point;
    return QDoubleSpinBox::validate(text, position);
  }
};

QSpinBox* makeSideField(const char* accessibleKey, QWidget* parent) {
  auto* field = new QSpinBox(parent);
  field->setRange(0, kMaxDimension);
  field->setSpecialValueText(Strings::text("size.anySide"));  // 0: that side is not bounded
  field->setAccessibleName(Strings::text(accessibleKey));
  field->setValue(kDefaultSide);
  return field;
}

}  // namespace

SizeOptionsEditor::SizeOptionsEditor(QWidget* parent) : QWidget(parent) {
  auto* grid = new QGridLayout(this);
  grid->setContentsMargins(0, 0, 0, 0);
  grid->setHorizontalSpacing(6);

  fit_ = new QCheckBox(Strings::text("size.fitToggle"), this);
  fit_->setToolTip(Strings::text("size.fitHelp"));
  setFocusProxy(fit_);  // focus goes to the first box
  width_ = makeSideField("size.widthField", this);
  height_ = makeSideField("size.heightField", this);
  auto* fitRow = new QHBoxLayout;
  fitRow->addWidget(width_);
  fitRow->addWidget(new QLabel(QStringLiteral("×"), this));
  fitRow->addWidget(height_);
  fitRow->addStretch(1);
  grid->addWidget(fit_, 0, 0);
  grid->addLayout(fitRow, 0, 1);

  budget_ = new QCheckBox(Strings::text("size.budgetToggle"), this);
  budget_->setToolTip(Strings::text("size.budgetHelp"));
  amount_ = new AmountField(this);
  amount_->setDecimals(1);
  amount_->setRange(0.1, 999999);
  amount_->setValue(500);
  amount_->setAccessibleName(Strings::text("size.budgetField"));
  unit_ = new QComboBox(this);
  unit_->addItem(byteUnitSymbol(ByteUnit::kilo, QLocale()), QVariant::fromValue<qint64>(kKilo));
  unit_->addItem(byteUnitSymbol(ByteUnit::mega, QLocale()), QVariant::fromValue<qint64>(kMega));
  nameComboBox(unit_, "size.unitField");
  auto* budgetRow = new QHBoxLayout;
  budgetRow->addWidget(amount_);
  budgetRow->addWidget(unit_);
  budgetRow->addStretch(1);
  grid->addWidget(budget_, 1, 0);
  grid->addLayout(budgetRow, 1, 1);

  skipLarger_ = new QCheckBox(Strings::text("size.skipLargerToggle"), this);
  skipLarger_->setToolTip(Strings::text("size.skipLargerHelp"));
  grid->addWidget(skipLarger_, 2, 0, 1, 2);

  for (QCheckBox* box : {fit_, budget_, skipLarger_})
    connect(box, &QCheckBox::toggled, this, [this] {
      refreshEnabled();
      edited();
    });
  for (QSpinBox* side : {width_, height_})
    connect(side, &QSpinBox::valueChanged, this, &SizeOptionsEditor::edited);
  const auto budgetEdited = [this] {
    givenBytes_ = 0;
    edited();
  };
  connect(amount_, &QDoubleSpinBox::valueChanged, this, budgetEdited);
  connect(unit_, &QComboBox::currentIndexChanged, this, budgetEdited);
  refreshEnabled();
}

CompressionOptions SizeOptionsEditor::options() const {
  CompressionOptions options;
  if (fit_->isChecked()) options.maxWidth = width_->value(), options.maxHeight = height_->value();
  if (budget_->isChecked())
    options.maxBytes =
        givenBytes_ > 0 ? givenBytes_
                        : std::max<int64_t>(
                              1, std::llround(amount_->value() * double(unit_->currentData().toLongLong())));
  options.skipLarger = skipLarger_->isChecked();
  return options;
}

void SizeOptionsEditor::setOptions(const CompressionOptions& options) {
  const QSignalBlocker blocks[] = {
      QSignalBlocker(fit_),    QSignalBlocker(width_), QSignalBlocker(height_),    QSignalBlocker(budget_),
      QSignalBlocker(amount_), QSignalBlocker(unit_),  QSignalBlocker(skipLarger_)};
  fit_->setChecked(options.fits());
  if (options.fits()) width_->setValue(options.maxWidth), height_->setValue(options.maxHeight);
  budget_->setChecked(options.maxBytes > 0);
  givenBytes_ = options.maxBytes;
  if (options.maxBytes > 0) {
    const int64_t unit = options.maxBytes >= kMega ? kMega : kKilo;
    unit_->setCurrentIndex(unit == kMega ? 1 : 0);
    amount_->setValue(double(options.maxBytes) / double(unit));
  }
  skipLarger_->setChecked(options.skipLarger);
  refreshEnabled();
}

void SizeOptionsEditor::refreshEnabled() {
  width_->setEnabled(fit_->isChecked());
  height_->setEnabled(fit_->isChecked());
  amount_->setEnabled(budget_->isChecked());
  unit_->setEnabled(budget_->isChecked());
}

void SizeOptionsEditor::edited() { emit changed(options()); }

QString sizeOptionsText(const CompressionOptions& options) {
  QStringList parts;
  if (options.fits()) {
    const auto side = [](int pixels) {
      return pixels > 0 ? QString::number(pixels) : Strings::text("size.anySide");
    };
    parts << Strings::format("size.fitFormat", side(options.maxWidth), side(options.maxHeight));
  }
  if (options.maxBytes > 0) parts << Strings::format("size.budgetFormat", formatByteLimit(options.maxBytes));
  if (options.skipLarger) parts << Strings::text("size.skipLargerShort");
  return parts.isEmpty() ? Strings::text("size.off") : parts.join(QStringLiteral(" · "));
}

SizeButtonView::SizeButtonView(BatchViewModel& viewModel, QWidget* parent)
    : QWidget(parent), viewModel_(viewModel) {
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  // An icon only, named by tooltip and for screen readers, as import is, so that the bar holds
  // on one line in the longer languages too.
  button_ = new PopupButton(this);
  button_->setAutoRaise(true);
  button_->setIcon(Icons::icon("arrow.down.right.and.arrow.up.left"));
  button_->setIconSize(QSize(18, 18));
  button_->setFocusPolicy(Qt::StrongFocus);
  button_->setAccessibleName(Strings::text("size.label"));
  connect(button_, &QToolButton::clicked, this, &SizeButtonView::showPopup);
  layout->addWidget(button_);
  connect(&viewModel_, &BatchViewModel::compressionOptionsChanged, this, &SizeButtonView::syncFromModel);
  syncFromModel();
}

SizeOptionsEditor* SizeButtonView::popupEditor() const {
  return popup_ ? popup_->findChild<SizeOptionsEditor*>() : nullptr;
}

void SizeButtonView::showPopup() {
  // The click toggled the button: it shows whether options are on, not that it was clicked.
  button_->setChecked(viewModel_.compressionOptions().any());
  if (popup_) popup_->close();
  popup_ = new QFrame(this, Qt::Popup);
  popup_->setAttribute(Qt::WA_DeleteOnClose);
  popup_->setFrameShape(QFrame::StyledPanel);
  popup_->setAccessibleName(Strings::text("size.label"));
  auto* layout = new QVBoxLayout(popup_);
  layout->setContentsMargins(14, 12, 14, 12);
  auto* editor = new SizeOptionsEditor(popup_);
  editor->setOptions(viewModel_.compressionOptions());
  connect(editor, &SizeOptionsEditor::changed, this,
          [this](const CompressionOptions& options) { viewModel_.setCompressionOptions(options); });
  layout->addWidget(editor);
  QString taken;
  Mnemonics::assignControls(popup_, taken);
  popup_->adjustSize();
  const QRect anchor(button_->mapToGlobal(QPoint(0, 0)), button_->size());
  QPoint pos(anchor.left(), anchor.bottom() + 4);
  if (const QScreen* screen = QGuiApplication::screenAt(anchor.center())) {
    const QRect area = screen->availableGeometry();
    pos.setX(std::clamp(pos.x(), area.left(), std::max(area.left(), area.right() - popup_->width())));
    if (pos.y() + popup_->height() > area.bottom()) pos.setY(anchor.top() - popup_->height() - 4);
  }
  popup_->move(pos);
  popup_->show();
  editor->setFocus(Qt::PopupFocusReason);
}

void SizeButtonView::syncFromModel() {
  const CompressionOptions& options = viewModel_.compressionOptions();
  const QString summary = sizeOptionsText(options);
  button_->setToolTip(Strings::text("size.label") + QStringLiteral(": ") + summary + QLatin1Char('\n') +
                      Strings::text("size.help"));
  button_->setAccessibleDescription(summary);
  // On, the button is drawn checked, so that options that change every result are never hidden.
  button_->setCheckable(true);
  button_->setChecked(options.any());
  if (popup_) {
    if (SizeOptionsEditor* editor = popupEditor(); editor && editor->options() != options)
      editor->setOptions(options);
  }
}

}  // namespace quillane::ui
