/*
 * velr.h - velRR: numeric primitives for realistic rendering and volume
 * processing.
 *
 * Every function checks its arguments in a fixed order, returns the first
 * failing status without touching any output, and otherwise writes its
 * results into caller-supplied memory. The library keeps no state a caller
 * can see, prints nothing and never throws; all functions are reentrant.
 *
 * C99 and C++; every function has C linkage.
 */
#ifndef VELR_H
#define VELR_H

#include "velcore.h"

#if defined(_WIN32)
#define VELR_API
#else
#define VELR_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Element types                                                             */

typedef unsigned char Vel8u;
typedef unsigned short Vel16u;
typedef short Vel16s;
typedef int Vel32s;
typedef unsigned int Vel32u;
typedef float Vel32f;
typedef double Vel64f;

/* ------------------------------------------------------------------------ */
/* Status codes: 0 success, negative error (nothing written), positive
 * warning (the call completed or deliberately did nothing).                 */

typedef int VelStatus;

enum {
  velStsNoErr = 0,
  velStsEmptyCuboid = 1,           /* velrGetResizeCuboid: empty result    */
  velStsDivByZero = 6,             /* velrDiv_32f_C1IM: a zero divisor     */
  velStsWrongIntersectRoi = 29,    /* planar remap/warp: start off plane   */
  velStsWrongIntersectVolume = 40, /* resize/remap/warp: start off volume  */
  velStsNoMemErr = -4,
  velStsBadArgErr = -5,
  velStsSizeErr = -6,
  velStsRangeErr = -7,
  velStsNullPtrErr = -8,
  velStsMemAllocErr = -9,
  velStsOutOfRangeErr = -11,
  velStsStepErr = -14,
  velStsInterpolationErr = -22,
  velStsResizeFactorErr = -23,
  velStsNumChannelsErr = -53,
  velStsCoeffErr = -56,
  velStsRegionTooSmallErr = -57
};

/* ------------------------------------------------------------------------ */
/* Version                                                                   */

typedef struct VelLibraryVersion {
  int major;
  int minor;
  int majorBuild;
  int build;
  char targetCpu[4];
  const char* Name;
  const char* Version;
  const char* BuildDate;
} VelLibraryVersion;

/* The library's version record: static storage, never freed by the caller.
 * Its Name ends in "+" when the processor reports SSE4.2. */
VELR_API const VelLibraryVersion* velrGetLibVersion(void);

/* ------------------------------------------------------------------------ */
/* Ray tracing: records, tree, intersection                                  */

/* Per-triangle intersection record, 40 bytes. `axes` packs the dominant axis
 * k (bits 5..4) and the projection axes u (3..2) and v (1..0); bit 31 marks a
 * plane perpendicular to axis k. All-zero for a degenerate triangle. */
typedef struct VelrTriangleAccel {
  Vel32u axes;
  Vel32f nu, ck, nv, cu, cv, bu, bv, au, av;
} VelrTriangleAccel;

/* KD-tree node, 8 bytes. Inner node: word 0 holds the split axis (bits 1..0)
 * and the distance in nodes to the pair of children (bits 30..3), word 1 the
 * split coordinate as a float. Leaves have bit 31 of word 0 set. */
typedef struct VelrKDTreeNode {
  Vel32u word[2];
} VelrKDTreeNode;

#define VELR_KDTREE_ONE_LEAF 0x499D3DC2u /* one leaf holding every triangle */
#define VELR_KDTREE_FULL 0x2D07705Bu     /* cost-driven full tree          */

typedef struct VelrKDTreeBuildOptions {
  Vel32u alg;           /* VELR_KDTREE_ONE_LEAF or VELR_KDTREE_FULL        */
  Vel32u maxDepth;      /* deepest level, at most 50                       */
  Vel32f qualityFactor; /* full tree: 0 (fast) .. 1 (best)                 */
  Vel32u memoryLimitMB; /* full tree: budget in MiB, at least 32           */
  Vel32s flags;         /* full tree: non-zero selects the alternative path */
} VelrKDTreeBuildOptions;

/* One mesh as the intersection queries see it. */
typedef struct VelrIntersectObject {
  const Vel32f* pBound;            /* xmin, ymin, zmin, xmax, ymax, zmax   */
  const VelrTriangleAccel* pAccel; /* records indexed by triangle number   */
  const VelrKDTreeNode* pRootNode; /* the tree from velrKDTreeBuildAlloc   */
} VelrIntersectObject;

