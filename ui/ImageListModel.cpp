#include "ui/ImageListModel.h"

#include <QImage>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <set>

#include "services/Strings.h"
#include "ui/RowRules.h"

namespace quillane::ui {

ImageListModel::ImageListModel(BatchViewModel& viewModel, QObject* parent)
    : QAbstractListModel(parent), viewModel_(viewModel) {
  for (const auto& image : viewModel_.images()) {
    shownIDs_.push_back(image->id());
    watch(image);
  }
  for (const ImportFailure& failure : viewModel_.importFailures()) shownFailures_.push_back(failure.id);
  for (size_t i = 0; i < shownIDs_.size(); ++i) rowOfID_.insert(shownIDs_[i], int(i));
  connect(&viewModel_, &BatchViewModel::imagesChanged, this, &ImageListModel::onImagesChanged);
  connect(&viewModel_, &BatchViewModel::importFailuresChanged, this, &ImageListModel::onFailuresChanged);
  // Rows read the output format (pass-through, help texts).
  connect(&viewModel_, &BatchViewModel::outputFormatChanged, this, [this] {
    if (rowCount() > 0) emit dataChanged(index(0), index(rowCount() - 1));
  });
}

int ImageListModel::imageRowOffset() const {
  return shownFailures_.empty() ? 0 : int(shownFailures_.size()) + 1;
}

int ImageListModel::rowCount(const QModelIndex& parent) const {
  if (parent.isValid()) return 0;
  return imageRowOffset() + int(shownIDs_.size());
}

ImageListModel::RowKind ImageListModel::kind(int row) const {
  if (!shownFailures_.empty()) {
    if (row == 0) return RowKind::failuresHeader;
    if (row <= int(shownFailures_.size())) return RowKind::failure;
  }
  return RowKind::image;
}

std::shared_ptr<ImportedImage> ImageListModel::imageAt(int row) const {
  const int i = row - imageRowOffset();
  if (i < 0 || i >= int(shownIDs_.size())) return nullptr;
  const ImageList& images = viewModel_.images();
  // The batch and the shown rows agree except inside a change notification.
  if (i < int(images.size()) && images[size_t(i)]->id() == shownIDs_[size_t(i)]) return images[size_t(i)];
  return viewModel_.image(shownIDs_[size_t(i)]);
}

const ImportFailure* ImageListModel::failureAt(int row) const {
  if (kind(row) != RowKind::failure) return nullptr;
  const auto& failures = viewModel_.importFailures();
  const int i = row - 1;
  return i < int(failures.size()) ? &failures[size_t(i)] : nullptr;
}

QVariant ImageListModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid() || index.row() >= rowCount()) return {};
  if (role == kindRole) return int(kind(index.row()));
  if (role == Qt::DisplayRole) {
    if (auto image = imageAt(index.row())) return image->fileName();
    if (const ImportFailure* failure = failureAt(index.row())) return failure->url.fileName();
  }
  // What a screen reader says of the row: everything the row shows, in reading order.
  if (role == Qt::AccessibleTextRole) {
    if (auto image = imageAt(index.row())) {
      const RowRules::SizeSummary summary = RowRules::sizeSummary(*image, viewModel_.outputFormat());
      QStringList parts{image->fileName(), RowRules::metaText(*image), RowRules::shapeText(*image)};
      for (const RowRules::Note& note : RowRules::notes(*image, viewModel_.outputFormat()))
        parts << note.text;
      // The spinner as a word, and a failed encode's reason (the tooltip of its block) in place of
      // its retry link, which is the menu's entry.
      if (summary.kind == RowRules::SizeSummary::Kind::spinner) parts << Strings::text("comparison.encoding");
      if (summary.kind == RowRules::SizeSummary::Kind::lines)
        parts << summary.firstLine << (summary.secondIsRetry ? summary.help : summary.secondLine)
              << RowRules::look(*image).word;
      if (image->exportError()) parts << *image->exportError();
      parts.removeAll(QString());
      return parts.join(QStringLiteral(", "));
    }
    if (const ImportFailure* failure = failureAt(index.row()))
      return failure->url.fileName() + QStringLiteral(", ") + failure->message;
    if (kind(index.row()) == RowKind::failuresHeader) return Strings::text("import.failuresSection");
  }
  return {};
}

bool ImageListModel::anyEncoding() const {
  return std::any_of(viewModel_.images().begin(), viewModel_.images().end(),
                     [](const auto& image) { return image->encodeState().isEncoding(); });
}

