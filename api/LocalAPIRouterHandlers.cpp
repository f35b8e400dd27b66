// The handlers of LocalAPIRouter that read a body or wait for the batch.
#include <QDir>
#include <QFileInfo>
#include <QFutureWatcher>
#include <cmath>
#include <memory>
#include <set>
#include <type_traits>

#include "api/LocalAPIDTOs.h"
#include "api/LocalAPIRequestReader.h"
#include "api/LocalAPIRouter.h"
#include "batch/BatchViewModel.h"
#include "batch/PoolTask.h"
#include "engine/DecodedImage.h"
#include "engine/ImageCompressor.h"
#include "engine/Json.h"
#include "records/ExportProfile.h"

namespace quillane {

namespace {

using namespace LocalAPIDTOs;

constexpr double defaultWaitTimeoutSeconds = 30.0;

LocalAPIResponse badBody(std::string_view expected) {
  return LocalAPIResponse::error(400, "Expected JSON body: " + std::string(expected));
}

LocalAPIResponse qualityOutOfRange() {
  return LocalAPIResponse::error(400, "quality must be between 1 and 100");
}

LocalAPIResponse noProfile(const QString& name) {
  return LocalAPIResponse::error(404, "No profile named '" + name.toStdString() + "'");
}

LocalAPIResponse noImage(const std::string& segment) {
  return LocalAPIResponse::error(404, "No image with id '" + segment + "'");
}

bool inQualityRange(double quality) { return quality >= 1.0 && quality <= 100.0; }

bool isDirectory(const QString& path) { return !path.isEmpty() && QFileInfo(path).isDir(); }

// Paths are taken whole: one relative to the program's working folder (often "/") would name
// a file the client never meant.
std::optional<LocalAPIResponse> relativePath(const char* key, const QString& path) {
  if (QDir::isAbsolutePath(path)) return std::nullopt;
  return LocalAPIResponse::error(400, std::string(key) + " must be an absolute path: " + path.toStdString());
}

// An absolute path without its "." steps and repeated slashes. ".." stays, since through a link it
// need not lead back where it came from: "/photos/link/../out" is where the system says it is.
QString withoutDotSteps(const QString& path) {
  QStringList kept;
  for (const QString& step : path.split(QLatin1Char('/'), Qt::SkipEmptyParts))
    if (step != QLatin1String(".")) kept << step;
  return QLatin1Char('/') + kept.join(QLatin1Char('/'));
}

QUrl fileURL(const QString& path) { return QUrl::fromLocalFile(withoutDotSteps(path)); }

// Runs `continuation` on the GUI thread once `future` has finished, however it finished.
void whenFinished(QObject* context, const QFuture<void>& future, std::function<void()> continuation) {
  auto* watcher = new QFutureWatcher<void>(context);
  QObject::connect(watcher, &QFutureWatcherBase::finished, context,
                   [watcher, continuation = std::move(continuation)] {
                     watcher->deleteLater();
                     continuation();
                   });
  watcher->setFuture(future);
}

struct ExportBody {
  std::optional<QString> folder, path, profile;
  std::optional<double> waitTimeoutSeconds;
};

std::optional<ExportBody> decodeExportBody(const std::string& body) {
  auto object = parseObject(body);
  if (!object) return std::nullopt;
  ExportBody dto;
  if (!optionalString(*object, "folder", dto.folder) || !optionalString(*object, "path", dto.path) ||
      !optionalString(*object, "profile", dto.profile) ||
      !optionalDouble(*object, "waitTimeoutSeconds", dto.waitTimeoutSeconds)) {
    return std::nullopt;
  }
  return dto;
}

}  // namespace

void LocalAPIRouter::importFiles(const LocalAPIRequest& request, const Reply& reply) {
  auto object = parseObject(request.body);
  QStringList paths;
  if (!object || !requiredStringArray(*object, "paths", paths)) {
    reply(badBody("{\"paths\": [String]}"));
    return;
  }
  // A folder passes this test and fails inspection like any unreadable file.
  const auto exists = [paths] {
    std::vector<bool> found;
    for (const QString& path : paths) found.push_back(QDir::isAbsolutePath(path) && QFileInfo::exists(path));
    return found;
  };
  PoolTask::run(&checks_, this, exists, [this, paths, reply](const std::vector<bool>& found) {
    importExisting(paths, found, reply);
  });
}

void LocalAPIRouter::importExisting(const QStringList& paths, const std::vector<bool>& found,
                                    const Reply& reply) {
  std::set<QUuid> imagesBefore;
  for (const auto& image : viewModel_.images()) imagesBefore.insert(image->id());

  auto failed = std::make_shared<JsonValue>(JsonValue::array());
  QList<QUrl> urls;
  for (qsizetype i = 0; i < paths.size(); ++i) {
    const QString& path = paths[i];
    if (!QDir::isAbsolutePath(path)) {
      failed->push(JsonValue::object().set("error", "Path must be absolute").set("path", path.toStdString()));
    } else if (found[size_t(i)]) {
      urls.push_back(fileURL(path));
    } else {
      failed->push(JsonValue::object().set("error", "File not found").set("path", path.toStdString()));
    }
  }
  std::set<QUuid> failuresBefore;
  for (const ImportFailure& failure : viewModel_.importFailures()) failuresBefore.insert(failure.id);
  QSet<QUrl> importing(urls.begin(), urls.end());

  whenFinished(this, viewModel_.importFiles(urls),
               [this, imagesBefore, failuresBefore, importing, failed, reply] {
                 // Images that arrived through another door during the wait are listed too.
                 JsonValue imported = JsonValue::array();
                 for (const auto& image : viewModel_.images()) {
                   if (!imagesBefore.count(image->id())) imported.push(idText(image->id()));
                 }
                 for (const ImportFailure& failure : viewModel_.importFailures()) {
                   if (failuresBefore.count(failure.id) || !importing.contains(failure.url)) continue;
                   failed->push(JsonValue::object()
                                    .set("error", failure.message.toStdString())
                                    .set("path", failure.url.toLocalFile().toStdString()));
                 }
                 reply(LocalAPIResponse::json(
                     200, JsonValue::object().set("failed", *failed).set("imported", imported)));
               });
}

namespace {

// The size options of a settings body over `options`: maxWidth and maxHeight whole numbers of
// pixels, maxBytes a number of bytes or a text such as "500k", 0 turning each off; skipLarger
// a bool. False when one has the wrong type or an impossible value.
bool sizeOptions(const QJsonObject& object, CompressionOptions& options) {
  const auto whole = [&](const char* key, auto& out, double limit) {
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull()) return true;
    const double number = value.toDouble(-1);
    if (!value.isDouble() || number < 0 || number > limit || number != std::floor(number)) return false;
    out = std::remove_reference_t<decltype(out)>(number);
    return true;
  };
  if (!whole("maxWidth", options.maxWidth, kMaxDimension) ||
      !whole("maxHeight", options.maxHeight, kMaxDimension))
    return false;
  if (const QJsonValue budget = object.value("maxBytes"); budget.isString()) {
    const auto bytes = ImageCompressor::parseByteCount(budget.toString().toStdString());
    if (!bytes) return false;
    options.maxBytes = *bytes;
  } else if (!whole("maxBytes", options.maxBytes, 9e15)) {
    return false;
  }
  if (const QJsonValue skip = object.value("skipLarger"); skip.isBool())
    options.skipLarger = skip.toBool();
  else if (!skip.isUndefined() && !skip.isNull())
    return false;
  return true;
}

}  // namespace

