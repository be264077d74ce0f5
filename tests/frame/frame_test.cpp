#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "common/targets.h"
#include "common/threads.h"
#include "frame/alloc.h"
#include "frame/init.h"
#include "frame/parallel.h"
#include "velr.h"

TEST(FrameVersion, RecordMatchesFeatureBit) {
  const VelLibraryVersion* v = velrGetLibVersion();
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(v, velrGetLibVersion());
  EXPECT_EQ(v->major, 7);
  EXPECT_EQ(v->minor, 1);
  EXPECT_EQ(v->majorBuild, 0);
  EXPECT_EQ(v->build, 36264);
  EXPECT_EQ(std::memcmp(v->targetCpu, "t7\0\0", 4), 0);
  EXPECT_STREQ(v->Version, "7.1.0 (r36264)");
  EXPECT_STREQ(v->BuildDate, "Jul 23 2012");
  EXPECT_STREQ(v->Name, ownGetFeature(0x80, 0) ? "velRR SSE4.1/4.2 (t7)+" : "velRR SSE4.1/4.2 (t7)");
}

TEST(FrameInit, FlagRecordsSsse3AndMovbe) {
  const unsigned long long f = velGetEnabledCpuFeatures();
  EXPECT_EQ(velr::ssse3MovbeFlag(), ((f & 0x10) && (f & 0x20)) ? 1 : 0);
}

TEST(FrameAlloc, HelpersRefuseEmptyCountsWithoutCallingMalloc) {
  // An armed failure must survive calls with counts below 1: they never reach
  // velMalloc.
  velTestFailMallocAfter(1);
  EXPECT_EQ(velr::allocItems8(0), nullptr);
  EXPECT_EQ(velr::allocItems4(-1), nullptr);
  EXPECT_EQ(velr::allocBytes(0), nullptr);
  EXPECT_EQ(velr::allocBytes(16), nullptr);  // the armed failure
  velr::ScratchBlock a(velr::allocItems8(3)), b(velr::allocItems4(3)), c(velr::allocBytes(3));
  EXPECT_TRUE(a && b && c);
}

TEST(FrameParallel, SlabsCoverEveryUnitOnceAndLastTakesRemainder) {
  for (int threads : {1, 2, 3, 5}) {
    for (int total : {1, 2, 7, 16, 101}) {
      std::vector<std::atomic<int>> hits(total);
      std::atomic<int> lastCount{-1};
      velr::parallelSlabs(threads, total, [&](int first, int count, int id, int team) {
        for (int i = first; i < first + count; ++i) hits[i]++;
        if (id == team - 1) lastCount = count;
        if (id < team - 1) EXPECT_EQ(count, total / team);
      });
      for (int i = 0; i < total; ++i) EXPECT_EQ(hits[i], 1) << threads << " " << total;
    }
  }
}

TEST(FrameParallel, TeamRunsEveryIndexOnce) {
  for (int n : {1, 2, 3}) {
    std::vector<std::atomic<int>> hits(n);
    velr::parallelTeam(n, [&](int i) { hits[i]++; });
    for (int i = 0; i < n; ++i) EXPECT_EQ(hits[i], 1);
  }
}

TEST(FrameTargets, DispatchCanBeForcedToEachCompiledTarget) {
  std::set<std::string> seen;
  velr::test::forEachTarget([&](const std::string& name) {
    // The mock narrows what dispatch may choose to the one target.
    EXPECT_EQ(std::string(hwy::TargetName(hwy::SupportedTargets())), name);
    seen.insert(name);
  });
  EXPECT_GE(seen.size(), 1u);
}

namespace {

std::set<std::string> namesInMap() {
  std::ifstream in(VELR_EXPORT_MAP);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  text = std::regex_replace(text, std::regex(R"(/\*[\s\S]*?\*/)"), "");
  std::set<std::string> names;
  std::regex entry(R"(\b(velr[A-Za-z0-9_]+)\s*;)");
  for (std::sregex_iterator it(text.begin(), text.end(), entry), end; it != end; ++it)
    names.insert((*it)[1]);
  return names;
}

std::set<std::string> dynamicSymbols() {
  std::set<std::string> names;
  const std::string cmd = std::string("nm -D --defined-only ") + VELR_SHARED_LIBRARY;
  FILE* pipe = popen(cmd.c_str(), "r");
  if (pipe == nullptr) return names;
  char line[512];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    char addr[64], type[8], name[400];
    if (std::sscanf(line, "%63s %7s %399s", addr, type, name) == 3) {
      std::string n(name);
      n = n.substr(0, n.find('@'));
      if (std::string(type) != "A") names.insert(n);  // version nodes are absolute
    }
  }
  pclose(pipe);
  return names;
}

}  // namespace

TEST(FrameExports, DynamicSymbolTableHoldsExactlyTheMappedNames) {
  const std::set<std::string> mapped = namesInMap();
  const std::set<std::string> exported = dynamicSymbols();
  ASSERT_FALSE(mapped.empty());
  EXPECT_EQ(exported, mapped);
  EXPECT_LE(mapped.size(), 52u);
  for (const std::string& n : exported) EXPECT_EQ(n.rfind("velr", 0), 0u) << n;
}
