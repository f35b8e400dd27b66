#include "tests/ui/ui_test_support.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QMouseEvent>
#include <QPushButton>

#include "engine/Localization.h"
#include "services/AppLanguage.h"
#include "services/StringTables.h"
#include "tests/support/TestImages.h"

namespace quillane::uitest {

BatchViewModel::Options UiFixture::options() {
  BatchViewModel::Options o = BatchFixture::options();
  const auto name = [](std::span<const uint8_t> data) {
    const std::string content(data.begin(), data.end());
    return content.substr(0, content.find('\n'));
  };
  o.encoder = [this, name](std::span<const uint8_t> data, ImageFormat, double quality) {
    return encode(name(data), quality);
  };
  // Under a fit or a budget: the file's box scaled into the options' one, quality 62 under a budget.
  o.sizedEncoder = [this, name](std::span<const uint8_t> data, ImageFormat, double quality,
                                const CompressionOptions& sizing) {
    FakeFile file;
    {
      std::lock_guard lock(mutex_);
      file = files_[name(data)];
    }
    double scale = 1;
    if (sizing.maxWidth > 0) scale = std::min(scale, double(sizing.maxWidth) / file.width);
    if (sizing.maxHeight > 0) scale = std::min(scale, double(sizing.maxHeight) / file.height);
    ImageCompressor::Encoded encoded;
    encoded.quality = sizing.maxBytes > 0 ? std::min(quality, 62.0) : quality;
    encoded.width = std::max(1, int(file.width * scale));
    encoded.height = std::max(1, int(file.height * scale));
    encoded.fitted = scale < 1;
    encoded.bytes = encode(name(data), encoded.quality);
    encoded.encodes = 1;
    return encoded;
  };
  o.inspector = [this](const std::string& path) { return inspect(path); };
  o.measureResults = true;
  o.debounce = std::chrono::milliseconds(60);
  return o;
}

QUrl UiFixture::source(const QString& name, int64_t bytes, FakeFile file) {
  QByteArray content = name.toUtf8() + '\n';
  content.append(QByteArray(std::max<int64_t>(0, bytes - content.size()), 'p'));
  std::lock_guard lock(mutex_);
  files_[name.toStdString()] = file;
  return BatchFixture::source(name, content);
}

ImageDecoder::LightDecodedImage UiFixture::inspect(const std::string& path) {
  const QString name = QFileInfo(QString::fromStdString(path)).fileName();
  FakeFile file;
  {
    std::lock_guard lock(mutex_);
    auto it = files_.find(name.toStdString());
    if (it == files_.end()) throw ImageProcessingError::decodingFailed("not an image");
    file = it->second;
  }
  ImageDecoder::LightDecodedImage decoded{file.format,     file.width,
                                          file.height,     QFileInfo(QString::fromStdString(path)).size(),
                                          file.frameCount, {}};
  const int side = std::max({1, file.width, file.height});
  decoded.thumbnail =
      testing::makeImage(std::max(1, 64 * file.width / side), std::max(1, 64 * file.height / side),
                         testing::Pattern::photo, uint32_t(qHash(name)));
  if (file.transparent) {
    decoded.thumbnail.alpha = AlphaInfo::straight;
    decoded.thumbnail.pixels8[3] = 0;
  }
  return decoded;
}

std::vector<uint8_t> UiFixture::encode(const std::string& name, double quality) {
  FakeFile file;
  {
    std::unique_lock lock(mutex_);
    file = files_[name];
    if (name.rfind("slow", 0) == 0)
      gate_.wait_for(lock, std::chrono::seconds(10), [this] { return gateOpen_; });
  }
  if (file.failEncode) throw ImageProcessingError::encodingFailed("WebP");
  const int64_t size = file.encodedSize >= 0 ? file.encodedSize : int64_t(quality * 10);
  return std::vector<uint8_t>(size_t(size), 'x');
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

QStringList clippedTexts(QWidget* root) {
  QStringList clipped;
  const auto check = [&](QWidget* w, const QString& text) {
    if (!w->isVisibleTo(root) || text.isEmpty()) return;
    // The widget must be as wide as its own smallest size for that text.
    const int needed = w->minimumSizeHint().width();
    if (w->width() + 1 < needed)
      clipped << QStringLiteral("%1 \"%2\" (%3 < %4)")
                     .arg(w->metaObject()->className(), text)
                     .arg(w->width())
                     .arg(needed);
  };
  for (QLabel* label : root->findChildren<QLabel*>()) {
    if (label->wordWrap() || label->text().isEmpty()) continue;
    if (label->sizePolicy().horizontalPolicy() == QSizePolicy::Ignored) continue;  // elided on purpose
    check(label, label->text());
  }
  for (QAbstractButton* button : root->findChildren<QAbstractButton*>()) check(button, button->text());
  for (QComboBox* combo : root->findChildren<QComboBox*>()) check(combo, combo->currentText());
  return clipped;
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