LocalAPIResponse LocalAPIRouter::updateSettings(const LocalAPIRequest& request) {
  auto object = parseObject(request.body);
  std::optional<double> quality;
  std::optional<QString> format, profile;
  CompressionOptions sizing = viewModel_.compressionOptions();
  if (!object || !optionalDouble(*object, "quality", quality) || !optionalString(*object, "format", format) ||
      !optionalString(*object, "profile", profile)) {
    return badBody("{\"quality\": Double?, \"format\": String?, \"profile\": String?}");
  }
  if (!sizeOptions(*object, sizing))
    return badBody(
        "{\"maxWidth\": Int?, \"maxHeight\": Int?, \"maxBytes\": Int or String?, \"skipLarger\": Bool?} "
        "(0 or false: off)");
  // Profile, quality, format, in this order whatever the body's order; nothing is undone
  // when a later step refuses.
  if (profile) {
    const ExportProfile* found = findProfile(*profile);
    if (!found) return noProfile(*profile);
    viewModel_.applyExportProfile(*found);
  }
  if (quality) {
    if (!inQualityRange(*quality)) return qualityOutOfRange();
    viewModel_.setQuality(*quality);
  }
  if (format) {
    auto parsed = ImageFormats::fromRawValue(format->toStdString());
    if (!parsed) return LocalAPIResponse::error(400, unknownFormatMessage(*format));
    viewModel_.setOutputFormat(*parsed);
  }
  viewModel_.setCompressionOptions(sizing);
  return status();
}

