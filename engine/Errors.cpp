#include "engine/Errors.h"

#include "engine/Localization.h"

namespace quillane {

std::string ImageProcessingError::description() const {
  switch (kind_) {
    case Kind::decodingFailed:
      return Localization::text("error.decodingFailed", "Impossible de décoder l'image source.");
    case Kind::contextCreationFailed:
      return Localization::text("error.contextCreationFailed", "Impossible de créer le contexte de rendu.");
    case Kind::encodingFailed:
      return Localization::format("error.encodingFailedFormat", "Échec de l'encodage au format %@.",
                                  {label_});
  }
  return {};
}

std::string genericErrorText() {
  return Localization::text("error.generic", "L'opération n'a pas pu être effectuée.");
}

std::string describe(const std::exception& error) {
  if (const auto* own = dynamic_cast<const QuillaneError*>(&error)) return own->description();
  return genericErrorText();
}

std::string ZlibError::description() const { return genericErrorText(); }

std::string FileError::description() const { return message_; }

}  // namespace quillane
