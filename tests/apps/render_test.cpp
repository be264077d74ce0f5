// Tiny renders: light, shadow and ambient must come out in the right order
// and amounts, and the picture must not depend on the thread count.
#include <gtest/gtest.h>

#include <cmath>

#include "render.h"
#include "scene.h"

namespace velr::demo {
namespace {

// Ground plane, a small square floating between it and the light so that
// its shadow falls on the origin, and a camera that sees the origin.
Scene shadowScene() {
  Scene s;
  s.materials[0] = {{0.5f, 0.5f, 0.5f}, {0, 0, 0}, 0.0f, 1.0f, 0.0f};
  s.materialCount = 1;
  s.mesh.append(makeGround(8.0f, 4), 0);
  SceneMesh square;
  square.vertices = {1.2f, 1.5f, -0.3f, 1.8f, 1.5f, -0.3f, 1.8f, 1.5f, 0.3f, 1.2f, 1.5f, 0.3f};
  square.indices = {0, 2, 1, 0, 0, 3, 2, 0};
  s.mesh.append(square, 0);
  s.light = {{3.0f, 3.0f, 0.0f}, {20.0f, 20.0f, 20.0f}};
  s.sky = {{0.2f, 0.3f, 0.6f}, {0.6f, 0.6f, 0.6f}, {0.1f, 0.1f, 0.1f}, {0, 1, 0}, 0.0f, 0.5f};
  const float eye[3] = {0.0f, 6.0f, 3.0f}, target[3] = {0.0f, 0.0f, 0.0f};
  std::copy(eye, eye + 3, s.eye);
  std::copy(target, target + 3, s.target);
  s.fovY = 40.0f;
  return s;
}

// The pixel whose eye ray passes through world point p: solves
// origin + dW x + dH y = s (p - eye) for x and y by Cramer's rule.
void pixelOf(const Camera& c, const float p[3], int& px, int& py) {
  const double d[3] = {p[0] - c.eye[0], p[1] - c.eye[1], p[2] - c.eye[2]};
  auto det = [](const double a[3], const double b[3], const double e[3]) {
    return a[0] * (b[1] * e[2] - b[2] * e[1]) - b[0] * (a[1] * e[2] - a[2] * e[1]) +
           e[0] * (a[1] * b[2] - a[2] * b[1]);
  };
  const double w[3] = {c.dW[0], c.dW[1], c.dW[2]}, h[3] = {c.dH[0], c.dH[1], c.dH[2]};
  const double nd[3] = {-d[0], -d[1], -d[2]}, no[3] = {-c.origin[0], -c.origin[1], -c.origin[2]};
  const double den = det(w, h, nd);
  px = static_cast<int>(std::lround(det(no, h, nd) / den));
  py = static_cast<int>(std::lround(det(w, no, nd) / den));
}

TEST(DemoRender, ShadowLightAndAmbientHaveTheExpectedBrightness) {
  const Scene scene = shadowScene();
  Tracer tracer(scene);
  const Camera cam = makeCamera(scene.eye, scene.target, scene.fovY, 96, 64);
  const Framebuffer fb = tracer.render(cam, 1);

  const float shadowed[3] = {0.0f, 0.0f, 0.0f};  // under the square, seen from the light
  const float lit[3] = {-1.5f, 0.0f, 0.0f};
  int sx, sy, lx, ly;
  pixelOf(cam, shadowed, sx, sy);
  pixelOf(cam, lit, lx, ly);
  ASSERT_TRUE(sx >= 0 && sx < 96 && sy >= 0 && sy < 64 && lx >= 0 && lx < 96 && ly >= 0 && ly < 64);

  // In the shadow only the sky's ambient light reaches the ground: albedo
  // times the irradiance the harmonics give for an upward normal.
  const float up[3] = {0.0f, 1.0f, 0.0f};
  float ambient[3];
  tracer.ambient(up, ambient);
  const float* s = fb.at(sx, sy);
  const float* l = fb.at(lx, ly);
  for (int c = 0; c < 3; ++c) {
    EXPECT_GT(ambient[c], 0.0f);
    EXPECT_NEAR(s[c], 0.5f * ambient[c], 0.02f * ambient[c]) << c;
    // Lit ground adds the point light: albedo * power * cos / distance^2,
    // with the light at (3, 3, 0): distance^2 = 29.25, cos = 3 / sqrt(29.25).
    const float direct = 0.5f * 20.0f * (3.0f / std::sqrt(29.25f)) / 29.25f;
    EXPECT_NEAR(l[c], s[c] + direct, 0.05f * direct) << c;
    EXPECT_GT(l[c], s[c]);
  }
  const RenderStats& st = tracer.stats();
  EXPECT_EQ(st.eyeRays, 96LL * 64);
  EXPECT_GT(st.shadowRays, 0);
  EXPECT_EQ(st.reflectionRays, 0);
}

TEST(DemoRender, AMirrorGroundShowsTheSkyItReflects) {
  Scene scene = shadowScene();
  scene.materials[0] = {{0.5f, 0.5f, 0.5f}, {0, 0, 0}, 0.0f, 0.0f, 1.0f};
  Tracer tracer(scene);
  const Camera cam = makeCamera(scene.eye, scene.target, scene.fovY, 96, 64);
  const Framebuffer fb = tracer.render(cam, 2);
  const float p[3] = {-1.5f, 0.0f, 0.0f};
  int x, y;
  pixelOf(cam, p, x, y);
  // The eye ray (p - eye) leaves the ground with its vertical part turned up.
  float sky[3];
  scene.sky.radiance(p[0] - scene.eye[0], scene.eye[1] - p[1], p[2] - scene.eye[2], sky);
  for (int c = 0; c < 3; ++c) EXPECT_NEAR(fb.at(x, y)[c], sky[c], 0.02f * sky[c]) << c;
  EXPECT_GT(tracer.stats().reflectionRays, 0);
}

TEST(DemoRender, ThreadsDoNotChangeThePicture) {
  // The default scene at a size that is not a multiple of the block size.
  const Scene scene = defaultScene();
  Tracer tracer(scene);
  const Camera cam = makeCamera(scene.eye, scene.target, scene.fovY, 50, 38);
  const Framebuffer one = tracer.render(cam, 1);
  const RenderStats first = tracer.stats();
  const Framebuffer two = tracer.render(cam, 2);
  EXPECT_EQ(one.rgb, two.rgb);
  EXPECT_EQ(tracer.stats().totalRays(), first.totalRays());
  EXPECT_GT(first.reflectionRays, 0);
  float lo = 1e9f, hi = -1e9f;
  for (float v : one.rgb) {
    ASSERT_TRUE(std::isfinite(v));
    ASSERT_GE(v, 0.0f);
    lo = std::min(lo, v);
    hi = std::max(hi, v);
  }
  EXPECT_GT(hi - lo, 0.3f);
}

}  // namespace
}  // namespace velr::demo