void LocalAPIRouter::exportAll(const LocalAPIRequest& request, const Reply& reply) {
  const char* expected = "{\"folder\": String, \"waitTimeoutSeconds\": Double?, \"profile\": String?}";
  auto body = decodeExportBody(request.body);
  if (!body) return reply(badBody(expected));
  std::optional<QString> folder = body->folder;
  if (body->profile) {
    const ExportProfile* found = findProfile(*body->profile);
    if (!found) return reply(noProfile(*body->profile));
    // Applied before any folder check: a request refused below leaves format and quality changed.
    ExportProfile profile = *found;
    viewModel_.applyExportProfile(profile);
    if (!folder) {
      if (!profile.destinationFolder) {
        return reply(LocalAPIResponse::error(
            400, "Profile '" + body->profile->toStdString() +
                     "' has no destination folder \u2014 pass \"folder\" explicitly"));
      }
      folder = *profile.destinationFolder;
    }
  }
  if (!folder) return reply(badBody(expected));
  if (auto refusal = relativePath("folder", *folder)) return reply(*refusal);
  const double wait = body->waitTimeoutSeconds.value_or(defaultWaitTimeoutSeconds);
  PoolTask::run(
      &checks_, this, [path = *folder] { return isDirectory(path); },
      [this, path = *folder, wait, reply](bool isFolder) { exportInto(path, isFolder, wait, reply); });
}

void LocalAPIRouter::exportInto(const QString& folder, bool isFolder, double wait, const Reply& reply) {
  if (!isFolder) {
    return reply(LocalAPIResponse::error(400, "folder does not exist: " + folder.toStdString()));
  }
  QUrl destination = fileURL(folder);
  whenFinished(this, viewModel_.waitForEncodingToFinish(wait), [this, destination, reply] {
    viewModel_.exportAll(destination).then(this, [reply](const std::vector<ExportOutcome>& outcomes) {
      JsonValue results = JsonValue::array();
      for (const ExportOutcome& outcome : outcomes) results.push(exportResultDTO(outcome));
      reply(LocalAPIResponse::json(200, results));
    });
  });
}

LocalAPIResponse LocalAPIRouter::profilesList() const {
  JsonValue list = JsonValue::array();
  for (const ExportProfile& profile : viewModel_.exportProfiles()) list.push(profileDTO(profile));
  return LocalAPIResponse::json(200, list);
}

void LocalAPIRouter::upsertProfile(const LocalAPIRequest& request, const Reply& reply) {
  auto object = parseObject(request.body);
  QString name, format;
  double quality = 0;
  std::optional<QString> destinationFolder;
  if (!object || !requiredString(*object, "name", name) || !requiredString(*object, "format", format) ||
      !requiredDouble(*object, "quality", quality) ||
      !optionalString(*object, "destinationFolder", destinationFolder)) {
    return reply(badBody(
        "{\"name\": String, \"format\": String, \"quality\": Double, \"destinationFolder\": String?}"));
  }
  QString trimmed = name.trimmed();
  if (trimmed.isEmpty()) return reply(LocalAPIResponse::error(400, "name must not be empty"));
  auto parsedFormat = ImageFormats::fromRawValue(format.toStdString());
  if (!parsedFormat) return reply(LocalAPIResponse::error(400, unknownFormatMessage(format)));
  if (!inQualityRange(quality)) return reply(qualityOutOfRange());
  if (!destinationFolder) return reply(storeProfile(trimmed, *parsedFormat, quality, destinationFolder));
  if (auto refusal = relativePath("destinationFolder", *destinationFolder)) return reply(*refusal);
  PoolTask::run(
      &checks_, this, [path = *destinationFolder] { return isDirectory(path); },
      [this, trimmed, parsed = *parsedFormat, quality, path = *destinationFolder, reply](bool isFolder) {
        if (!isFolder)
          return reply(
              LocalAPIResponse::error(400, "destinationFolder does not exist: " + path.toStdString()));
        reply(storeProfile(trimmed, parsed, quality, path));
      });
}

