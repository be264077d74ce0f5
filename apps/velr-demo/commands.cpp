#include "commands.h"

#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "error.h"
#include "image.h"
#include "render.h"
#include "volume.h"

namespace velr::demo {
namespace {

template <class... Args>
std::string format(const char* fmt, Args... args) {
  char buf[200];
  std::snprintf(buf, sizeof buf, fmt, args...);
  return buf;
}

std::string rate(double count, double ms) {
  if (!(ms > 0)) return "-";
  const double perSecond = count / (ms / 1000.0);
  if (perSecond >= 1e9) return format("%.2f G", perSecond / 1e9);
  if (perSecond >= 1e6) return format("%.2f M", perSecond / 1e6);
  return format("%.0f ", perSecond);
}

int threadCount(int requested) { return requested > 0 ? requested : omp_get_max_threads(); }

// Fails early, with the path in the message, when a PNG could not be written
// where it is asked for (a missing directory, no permission).
void checkWritableParent(const std::string& file) {
  const std::filesystem::path parent = std::filesystem::path(file).parent_path();
  std::error_code ec;
  if (!parent.empty() && !std::filesystem::is_directory(parent, ec))
    throw UserError("cannot write '" + file + "': directory '" + parent.string() + "' does not exist");
}

}  // namespace

void runRender(const RenderOptions& o, std::ostream& out) {
  checkWritableParent(o.out);
  const int threads = threadCount(o.threads);
  velSetNumThreads(threads);

  SceneMesh model;
  if (!o.mesh.empty()) model = loadObj(o.mesh);
  const Scene scene = defaultScene(o.mesh.empty() ? nullptr : &model);
  out << "velr-demo render: " << o.width << " x " << o.height << " pixels, " << threads
      << (threads == 1 ? " thread, " : " threads, ") << scene.mesh.triangleCount()
      << " triangles" << (o.mesh.empty() ? "" : " (with " + o.mesh + ")") << "\n";

  Tracer tracer(scene);
  const RenderStats& setup = tracer.stats();
  out << format("  triangle records + KD-tree %8.1f ms\n", setup.setupMs[0])
      << format("  vertex normals             %8.1f ms\n", setup.setupMs[1])
      << format("  sky onto harmonics (once)  %8.1f ms\n", setup.setupMs[2]);

  const Camera camera = makeCamera(scene.eye, scene.target, scene.fovY, o.width, o.height);
  const Framebuffer fb = tracer.render(camera, threads);
  const RenderStats& s = tracer.stats();
  double busy = 0;
  for (double ms : s.stageMs) busy += ms;
  out << "  per stage, thread time (share):\n";
  for (int st = 0; st < kStageCount; ++st)
    out << format("    %-22s %8.1f ms  (%4.1f%%)\n", stageName(Stage(st)), s.stageMs[st],
                  busy > 0 ? 100.0 * s.stageMs[st] / busy : 0.0);
  out << "  rays: " << s.eyeRays << " eye, " << s.shadowRays << " shadow, " << s.reflectionRays
      << " mirror\n";
  out << format("  traced in %.1f ms: ", s.wallMs) << rate(double(s.totalRays()), s.wallMs)
      << "rays/s (" << rate(double(s.eyeRays), s.wallMs) << "eye rays/s)\n";

  Image img(fb.width, fb.height, 3);
  for (int y = 0; y < fb.height; ++y)
    for (int x = 0; x < fb.width; ++x)
      for (int c = 0; c < 3; ++c) img.at(x, y)[c] = toDisplay(fb.at(x, y)[c]);
  writePng(o.out, img);
  out << "  wrote " << o.out << "\n";
}

void runVolume(const VolumeOptions& o, std::ostream& out) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::create_directories(o.outDir, ec);
  if (!fs::is_directory(o.outDir))
    throw UserError("cannot create output directory '" + o.outDir + "'");
  const int threads = threadCount(o.threads);
  velSetNumThreads(threads);

  const auto t0 = std::chrono::steady_clock::now();
  Volume input = o.in.empty() ? makePhantom(o.size) : readNifti(o.in);
  const double loadMs =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  auto dims = [](const Volume& v) {
    return std::to_string(v.width) + "x" + std::to_string(v.height) + "x" + std::to_string(v.depth);
  };
  out << "velr-demo volume: " << (o.in.empty() ? "phantom" : o.in) << " " << dims(input) << ", "
      << threads << (threads == 1 ? " thread" : " threads")
      << format(" (%s in %.1f ms)\n", o.in.empty() ? "made" : "read", loadMs);

  // Upsample by 1.5 unless that would make the volume larger than 256 along
  // some axis; then scale it down to 256 instead.
  const int largest = std::max({input.width, input.height, input.depth});
  const double factor = largest * 1.5 <= 256 ? 1.5 : 256.0 / largest;

  struct Step {
    std::string caption;
    Volume volume;
    double ms;
  };
  std::vector<Step> steps;
  steps.push_back({"input " + dims(input), std::move(input), 0});
  double ms = 0;
  Volume resized = resizeCubic(steps.back().volume, factor, &ms);
  steps.push_back({format("resize x%.2f, Catmull-Rom cubic", factor) + " -> " + dims(resized),
                   std::move(resized), ms});
  Volume turned = rotate(steps.back().volume, 30.0, 20.0, &ms);
  steps.push_back({"affine warp: 30 deg about z, 20 deg about x, trilinear", std::move(turned), ms});
  Volume swirled = swirl(steps.back().volume, 120.0, &ms);
  steps.push_back({"remap through a swirl field, trilinear", std::move(swirled), ms});
  Volume smoothed = smooth(steps.back().volume, &ms);
  steps.push_back({"3x3x3 binomial smoothing, 16-bit filter", std::move(smoothed), ms});

  const char* names[] = {"input", "resize", "warp", "remap", "filter"};
  constexpr int kPanel = 160;
  std::vector<Image> rows;
  std::vector<std::string> captions;
  out << "  step    result           time        voxels/s\n";
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const Step& st = steps[i];
    if (i > 0)
      out << format("  %-7s %-13s %8.1f ms   ", names[i], dims(st.volume).c_str(), st.ms)
          << rate(double(st.volume.count()), st.ms) << "voxels/s\n";
    rows.push_back(viewRow(st.volume, kPanel));
    captions.push_back(st.caption);
    const std::string file = (fs::path(o.outDir) / ("volume-" + std::to_string(i) + "-" + names[i] + ".png")).string();
    writePng(file, montage({rows.back()}, {captions.back()}, kPanel));
  }
  const std::string all = (fs::path(o.outDir) / "volume-montage.png").string();
  writePng(all, montage(rows, captions, kPanel));
  out << "  wrote " << all << " and one picture per step in " << o.outDir << "\n";
}

}  // namespace velr::demo
