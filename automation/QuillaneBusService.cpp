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
#include "automation/CompressScriptCommand.h"
#include "engine/Localization.h"
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

QDBusMessage errorReply(const QDBusMessage& call, const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const EmptyFileListError& e) {
    return call.createErrorReply(errorName("EmptyFileList"), QString::fromStdString(e.description()));
  } catch (const ProfileNotFoundError& e) {
    return call.createErrorReply(errorName("ProfileNotFound"), QString::fromStdString(e.description()));
  } catch (const MissingOutputDirectoryError& e) {
    return call.createErrorReply(errorName("MissingOutputDirectory"),
                                 QString::fromStdString(e.description()));
  } catch (const CompressionFailedError& e) {
    return call.createErrorReply(errorName("CompressionFailed"), QString::fromStdString(e.description()));
  } catch (const CallerGoneError& e) {
    return call.createErrorReply(errorName("CallerGone"), QString::fromStdString(e.description()));
  } catch (const InvalidIntentArgumentError& e) {
    return call.createErrorReply(invalidArgs, QString::fromStdString(e.description()));
  } catch (const FileError& e) {
    // Only the output folder is made before the files: the path tells which one failed.
    return call.createErrorReply(errorName("OutputFolder"),
                                 QString::fromStdString(e.path() + ": " + e.description()));
  } catch (const QuillaneError& e) {
    return call.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.Failed"),
                                 QString::fromStdString(e.description()));
  } catch (...) {
    return call.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.Failed"),
                                 QString::fromStdString(Localization::text(
                                     "error.generic", "L'opération n'a pas pu être effectuée.")));
  }
}

// CompressWithOptions: the named options of Compress and the size options, each optional.
// Throws InvalidIntentArgumentError for an unknown key or a value of the wrong kind.
CompressImagesIntent intentFromOptions(const QStringList& files, const QVariantMap& options) {
  static const QStringList known{"format",   "quality",   "profile",  "outputFolder",
                                 "maxWidth", "maxHeight", "maxBytes", "skipLarger"};
  for (auto it = options.begin(); it != options.end(); ++it)
    if (!known.contains(it.key())) throw InvalidIntentArgumentError("options", it.key().toStdString());
  const auto text = [&](const char* key) {
    const QVariant value = options.value(key);
    if (value.isValid() && value.typeId() != QMetaType::QString)
      throw InvalidIntentArgumentError(key, value.toString().toStdString());
    return value.toString();
  };
  int quality = 0;
  if (const QVariant value = options.value("quality"); value.isValid()) {
    bool ok = false;
    quality = value.toInt(&ok);
    if (!ok || value.typeId() == QMetaType::Bool || value.typeId() == QMetaType::QString)
      throw InvalidIntentArgumentError("quality", value.toString().toStdString());
  }
  const QString format = text("format");
  CompressImagesIntent intent = CompressImagesIntent::fromArguments(
      files, format.isEmpty() ? QStringLiteral("profileOrDefault") : format, quality, text("profile"),
      text("outputFolder"));
  try {
    intent.options = CompressScriptCommand::compressionOptions(options);
  } catch (const ScriptCommandError& e) {
    throw InvalidIntentArgumentError("options", e.message());
  }
  return intent;
}

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
  if (published_) {
    connection_.interface()->unregisterService(serviceName);
    connection_.unregisterObject(objectPath);
  }
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
        QDBusConnection bus = connection;
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
  {
    QMutexLocker lock(&callersMutex_);
    int& unanswered = unansweredByCaller_[caller];
    if (unanswered >= maxCallsPerCaller) {
      lock.unlock();
      QDBusConnection(connection)
          .send(message.createErrorReply(
              QStringLiteral("org.freedesktop.DBus.Error.LimitsExceeded"),
              QStringLiteral("Too many Compress calls waiting for this caller (at most %1)")
                  .arg(maxCallsPerCaller)));
      return;
    }
    ++unanswered;
  }
  const QList<QVariant> arguments = message.arguments();
  ++pending_;
  QPointer<QuillaneBusService> self(this);
  pool_.start([this, self, message, connection, arguments, caller] {
    QDBusConnection bus = connection;
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
      const auto intent =
          arguments.size() == 2
              ? intentFromOptions(arguments[0].toStringList(), qdbus_cast<QVariantMap>(arguments[1]))
              : CompressImagesIntent::fromArguments(arguments[0].toStringList(), arguments[1].toString(),
                                                    arguments[2].toInt(), arguments[3].toString(),
                                                    arguments[4].toString());
      reply = message.createReply(QVariant(intent.perform(callerGone)));
    } catch (...) {
      reply = errorReply(message, std::current_exception());
    }
    bus.send(reply);
    {
      QMutexLocker lock(&callersMutex_);
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
