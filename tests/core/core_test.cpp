#include <gtest/gtest.h>
#include <omp.h>

#include <cstdint>

#include "velcore.h"

TEST(CoreMemory, AlignedBlocksAndNullForEmptySizes) {
  EXPECT_EQ(velMalloc(0), nullptr);
  EXPECT_EQ(velMalloc(-5), nullptr);
  for (int size : {1, 3, 64, 65, 4097}) {
    void* p = velMalloc(size);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 64, 0u) << size;
    velFree(p);
  }
  velFree(nullptr);  // no-op
}

TEST(CoreMemory, InjectedFailureHitsExactlyTheKthCall) {
  const long live = velTestLiveBlocks();
  velTestFailMallocAfter(3);
  void* a = velMalloc(8);
  void* b = velMalloc(8);
  void* c = velMalloc(8);
  void* d = velMalloc(8);
  EXPECT_NE(a, nullptr);
  EXPECT_NE(b, nullptr);
  EXPECT_EQ(c, nullptr);
  EXPECT_NE(d, nullptr);  // one-shot
  EXPECT_EQ(velTestLiveBlocks(), live + 3);
  velFree(a);
  velFree(b);
  velFree(d);
  EXPECT_EQ(velTestLiveBlocks(), live);

  velTestFailMallocAfter(2);
  velTestFailMallocAfter(0);  // disarm
  void* e = velMalloc(8);
  void* f = velMalloc(8);
  EXPECT_NE(e, nullptr);
  EXPECT_NE(f, nullptr);
  velFree(e);
  velFree(f);
}

TEST(CoreThreads, SettingOverridesAndRestoresOpenMPDefault) {
  const int deflt = omp_get_max_threads();
  EXPECT_EQ(ownGetNumThreads(), deflt);
  velSetNumThreads(5);
  EXPECT_EQ(ownGetNumThreads(), 5);
  velSetNumThreads(0);
  EXPECT_EQ(ownGetNumThreads(), deflt);
  velSetNumThreads(3);
  velSetNumThreads(-1);
  EXPECT_EQ(ownGetNumThreads(), deflt);
}

TEST(CoreFeatures, MaskIsStableAndConsistent) {
  const unsigned long long f = velGetEnabledCpuFeatures();
  EXPECT_EQ(f, velGetEnabledCpuFeatures());
  // Every x86-64 processor has SSE2.
  EXPECT_TRUE(f & VEL_CPU_SSE2);
  EXPECT_EQ(ownGetFeature(VEL_CPU_SSE2, 0), 1);
  EXPECT_EQ(ownGetFeature(0, 0), 0);
  // ownGetFeature tests every bit of the mask.
  EXPECT_EQ(ownGetFeature(VEL_CPU_SSE2 | VEL_CPU_SSE42, 0), (f & VEL_CPU_SSE42) ? 1 : 0);
  // Wider families imply the narrower ones.
  if (f & VEL_CPU_AVX2) EXPECT_TRUE(f & VEL_CPU_AVX);
  if (f & VEL_CPU_AVX512F) EXPECT_TRUE(f & VEL_CPU_AVX2);
  if (f & VEL_CPU_SSE42) EXPECT_TRUE(f & VEL_CPU_SSE41);
  if (f & VEL_CPU_SSE41) EXPECT_TRUE(f & VEL_CPU_SSSE3);
}
