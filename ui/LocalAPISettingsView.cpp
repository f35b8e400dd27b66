#include "ui/LocalAPISettingsView.h"

#include <QCheckBox>
#include <QClipboard>
#include <QFontDatabase>
#include <QFormLayout>
#include <QGroupBox>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPushButton>
#include <QVBoxLayout>

#include "api/LocalAPIController.h"
#include "api/LocalAPISettings.h"
#include "services/DecimalText.h"
#include "services/Strings.h"
#include "ui/Icons.h"
#include "ui/ImageRowDelegate.h"
#include "ui/Mnemonics.h"
#include "ui/SettingsForm.h"

namespace quillane::ui {

std::optional<int> parsePortText(const QString& text) {
  const std::optional<int64_t> value = parseDecimalInteger(text);
  if (!value || *value < 1 || *value > 65535) return std::nullopt;
  return int(*value);
}

namespace {
// A text to copy: selectable by mouse and keyboard, and a Tab stop, so that it can be reached,
// read and copied without a mouse.
void makeSelectable(QLabel* label) {
  label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  label->setFocusPolicy(Qt::StrongFocus);
}
}  // namespace

LocalAPISettingsView::LocalAPISettingsView(LocalAPIController& controller, QWidget* parent)
    : QWidget(parent), controller_(controller) {
  isEnabled_ = LocalAPISettings::isEnabled();
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(12);

  // Section 1: the switch.
  auto* first = new QGroupBox(this);
  auto* firstLayout = new QVBoxLayout(first);
  enable_ = new QCheckBox(Strings::text("settings.api.enable"), first);
  enable_->setChecked(isEnabled_);
  connect(enable_, &QCheckBox::toggled, this, &LocalAPISettingsView::setEnabled);
  firstLayout->addWidget(enable_);
  firstLayout->addWidget(makeNote(Strings::text("settings.api.enableHelp"), first));
  layout->addWidget(first);

  // Section 2: status, port, base URL.
  server_ = new QGroupBox(this);
  auto* form = new QFormLayout(server_);
  form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
  auto* statusRow = new QHBoxLayout;
  statusDot_ = new QLabel(server_);
  statusDot_->setFixedSize(8, 8);
  status_ = new QLabel(server_);
  status_->setWordWrap(true);
  status_->setFont(smallFont(status_->font()));
  Icons::makeSecondary(status_);
  statusRow->addWidget(statusDot_, 0, Qt::AlignVCenter);
  statusRow->addWidget(status_, 1);
  form->addRow(statusRow);
  port_ = new QLineEdit(storedPortText(), server_);
  port_->setFixedWidth(80);
  // Only Return applies the port; leaving the field applies nothing.
  connect(port_, &QLineEdit::returnPressed, this, &LocalAPISettingsView::applyPort);
  form->addRow(Strings::text("settings.api.port"), port_);
  baseURL_ = new QLabel(server_);
  makeSelectable(baseURL_);
  Icons::makeSecondary(baseURL_);
  form->addRow(Strings::text("settings.api.baseURL"), baseURL_);
  layout->addWidget(server_);

  // Section 3: the token.
  tokenBox_ = new QGroupBox(Strings::text("settings.api.token"), this);
  auto* tokenLayout = new QVBoxLayout(tokenBox_);
  token_ = new QLabel(LocalAPISettings::token(), tokenBox_);
  token_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
  makeSelectable(token_);
  token_->setWordWrap(true);
  tokenLayout->addWidget(token_);
  auto* buttons = new QHBoxLayout;
  copy_ = new QPushButton(Strings::text("settings.api.copyToken"), tokenBox_);
  regenerate_ = new QPushButton(Strings::text("settings.api.regenerateToken"), tokenBox_);
  connect(copy_, &QPushButton::clicked, this, &LocalAPISettingsView::copyToken);
  connect(regenerate_, &QPushButton::clicked, this, &LocalAPISettingsView::regenerateToken);
  buttons->addWidget(copy_);
  buttons->addWidget(regenerate_);
  buttons->addStretch(1);
  tokenLayout->addLayout(buttons);
  tokenLayout->addWidget(makeNote(Strings::text("settings.api.regenerateWarning"), tokenBox_));
  tokenLayout->addWidget(makeNote(Strings::text("settings.api.docsHint"), tokenBox_));
  layout->addWidget(tokenBox_);
  layout->addStretch(1);

  connect(&controller_, &LocalAPIController::isRunningChanged, this, &LocalAPISettingsView::refreshStatus);
  connect(&controller_, &LocalAPIController::lastErrorChanged, this, &LocalAPISettingsView::refreshStatus);
  refreshStatus();
  refreshBaseURL();
  refreshSections();
}

QString LocalAPISettingsView::storedPortText() {
  const int stored = LocalAPISettings::storedPort();
  return QString::number(stored == 0 ? LocalAPISettings::defaultPort : stored);
}

void LocalAPISettingsView::setEnabled(bool on) {
  isEnabled_ = on;
  LocalAPISettings::setEnabled(on);
  if (on)
    controller_.start();
  else
    controller_.stop();
  refreshSections();
}

void LocalAPISettingsView::applyPort() {
  if (const auto port = parsePortText(port_->text())) {
    LocalAPISettings::setPort(*port);
    // Entering the stored port again still restarts the server.
    if (LocalAPISettings::isEnabled()) controller_.start();
  } else {
    port_->setText(storedPortText());
  }
  refreshBaseURL();
}

void LocalAPISettingsView::copyToken() {
  QClipboard* clipboard = QGuiApplication::clipboard();
  clipboard->clear();
  clipboard->setText(token_->text());
  didCopyToken_ = true;
  Mnemonics::setText(copy_, Strings::text("settings.api.tokenCopied"));
  // Each copy schedules its own clearing; the first to come ends the copied state.
  QTimer::singleShot(1500, this, [this] {
    didCopyToken_ = false;
    Mnemonics::setText(copy_, Strings::text("settings.api.copyToken"));
  });
}

void LocalAPISettingsView::regenerateToken() {
  const auto token = LocalAPISettings::generateToken();
  if (!token) return;
  LocalAPISettings::setToken(*token);
  token_->setText(*token);
}

void LocalAPISettingsView::refreshSections() {
  server_->setVisible(isEnabled_);
  tokenBox_->setVisible(isEnabled_);
}

void LocalAPISettingsView::refreshBaseURL() {
  const int stored = LocalAPISettings::storedPort();
  baseURL_->setText(
      Strings::format("settings.api.baseURLFormat", stored == 0 ? LocalAPISettings::defaultPort : stored));
}

void LocalAPISettingsView::refreshStatus() {
  const bool running = controller_.isRunning();
  QPixmap dot(16, 16);
  dot.fill(Qt::transparent);
  {
    QPainter painter(&dot);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(running ? Icons::greenColor(palette()) : Icons::redColor(palette()));
    painter.drawEllipse(QRectF(0, 0, 16, 16));
  }
  dot.setDevicePixelRatio(2.0);
  statusDot_->setPixmap(dot);
  if (running)
    status_->setText(Strings::text("settings.api.statusRunning"));
  else if (controller_.lastError())
    status_->setText(Strings::format("settings.api.statusErrorFormat", *controller_.lastError()));
  else
    status_->setText(Strings::text("settings.api.statusStopped"));
}

}  // namespace quillane::ui