/* Writes the size in bytes of one VelrTriangleAccel (40).
 * Status: velStsNullPtrErr. */
VELR_API VelStatus velrTriangleAccelGetSize(int* pSize);

/* Fills cntTrngl records from a vertex array (x, y, z floats) and an index
 * array of four ints per triangle (the fourth is not read). Double-precision
 * arithmetic. No argument is checked; cntTrngl < 1 writes nothing. */
VELR_API VelStatus velrTriangleAccelInit(VelrTriangleAccel* pAccel, const Vel32f* pVertexCoord,
                                         const int* pTrnglIndex, int cntTrngl);

/* Builds a KD-tree over the mesh into one block from velMalloc, returned in
 * *ppTree with its length in *pLength. Release with velrKDTreeFree.
 * Statuses: velStsNullPtrErr, velStsSizeErr, velStsOutOfRangeErr,
 * velStsNoMemErr (budget too small), velStsMemAllocErr (allocation failed or
 * budget exhausted during the build), velStsBadArgErr (unknown alg). */
VELR_API VelStatus velrKDTreeBuildAlloc(VelrKDTreeNode** ppTree, const Vel32f* pVertexCoord,
                                        const int* pTrnglIndex, int cntVertex, int cntTrngl,
                                        int* pLength, const VelrKDTreeBuildOptions* pOpt);

/* Releases a tree from velrKDTreeBuildAlloc; null is a no-op. */
VELR_API VelStatus velrKDTreeFree(VelrKDTreeNode* pTree);

/* Nearest hit for a width x height block of rays from one origin. pDist holds
 * each ray's maximum distance on entry and the hit distance on exit; pHit
 * receives the weights of vertices A and B; pTrngl the triangle or -1.
 * Misses leave pDist and pHit unchanged. Checks no argument. */
VELR_API VelStatus velrIntersectEyeSO_32f(const Vel32f* pOrigin, const Vel32f* const pDirection[3],
                                          Vel32f* pDist, Vel32f* pHit[2], Vel32s* pTrngl,
                                          const VelrIntersectObject* pObj, int width, int height);

/* Nearest hit with one origin per ray (three planes), for secondary rays
 * that start on a surface: parallel slabs need the origin strictly inside
 * the box, triangles nearly parallel to the ray are passed over, and a new
 * hit must be nearer by more than 0.00001. Checks no argument. */
VELR_API VelStatus velrIntersectMO_32f(const Vel32f* const pOrigin[3],
                                       const Vel32f* const pDirection[3], Vel32f* pDist,
                                       Vel32f* pHit[2], Vel32s* pTrngl,
                                       const VelrIntersectObject* pObj, int width, int height);

/* Any hit (shadow rays) from one origin over the segment (0, 1) of each
 * direction. Rays with a negative mask are skipped; a blocked ray gets mask
 * -1 and its blocker in pOccluder. Checks no argument. */
VELR_API VelStatus velrIntersectAnySO_32f(const Vel32f* pOrigin, const Vel32f* const pDirection[3],
                                          Vel32s* pOccluder, Vel32s* pMask, int width, int height,
                                          const VelrIntersectObject* pObj);

/* Up to maxHits successive hits along each ray, written as layers of
 * width x height planes; distances are measured from the origin.
 * Checks no argument. */
VELR_API VelStatus velrIntersectMultipleSO_32f(const Vel32f* pOrigin,
                                               const Vel32f* const pDirection[3], Vel32f* pDist,
                                               Vel32f* pHit[2], Vel32s* pTrngl, int width,
                                               int height, int maxHits,
                                               const VelrIntersectObject* pObj);

/* ------------------------------------------------------------------------ */
/* Ray casting                                                               */

/* Eye-ray directions of block (blockX, blockY) of a blockWidth x blockHeight
 * tiling: D(x, y) = pDH * (y + blockHeight * blockY) + pImPlaneOrigin
 * + pDW * (x + blockWidth * blockX), in width x height planes.
 * Status: velStsNullPtrErr (only pDirection is checked). */
VELR_API VelStatus velrCastEye_32f(const Vel32f* pImPlaneOrigin, const Vel32f* pDW,
                                   const Vel32f* pDH, int blockWidth, int blockHeight, int blockX,
                                   int blockY, Vel32f* const pDirection[3], int width, int height);