void ImageListModel::watch(const std::shared_ptr<ImportedImage>& image) {
  const QUuid id = image->id();
  auto changed = [this, id] { imageChanged(id); };
  connect(image.get(), &ImportedImage::encodeStateChanged, this, changed);
  connect(image.get(), &ImportedImage::compressedDataChanged, this, changed);
  connect(image.get(), &ImportedImage::qualityOverrideChanged, this, changed);
  connect(image.get(), &ImportedImage::exportErrorChanged, this, changed);
  connect(image.get(), &ImportedImage::thumbnailChanged, this, [this, id] {
    thumbnails_.remove(id);
    resultThumbnails_.remove(id);
    imageChanged(id);
  });
  connect(image.get(), &ImportedImage::resultLookChanged, this, [this, id] {
    resultThumbnails_.remove(id);
    imageChanged(id);
  });
}

void ImageListModel::imageChanged(const QUuid& id) {
  const auto it = rowOfID_.constFind(id);
  if (it == rowOfID_.constEnd()) return;
  const QModelIndex i = index(rowOfImage(it.value()));
  emit dataChanged(i, i);
}

// Appends, a single insertion (a removal taken back), a single removal and a single move (a row
// dragged) are announced as such, so that the view keeps its scroll position while a large import
// streams in and its current row (the keyboard's place) where it was; anything else resets.
void ImageListModel::onImagesChanged() {
  const ImageList& images = viewModel_.images();
  std::vector<QUuid> ids;
  ids.reserve(images.size());
  for (const auto& image : images) ids.push_back(image->id());

  std::set<QUuid> before(shownIDs_.begin(), shownIDs_.end());
  for (const auto& image : images)
    if (!before.count(image->id())) watch(image);
  std::set<QUuid> after(ids.begin(), ids.end());
  for (const QUuid& id : shownIDs_) {
    if (after.count(id)) continue;
    thumbnails_.remove(id);
    resultThumbnails_.remove(id);
    // The image may already be gone from the batch; its signals then stop with it.
    if (auto gone = viewModel_.image(id)) disconnect(gone.get(), nullptr, this, nullptr);
  }

  const int offset = imageRowOffset();
  const bool appended =
      ids.size() > shownIDs_.size() && std::equal(shownIDs_.begin(), shownIDs_.end(), ids.begin());
  int removedAt = -1;
  if (ids.size() + 1 == shownIDs_.size()) {
    size_t i = 0;
    while (i < ids.size() && ids[i] == shownIDs_[i]) ++i;
    if (std::equal(ids.begin() + long(i), ids.end(), shownIDs_.begin() + long(i) + 1)) removedAt = int(i);
  }
  int insertedAt = -1;
  if (!appended && ids.size() == shownIDs_.size() + 1) {
    size_t i = 0;
    while (i < shownIDs_.size() && ids[i] == shownIDs_[i]) ++i;
    if (std::equal(shownIDs_.begin() + long(i), shownIDs_.end(), ids.begin() + long(i) + 1))
      insertedAt = int(i);
  }

  // A row taken from `movedFrom` and put at `movedTo`, the others in their order.
  int movedFrom = -1, movedTo = -1;
  if (ids.size() == shownIDs_.size() && ids != shownIDs_) {
    size_t first = 0, last = ids.size() - 1;
    while (ids[first] == shownIDs_[first]) ++first;
    while (ids[last] == shownIDs_[last]) --last;
    if (ids[last] == shownIDs_[first] &&
        std::equal(ids.begin() + long(first), ids.begin() + long(last), shownIDs_.begin() + long(first) + 1))
      movedFrom = int(first), movedTo = int(last);
    else if (ids[first] == shownIDs_[last] &&
             std::equal(shownIDs_.begin() + long(first), shownIDs_.begin() + long(last),
                        ids.begin() + long(first) + 1))
      movedFrom = int(last), movedTo = int(first);
  }

  auto adopt = [&] {
    shownIDs_ = ids;
    rowOfID_.clear();
    for (size_t i = 0; i < shownIDs_.size(); ++i) rowOfID_.insert(shownIDs_[i], int(i));
  };
  if (appended) {
    beginInsertRows({}, offset + int(shownIDs_.size()), offset + int(ids.size()) - 1);
    adopt();
    endInsertRows();
  } else if (insertedAt >= 0) {
    beginInsertRows({}, offset + insertedAt, offset + insertedAt);
    adopt();
    endInsertRows();
  } else if (movedFrom >= 0) {
    // Qt counts the destination before the move: past the row itself when it goes down.
    const int destination = offset + movedTo + (movedTo > movedFrom ? 1 : 0);
    beginMoveRows({}, offset + movedFrom, offset + movedFrom, {}, destination);
    adopt();
    endMoveRows();
  } else if (removedAt >= 0) {
    beginRemoveRows({}, offset + removedAt, offset + removedAt);
    adopt();
    endRemoveRows();
  } else if (ids != shownIDs_) {
    beginResetModel();
    adopt();
    endResetModel();
  }
}

