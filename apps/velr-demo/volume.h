// Volumes of the volume subcommand: a phantom, NIfTI-1 input, the four
// processing steps on the library, and the pictures of each result.
#pragma once

#include <string>
#include <vector>

#include "aligned.h"
#include "image.h"
#include "velr.h"

namespace velr::demo {

// One-channel float volume, x fastest, then y, then z, no padding.
struct Volume {
  int width = 0, height = 0, depth = 0;
  AlignedVector<float> voxels;

  Volume() = default;
  Volume(int w, int h, int d, float fill = 0.0f)
      : width(w), height(h), depth(d), voxels(std::size_t(w) * h * d, fill) {}
  long long count() const { return static_cast<long long>(width) * height * depth; }
  float* plane(int z) { return voxels.data() + std::size_t(z) * width * height; }
  const float* plane(int z) const { return voxels.data() + std::size_t(z) * width * height; }
  float at(int x, int y, int z) const { return plane(z)[std::size_t(y) * width + x]; }
  int lineStep() const { return width * int(sizeof(float)); }
  int planeStep() const { return width * height * int(sizeof(float)); }
  VelrVolume extent() const { return {width, height, depth}; }
  VelrCuboid whole() const { return {0, 0, 0, width, height, depth}; }
  std::vector<const float*> planes() const;
  std::vector<float*> planes();
};

// An analytic head-like phantom of n^3 voxels in [0, 1]: nested ellipsoids
// of different densities and a helix of small bright beads.
Volume makePhantom(int n);

// Reads the first 3-D volume of a single-file NIfTI-1 image (.nii) of any
// integer or float voxel type, applies its intensity scaling and maps the
// values onto [0, 1]. Throws UserError for unreadable, compressed,
// truncated or unsupported files.
Volume readNifti(const std::string& path);

// The processing steps; each returns the result and, in *callMs, the time
// of the library call alone (setup such as building the maps not counted).
Volume resizeCubic(const Volume& src, double factor, double* callMs);
Volume rotate(const Volume& src, double degreesAboutZ, double degreesAboutX, double* callMs);
Volume swirl(const Volume& src, double maxDegrees, double* callMs);
Volume smooth(const Volume& src, double* callMs);

// One row of pictures of a volume, each panel size x size: the central
// axial (xy), coronal (xz) and sagittal (yz) slices and the maximum-intensity
// projection along z, values in [0, 1] shown black to white.
Image viewRow(const Volume& v, int panel);

// Stacks rows of panels with a caption above each row and column headers.
Image montage(const std::vector<Image>& rows, const std::vector<std::string>& captions, int panel);

}  // namespace velr::demo
