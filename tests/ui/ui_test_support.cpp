#include "tests/ui/ui_test_support.h"

#include <QApplication>
#include <QMouseEvent>

#include "engine/Localization.h"
#include "services/AppLanguage.h"
#include "services/StringTables.h"

namespace quillane::uitest {

BatchViewModel::Options UiFixture::options() {
  BatchViewModel::Options o = BatchFixture::options();
  // Under a fit or a budget: the file's box scaled into the options' one, quality 62 under a budget.
  o.sizedEncoder = [this](std::span<const uint8_t> data, ImageFormat format, double quality,
                          const CompressionOptions& sizing) {
    const FakeFile file = fakeFor(data);
    double scale = 1;
    if (sizing.maxWidth > 0) scale = std::min(scale, double(sizing.maxWidth) / file.width);
    if (sizing.maxHeight > 0) scale = std::min(scale, double(sizing.maxHeight) / file.height);
    ImageCompressor::Encoded encoded;
    encoded.quality = sizing.maxBytes > 0 ? std::min(quality, 62.0) : quality;
    encoded.width = std::max(1, int(file.width * scale));
    encoded.height = std::max(1, int(file.height * scale));
    encoded.fitted = scale < 1;
    encoded.bytes = encode(data, format, encoded.quality);
    encoded.encodes = 1;
    return encoded;
  };
  o.measureResults = true;
  o.debounce = std::chrono::milliseconds(60);
  thumbnails_ = true;
  return o;
}

QUrl UiFixture::source(const QString& name, int64_t bytes, FakeFile file) {
  QByteArray content = name.toUtf8() + '\n';
  content.append(QByteArray(std::max<int64_t>(0, bytes - content.size()), 'p'));
  inspectAs(name, file);
  return BatchFixture::source(name, content);
}

void WindowFixture::TearDown() {
  window_.reset();
  UiFixture::TearDown();
}

ui::MainWindow& WindowFixture::window() {
  if (!model_) makeModel();
  if (!window_) {
    window_ = std::make_unique<ui::MainWindow>(*model_);
    window_->show();
  }
  return *window_;
}

void sendMouse(QWidget* target, QEvent::Type type, QPointF pos) {
  QMouseEvent event(type, pos, target->mapToGlobal(pos), Qt::LeftButton,
                    type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(target, &event);
}

ExportProfile profile(const QString& name, ImageFormat format, double quality, std::optional<QString> folder,
                      bool isDefault) {
  return {QUuid::createUuid(), name, format, quality, std::move(folder), isDefault, {}};
}

HotFolder hotFolder(const QString& name, const QString& source, const QString& destination,
                    std::optional<ImageFormat> format, double quality, std::optional<QString> profile) {
  return {QUuid::createUuid(),
          name,
          source,
          destination,
          std::move(profile),
          format,
          format ? std::optional(quality) : std::nullopt,
          true,
          {}};
}

void useLanguage(const QString& rawValue) {
  const auto language = AppLanguages::fromRawValue(rawValue);
  if (!language) {
    Localization::setLookup({});
    return;
  }
  Localization::setLookup(StringTables::lookupFor(*language));
}

}  // namespace quillane::uitest
