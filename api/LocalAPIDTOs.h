#pragma once
// The JSON bodies of the local API: decoding of request objects (Qt's parser) and the
// response objects (JsonValue, written with sorted keys by LocalAPIResponse::json).
//
// Decoding follows one rule for every request: the body must be a JSON object; a key of the
// wrong JSON type or a missing required key makes the whole body invalid; null counts as
// absent; unknown keys are ignored. GUI thread (the builders read the model).

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QUuid>
#include <optional>
#include <string>
#include <string_view>

#include "engine/Json.h"

namespace quillane {

class BatchViewModel;
class ImportedImage;
struct ExportOutcome;
struct ExportProfile;

namespace LocalAPIDTOs {

// The body as a JSON object; nothing for an empty body, invalid JSON or any other value.
std::optional<QJsonObject> parseObject(const std::string& body);

// Each returns false when the key holds a value of the wrong type (the body is invalid);
// an absent or null key leaves `out` empty and returns true.
bool optionalDouble(const QJsonObject& object, const QString& key, std::optional<double>& out);
bool optionalString(const QJsonObject& object, const QString& key, std::optional<QString>& out);
// False also when the key is absent or null.
bool requiredDouble(const QJsonObject& object, const QString& key, double& out);
bool requiredString(const QJsonObject& object, const QString& key, QString& out);
bool requiredStringArray(const QJsonObject& object, const QString& key, QStringList& out);

// Canonical upper-case form, without braces.
std::string idText(const QUuid& id);
// Only the canonical 8-4-4-4-12 hexadecimal form, in either case.
std::optional<QUuid> parseCanonicalUUID(std::string_view text);

// 1 - compressed / max(original, 1); negative when the result is larger than its source.
double ratio(int64_t compressedSizeBytes, int64_t originalSizeBytes);

JsonValue statusDTO(const BatchViewModel& viewModel);
JsonValue imageDTO(const ImportedImage& image);
JsonValue exportResultDTO(const ExportOutcome& outcome);
JsonValue profileDTO(const ExportProfile& profile);

// "Unknown format 'x' — expected one of ["png", "jpeg", ...]"
std::string unknownFormatMessage(const QString& value);

}  // namespace LocalAPIDTOs
}  // namespace quillane
