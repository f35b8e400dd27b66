#pragma once
// Turns a drop into file URLs in the order of the drag. Each dragged item is a provider that
// may carry a file URL and answers asynchronously, on any thread; the answers are gathered
// under a lock into slots by position, and the completion gets the filled slots in order on
// the GUI thread once every provider has answered, whatever order the answers came in.
// Folders are passed on like files: the import lists each as a file it could not read.

#include <QList>
#include <QUrl>
#include <QVariant>
#include <functional>
#include <memory>
#include <vector>

class QMimeData;
class QObject;

namespace quillane::ui {

// One dragged item.
class DropItemProvider {
 public:
  virtual ~DropItemProvider() = default;
  // Whether the item conforms to the file-URL type.
  virtual bool hasFileURL() const = 0;
  // Answers once, on any thread: a QByteArray holding a URL's data representation, a QUrl,
  // or an invalid QVariant when the item can't be read.
  virtual void loadItem(std::function<void(const QVariant& item)> answer) = 0;
};

using DropItemProviders = std::vector<std::shared_ptr<DropItemProvider>>;

namespace FileDropHandler {

// Keeps the providers that carry a file URL, in order; false without any (the completion is
// then never called). Otherwise asks each for its item and returns true at once; the
// completion runs on the GUI thread with the URLs of the items that could be read, in
// provider order. Unreadable items are left out without a message. GUI thread only.
bool handle(const DropItemProviders& providers, std::function<void(QList<QUrl>)> completion);

// The providers of a drop's data: one per URL of its "text/uri-list", local files conforming.
DropItemProviders providers(const QMimeData& data);

// Whether a drag carries at least one file URL (to accept it while it hovers).
bool carriesFiles(const QMimeData& data);

}  // namespace FileDropHandler
}  // namespace quillane::ui
