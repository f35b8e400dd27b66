#pragma once
// Owns the application's one LocalAPIRouter and, while the API is on, one LocalAPIServer:
// decides when the server runs and on which port, and publishes whether it runs and why
// it does not. Built once at start-up and shared with the API settings pane.
//
// GUI thread only. Listener states arrive on the server thread and are moved here before
// anything is touched.

#include <QObject>
#include <QString>
#include <memory>
#include <optional>

#include "api/LocalAPIServer.h"

namespace quillane {

class BatchViewModel;
class LocalAPIRouter;

class LocalAPIController : public QObject {
  Q_OBJECT
  Q_PROPERTY(bool isRunning READ isRunning NOTIFY isRunningChanged)

 public:
  static constexpr double requestReadTimeoutSeconds = 30.0;

  // Makes the router and starts the server when "localAPIEnabled" is true.
  explicit LocalAPIController(BatchViewModel& viewModel, QObject* parent = nullptr);
  ~LocalAPIController() override;

  // True from the listener's `ready` until it stops.
  bool isRunning() const { return isRunning_; }
  // Why the server could not start or failed; kept after a stop, cleared by the next `ready`.
  const std::optional<QString>& lastError() const { return lastError_; }
  // The port being listened on while running; 0 otherwise.
  int boundPort() const { return boundPort_; }
  LocalAPIRouter& router() { return *router_; }

  // Starts, or restarts, the server on the stored port ("localAPIPort", 0 meaning 51823).
  void start();
  // Stops the server; lastError() is left as it is. Requests being served finish.
  void stop();

 signals:
  void isRunningChanged();
  void lastErrorChanged();

 private:
  void apply(const LocalAPIListenerState& state, quint64 generation);
  void setRunning(bool running);
  void setLastError(std::optional<QString> error);

  bool isRunning_ = false;
  std::optional<QString> lastError_;
  int boundPort_ = 0;
  std::unique_ptr<LocalAPIServer> server_;
  // States of a server already replaced are late news: each start gets a new generation.
  quint64 generation_ = 0;
  LocalAPIRouter* router_;  // child of this
};

}  // namespace quillane
