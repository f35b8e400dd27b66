#include <gtest/gtest.h>
#include "engine/ImageCompressor.h"
#include "engine/ImageDecoder.h"
#include "engine/ImageService.h"
#include "engine/Errors.h"
#include "tests/support/CodecFixtures.h"
#include "tests/support/TestImages.h"
namespace quillane {
TEST(ZZScratch, TinyShapesEveryFormatEveryQuality) {
  const std::pair<int,int> sizes[] = {{1,1},{1,7},{7,1},{2,2},{3,3},{17,5},{65,3}};
  for (auto [w,h] : sizes)
    for (bool alpha : {false, true})
      for (auto pattern : {testing::Pattern::photo, testing::Pattern::flatLogo, testing::Pattern::screenshot})
        for (int bits : {8, 16}) {
          DecodedImage img = bits == 8 ? testing::makeImage(w, h, pattern, 3, alpha) : fixtures::quadrants(w, h, 16, alpha);
          auto png = fixtures::png(img, {.alpha = alpha});
          for (ImageFormat f : ImageFormats::allCases)
            for (double q : {0.0, 1.0, 84.0, 85.0, 97.0, 100.0, 150.0}) {
              SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h) + " " + std::string(ImageFormats::label(f)) + " q" + std::to_string(q));
              try {
                auto out = ImageCompressor::encodeData(png, f, q);
                auto back = ImageService::decodeFirstFrame(out);
                EXPECT_EQ(back.width, w);
                EXPECT_EQ(back.height, h);
                auto light = ImageService::thumbnail(out, 256);
                EXPECT_TRUE(light);
              } catch (const QuillaneError& e) {
                ADD_FAILURE() << e.what() << " / " << e.description();
              }
            }
        }
}
TEST(ZZScratch, OrientationsThroughDecode) {
  for (int o = 0; o <= 9; ++o) {
    auto jpeg = fixtures::jpeg(testing::makeImage(9, 5, testing::Pattern::photo, 1), {.orientation = o});
    auto src = ImageDecoder::decodeCGImageSource(jpeg);
    bool quarter = o >= 5 && o <= 8;
    EXPECT_EQ(src.image.width, quarter ? 5 : 9) << o;
    auto out = ImageCompressor::encodeData(jpeg, ImageFormat::jxl, 95);
    EXPECT_FALSE(out.empty());
  }
}
}
