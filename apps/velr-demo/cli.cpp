#include "cli.h"

#include <charconv>
#include <new>
#include <ostream>

#include "commands.h"
#include "error.h"

namespace velr::demo {
namespace {

// Whole-string integer in [lo, hi]; anything else (trailing text, signs where
// they make no sense, overflow) is refused with the option's name.
int parseInt(const std::string& option, const std::string& text, int lo, int hi) {
  int value = 0;
  const char* first = text.data();
  const char* last = first + text.size();
  const auto [end, ec] = std::from_chars(first, last, value);
  if (text.empty() || ec != std::errc() || end != last)
    throw UserError("option '" + option + "' expects a whole number, got '" + text + "'");
  if (value < lo || value > hi)
    throw UserError("option '" + option + "' must be between " + std::to_string(lo) + " and " +
                    std::to_string(hi) + ", got " + text);
  return value;
}

void parseSize(const std::string& text, int& width, int& height) {
  const auto x = text.find_first_of("xX");
  if (x == std::string::npos)
    throw UserError("option '--size' expects WIDTHxHEIGHT (for example 640x480), got '" + text +
                    "'");
  width = parseInt("--size", text.substr(0, x), 1, 8192);
  height = parseInt("--size", text.substr(x + 1), 1, 8192);
}

// Splits "--name=value" and "--name value" into a name and a value.
struct OptionReader {
  const std::vector<std::string>& args;
  std::size_t pos;
  std::string name;
  std::string value;

  bool next() {
    if (pos >= args.size()) return false;
    const std::string& a = args[pos++];
    const auto eq = a.find('=');
    if (a.rfind("--", 0) == 0 && eq != std::string::npos) {
      name = a.substr(0, eq);
      value = a.substr(eq + 1);
      inlineValue = true;
    } else {
      name = a;
      value.clear();
      inlineValue = false;
    }
    return true;
  }
  const std::string& takeValue() {
    if (!inlineValue) {
      if (pos >= args.size() || (args[pos].rfind("--", 0) == 0 && args[pos].size() > 2))
        throw UserError("option '" + name + "' needs a value");
      value = args[pos++];
    }
    if (value.empty()) throw UserError("option '" + name + "' needs a value");
    return value;
  }
  bool inlineValue = false;
};

bool isHelp(const std::string& a) { return a == "--help" || a == "-h" || a == "help"; }

[[noreturn]] void unknownOption(const std::string& sub, const std::string& name) {
  throw UserError("unknown option '" + name + "' for '" + sub + "' (see velr-demo --help)");
}

}  // namespace

std::string usageText() {
  return "usage: velr-demo render [--mesh FILE.obj] [--size WxH] [--threads N] [--out FILE.png]\n"
         "       velr-demo volume [--in FILE.nii] [--out DIR] [--size N] [--threads N]\n"
         "       velr-demo --help\n"
         "\n"
         "render  ray-traces a built-in scene (a displaced sphere, a mirror sphere, a ground\n"
         "        plane, a point light and a sky) into a PNG and prints each stage's time and\n"
         "        rays per second. --mesh puts a Wavefront OBJ model in place of the displaced\n"
         "        sphere. Defaults: --size 640x480, --threads all, --out velr-render.png.\n"
         "volume  runs a cubic resize, an affine rotation, a swirl remap and a 3x3x3 smoothing\n"
         "        filter on a built-in phantom of N^3 voxels (--size, default 128) or on a\n"
         "        NIfTI-1 file (--in), and writes PNG montages of the central slices and a\n"
         "        maximum-intensity projection of every step into DIR (default velr-volume).\n";
}

Command parseCommandLine(const std::vector<std::string>& args) {
  Command cmd;
  if (args.empty()) throw UserError("missing subcommand: 'render' or 'volume' (see velr-demo --help)");
  const std::string& sub = args[0];
  if (isHelp(sub)) return cmd;
  OptionReader r{args, 1, {}, {}};
  if (sub == "render") {
    cmd.kind = Command::Kind::Render;
    RenderOptions& o = cmd.render;
    while (r.next()) {
      if (isHelp(r.name)) return Command{};
      if (r.name == "--mesh") o.mesh = r.takeValue();
      else if (r.name == "--size") parseSize(r.takeValue(), o.width, o.height);
      else if (r.name == "--threads") o.threads = parseInt(r.name, r.takeValue(), 1, 1024);
      else if (r.name == "--out") o.out = r.takeValue();
      else unknownOption(sub, r.name);
    }
  } else if (sub == "volume") {
    cmd.kind = Command::Kind::Volume;
    VolumeOptions& o = cmd.volume;
    while (r.next()) {
      if (isHelp(r.name)) return Command{};
      if (r.name == "--in") o.in = r.takeValue();
      else if (r.name == "--out") o.outDir = r.takeValue();
      else if (r.name == "--size") o.size = parseInt(r.name, r.takeValue(), 8, 512);
      else if (r.name == "--threads") o.threads = parseInt(r.name, r.takeValue(), 1, 1024);
      else unknownOption(sub, r.name);
    }
  } else {
    throw UserError("unknown subcommand '" + sub + "': use 'render' or 'volume' (see velr-demo --help)");
  }
  return cmd;
}

int runDemo(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  Command cmd;
  try {
    cmd = parseCommandLine(args);
  } catch (const UserError& e) {
    err << "velr-demo: " << e.what() << '\n';
    return 2;
  }
  try {
    switch (cmd.kind) {
      case Command::Kind::Help: out << usageText(); return 0;
      case Command::Kind::Render: runRender(cmd.render, out); return 0;
      case Command::Kind::Volume: runVolume(cmd.volume, out); return 0;
    }
  } catch (const UserError& e) {
    err << "velr-demo: " << e.what() << '\n';
  } catch (const std::bad_alloc&) {
    err << "velr-demo: out of memory\n";
  } catch (const std::exception& e) {
    err << "velr-demo: internal error: " << e.what() << '\n';
  }
  return 1;
}

}  // namespace velr::demo
