#include "api/LocalAPIRouter.h"

#include <QCoreApplication>
#include <QPointer>
#include <QPromise>
#include <memory>

#include "api/LocalAPIDTOs.h"
#include "api/LocalAPISettings.h"
#include "batch/BatchViewModel.h"
#include "engine/Json.h"
#include "records/ExportProfile.h"

namespace quillane {

namespace {

std::vector<std::string> pathSegments(const std::string& path) {
  std::vector<std::string> segments;
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    if (slash > start) segments.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  return segments;
}

}  // namespace

LocalAPIRouter::LocalAPIRouter(BatchViewModel& viewModel, QObject* parent)
    : QObject(parent), viewModel_(viewModel) {
  checks_.setObjectName(QStringLiteral("com.quillane.Quillane.apiFileChecks"));
  // As many as the server serves requests at once: those stuck on a dead volume never hold up the
  // checks of another.
  checks_.setMaxThreadCount(LocalAPIServer::Limits().maxConnections);
}

LocalAPIServer::Router LocalAPIRouter::serverRouter() {
  QPointer<LocalAPIRouter> self(this);
  return [self](LocalAPIRequest request) {
    auto promise = std::make_shared<QPromise<LocalAPIResponse>>();
    promise->start();
    QFuture<LocalAPIResponse> future = promise->future();
    // The queued call runs on the GUI thread; the weak reference is only read there. If the
    // router is gone, the promise dies unanswered and the connection is closed.
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [self, promise, request = std::move(request)]() mutable {
          if (!self) return;
          self->handle(request, [promise](LocalAPIResponse response) {
            promise->addResult(std::move(response));
            promise->finish();
          });
        },
        Qt::QueuedConnection);
    return future;
  };
}

bool LocalAPIRouter::authorize(const LocalAPIRequest& request, const QString& token) {
  auto header = request.headers.find("authorization");
  if (header == request.headers.end() || token.isEmpty()) return false;
  const std::string expected = "Bearer " + token.toStdString();
  const std::string& given = header->second;
  if (given.size() != expected.size()) return false;
  // Every byte pair is looked at, so the time taken tells nothing of where they differ.
  unsigned char difference = 0;
  for (size_t i = 0; i < expected.size(); ++i) difference |= (unsigned char)(given[i] ^ expected[i]);
  return difference == 0;
}

namespace {
LocalAPIResponse unauthorized() {
  return LocalAPIResponse::error(401, "Missing or invalid Authorization token");
}
}  // namespace

LocalAPIServer::Gate LocalAPIRouter::serverGate() {
  return [](const LocalAPIRequest& head) -> std::optional<LocalAPIResponse> {
    if (authorize(head, LocalAPISettings::token())) return std::nullopt;
    return unauthorized();
  };
}

void LocalAPIRouter::handle(const LocalAPIRequest& request, const Reply& reply) {
  if (!authorize(request, LocalAPISettings::token())) {
    reply(unauthorized());
    return;
  }
  std::vector<std::string> segments = pathSegments(request.path);
  if (segments.empty() || segments.front() != "v1") {
    reply(LocalAPIResponse::error(404, "Unknown route"));
    return;
  }
  segments.erase(segments.begin());
  route(request, segments, reply);
}

void LocalAPIRouter::route(const LocalAPIRequest& request, const std::vector<std::string>& s,
                           const Reply& reply) {
  const std::string& m = request.method;
  const size_t n = s.size();
  if (m == "GET" && n == 1 && s[0] == "status") return reply(status());
  if (m == "GET" && n == 1 && s[0] == "images") return reply(imagesList());
  if (m == "POST" && n == 1 && s[0] == "import") return importFiles(request, reply);
  if (m == "POST" && n == 1 && s[0] == "settings") return reply(updateSettings(request));
  if (m == "POST" && n == 1 && s[0] == "export") return exportAll(request, reply);
  if (m == "POST" && n == 1 && s[0] == "clear") return reply(clearAll());
  if (m == "GET" && n == 1 && s[0] == "profiles") return reply(profilesList());
  if (m == "POST" && n == 1 && s[0] == "profiles") return upsertProfile(request, reply);
  if (m == "DELETE" && n == 2 && s[0] == "profiles") return reply(deleteProfile(s[1]));
  if (m == "POST" && n == 3 && s[0] == "images" && s[2] == "quality")
    return reply(updateQuality(s[1], request));
  if (m == "POST" && n == 3 && s[0] == "images" && s[2] == "export") {
    return exportSingleImage(s[1], request, reply);
  }
  if (m == "DELETE" && n == 2 && s[0] == "images") return reply(removeImage(s[1]));
  // A method that exists on another route of the same path is no different: never 405.
  reply(LocalAPIResponse::error(404, "Unknown route"));
}

LocalAPIResponse LocalAPIRouter::status() const {
  return LocalAPIResponse::json(200, LocalAPIDTOs::statusDTO(viewModel_));
}

LocalAPIResponse LocalAPIRouter::imagesList() const {
  JsonValue list = JsonValue::array();
  for (const auto& image : viewModel_.images()) list.push(LocalAPIDTOs::imageDTO(*image));
  return LocalAPIResponse::json(200, list);
}

LocalAPIResponse LocalAPIRouter::clearAll() {
  auto count = int64_t(viewModel_.images().size());
  viewModel_.clearAll();
  return LocalAPIResponse::json(200, JsonValue::object().set("cleared", count));
}

const ExportProfile* LocalAPIRouter::findProfile(const QString& name) const {
  return ExportProfiles::find(viewModel_.exportProfiles(), name);
}

}  // namespace quillane
