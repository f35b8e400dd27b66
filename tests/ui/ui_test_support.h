#pragma once
// Fixtures for the window tests: the batch fixture's model, fakes and sandbox; the inspector
// makes thumbnails, and a sized encode scales the file's box into the options' one.

#include <QtWidgets>  // the whole module: the tests' precompiled header holds it anyway

#include "engine/Localization.h"
#include "hotfolders/HotFolder.h"
#include "records/ExportProfile.h"
#include "services/AppLanguage.h"
#include "services/StringTables.h"
#include "services/Strings.h"
#include "tests/batch/batch_test_support.h"
#include "ui/ImageListModel.h"
#include "ui/ImageListView.h"
#include "ui/MainWindow.h"

namespace quillane::uitest {

using testing::FakeFile;

// The one W under `root` that screen readers name `name` (its accessible name, else a button's, a
// label's or its buddy's text; a `key`'s text), or the only W; else throws, with every W's name.
template <class W>
W* control(const QObject* root, const std::optional<QString>& name = {}) {
  const QList<W*> all = root->findChildren<W*>();
  QStringList names;  // the accessible name first: on Linux a combo box's Name is its current text
  for (W* w : all)
    names << (w->accessibleName().isEmpty()
                  ? QAccessible::queryAccessibleInterface(w)->text(QAccessible::Name)
                  : w->accessibleName());
  QString why;
  QDebug(&why) << W::staticMetaObject.className() << name.value_or("*") << "among" << names;
  if ((name ? names.count(*name) : all.size()) != 1) throw std::runtime_error(why.toStdString());
  return all[name ? names.indexOf(*name) : 0];
}
template <class W>
W* control(const QObject* root, const char* key) {
  return control<W>(root, Strings::text(key));
}

class UiFixture : public testing::BatchFixture {
 protected:
  BatchViewModel::Options options() {
    BatchViewModel::Options o = BatchFixture::options();
    // Under a fit or a budget: the file's box scaled into the options' one, quality 62 under a budget.
    o.sizedEncoder = [this](std::span<const uint8_t> data, ImageFormat format, double quality,
                            const CompressionOptions& sizing) {
      const FakeFile file = fakeFor(data);
      double scale = 1;
      if (sizing.maxWidth > 0) scale = std::min(scale, double(sizing.maxWidth) / file.width);
      if (sizing.maxHeight > 0) scale = std::min(scale, double(sizing.maxHeight) / file.height);
      const double q = sizing.maxBytes > 0 ? std::min(quality, 62.0) : quality;
      const int width = std::max(1, int(file.width * scale)), height = std::max(1, int(file.height * scale));
      return ImageCompressor::Encoded{encode(data, format, q), q, width, height, scale < 1, 1};  // one encode
    };
    o.measureResults = true;
    o.debounce = std::chrono::milliseconds(60);
    thumbnails_ = true;
    return o;
  }
  BatchViewModel& makeModel() { return BatchFixture::makeModel(options()); }

  // Writes a source file of `bytes` bytes described by `file`, and gives its URL.
  QUrl source(const QString& name, int64_t bytes = 100000, FakeFile file = {}) {
    QByteArray content = name.toUtf8() + '\n';
    content.append(QByteArray(std::max<int64_t>(0, bytes - content.size()), 'p'));
    inspectAs(name, file);
    return BatchFixture::source(name, content);
  }
  // The URL of `name` in the test's folder.
  QUrl url(const QString& name) const { return QUrl::fromLocalFile(dir_.filePath(name)); }
  // Imports, and waits until every encode has finished.
  bool settle(const QList<QUrl>& urls, int timeoutMs = 5000) {
    import(urls);
    return waitIdle(timeoutMs);
  }
  void closeGate() {
    std::lock_guard lock(mutex_);
    gateOpen_ = false;
  }
};

// The main window over the fixture's model (made if there is none yet), shown at first use.
class WindowFixture : public UiFixture {
 protected:
  void TearDown() override {
    window_.reset();
    UiFixture::TearDown();
  }
  ui::MainWindow& window() {
    if (!model_) makeModel();
    if (!window_) {
      window_ = std::make_unique<ui::MainWindow>(*model_);
      window_->show();
    }
    return *window_;
  }
  ui::ImageListView* imageList() { return control<ui::ImageListView>(&window(), "list.name"); }
  std::unique_ptr<ui::MainWindow> window_;
};

// A left-button mouse event of `type` at `pos` in `target`.
inline void sendMouse(QWidget* target, QEvent::Type type, QPointF pos) {
  QMouseEvent event(type, pos, target->mapToGlobal(pos), Qt::LeftButton,
                    type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(target, &event);
}

// The painter of `list`'s rows, which knows where each part of a row lies.
inline ui::ImageRowDelegate& delegate(const ui::ImageListView& list) {
  return *qobject_cast<ui::ImageRowDelegate*>(list.itemDelegate());
}

// What a screen reader hears of row `row` of `list`.
inline QString spoken(const ui::ImageListView& list, int row) {
  return list.listModel().data(list.listModel().index(row), Qt::AccessibleTextRole).toString();
}

// A profile with no folder of its own, not the default, unless given.
inline ExportProfile profile(const QString& name, ImageFormat format, double quality,
                             std::optional<QString> folder = std::nullopt, bool isDefault = false) {
  return {QUuid::createUuid(), name, format, quality, std::move(folder), isDefault, {}};
}

// An enabled hot folder with explicit settings, or a profile's when `format` is not given.
inline HotFolder hotFolder(const QString& name, const QString& source, const QString& destination,
                           std::optional<ImageFormat> format, double quality = 75,
                           std::optional<QString> profile = {}) {
  const auto ownQuality = format ? std::optional(quality) : std::nullopt;
  return {QUuid::createUuid(), name, source, destination, std::move(profile), format, ownQuality, true, {}};
}

// Installs the string table of a language (raw value such as "de"); empty for French defaults.
inline void useLanguage(const QString& rawValue) {
  const auto language = AppLanguages::fromRawValue(rawValue);
  Localization::setLookup(language ? StringTables::lookupFor(*language) : Localization::Lookup{});
}

}  // namespace quillane::uitest
