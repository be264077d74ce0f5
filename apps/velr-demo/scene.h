// The demo scene: geometry, materials, a point light, a sky and a camera.
#pragma once

#include "mesh.h"

namespace velr::demo {

struct Material {
  float albedo[3];
  float albedo2[3];  // second colour of a checkerboard
  float checker;     // checkerboard cell size in x and z; 0 for a plain colour
  float diffuse;     // weight of the diffuse (direct + ambient) term
  float mirror;      // weight of the mirror bounce
};

struct PointLight {
  float position[3];
  float power[3];  // radiant intensity per channel; falls off with distance squared
};

// A sky for rays that leave the scene and, projected onto spherical
// harmonics, for the ambient light. Only its look is configurable.
struct Sky {
  float zenith[3];
  float horizon[3];
  float ground[3];
  float glowDir[3];  // unit direction of a soft bright patch (towards the light)
  float glow;
  float ambient;     // scale of the ambient term
  // Radiance seen along direction (x, y, z) (any length; 0 length gives black).
  void radiance(float x, float y, float z, float rgb[3]) const;
};

struct Scene {
  SceneMesh mesh;
  Material materials[4];
  int materialCount = 0;
  PointLight light;
  Sky sky;
  float eye[3];
  float target[3];
  float fovY;  // degrees
};

// The built-in scene: a displaced sphere (or `replacement`, placed where the
// sphere stands), a mirror sphere, a checkered ground plane, a point light
// and a sky.
Scene defaultScene(const SceneMesh* replacement = nullptr);

// A pinhole camera in the form the eye-ray caster takes:
// D(x, y) = dH * y + origin + dW * x, origin pointing at the centre of pixel (0, 0).
struct Camera {
  float eye[3];
  float origin[3];
  float dW[3];
  float dH[3];
  int width;
  int height;
};
Camera makeCamera(const float eye[3], const float target[3], float fovY, int width, int height);

}  // namespace velr::demo