/* Mirror directions of the incident rays about the surface normals; inactive
 * rays get (0, 0, 0). Status: velStsNullPtrErr; len < 1 writes nothing. */
VELR_API VelStatus velrCastReflectionRay_32f(const Vel32f* const pInc[3], const Vel32s* pMask,
                                             const Vel32f* const pSurfNorm[3],
                                             Vel32f* const pReflect[3], int len);

/* Shadow rays S = P - L from a point light to the surface points; rays whose
 * point faces away from the light (or lies almost in its plane) are switched
 * off in the mask. Status: velStsNullPtrErr; len < 1 writes nothing. */
VELR_API VelStatus velrCastShadowSO_32f(const Vel32f* pLightPos, const Vel32f* pDotRay,
                                        const Vel32f* const pSurfNorm[3],
                                        const Vel32f* const pSurfPoint[3], Vel32s* pMask,
                                        Vel32f* pDotShadow, Vel32f* const pShadowDir[3], int len);

/* ------------------------------------------------------------------------ */
/* Hit points, normals, bounding box                                         */

/* Hit points O + t * D * eps from one origin; (0, 0, 0) for inactive rays.
 * Status: velStsNullPtrErr; len < 1 writes nothing. */
VELR_API VelStatus velrHitPoint3DEpsS0_32f_M(const Vel32f* pOrigin,
                                             const Vel32f* const pDirection[3],
                                             const Vel32f* pDist, const Vel32s* pMask,
                                             Vel32f* const pHitPoint[3], int len, Vel32f eps);

/* Hit points from one origin per ray. Status: velStsNullPtrErr. */
VELR_API VelStatus velrHitPoint3DEpsM0_32f_M(const Vel32f* const pOrigin[3],
                                             const Vel32f* const pDirection[3],
                                             const Vel32f* pDist, const Vel32s* pMask,
                                             Vel32f* const pHitPoint[3], int len, Vel32f eps);

/* Per-ray flat normal: the normal of the hit triangle (mask = triangle
 * number), (0, 0, 0) for inactive rays. Status: velStsNullPtrErr. */
VELR_API VelStatus velrSurfFlatNormal_32f(const Vel32f* pTrnglNorm, const Vel32s* pMask,
                                          Vel32f* const pSurfNorm[3], int len);

/* Per-ray smooth normal: vertex normals blended by the hit weights and
 * normalised; (0, 0, 0) for inactive rays and vanishing blends.
 * Status: velStsNullPtrErr. */
VELR_API VelStatus velrSurfSmoothNormal_32f(const Vel32f* pVertNorm, const Vel32s* pTrnglIndex,
                                            const Vel32s* pMask, const Vel32f* const pHit[2],
                                            Vel32f* const pSurfNorm[3], int len, int indexStep);

/* Unit normal of every triangle (index step 4), in double precision,
 * parallel over triangles; (0, 0, 0) for degenerate ones.
 * Status: velStsNullPtrErr. */
VELR_API VelStatus velrTriangleNormal_32f(const Vel32f* pVertCoor, const Vel32s* pTrnglIndex,
                                          Vel32f* pTrnglNorm, int lenTrngl);

/* Bounding box of the vertices widened by 0.0001 of the largest absolute
 * coordinate, as xmin, ymin, zmin, xmax, ymax, zmax; NaN coordinates are
 * ignored. Status: velStsNullPtrErr. */
VELR_API VelStatus velrSetBoundBox_32f(const Vel32f* pVertCoor, int lenVert, Vel32f* pBound);

/* ------------------------------------------------------------------------ */
/* Per-ray arithmetic (an element is active when its mask is 0 or more).
 * Each returns velStsNullPtrErr for a missing array; lengths below 1 write
 * nothing.                                                                  */

/* pSrcDst[c][i] += (pSrc0[c] * pSrc2[c][i]) * pSrc1[i] for active rays. */
VELR_API VelStatus velrAddMulMul_32f_AC1P3IM(const Vel32f* pSrc0, const Vel32f* pSrc1,
                                             const Vel32f* const pSrc2[3], const Vel32s* pMask,
                                             Vel32f* const pSrcDst[3], int len);

/* pSrcDst[i] *= pSrc[i] (times 0.0 for inactive rays). */
VELR_API VelStatus velrMul_32f_C1IM(const Vel32f* pSrc, const Vel32s* pMask, Vel32f* pSrcDst,
                                    int len);