// A failure added at the end or taken away is announced as such, and so is the section coming or
// going with its header, so that the current row (the keyboard's place, and a screen reader's)
// stays on its failure or image; anything else resets. Failure i is row i + 1.
void ImageListModel::onFailuresChanged() {
  std::vector<QUuid> ids;
  for (const ImportFailure& failure : viewModel_.importFailures()) ids.push_back(failure.id);
  if (ids == shownFailures_) return;
  const int before = int(shownFailures_.size()), after = int(ids.size());
  size_t same = 0;
  while (same < ids.size() && same < shownFailures_.size() && ids[same] == shownFailures_[same]) ++same;
  const auto insert = [&](int first, int last) {
    beginInsertRows({}, first, last);
    shownFailures_ = std::move(ids);
    endInsertRows();
  };
  const auto remove = [&](int first, int last) {
    beginRemoveRows({}, first, last);
    shownFailures_ = std::move(ids);
    endRemoveRows();
  };
  if (before == 0) {
    insert(0, after);
  } else if (after == 0) {
    remove(0, before);
  } else if (after == before + 1 && same == shownFailures_.size()) {
    insert(after, after);
  } else if (after + 1 == before &&
             std::equal(ids.begin() + long(same), ids.end(), shownFailures_.begin() + long(same) + 1)) {
    remove(int(same) + 1, int(same) + 1);
  } else if (after == before) {
    shownFailures_ = std::move(ids);  // a failure told again in its place, with its new message
    emit dataChanged(index(1), index(after));
  } else {
    beginResetModel();
    shownFailures_ = std::move(ids);
    endResetModel();
  }
}

namespace {
// `thumb` scaled and cropped to a square of `device` pixels, rounded corners; a grey square
// when there is none.
QPixmap squarePixmap(const DecodedImage& thumb, int device, qreal devicePixelRatio) {
  QPixmap result(device, device);
  result.fill(Qt::transparent);
  QPainter painter(&result);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setRenderHint(QPainter::SmoothPixmapTransform);
  QPainterPath clip;
  const qreal radius = 6.0 * devicePixelRatio;
  clip.addRoundedRect(QRectF(0, 0, device, device), radius, radius);
  painter.setClipPath(clip);
  if (!thumb.empty() && thumb.pixels8.size() >= thumb.pixelCount() * 4) {
    const QImage::Format fmt = thumb.alpha == AlphaInfo::premultiplied ? QImage::Format_RGBA8888_Premultiplied
                                                                       : QImage::Format_RGBA8888;
    const QImage source(thumb.pixels8.data(), thumb.width, thumb.height, qsizetype(thumb.width) * 4, fmt);
    // Fill the square: crop the longer side around the centre.
    const int s = std::min(thumb.width, thumb.height);
    const QRect crop((thumb.width - s) / 2, (thumb.height - s) / 2, s, s);
    painter.drawImage(QRect(0, 0, device, device), source, crop);
  } else {
    painter.fillRect(QRect(0, 0, device, device), QColor(128, 128, 128, 60));
  }
  painter.end();
  result.setDevicePixelRatio(devicePixelRatio);
  return result;
}
}  // namespace

QPixmap ImageListModel::thumbnail(const ImportedImage& image, int side, qreal devicePixelRatio) const {
  const int device = std::max(1, qRound(side * devicePixelRatio));
  auto it = thumbnails_.constFind(image.id());
  if (it != thumbnails_.constEnd() && it->width() == device) return *it;
  QPixmap result = squarePixmap(image.thumbnail(), device, devicePixelRatio);
  thumbnails_.insert(image.id(), result);
  return result;
}

QPixmap ImageListModel::resultThumbnail(const ImportedImage& image, int side, qreal devicePixelRatio) const {
  if (image.resultThumbnail().empty()) return thumbnail(image, side, devicePixelRatio);
  const int device = std::max(1, qRound(side * devicePixelRatio));
  auto it = resultThumbnails_.constFind(image.id());
  if (it != resultThumbnails_.constEnd() && it->width() == device) return *it;
  QPixmap result = squarePixmap(image.resultThumbnail(), device, devicePixelRatio);
  resultThumbnails_.insert(image.id(), result);
  return result;
}

}  // namespace quillane::ui
