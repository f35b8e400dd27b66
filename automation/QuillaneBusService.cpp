#include "automation/QuillaneBusService.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QFile>
#include <QMetaObject>
#include <QPointer>
#include <QUrl>
#include <exception>

#include "automation/CompressImagesIntent.h"
#include "engine/Errors.h"
#include "records/ExportProfileResolver.h"

// The introspection file is compiled in, so that what the bus shows is what is installed.
static void initIntrospectionResource() { Q_INIT_RESOURCE(quillane_dbus); }

namespace quillane {

const QString QuillaneBusService::serviceName = QStringLiteral("com.quillane.Quillane");
const QString QuillaneBusService::objectPath = QStringLiteral("/com/quillane/Quillane");
const QString QuillaneBusService::interfaceName = QStringLiteral("com.quillane.Quillane");

namespace {

const QString applicationInterface = QStringLiteral("org.freedesktop.Application");
const QString invalidArgs = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");

const char applicationIntrospection[] = R"(  <interface name="org.freedesktop.Application">
    <method name="Activate">
      <arg name="platform_data" type="a{sv}" direction="in"/>
    </method>
    <method name="Open">
      <arg name="uris" type="as" direction="in"/>
      <arg name="platform_data" type="a{sv}" direction="in"/>
    </method>
    <method name="ActivateAction">
      <arg name="action_name" type="s" direction="in"/>
      <arg name="parameter" type="av" direction="in"/>
      <arg name="platform_data" type="a{sv}" direction="in"/>
    </method>
  </interface>
)";

// The <interface> elements of the installed file.
QString compressIntrospection() {
  initIntrospectionResource();
  QFile file(QStringLiteral(":/quillane/dbus/com.quillane.Quillane.xml"));
  if (!file.open(QIODevice::ReadOnly)) return {};
  const QString xml = QString::fromUtf8(file.readAll());
  const qsizetype begin = xml.indexOf(QLatin1String("<interface"));
  const QString endTag = QStringLiteral("</interface>");
  const qsizetype end = xml.lastIndexOf(endTag);
  if (begin < 0 || end < begin) return {};
  return QStringLiteral("  ") + xml.mid(begin, end + endTag.size() - begin) + QLatin1Char('\n');
}

QString errorName(const char* suffix) {
  return QStringLiteral("com.quillane.Quillane.Error.") + QLatin1String(suffix);
}

}  // namespace

std::pair<QString, QString> QuillaneBusService::errorFor(const std::exception_ptr& failure) {
  const auto text = [](const std::string& description) { return QString::fromStdString(description); };
  try {
    std::rethrow_exception(failure);
  } catch (const EmptyFileListError& e) {
    return {errorName("EmptyFileList"), text(e.description())};
  } catch (const ProfileNotFoundError& e) {
    return {errorName("ProfileNotFound"), text(e.description())};
  } catch (const MissingOutputDirectoryError& e) {
    return {errorName("MissingOutputDirectory"), text(e.description())};
  } catch (const CompressionFailedError& e) {
    return {errorName("CompressionFailed"), text(e.description())};
  } catch (const CallerGoneError& e) {
    return {errorName("CallerGone"), text(e.description())};
  } catch (const InvalidIntentArgumentError& e) {
    return {invalidArgs, text(e.description())};
  } catch (const FileError& e) {
    // Only the output folder is made before the files: the path tells which one failed.
    return {errorName("OutputFolder"), text(e.path() + ": " + e.description())};
  } catch (const QuillaneError& e) {
    return {QStringLiteral("org.freedesktop.DBus.Error.Failed"), text(e.description())};
  } catch (...) {
    return {QStringLiteral("org.freedesktop.DBus.Error.Failed"), text(genericErrorText())};
  }
}

namespace {

// The launcher's activation token (xdg-activation on Wayland), handed to the window system
// through the variable Qt reads when a window asks to be activated.
void adoptActivationToken(const QVariant& platformData) {
  const QVariantMap data = qdbus_cast<QVariantMap>(platformData);
  const QString token = data.value(QStringLiteral("activation-token")).toString();
  if (!token.isEmpty()) qputenv("XDG_ACTIVATION_TOKEN", token.toUtf8());
}

// Open's URIs as file URLs, kept as they came so that a name that is not UTF-8 (left
// percent-encoded) names the same file; a bare path is taken as a local file.
QList<QUrl> fileURLs(const QStringList& uris) {
  QList<QUrl> files;
  for (const QString& uri : uris) {
    const QUrl url(uri);
    files.append(url.isLocalFile() ? url : QUrl::fromLocalFile(uri));
  }
  return files;
}

}  // namespace

QuillaneBusService::QuillaneBusService(Handlers handlers, QObject* parent)
    : QDBusVirtualObject(parent), handlers_(std::move(handlers)) {
  pool_.setMaxThreadCount(1);
  pool_.setObjectName(QStringLiteral("com.quillane.Quillane.dbus"));
}

QuillaneBusService::~QuillaneBusService() {
  withdraw();
  pool_.clear();
  pool_.waitForDone();
}

bool QuillaneBusService::publish(QDBusConnection connection) {
  if (!connection.isConnected()) return false;
  // The object first, so that a call arriving the moment the name is ours finds it.
  if (!connection.registerVirtualObject(objectPath, this, QDBusConnection::SingleNode)) return false;
  const auto reply =
      connection.interface()->registerService(serviceName, QDBusConnectionInterface::DontQueueService,
                                              QDBusConnectionInterface::DontAllowReplacement);
  if (!reply.isValid() || reply.value() != QDBusConnectionInterface::ServiceRegistered) {
    connection.unregisterObject(objectPath);
    return false;
  }
  connection_ = connection;
  published_ = true;
  return true;
}