/* Each of three planes multiplied by pSrc (times 0.0 for inactive rays). */
VELR_API VelStatus velrMul_32f_C1P3IM(const Vel32f* pSrc, const Vel32s* pMask,
                                      Vel32f* const pSrcDst[3], int len);

/* pSrcDst[i] /= pSrc[i]; 0 for inactive rays. Warning velStsDivByZero when
 * an active ray was divided by zero. */
VELR_API VelStatus velrDiv_32f_C1IM(const Vel32f* pSrc, const Vel32s* pMask, Vel32f* pSrcDst,
                                    int len);

/* Dot products of two 3-plane vectors; 0 for inactive rays. */
VELR_API VelStatus velrDot_32f_P3C1M(const Vel32f* const pSrc0[3], const Vel32f* const pSrc1[3],
                                     const Vel32s* pMask, Vel32f* pDot, int len);

/* Turns each normal to face against its ray and writes the (non-positive)
 * dot product. */
VELR_API VelStatus velrDotChangeNorm_32f_IM(const Vel32f* const pSrc[3], const Vel32s* pMask,
                                            Vel32f* const pSrcDst[3], Vel32f* pDot, int len);

/* Distance from a light to each point, at least 1.0. */
VELR_API VelStatus velrDistAttenuationSO_32f_M(const Vel32f* pPos,
                                               const Vel32f* const pSurfPoint[3],
                                               const Vel32s* pMask, Vel32f* pDist, int len);

/* ------------------------------------------------------------------------ */
/* Spherical harmonics: real orthonormal basis, bands 0 to 15                */

/* Context in a caller buffer sized by velrSHGetSize_32f. The two table
 * positions are byte offsets from the start of the context (0 when absent),
 * which keeps the header at 16 bytes with 64-bit pointers. */
typedef struct VelrSHState {
  Vel32u order;
  Vel32s algorithm; /* 0 closed form, 1 recurrence with tables */
  Vel32u tableA;
  Vel32u tableB;
} VelrSHState;

/* Basis values of bands 0..order for len unit directions, (order + 1)^2
 * floats per direction. Statuses: velStsNullPtrErr, velStsSizeErr,
 * velStsRangeErr. */
VELR_API VelStatus velrSH_32f(const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ, int len,
                              Vel32f* pDst, Vel32u order, const VelrSHState* pSHState);

/* Basis values of band `band` alone, 2 * band + 1 floats per direction. */
VELR_API VelStatus velrSHBand_32f(const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ, int len,
                                  Vel32f* pDst, Vel32u band);

/* Size in bytes of a context for `order` and `algorithm` (0 or 1). */
VELR_API VelStatus velrSHGetSize_32f(Vel32u order, int algorithm, int* pSize);

/* Initialises a context in a buffer of velrSHGetSize_32f bytes. */
VELR_API VelStatus velrSHInit_32f(VelrSHState* pSHState, Vel32u order, int algorithm);

/* Forward transforms: project len samples onto coefficients, accumulating
 * into the coefficient vector(s). */
VELR_API VelStatus velrSHTFwd_32f_C1I(const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ,
                                      const Vel32f* pSrc, int len, Vel32f* pSrcDstCoeffs,
                                      Vel32u order, const VelrSHState* pSHState);
VELR_API VelStatus velrSHTFwd_32f_C3P3I(const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ,
                                        const Vel32f* pSrc, int len,
                                        Vel32f* const pSrcDstCoeffs[3], Vel32u order,
                                        const VelrSHState* pSHState);
VELR_API VelStatus velrSHTFwd_32f_P3I(const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ,
                                      const Vel32f* const pSrc[3], int len,
                                      Vel32f* const pSrcDstCoeffs[3], Vel32u order,
                                      const VelrSHState* pSHState);

/* Inverse transforms: evaluate coefficient vector(s) at len directions. */
VELR_API VelStatus velrSHTInv_32f_C1(const Vel32f* pSrcCoeffs, Vel32u order, const Vel32f* pX,
                                     const Vel32f* pY, const Vel32f* pZ, Vel32f* pDst, int len,
                                     const VelrSHState* pSHState);
VELR_API VelStatus velrSHTInv_32f_P3(const Vel32f* const pSrcCoeffs[3], Vel32u order,
                                     const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ,
                                     Vel32f* const pDst[3], int len, const VelrSHState* pSHState);
