#include <gtest/gtest.h>

#include <sstream>

#include "cli.h"
#include "error.h"
#include "temp_dir.h"

namespace velr::demo {
namespace {

using Args = std::vector<std::string>;

std::string parseError(const Args& args) {
  try {
    parseCommandLine(args);
  } catch (const UserError& e) {
    return e.what();
  }
  return "";
}

struct Outcome {
  int code;
  std::string out, err;
};
Outcome run(const Args& args) {
  std::ostringstream out, err;
  const int code = runDemo(args, out, err);
  return {code, out.str(), err.str()};
}

// A failure is reported as exactly one line starting with the program name.
void expectOneLineError(const Outcome& r, const std::string& fragment) {
  EXPECT_NE(r.code, 0);
  EXPECT_EQ(r.err.rfind("velr-demo: ", 0), 0u) << r.err;
  EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
  EXPECT_NE(r.err.find(fragment), std::string::npos) << r.err;
}

TEST(DemoCommandLine, ReadsEveryOptionInBothSpellings) {
  const Command r = parseCommandLine(
      {"render", "--mesh", "a.obj", "--size=320x200", "--threads", "3", "--out=x/y.png"});
  ASSERT_EQ(r.kind, Command::Kind::Render);
  EXPECT_EQ(r.render.mesh, "a.obj");
  EXPECT_EQ(r.render.width, 320);
  EXPECT_EQ(r.render.height, 200);
  EXPECT_EQ(r.render.threads, 3);
  EXPECT_EQ(r.render.out, "x/y.png");

  const Command v = parseCommandLine({"volume", "--in=head.nii", "--out", "dir", "--size", "48"});
  ASSERT_EQ(v.kind, Command::Kind::Volume);
  EXPECT_EQ(v.volume.in, "head.nii");
  EXPECT_EQ(v.volume.outDir, "dir");
  EXPECT_EQ(v.volume.size, 48);

  const Command d = parseCommandLine({"render"});
  EXPECT_EQ(d.render.width, 640);
  EXPECT_EQ(d.render.height, 480);
  EXPECT_EQ(d.render.threads, 0);
  for (const Args& help : {Args{"--help"}, Args{"-h"}, Args{"render", "--help"}})
    EXPECT_EQ(parseCommandLine(help).kind, Command::Kind::Help);
}

TEST(DemoCommandLine, RefusesBadArgumentsWithTheReason) {
  EXPECT_NE(parseError({}).find("missing subcommand"), std::string::npos);
  EXPECT_NE(parseError({"draw"}).find("unknown subcommand 'draw'"), std::string::npos);
  EXPECT_NE(parseError({"render", "--colour", "red"}).find("unknown option '--colour'"),
            std::string::npos);
  EXPECT_NE(parseError({"volume", "--mesh", "a.obj"}).find("unknown option '--mesh'"),
            std::string::npos);
  EXPECT_NE(parseError({"render", "--out"}).find("needs a value"), std::string::npos);
  EXPECT_NE(parseError({"render", "--out="}).find("needs a value"), std::string::npos);
  EXPECT_NE(parseError({"render", "--mesh", "--size", "8x8"}).find("needs a value"),
            std::string::npos);
  for (const char* size : {"640", "x480", "640x", "0x480", "640x-1", "64.5x48", "99999x10", "axb"})
    EXPECT_NE(parseError({"render", "--size", size}).find("--size"), std::string::npos) << size;
  for (const char* n : {"0", "-2", "two", "3x"})
    EXPECT_NE(parseError({"render", "--threads", n}).find("--threads"), std::string::npos) << n;
  EXPECT_NE(parseError({"volume", "--size", "4"}).find("between 8 and 512"), std::string::npos);
}

TEST(DemoCommandLine, ExitCodesAndMessages) {
  const Outcome help = run({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_NE(help.out.find("velr-demo render"), std::string::npos);
  EXPECT_TRUE(help.err.empty());

  const Outcome bad = run({"render", "--size", "big"});
  EXPECT_EQ(bad.code, 2);
  expectOneLineError(bad, "--size");

  test::TempDir dir;
  expectOneLineError(run({"render", "--mesh", dir.file("missing.obj")}), "missing.obj");
  expectOneLineError(run({"volume", "--in", dir.file("missing.nii")}), "missing.nii");
  expectOneLineError(run({"render", "--size", "8x8", "--out", dir.file("no/such/dir/a.png")}),
                     "does not exist");
  // An output directory that is really a file.
  const std::string file = dir.write("plain-file", "x");
  expectOneLineError(run({"volume", "--size", "8", "--out", file}), "output directory");
}

}  // namespace
}  // namespace velr::demo
