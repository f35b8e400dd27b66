#include "ui/ExportSummaryView.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QToolButton>
#include <QVariantMap>

#include "services/Strings.h"
#include "ui/Accessible.h"
#include "ui/Icons.h"
#include "ui/UiText.h"

namespace quillane::ui {

namespace {
const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kShowAction = QStringLiteral("show-in-folder");
// The action of a click on the notification itself.
const QString kDefaultAction = QStringLiteral("default");
// More names than this are cut short: the banner is a summary, the history has them all.
constexpr int kMaxNames = 8;

// Screen readers speak a notification when it comes to show (on Linux, AT-SPI's
// "object:state-changed:showing", which Qt sends as the widget is shown), with its name and
// description; Qt's bridge drops an Alert event.
struct SummaryAccessible : QAccessibleWidget {
  explicit SummaryAccessible(QWidget* widget) : QAccessibleWidget(widget, QAccessible::Notification) {}
};
}  // namespace

ExportSummaryView::ExportSummaryView(std::function<void(const QList<QUrl>&)> showInFolder, QWidget* parent)
    : QFrame(parent), showFiles_(std::move(showInFolder)) {
  useAccessibleInterface<ExportSummaryView, SummaryAccessible>();
  setObjectName(QStringLiteral("exportSummary"));
  setFrameShape(QFrame::StyledPanel);
  setAutoFillBackground(true);
  setBackgroundRole(QPalette::AlternateBase);
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(12, 6, 6, 6);
  icon_ = new QLabel(this);
  layout->addWidget(icon_, 0, Qt::AlignTop);
  text_ = new QLabel(this);
  text_->setWordWrap(true);
  text_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  layout->addWidget(text_, 1);
  showInFolder_ = new QPushButton(Strings::text("intents.notification.showInFolder"), this);
  connect(showInFolder_, &QPushButton::clicked, this, [this] {
    if (!written_.isEmpty() && showFiles_) showFiles_(written_);
  });
  layout->addWidget(showInFolder_, 0, Qt::AlignTop);
  close_ = new QToolButton(this);
  close_->setAutoRaise(true);
  close_->setIcon(Icons::icon("xmark.circle.fill"));
  close_->setAccessibleName(Strings::text("common.close"));
  close_->setToolTip(Strings::text("common.close"));
  close_->setFocusPolicy(Qt::StrongFocus);
  connect(close_, &QToolButton::clicked, this, &QWidget::hide);
  layout->addWidget(close_, 0, Qt::AlignTop);
  hide();
}

QStringList ExportSummaryView::lines(const ExportSummary& summary) {
  QStringList lines;
  if (summary.writtenCount > 0) {
    lines << (summary.bytesSaved >= 0 ? Strings::format("export.summary.savedFormat", summary.writtenCount,
                                                        formatByteCount(summary.bytesSaved))
                                      : Strings::format("export.summary.largerFormat", summary.writtenCount,
                                                        formatByteCount(-summary.bytesSaved)));
  }
  if (!summary.replacedNames.isEmpty()) {
    QStringList names = summary.replacedNames.mid(0, kMaxNames);
    if (summary.replacedNames.size() > kMaxNames) names << QStringLiteral("…");
    lines << Strings::format("export.summary.replacedFormat", names.join(QStringLiteral(", ")));
  }
  if (summary.keptOriginalCount > 0)
    lines << Strings::format("export.summary.keptFormat", summary.keptOriginalCount);
  if (summary.failureCount > 0) {
    // Why, where every failure has the one reason (a folder that can't be written); else each
    // row tells its own.
    QString failed = Strings::format("export.summary.failedFormat", summary.failureCount);
    if (summary.failureReasons.size() == 1) failed += QStringLiteral(" · ") + summary.failureReasons[0];
    lines << failed;
  }
  return lines;
}

void ExportSummaryView::present(const ExportSummary& summary, bool notify) {
  const QStringList shown = lines(summary);
  if (shown.isEmpty()) return;
  written_ = summary.written;
  // Nothing written is no success: the warning sign then, not the green one.
  icon_->setPixmap(
      summary.writtenCount == 0 && summary.failureCount > 0
          ? Icons::pixmap("exclamationmark.triangle.fill", 16, Icons::orangeColor(), devicePixelRatioF())
          : Icons::pixmap("square.and.arrow.down", 16, Icons::greenColor(palette()), devicePixelRatioF()));
  text_->setText(shown.join(QLatin1Char('\n')));
  setAccessibleName(Strings::text("export.summary.title"));
  setAccessibleDescription(shown.join(QLatin1Char('\n')));
  showInFolder_->setVisible(!written_.isEmpty());
  // Shown anew even when the last summary still shows, for screen readers to speak it; a button
  // of the banner that had the focus keeps it.
  QWidget* focused = isAncestorOf(window()->focusWidget()) ? window()->focusWidget() : nullptr;
  hide();
  show();
  if (focused) (focused->isVisible() ? focused : close_)->setFocus(Qt::OtherFocusReason);
  if (notify) sendNotification(shown);
}

void ExportSummaryView::keyPressEvent(QKeyEvent* event) {
  if (event->key() == Qt::Key_Escape) {
    hide();
    return;
  }
  QFrame::keyPressEvent(event);
}

void ExportSummaryView::sendNotification(const QStringList& lines) {
  QDBusConnection bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) return;
  QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kService, QStringLiteral("Notify"));
  QStringList actions;
  if (!written_.isEmpty()) actions = {kShowAction, Strings::text("intents.notification.showInFolder")};
  actions << kDefaultAction << QStringLiteral("Quillane");
  QVariantMap hints;
  hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("com.quillane.Quillane"));
  // app_name, replaces_id (the last summary's), app_icon, summary, body, actions, hints, expire_timeout
  call << QStringLiteral("Quillane") << notificationId_ << QStringLiteral("com.quillane.Quillane")
       << Strings::text("export.summary.title") << lines.join(QLatin1Char('\n')) << actions << hints
       << int(-1);
  // Listening before the notification exists, so that no answer is missed.
  if (!listening_) {
    listening_ = bus.connect(kService, kPath, kService, QStringLiteral("ActionInvoked"), this,
                             SLOT(notificationAction(uint, QString)));
    bus.connect(kService, kPath, kService, QStringLiteral("ActivationToken"), this,
                SLOT(notificationActivationToken(uint, QString)));
  }
  // Asynchronous: a slow or missing service never holds the window.
  auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), this);
  connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* done) {
    const QDBusPendingReply<uint> reply = *done;
    if (reply.isValid()) notificationId_ = reply.value();
    done->deleteLater();
  });
}

void ExportSummaryView::notificationAction(uint id, const QString& action) {
  if (id == 0 || id != notificationId_) return;
  if (action == kShowAction && !written_.isEmpty() && showFiles_) showFiles_(written_);
  if (action == kDefaultAction) {
    QWidget* shown = window();
    shown->show();
    shown->setWindowState((shown->windowState() & ~Qt::WindowMinimized) | Qt::WindowActive);
    shown->raise();
    shown->activateWindow();
  }
}

void ExportSummaryView::notificationActivationToken(uint id, const QString& token) {
  // Sent just before the action it allows: Wayland lets a window come forward with it.
  if (id != 0 && id == notificationId_ && !token.isEmpty()) qputenv("XDG_ACTIVATION_TOKEN", token.toUtf8());
}

}  // namespace quillane::ui