VELR_API VelStatus velrSHTInv_32f_P3C3(const Vel32f* const pSrcCoeffs[3], Vel32u order,
                                       const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ,
                                       Vel32f* pDst, int len, const VelrSHState* pSHState);

/* ------------------------------------------------------------------------ */
/* Volumes                                                                   */

typedef struct VelrVolume {
  int width;  /* voxels per line  */
  int height; /* lines per plane  */
  int depth;  /* planes           */
} VelrVolume;

/* Region of interest in absolute voxel coordinates. */
typedef struct VelrCuboid {
  int x, y, z;
  int width, height, depth;
} VelrCuboid;

typedef struct VelrPoint {
  int x, y, z;
} VelrPoint;

/* Inclusive source bounds handed to the remap and warp kernels. */
typedef struct VelrRemapRegion {
  int xMin, yMin, zMin;
  int xMax, yMax, zMax;
} VelrRemapRegion;

/* Sampled four-tap kernel: entry k is K(k / 100), k = 0..200, then zeros. */
typedef Vel32f VelrCubicWeightTable[208];

/* Interpolation codes. */
#define VELR_INTER_NEAREST 1
#define VELR_INTER_LINEAR 2
#define VELR_INTER_CUBIC_LAGRANGE 4
#define VELR_INTER_BSPLINE 5
#define VELR_INTER_CATMULL_ROM 6
#define VELR_INTER_CUBIC_B05_C03 7

/* Destination region that a resize of srcRoi writes. Warning
 * velStsEmptyCuboid when it is empty (nothing written). */
VELR_API VelStatus velrGetResizeCuboid(VelrCuboid srcRoi, VelrCuboid* pDstRoi, double xFactor,
                                       double yFactor, double zFactor, double xShift,
                                       double yShift, double zShift, int interpolation);

/* Work-buffer size in bytes for a resize into dstRoi with the given code. */
VELR_API VelStatus velrResizeGetBufSize(VelrCuboid srcRoi, VelrCuboid dstRoi, int nChannel,
                                        int interpolation, int* pSize);

/* Resize by per-axis factors and shifts: destination voxel v samples the
 * source at (v + 0.5 - shift) / factor - 0.5. V: contiguous volume with line
 * and plane steps in bytes; PV: one pointer per plane. */
VELR_API VelStatus velrResize_8u_C1V(const Vel8u* pSrc, VelrVolume srcVolume, int srcStep,
                                     int srcPlaneStep, VelrCuboid srcRoi, Vel8u* pDst,
                                     int dstStep, int dstPlaneStep, VelrCuboid dstRoi,
                                     double xFactor, double yFactor, double zFactor,
                                     double xShift, double yShift, double zShift,
                                     int interpolation, Vel8u* pBuffer);
VELR_API VelStatus velrResize_8u_C1PV(const Vel8u* const* pSrc, VelrVolume srcVolume,
                                      int srcStep, VelrCuboid srcRoi, Vel8u* const* pDst,
                                      int dstStep, VelrCuboid dstRoi, double xFactor,
                                      double yFactor, double zFactor, double xShift,
                                      double yShift, double zShift, int interpolation,
                                      Vel8u* pBuffer);
VELR_API VelStatus velrResize_16u_C1V(const Vel16u* pSrc, VelrVolume srcVolume, int srcStep,
                                      int srcPlaneStep, VelrCuboid srcRoi, Vel16u* pDst,
                                      int dstStep, int dstPlaneStep, VelrCuboid dstRoi,
                                      double xFactor, double yFactor, double zFactor,
                                      double xShift, double yShift, double zShift,
                                      int interpolation, Vel8u* pBuffer);
VELR_API VelStatus velrResize_16u_C1PV(const Vel16u* const* pSrc, VelrVolume srcVolume,
                                       int srcStep, VelrCuboid srcRoi, Vel16u* const* pDst,
                                       int dstStep, VelrCuboid dstRoi, double xFactor,
                                       double yFactor, double zFactor, double xShift,
                                       double yShift, double zShift, int interpolation,
                                       Vel8u* pBuffer);
VELR_API VelStatus velrResize_32f_C1V(const Vel32f* pSrc, VelrVolume srcVolume, int srcStep,
                                      int srcPlaneStep, VelrCuboid srcRoi, Vel32f* pDst,
                                      int dstStep, int dstPlaneStep, VelrCuboid dstRoi,
                                      double xFactor, double yFactor, double zFactor,
                                      double xShift, double yShift, double zShift,
                                      int interpolation, Vel8u* pBuffer);