LocalAPIResponse LocalAPIRouter::storeProfile(const QString& trimmed, ImageFormat format, double quality,
                                              const std::optional<QString>& destinationFolder) {
  ExportProfile profile;
  if (const ExportProfile* existing = findProfile(trimmed)) {
    profile.id = existing->id;
    profile.isDefault = existing->isDefault;
  } else {
    profile.id = QUuid::createUuid();
    profile.isDefault = false;
  }
  // A matched profile is replaced whole: no folder in the request clears the stored one.
  profile.name = trimmed;
  profile.format = format;
  profile.quality = quality;
  if (destinationFolder) profile.destinationFolder = withoutDotSteps(*destinationFolder);
  viewModel_.upsertExportProfile(profile);
  return LocalAPIResponse::json(200, profileDTO(profile));
}

LocalAPIResponse LocalAPIRouter::deleteProfile(const std::string& segment) {
  // The one path segment that is decoded: names may hold spaces.
  std::string decoded = LocalAPIHTTP::percentDecode(segment).value_or(segment);
  QString name = QString::fromStdString(decoded);
  const ExportProfile* found = findProfile(name);
  if (!found) return noProfile(name);
  ExportProfile profile = *found;
  viewModel_.deleteExportProfile(profile);
  return LocalAPIResponse::json(200, JsonValue::object().set("removed", true));
}

LocalAPIResponse LocalAPIRouter::updateQuality(const std::string& idSegment, const LocalAPIRequest& request) {
  auto id = parseCanonicalUUID(idSegment);
  auto image = id ? viewModel_.image(*id) : nullptr;
  if (!image) return noImage(idSegment);
  auto object = parseObject(request.body);
  std::optional<double> quality;
  if (!object || !optionalDouble(*object, "quality", quality)) {
    return badBody("{\"quality\": Double?} (omit/null to follow the global slider)");
  }
  if (quality && !inQualityRange(*quality)) return qualityOutOfRange();
  // Schedules a debounced encode (the image reads "encoding" from here) and saves the session.
  viewModel_.setQualityOverride(image, quality);
  return LocalAPIResponse::json(200, imageDTO(*image));
}

void LocalAPIRouter::exportSingleImage(const std::string& idSegment, const LocalAPIRequest& request,
                                       const Reply& reply) {
  auto id = parseCanonicalUUID(idSegment);
  auto image = id ? viewModel_.image(*id) : nullptr;
  if (!image) return reply(noImage(idSegment));
  auto body = decodeExportBody(request.body);
  if (!body || !body->path) return reply(badBody("{\"path\": String, \"waitTimeoutSeconds\": Double?}"));
  if (auto refusal = relativePath("path", *body->path)) return reply(*refusal);
  QUrl destination = fileURL(*body->path);
  double wait = body->waitTimeoutSeconds.value_or(defaultWaitTimeoutSeconds);
  // Waits for the whole batch, not for this image alone.
  whenFinished(this, viewModel_.waitForEncodingToFinish(wait), [this, image, destination, reply] {
    viewModel_.exportSingle(image, destination).then(this, [image, reply](bool written) {
      ExportOutcome outcome{image, std::nullopt, std::nullopt};
      if (written) {
        outcome.destinationURL = image->lastExportDestination();  // renamed if it was a source
      } else {
        outcome.errorDescription = image->exportError();
      }
      reply(LocalAPIResponse::json(200, exportResultDTO(outcome)));
    });
  });
}

LocalAPIResponse LocalAPIRouter::removeImage(const std::string& idSegment) {
  auto id = parseCanonicalUUID(idSegment);
  auto image = id ? viewModel_.image(*id) : nullptr;
  if (!image) return noImage(idSegment);
  viewModel_.removeImage(image);
  return LocalAPIResponse::json(200, JsonValue::object().set("removed", true));
}

}  // namespace quillane