void QuillaneBusService::withdraw() {
  if (!std::exchange(published_, false)) return;
  connection_.interface()->unregisterService(serviceName);
  connection_.unregisterObject(objectPath);
}

QString QuillaneBusService::introspect(const QString& path) const {
  if (path != objectPath) return {};
  return compressIntrospection() + QLatin1String(applicationIntrospection);
}

// May be called on the bus's own thread: nothing here touches state of the GUI thread.
bool QuillaneBusService::handleMessage(const QDBusMessage& message, const QDBusConnection& connection) {
  if (message.type() != QDBusMessage::MethodCallMessage) return false;
  const QString interface = message.interface();
  const QString member = message.member();
  const QString signature = message.signature();

  if (member == QLatin1String("Compress") && (interface.isEmpty() || interface == interfaceName)) {
    if (signature != QLatin1String("assiss")) {
      connection.send(message.createErrorReply(
          invalidArgs, QStringLiteral("Compress takes (as, s, i, s, s), not (%1)").arg(signature)));
      return true;
    }
    compress(message, connection);
    return true;
  }

  if (member == QLatin1String("CompressWithOptions") && (interface.isEmpty() || interface == interfaceName)) {
    if (signature != QLatin1String("asa{sv}")) {
      connection.send(message.createErrorReply(
          invalidArgs, QStringLiteral("CompressWithOptions takes (as, a{sv}), not (%1)").arg(signature)));
      return true;
    }
    compress(message, connection);
    return true;
  }

  if (interface.isEmpty() || interface == applicationInterface) {
    if (member == QLatin1String("Activate") && signature == QLatin1String("a{sv}")) {
      const QVariant platformData = message.arguments().value(0);
      runOnGuiThread(message, connection, [this, platformData] {
        if (!handlers_.activate) return false;
        adoptActivationToken(platformData);
        handlers_.activate();
        return true;
      });
      return true;
    }
    if (member == QLatin1String("Open") && signature == QLatin1String("asa{sv}")) {
      const QList<QUrl> files = fileURLs(message.arguments().value(0).toStringList());
      const QVariant platformData = message.arguments().value(1);
      runOnGuiThread(message, connection, [this, files, platformData] {
        if (!handlers_.open) return false;
        adoptActivationToken(platformData);
        handlers_.open(files);
        return true;
      });
      return true;
    }
    if (member == QLatin1String("ActivateAction")) {
      connection.send(message.createErrorReply(invalidArgs, QStringLiteral("No such action")));
      return true;
    }
  }
  return false;
}

void QuillaneBusService::runOnGuiThread(const QDBusMessage& message, const QDBusConnection& connection,
                                        std::function<bool()> work) {
  QMetaObject::invokeMethod(
      this,
      [this, message, connection, work = std::move(work)] {
        const QDBusConnection& bus = connection;
        if (work()) {
          bus.send(message.createReply());
        } else {
          bus.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.NotSupported"),
                                            QStringLiteral("This instance has no window to show")));
          emit windowRefused();
        }
      },
      Qt::QueuedConnection);
}

void QuillaneBusService::compress(const QDBusMessage& message, const QDBusConnection& connection) {
  const QString caller = message.service();
  bool refused = false;
  {
    MutexLock lock(callersMutex_);
    int& unanswered = unansweredByCaller_[caller];
    refused = unanswered >= maxCallsPerCaller;
    if (!refused) ++unanswered;
  }
  if (refused) {
    connection.send(message.createErrorReply(
        QStringLiteral("org.freedesktop.DBus.Error.LimitsExceeded"),
        QStringLiteral("Too many Compress calls waiting for this caller (at most %1)")
            .arg(maxCallsPerCaller)));
    return;
  }
  const QList<QVariant> arguments = message.arguments();
  ++pending_;
  QPointer<QuillaneBusService> self(this);
  pool_.start([this, self, message, connection, arguments, caller] {
    const QDBusConnection& bus = connection;
    // Asked of the bus before each file: a caller that has gone wants no more files.
    const auto callerGone = [&bus, &caller] {
      QDBusMessage ask = QDBusMessage::createMethodCall(
          QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
          QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
      ask << caller;
      const QDBusMessage answer = bus.call(ask);
      return answer.type() == QDBusMessage::ReplyMessage && !answer.arguments().value(0).toBool();
    };
    QDBusMessage reply;
    try {
      const auto intent = arguments.size() == 2
                              ? CompressImagesIntent::fromOptions(arguments[0].toStringList(),
                                                                  qdbus_cast<QVariantMap>(arguments[1]))
                              : CompressImagesIntent::fromArguments(
                                    arguments[0].toStringList(), arguments[1].toString(),
                                    arguments[2].toInt(), arguments[3].toString(), arguments[4].toString());
      reply = message.createReply(QVariant(intent.perform(callerGone)));
    } catch (...) {
      const auto [name, text] = errorFor(std::current_exception());
      reply = message.createErrorReply(name, text);
    }
    bus.send(reply);
    {
      MutexLock lock(callersMutex_);
      if (--unansweredByCaller_[caller] <= 0) unansweredByCaller_.remove(caller);
    }
    // The pool is the service's own and is drained in its destructor, so `this` is alive here.
    if (--pending_ == 0)
      QMetaObject::invokeMethod(
          this,
          [self] {
            if (self) emit self->idle();
          },
          Qt::QueuedConnection);
  });
}

}  // namespace quillane