VELR_API VelStatus velrResize_32f_C1PV(const Vel32f* const* pSrc, VelrVolume srcVolume,
                                       int srcStep, VelrCuboid srcRoi, Vel32f* const* pDst,
                                       int dstStep, VelrCuboid dstRoi, double xFactor,
                                       double yFactor, double zFactor, double xShift,
                                       double yShift, double zShift, int interpolation,
                                       Vel8u* pBuffer);

/* Remap: destination voxel (x, y, z) samples the source at the position held
 * by the three coordinate volumes; positions outside srcRoi leave the voxel
 * untouched. */
VELR_API VelStatus velrRemap_8u_C1PV(const Vel8u* const* pSrc, VelrVolume srcVolume, int srcStep,
                                     VelrCuboid srcRoi, const Vel32f* const* pxMap,
                                     const Vel32f* const* pyMap, const Vel32f* const* pzMap,
                                     int mapStep, Vel8u* const* pDst, int dstStep,
                                     VelrVolume dstVolume, int interpolation);
VELR_API VelStatus velrRemap_16u_C1PV(const Vel16u* const* pSrc, VelrVolume srcVolume,
                                      int srcStep, VelrCuboid srcRoi, const Vel32f* const* pxMap,
                                      const Vel32f* const* pyMap, const Vel32f* const* pzMap,
                                      int mapStep, Vel16u* const* pDst, int dstStep,
                                      VelrVolume dstVolume, int interpolation);
VELR_API VelStatus velrRemap_32f_C1PV(const Vel32f* const* pSrc, VelrVolume srcVolume,
                                      int srcStep, VelrCuboid srcRoi, const Vel32f* const* pxMap,
                                      const Vel32f* const* pyMap, const Vel32f* const* pzMap,
                                      int mapStep, Vel32f* const* pDst, int dstStep,
                                      VelrVolume dstVolume, int interpolation);

/* Work-buffer size of the affine warp: always 0 (no buffer is needed). */
VELR_API VelStatus velrWarpAffineGetBufSize(VelrCuboid srcRoi, VelrCuboid dstRoi, int nChannel,
                                            int interpolation, int* pSize);

/* Affine warp by the forward transform coeffs (destination = coeffs * source);
 * each destination voxel of dstRoi samples the source through the inverse.
 * Status velStsCoeffErr for a singular transform. */
VELR_API VelStatus velrWarpAffine_8u_C1PV(const Vel8u* const* pSrc, VelrVolume srcVolume,
                                          int srcStep, VelrCuboid srcRoi, Vel8u* const* pDst,
                                          int dstStep, VelrCuboid dstRoi,
                                          const Vel64f coeffs[3][4], int interpolation,
                                          Vel8u* pBuffer);
VELR_API VelStatus velrWarpAffine_16u_C1PV(const Vel16u* const* pSrc, VelrVolume srcVolume,
                                           int srcStep, VelrCuboid srcRoi, Vel16u* const* pDst,
                                           int dstStep, VelrCuboid dstRoi,
                                           const Vel64f coeffs[3][4], int interpolation,
                                           Vel8u* pBuffer);
VELR_API VelStatus velrWarpAffine_32f_C1PV(const Vel32f* const* pSrc, VelrVolume srcVolume,
                                           int srcStep, VelrCuboid srcRoi, Vel32f* const* pDst,
                                           int dstStep, VelrCuboid dstRoi,
                                           const Vel64f coeffs[3][4], int interpolation,
                                           Vel8u* pBuffer);

/* Work-buffer size of velrFilter_16s_C1PV. */
VELR_API VelStatus velrFilterGetBufSize(VelrVolume dstRoiVolume, VelrVolume kernelVolume,
                                        int nChannel, int* pSize);

/* 3-D convolution of a Vel16s volume with a Vel32s kernel (mirrored, aligned
 * at `anchor`), divided by `divisor` with round-half-to-even and saturated. */
VELR_API VelStatus velrFilter_16s_C1PV(const Vel16s* const* pSrc, int srcStep, Vel16s* const* pDst,
                                       int dstStep, VelrVolume dstRoiVolume, const Vel32s* pKernel,
                                       VelrVolume kernelVolume, VelrPoint anchor, int divisor,
                                       Vel8u* pBuffer);

#ifdef __cplusplus
}
#endif

#endif /* VELR_H */
