// quillane-cli's compress command line, read without running the tool: each option to the
// command's argument, the fallbacks it warns of, and the lines it refuses.
#include <gtest/gtest.h>

#include "app/cli/CompressArguments.h"

namespace quillane {
namespace {

TEST(CompressArguments, OptionsBecomeTheCommandsArgumentsAndFallbacksAreTold) {
  const struct {
    QByteArrayList line;
    QVariantMap arguments;
    QByteArrayList files;
    std::vector<std::string> warnings;
  } cases[] = {
      {{"a.png", "--to", "out/sub", "b.jpg", "--format", "WEBP", "--skip-larger"},
       {{"to", QByteArray("out/sub")}, {"format", "WEBP"}, {"skipLarger", true}},
       {"a.png", "b.jpg"},
       {}},
      {{"--max-width=24", "--max-height", "16", "--max-bytes=1.5M", "--profile", "Web"},
       {{"maxWidth", 24}, {"maxHeight", 16}, {"maxBytes", qlonglong(1500000)}, {"profile", "Web"}},
       {},
       {}},
      // "--" ends the options: what follows is a file, even "-h" or an option's name.
      {{"--", "-h", "--to"}, {}, {"-h", "--to"}, {}},
      // A file:// URL is the path of its bytes, escaped or not (a shell passes them raw).
      {{"--to", "file:///tmp/out%20dir"}, {{"to", QByteArray("/tmp/out dir")}}, {}, {}},
      {{"--to", "file://localhost/tmp/caf\xe9 x"}, {{"to", QByteArray("/tmp/caf\xe9 x")}}, {}, {}},
      {{"--format", "bmp", "--quality", "150"},
       {{"format", "bmp"}, {"quality", 150.0}},
       {},
       {"unknown format 'bmp' ignored: the profile's format, or jpeg, is used (png, jpeg, heic, avif, webp, "
        "jxl)",
        "quality 150 is outside 1 to 100: 100 is used"}},
      {{"--quality", "0.5"}, {{"quality", 0.5}}, {}, {"quality 0.5 is outside 1 to 100: 1 is used"}},
      {{"--quality", "high"}, {{"quality", "high"}}, {}, {"quality 'high' is no number: ignored"}},
      {{"--quality", "nan"}, {{"quality", "nan"}}, {}, {"quality 'nan' is no number: ignored"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line.join(' ').toStdString());
    const cli::CompressRequest request = cli::readCompress(c.line);
    ASSERT_EQ(request.error, std::nullopt);
    EXPECT_EQ(request.arguments, c.arguments);
    QVariantList files;
    for (const QByteArray& file : c.files) files.append(file);
    EXPECT_EQ(request.files, files);
    EXPECT_EQ(request.warnings, c.warnings);
  }

  const std::pair<QByteArrayList, std::string> refused[] = {
      {{"--max-width", "0"}, "--max-width needs a whole number of pixels above 0"},
      {{"--max-height", "wide"}, "--max-height needs a whole number of pixels above 0"},
      {{"--max-bytes", "12x"}, "--max-bytes needs a size in bytes, such as 250000, 500k or 1.5M"},
      {{"--max-bytes", "-5k"}, "--max-bytes needs a size in bytes, such as 250000, 500k or 1.5M"},
      {{"--to", "file://elsewhere/out"}, "--to: not a local file URL: file://elsewhere/out"},
      {{"--colour", "red"}, "unknown option --colour"},
      {{"--colour=red"}, "unknown option --colour"},
      {{"a.png", "--to"}, "option --to needs a value"},
  };
  for (const auto& [line, error] : refused)
    EXPECT_EQ(cli::readCompress(line).error, error) << line.join(' ').toStdString();
}

}  // namespace
}  // namespace quillane
