#include <gtest/gtest.h>

#include "batch/ExportFilenameAllocator.h"

namespace quillane {
namespace {

TEST(ExportFilenameAllocator, ClashesIgnoreCaseNumberFromTwoAndSkipNamesTaken) {
  const std::vector<std::pair<std::vector<std::pair<QString, QString>>, QStringList>> cases = {
      {{{"a", "png"}, {"A", "png"}, {"a", "png"}, {"a", "jpg"}}, {"a.png", "A-2.png", "a-3.png", "a.jpg"}},
      {{{"Été", "JPG"}, {"été", "jpg"}}, {"Été.JPG", "été-2.jpg"}},
      {{{"a-2", "png"}, {"a", "png"}, {"a", "png"}, {"A-3", "png"}},
       {"a-2.png", "a.png", "a-3.png", "A-3-2.png"}},
  };
  for (const auto& [requests, expected] : cases) {
    ExportFilenameAllocator allocator;
    QStringList names;
    for (const auto& [base, extension] : requests) names << allocator.filename(base, extension);
    EXPECT_EQ(names, expected);
  }
}

}  // namespace
}  // namespace quillane
