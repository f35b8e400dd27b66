#include <gtest/gtest.h>

#include "batch/ExportFilenameAllocator.h"

namespace quillane {
namespace {

QStringList allocate(const std::vector<std::pair<QString, QString>>& requests) {
  ExportFilenameAllocator allocator;
  QStringList names;
  for (const auto& [base, ext] : requests) names << allocator.filename(base, ext);
  return names;
}

TEST(ExportFilenameAllocator, ClashesIgnoreCaseAndNumberFromTwo) {
  EXPECT_EQ(allocate({{"a", "png"}, {"A", "png"}, {"a", "png"}, {"a", "jpg"}}),
            (QStringList{"a.png", "A-2.png", "a-3.png", "a.jpg"}));
  EXPECT_EQ(allocate({{"Été", "JPG"}, {"été", "jpg"}}), (QStringList{"Été.JPG", "été-2.jpg"}));
}

TEST(ExportFilenameAllocator, NumberedNamesSkipNamesAlreadyTaken) {
  EXPECT_EQ(allocate({{"a-2", "png"}, {"a", "png"}, {"a", "png"}, {"A-3", "png"}}),
            (QStringList{"a-2.png", "a.png", "a-3.png", "A-3-2.png"}));
}

}  // namespace
}  // namespace quillane
