/*
 * velcore.h - the core library under velRR: aligned memory, processor
 * features and the thread count that the library's parallel operations use.
 *
 * C99 and C++; every function has C linkage.
 */
#ifndef VELCORE_H
#define VELCORE_H

#if defined(_WIN32)
#define VELCORE_API
#else
#define VELCORE_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Processor feature bits reported by velGetEnabledCpuFeatures() and tested by
 * ownGetFeature(). A bit is set only when the processor has the feature and,
 * for the AVX families, the operating system saves the wider registers. */
#define VEL_CPU_MMX        0x00000001ULL
#define VEL_CPU_SSE        0x00000002ULL
#define VEL_CPU_SSE2       0x00000004ULL
#define VEL_CPU_SSE3       0x00000008ULL
#define VEL_CPU_SSSE3      0x00000010ULL
#define VEL_CPU_MOVBE      0x00000020ULL
#define VEL_CPU_SSE41      0x00000040ULL
#define VEL_CPU_SSE42      0x00000080ULL
#define VEL_CPU_AVX        0x00000100ULL
#define VEL_CPU_AES        0x00000200ULL
#define VEL_CPU_CLMUL      0x00000400ULL
#define VEL_CPU_POPCNT     0x00000800ULL
#define VEL_CPU_F16C       0x00001000ULL
#define VEL_CPU_FMA3       0x00002000ULL
#define VEL_CPU_AVX2       0x00004000ULL
#define VEL_CPU_BMI1       0x00008000ULL
#define VEL_CPU_BMI2       0x00010000ULL
#define VEL_CPU_LZCNT      0x00020000ULL
#define VEL_CPU_AVX512F    0x00040000ULL
#define VEL_CPU_AVX512CD   0x00080000ULL
#define VEL_CPU_AVX512BW   0x00100000ULL
#define VEL_CPU_AVX512DQ   0x00200000ULL
#define VEL_CPU_AVX512VL   0x00400000ULL

/* Returns memory for `size` bytes aligned to 64 bytes, or null when size is
 * below 1 or the system has no memory left. Release with velFree. */
VELCORE_API void* velMalloc(int size);

/* Releases a block from velMalloc; null is a no-op. */
VELCORE_API void velFree(void* ptr);

/* Number of threads one library call may use: the value set by
 * velSetNumThreads, or OpenMP's maximum (so OMP_NUM_THREADS applies). */
VELCORE_API int ownGetNumThreads(void);

/* Sets what ownGetNumThreads() returns; n < 1 restores the default. */
VELCORE_API void velSetNumThreads(int n);

/* Non-zero when every feature bit of `mask` is enabled. The second argument
 * is reserved and ignored. */
VELCORE_API int ownGetFeature(unsigned long long mask, int reserved);

/* The mask of enabled processor features (VEL_CPU_* bits), read with cpuid
 * once and cached. */
VELCORE_API unsigned long long velGetEnabledCpuFeatures(void);

/* Test support. velTestFailMallocAfter(k) makes the k-th velMalloc call after
 * it fail (k = 1: the next call); k < 1 disarms. velTestLiveBlocks() counts
 * the blocks from velMalloc not yet released, for leak checks. */
VELCORE_API void velTestFailMallocAfter(int k);
VELCORE_API long velTestLiveBlocks(void);

#ifdef __cplusplus
}
#endif

#endif /* VELCORE_H */
