// 8-bit images, PNG output, labels and montages.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velr::demo {

struct Image {
  int width = 0;
  int height = 0;
  int channels = 1;  // 1 grey, 3 rgb
  std::vector<std::uint8_t> pixels;

  Image() = default;
  Image(int w, int h, int c, std::uint8_t fill = 0)
      : width(w), height(h), channels(c), pixels(std::size_t(w) * h * c, fill) {}
  std::uint8_t* at(int x, int y) { return &pixels[(std::size_t(y) * width + x) * channels]; }
  const std::uint8_t* at(int x, int y) const {
    return &pixels[(std::size_t(y) * width + x) * channels];
  }
};

// Throws UserError naming the path when the file cannot be written.
void writePng(const std::string& path, const Image& image);

// Copies `src` into `dst` with its top-left corner at (x, y), clipped.
void blit(Image& dst, const Image& src, int x, int y);

// Draws text with a small built-in bitmap font, top-left at (x, y).
void drawText(Image& image, int x, int y, const std::string& text, std::uint8_t value);

// Linear float value to an 8-bit display value: exposure, soft shoulder,
// then the usual display gamma.
std::uint8_t toDisplay(float linear);

}  // namespace velr::demo
