#include "tests/support/TestImages.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace quillane::testing {
namespace {
uint8_t clamp8(double v) { return uint8_t(std::lround(std::clamp(v, 0.0, 255.0))); }
}  // namespace

DecodedImage texturedPhoto(int w, int h, uint32_t seed) {
  DecodedImage img;
  img.width = w, img.height = h;
  img.pixels8.assign(size_t(w) * size_t(h) * 4, 255);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> unit(0, 1);
  std::normal_distribution<float> noise(0, 3);
  const int cells[5] = {4, 9, 23, 61, 160};
  const float weight[5] = {0.5f, 0.25f, 0.13f, 0.08f, 0.05f};
  std::vector<std::vector<float>> grids;
  for (int n : cells) {
    grids.emplace_back(size_t(n + 1) * size_t(n + 1) * 3);
    for (float& v : grids.back()) v = unit(rng);
  }
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      float c[3] = {0, 0, 0};
      for (int o = 0; o < 5; ++o) {
        const int n = cells[o];
        float fx = float(x) / float(w) * float(n), fy = float(y) / float(h) * float(n);
        int ix = int(fx), iy = int(fy);
        float tx = fx - float(ix), ty = fy - float(iy);
        tx = tx * tx * (3 - 2 * tx), ty = ty * ty * (3 - 2 * ty);
        auto at = [&](int a, int b, int k) {
          return grids[size_t(o)][(size_t(b) * size_t(n + 1) + size_t(a)) * 3 + size_t(k)];
        };
        for (int k = 0; k < 3; ++k)
          c[k] += weight[o] * (at(ix, iy, k) * (1 - tx) * (1 - ty) + at(ix + 1, iy, k) * tx * (1 - ty) +
                               at(ix, iy + 1, k) * (1 - tx) * ty + at(ix + 1, iy + 1, k) * tx * ty);
      }
      const float dx = float(x) / float(w) - 0.3f, dy = float(y) / float(h) - 0.6f;
      const bool disc = dx * dx + dy * dy < 0.02f;
      const bool bar = (x / std::max(1, w / 7)) % 2 == 0 && y > h / 10 && y < h / 4;
      uint8_t* p = &img.pixels8[(size_t(y) * size_t(w) + size_t(x)) * 4];
      for (int k = 0; k < 3; ++k) {
        float v = c[k] * 255;
        if (disc) v = v * 0.4f + (k == 0 ? 150 : 40);
        if (bar) v = v * 0.5f + (k == 2 ? 120 : 20);
        p[k] = uint8_t(std::clamp(v + noise(rng), 0.f, 255.f));
      }
    }
  }
  return img;
}

DecodedImage makeImage(int width, int height, Pattern pattern, uint32_t seed, bool withAlpha) {
  DecodedImage img;
  img.width = width, img.height = height;
  img.alpha = withAlpha ? AlphaInfo::straight : AlphaInfo::none;
  img.pixels8.assign(size_t(width) * size_t(height) * 4, 255);
  std::mt19937 rng(seed);
  std::normal_distribution<double> mild(0.0, 2.0), strong(0.0, 28.0);
  const uint8_t palette[4][3] = {{20, 90, 200}, {240, 180, 30}, {30, 30, 30}, {250, 250, 250}};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t* p = &img.pixels8[(size_t(y) * size_t(width) + size_t(x)) * 4];
      double fx = double(x) / std::max(1, width - 1), fy = double(y) / std::max(1, height - 1);
      switch (pattern) {
        case Pattern::photo: {
          double base = 110 + 60 * std::sin(fx * 7.0 + seed) * std::cos(fy * 5.0);
          p[0] = clamp8(base + 40 * fx + mild(rng));
          p[1] = clamp8(base * 0.8 + 50 * fy + mild(rng));
          p[2] = clamp8(200 - base * 0.5 + mild(rng));
          break;
        }
        case Pattern::noisyPhoto: {
          double base = 128 + 50 * std::sin(fx * 4.0) * std::cos(fy * 3.0);
          for (int k = 0; k < 3; ++k) p[k] = clamp8(base + strong(rng));
          break;
        }
        case Pattern::screenshot: {
          bool text = (y % 18) < 10 && (x % 9) < 6 && ((x / 9 + y / 18 + int(seed)) % 5) != 0 && x > 20 &&
                      x < width - 20;
          bool bar = y < height / 12;
          std::copy_n(palette[text ? 2 : bar ? 0 : 3], 3, p);
          break;
        }
        case Pattern::flatLogo: {
          double dx = fx - 0.5, dy = fy - 0.5, r = std::sqrt(dx * dx + dy * dy);
          int band = r < 0.2 ? 0 : r < 0.35 ? 1 : r < 0.45 ? 2 : 3;
          std::copy_n(palette[band], 3, p);
          if (withAlpha && band == 3) p[3] = 0, p[0] = p[1] = p[2] = 0;
          break;
        }
      }
      if (withAlpha && pattern != Pattern::flatLogo) p[3] = clamp8(255 * (0.5 + 0.5 * fx));
    }
  }
  return img;
}

RGBABuffer makeBuffer(int width, int height, Pattern pattern, uint32_t seed, bool withAlpha) {
  RGBABuffer buf;
  buf.width = width, buf.height = height;
  buf.pixels = makeImage(width, height, pattern, seed, withAlpha).pixels8;
  for (size_t i = 3; i < buf.pixels.size() && !buf.hasAlpha; i += 4) buf.hasAlpha = buf.pixels[i] < 255;
  return buf;
}

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "quillane-test-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                               ec);
  std::filesystem::remove_all(path_, ec);
}

std::string TempDir::write(const std::string& name, const std::vector<uint8_t>& bytes) const {
  writeBytes(file(name), bytes);
  return file(name);
}

void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::vector<uint8_t> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

UnlinkAtExit::~UnlinkAtExit() {
  for (const std::string& path : paths) ::unlink(path.c_str());
}

}  // namespace quillane::testing
