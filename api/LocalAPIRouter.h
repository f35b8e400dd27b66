#pragma once
// Turns one LocalAPIRequest into one LocalAPIResponse: checks the bearer token, matches
// method and path against the fixed routes under "/v1", decodes the JSON body, drives the
// application's BatchViewModel exactly as the window's controls do, and encodes the answer.
// The API has no state of its own: what a client does, the user sees in the window.
//
// Built once by LocalAPIController and kept across server restarts. GUI thread only; the
// server reaches it through serverRouter(), which hops to the GUI thread first. Handlers
// that wait (import, the two exports) give the GUI thread up while they wait, and those that
// look at files named in the request (import, the export to a folder, a profile's folder) do
// so on a pool of their own: a volume that no longer answers holds up its request, never the
// window.

#include <QObject>
#include <QString>
#include <QStringList>
#include <QThreadPool>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "api/LocalAPIRequest.h"
#include "api/LocalAPIServer.h"
#include "engine/ImageFormat.h"

namespace quillane {

class BatchViewModel;
struct ExportProfile;

class LocalAPIRouter : public QObject {
  Q_OBJECT

 public:
  // Called exactly once with the answer, on the GUI thread. Dropping it unanswered (the
  // router went away during a wait) cancels the response.
  using Reply = std::function<void(LocalAPIResponse)>;

  explicit LocalAPIRouter(BatchViewModel& viewModel, QObject* parent = nullptr);

  // GUI thread. Every outcome is a response; none is an exception.
  void handle(const LocalAPIRequest& request, const Reply& reply);
  // The function to give LocalAPIServer: callable on any thread, it moves the request to
  // the GUI thread and answers through a future. Holds the router weakly.
  LocalAPIServer::Router serverRouter();

  // The function to give LocalAPIServer::setGate: any thread. Refuses a request whose token
  // is wrong or missing with the 401 of handle(), as soon as its head is read, so that no
  // one without the token can make the server hold a body.
  static LocalAPIServer::Gate serverGate();

  // "Bearer " + token, compared in constant time over equal lengths. `token` is read anew
  // for every request, so a regenerated token takes effect at once.
  static bool authorize(const LocalAPIRequest& request, const QString& token);

 private:
  void route(const LocalAPIRequest& request, const std::vector<std::string>& segments, const Reply& reply);

  LocalAPIResponse status() const;
  LocalAPIResponse imagesList() const;
  void importFiles(const LocalAPIRequest& request, const Reply& reply);
  // `found`: whether each of `paths` is absolute and names something that exists.
  void importExisting(const QStringList& paths, const std::vector<bool>& found, const Reply& reply);
  LocalAPIResponse updateSettings(const LocalAPIRequest& request);
  void exportAll(const LocalAPIRequest& request, const Reply& reply);
  // `isFolder`: whether `folder` names a folder.
  void exportInto(const QString& folder, bool isFolder, double wait, const Reply& reply);
  LocalAPIResponse clearAll();
  LocalAPIResponse profilesList() const;
  void upsertProfile(const LocalAPIRequest& request, const Reply& reply);
  // Replaces the profile named `trimmed` in any case, or adds one.
  LocalAPIResponse storeProfile(const QString& trimmed, ImageFormat format, double quality,
                                const std::optional<QString>& destinationFolder);
  LocalAPIResponse deleteProfile(const std::string& segment);
  LocalAPIResponse updateQuality(const std::string& idSegment, const LocalAPIRequest& request);
  void exportSingleImage(const std::string& idSegment, const LocalAPIRequest& request, const Reply& reply);
  LocalAPIResponse removeImage(const std::string& idSegment);

  // First profile whose name equals `name` ignoring case.
  const ExportProfile* findProfile(const QString& name) const;

  BatchViewModel& viewModel_;
  // The checks of the files a request names. Its destruction waits for them; a check's answer
  // after the router is gone goes nowhere.
  QThreadPool checks_;
};

}  // namespace quillane
