#include "image.h"

#include <algorithm>
#include <cmath>

#include "error.h"
#include "stb_easy_font.h"
#include "stb_image_write.h"

namespace velr::demo {

void writePng(const std::string& path, const Image& image) {
  if (image.width < 1 || image.height < 1) throw std::runtime_error("empty image for " + path);
  if (!stbi_write_png(path.c_str(), image.width, image.height, image.channels,
                      image.pixels.data(), image.width * image.channels))
    throw UserError("cannot write '" + path + "'");
}

void blit(Image& dst, const Image& src, int x0, int y0) {
  for (int y = 0; y < src.height; ++y) {
    const int dy = y0 + y;
    if (dy < 0 || dy >= dst.height) continue;
    for (int x = 0; x < src.width; ++x) {
      const int dx = x0 + x;
      if (dx < 0 || dx >= dst.width) continue;
      const std::uint8_t* s = src.at(x, y);
      std::uint8_t* d = dst.at(dx, dy);
      for (int c = 0; c < dst.channels; ++c) d[c] = s[src.channels == 1 ? 0 : std::min(c, src.channels - 1)];
    }
  }
}

void drawText(Image& image, int x, int y, const std::string& text, std::uint8_t value) {
  // The font produces axis-aligned quads of 16-byte vertices (x, y, z, rgba).
  struct Vertex {
    float x, y, z;
    unsigned char rgba[4];
  };
  std::vector<Vertex> quads(text.size() * 60 + 4);
  std::string copy = text;
  unsigned char colour[4] = {255, 255, 255, 255};
  const int n = stb_easy_font_print(static_cast<float>(x), static_cast<float>(y), copy.data(),
                                    colour, quads.data(),
                                    static_cast<int>(quads.size() * sizeof(Vertex)));
  for (int q = 0; q < n; ++q) {
    const Vertex* v = &quads[std::size_t(q) * 4];
    const int x0 = static_cast<int>(std::min(v[0].x, v[2].x));
    const int x1 = static_cast<int>(std::max(v[0].x, v[2].x));
    const int y0 = static_cast<int>(std::min(v[0].y, v[2].y));
    const int y1 = static_cast<int>(std::max(v[0].y, v[2].y));
    for (int py = std::max(y0, 0); py < std::min(y1, image.height); ++py)
      for (int px = std::max(x0, 0); px < std::min(x1, image.width); ++px)
        for (int c = 0; c < image.channels; ++c) image.at(px, py)[c] = value;
  }
}

std::uint8_t toDisplay(float linear) {
  if (!(linear > 0.0f)) return 0;  // also catches NaN
  const float shoulder = 1.0f - std::exp(-1.6f * linear);
  const float display = std::pow(shoulder, 1.0f / 2.2f);
  return static_cast<std::uint8_t>(std::clamp(display * 255.0f + 0.5f, 0.0f, 255.0f));
}

}  // namespace velr::demo
