// Command line of velr-demo: two subcommands and --help.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace velr::demo {

struct RenderOptions {
  std::string mesh;                  // Wavefront OBJ replacing the displaced sphere
  int width = 640;
  int height = 480;
  int threads = 0;                   // 0: every processor OpenMP offers
  std::string out = "velr-render.png";
};

struct VolumeOptions {
  std::string in;                    // NIfTI-1 file; empty: the built-in phantom
  std::string outDir = "velr-volume";
  int size = 128;                    // edge of the phantom
  int threads = 0;
};

struct Command {
  enum class Kind { Help, Render, Volume } kind = Kind::Help;
  RenderOptions render;
  VolumeOptions volume;
};

// Throws UserError with a one-line message for anything it cannot accept.
Command parseCommandLine(const std::vector<std::string>& args);

std::string usageText();

// The whole program: parses, runs, prints timings to `out`, and reports any
// failure as one line on `err`. Returns the process exit code (0 success,
// 2 bad command line, 1 any other failure).
int runDemo(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace velr::demo
