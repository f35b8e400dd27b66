#include "ui/FileDropHandler.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QMimeData>
#include <optional>

#include "engine/ThreadAnnotations.h"

namespace quillane::ui {
namespace {

// An entry of a drop's URL list. Qt has already parsed "text/uri-list", so the answer comes
// at once, on the calling thread.
class MimeURLProvider : public DropItemProvider {
 public:
  explicit MimeURLProvider(QUrl url) : url_(std::move(url)) {}
  bool hasFileURL() const override { return url_.isLocalFile(); }
  void loadItem(std::function<void(const QVariant&)> answer) override { answer(QVariant::fromValue(url_)); }

 private:
  QUrl url_;
};

// The entries of one drop, shared by every answer.
struct DropCollection {
  Mutex lock;
  std::vector<std::optional<QUrl>> entries GUARDED_BY(lock);
  size_t unanswered GUARDED_BY(lock) = 0;
  std::function<void(QList<QUrl>)> completion;
};

std::optional<QUrl> urlFromItem(const QVariant& item) {
  if (item.typeId() == QMetaType::QByteArray) {
    const QUrl url = QUrl::fromEncoded(item.toByteArray());
    if (url.isValid() && !url.isEmpty()) return url;
    return std::nullopt;
  }
  if (item.typeId() == QMetaType::QUrl) {
    const QUrl url = item.toUrl();
    if (url.isValid() && !url.isEmpty()) return url;
  }
  return std::nullopt;
}

}  // namespace

namespace FileDropHandler {

bool handle(const DropItemProviders& providers, std::function<void(QList<QUrl>)> completion) {
  DropItemProviders kept;
  for (const auto& provider : providers)
    if (provider && provider->hasFileURL()) kept.push_back(provider);
  if (kept.empty()) return false;

  auto collection = std::make_shared<DropCollection>();
  {
    MutexLock guard(collection->lock);
    collection->entries.resize(kept.size());
    collection->unanswered = kept.size();
  }
  collection->completion = std::move(completion);

  for (size_t index = 0; index < kept.size(); ++index) {
    kept[index]->loadItem([collection, index](const QVariant& item) {
      bool last = false;
      {
        MutexLock guard(collection->lock);
        if (auto url = urlFromItem(item)) collection->entries[index] = *url;
        last = --collection->unanswered == 0;
      }
      if (!last) return;
      // Delivered on the GUI thread in slot order, after handle() has returned.
      QMetaObject::invokeMethod(
          QCoreApplication::instance(),
          [collection] {
            QList<QUrl> urls;
            {
              MutexLock guard(collection->lock);
              for (const auto& slot : collection->entries)
                if (slot) urls.push_back(*slot);
            }
            collection->completion(urls);
          },
          Qt::QueuedConnection);
    });
  }
  return true;
}

DropItemProviders providers(const QMimeData& data) {
  DropItemProviders result;
  for (const QUrl& url : data.urls()) result.push_back(std::make_shared<MimeURLProvider>(url));
  return result;
}

bool carriesFiles(const QMimeData& data) {
  for (const QUrl& url : data.urls())
    if (url.isLocalFile()) return true;
  return false;
}

}  // namespace FileDropHandler
}  // namespace quillane::ui
