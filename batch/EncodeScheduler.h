#pragma once
// EncodeScheduler: the encodes that keep every image's compressed bytes up to date with the
// settings. Owned by BatchViewModel, which says which image to encode and when; the scheduler
// debounces, bounds the encodes by its processor slots and by the memory budget it is given,
// races each encode against a watchdog, keeps only the result of an image's latest encode (its
// generation), and passes an animated source kept in its own format through unencoded.
//
// GUI thread only: every member below, and every signal. Encodes run on the scheduler's own
// pool; their bodies get copies and touch no QObject, and their results come back by queued
// calls.

#include <QObject>
#include <QUuid>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "batch/ImportedImage.h"
#include "batch/TimerStarter.h"
#include "engine/Cancellation.h"
#include "engine/EncodeCost.h"
#include "engine/ImageCompressor.h"
#include "engine/ImageFormat.h"

class QThreadPool;

namespace quillane {

class CompressionBudget;

class EncodeScheduler : public QObject {
  Q_OBJECT

 public:
  // The engine seams, called on pool threads; failure is reported by throwing (QuillaneError
  // for a described one).
  using SourceReader = std::function<std::vector<uint8_t>(const std::string& path)>;
  using Encoder = std::function<std::vector<uint8_t>(std::span<const uint8_t> fileData, ImageFormat format,
                                                     double quality)>;
  // The encoder under size options (fit, byte budget), used instead of `encoder` while any is on.
  using SizedEncoder =
      std::function<ImageCompressor::Encoded(std::span<const uint8_t> fileData, ImageFormat format,
                                             double quality, const CompressionOptions& options)>;
  // The format and quality an image is to be encoded with at this moment.
  struct Settings {
    ImageFormat format = ImageFormat::jpeg;
    double quality = 75.0;
    CompressionOptions sizing;  // fit, byte budget and skip-larger; all off by default
  };
  using SettingsSource = std::function<Settings(const ImportedImage&)>;
  struct Options {
    SourceReader reader;                        // required
    Encoder encoder;                            // required
    SizedEncoder sizedEncoder;                  // required
    int processorCount = 1;                     // encodes at once; raised to at least 1
    CompressionBudget* memoryBudget = nullptr;  // required; outlives the scheduler
    std::chrono::milliseconds watchdog{45000};  // an encode slower than this fails
    std::chrono::milliseconds debounce{250};    // quiet time of a debounced encode
    bool measureResults = true;                 // each result's distance and thumbnail after its encode
    TimerStarter startTimer;                    // the watchdog's and debounce's; empty: startQTimer
  };

  EncodeScheduler(Options options, SettingsSource settings, QObject* parent = nullptr);
  // Queued and debounced encodes are dropped; waits for pool threads still busy with running
  // or abandoned work, whose memory goes back as each ends.
  ~EncodeScheduler() override;

  // Shows `encoding` at once and encodes the image with the settings of this moment. With
  // `debounce`, the encode starts after the quiet time, and a newer call replaces this one. An
  // image already encoding is marked and encoded again, with the settings of that moment, when
  // the running encode ends.
  void schedule(const std::shared_ptr<ImportedImage>& image, bool debounce);
  // The image left the batch: its queued or debounced encode never runs, a running one ends by
  // itself and changes nothing visible, and no look is measured for it (a row brought back is
  // encoded anew, which measures again).
  void forget(const QUuid& id);
  void forgetAll();

 signals:
  // An image was set to `encoding`.
  void encodeStarted();
  // An image's encode was settled (ready or failed).
  void encodeSettled();

 private:
  struct Task;
  struct Result;

  void schedulePassthrough(const std::shared_ptr<ImportedImage>& image);
  void start(const std::shared_ptr<Task>& task);
  void run(const std::shared_ptr<Task>& task);
  void encode(const std::shared_ptr<Task>& task, std::function<void()> done);
  void finish(const std::shared_ptr<ImportedImage>& image, uint64_t generation, const Result& result);
  void cancel(const QUuid& id);
  // After an encode: the result's distance and thumbnail (ImportedImage::resultLookChanged),
  // on the pool within the same slots and budget, claimed for a source of `figures`; dropped
  // once a newer result replaces it.
  void measureResult(const std::shared_ptr<ImportedImage>& image, const EncodeCost::Source& figures);
  // The source as the image's import found it: what its encodes claim for until one reads it.
  static EncodeCost::Source importedFigures(const ImportedImage& image);

  Options options_;
  SettingsSource settings_;
  std::map<QUuid, std::shared_ptr<Task>> tasks_;  // the latest task of each image
  std::set<QUuid> active_;                        // images whose encode is running
  std::set<QUuid> pendingReEncode_;               // ... and that changed meanwhile
  // The flag of each image's latest measure (ImportedImage::resultLookChanged), raised when the
  // image is forgotten.
  std::map<QUuid, std::shared_ptr<Cancellation::Flag>> measures_;
  std::unique_ptr<CompressionBudget> processorSlots_;
  std::unique_ptr<QThreadPool> pool_;  // a child named "encodePool"
};

}  // namespace quillane
