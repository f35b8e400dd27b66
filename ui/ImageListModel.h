#pragma once
// The rows of the image list as a Qt item model over BatchViewModel: a section header and one
// row per import failure while there are failures, then one row per image in batch order.
// It follows the batch (appends, removals, moves) and each image's observable fields, and
// keeps every row's thumbnail ready as a pixmap, made once from the pixels inspection already
// decoded: nothing is decoded here.
//
// GUI thread only. Holds the model by reference; the model outlives it.

#include <QAbstractListModel>
#include <QHash>
#include <QPixmap>
#include <QUuid>
#include <memory>
#include <vector>

#include "batch/BatchViewModel.h"

namespace quillane::ui {

class ImageListModel : public QAbstractListModel {
  Q_OBJECT
 public:
  enum class RowKind { failuresHeader, failure, image };
  static constexpr int kindRole = Qt::UserRole + 1;

  explicit ImageListModel(BatchViewModel& viewModel, QObject* parent = nullptr);

  int rowCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;

  RowKind kind(int row) const;
  // The image of an image row, or null.
  std::shared_ptr<ImportedImage> imageAt(int row) const;
  // The failure of a failure row, or null.
  const ImportFailure* failureAt(int row) const;
  // The list row of the image at batch index `imageIndex`.
  int rowOfImage(int imageIndex) const { return imageRowOffset() + imageIndex; }
  int imageRowOffset() const;
  BatchViewModel& viewModel() const { return viewModel_; }

  // The thumbnail scaled and cropped to a square of `side` device pixels, rounded corners.
  QPixmap thumbnail(const ImportedImage& image, int side, qreal devicePixelRatio) const;
  // The same of the encoded result once it is measured; until then the source's.
  QPixmap resultThumbnail(const ImportedImage& image, int side, qreal devicePixelRatio) const;

  // Whether any image is encoding (the view animates its spinners while so).
  bool anyEncoding() const;

 private:
  void onImagesChanged();
  void onFailuresChanged();
  void watch(const std::shared_ptr<ImportedImage>& image);
  void imageChanged(const QUuid& id);

  BatchViewModel& viewModel_;
  std::vector<QUuid> shownIDs_;       // the images as last announced to the view
  std::vector<QUuid> shownFailures_;  // the failures' ids, as last announced
  QHash<QUuid, int> rowOfID_;
  mutable QHash<QUuid, QPixmap> thumbnails_;
  mutable QHash<QUuid, QPixmap> resultThumbnails_;
};

}  // namespace quillane::ui
