#!/usr/bin/python3
"""Remap and affine warp against scipy.ndimage on the standard workloads, in one
process and on the same arrays: map_coordinates and affine_transform with order
0, 1 and 3 (prefilter=False) against codes 1, 2, 4 and 6.

    /usr/bin/python3 bench/peers/remap_peer.py [--lib build/bench/libvelr.so] [--reps 3]

Figures are millions of destination voxels per second, best of --reps runs:
single-threaded ones from the calling thread's CPU time (both sides run on
it), the two-thread one from wall-clock time. Ratios compare both sides
measured in this run.
"""
import argparse
import ctypes
import math
import os
import sys
import time

import numpy as np
import scipy.ndimage as ndi

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from velr_ctypes import (VelrCuboid, VelrVolume, load_library, plane_pointers,  # noqa: E402
                         volume_content, workload_volume)

REMAP_EDGE = 128
WARP_EDGE = 192
TYPES = {"8u": (np.uint8, ctypes.c_uint8), "16u": (np.uint16, ctypes.c_uint16),
         "32f": (np.float32, ctypes.c_float)}
# Our code and scipy's spline order for the same kind of kernel.
KERNELS = [(1, 0), (2, 1), (4, 3), (6, 3)]


def best_of(reps, fn, clock=time.perf_counter):
    best = math.inf
    for _ in range(reps):
        t = clock()
        fn()
        best = min(best, clock() - t)
    return best


def displacement_maps(n):
    """Identity grid plus 3 (2 field_c - 1) voxels for c = x, y, z (float32)."""
    z, y, x = np.meshgrid(np.arange(n), np.arange(n), np.arange(n), indexing="ij")
    grids = (x, y, z)
    return [(grids[c] + 3.0 * (2.0 * volume_content(n, 99 + c) - 1.0)).astype(np.float32)
            for c in range(3)]


def rotation_forward(n):
    """30 degrees about z around the centre, then the shift (2.5, -1.5, 0.75); xyz."""
    a = math.radians(30.0)
    r = np.array([[math.cos(a), -math.sin(a), 0], [math.sin(a), math.cos(a), 0], [0, 0, 1]])
    centre = np.full(3, (n - 1) / 2.0)
    shift = np.array([2.5, -1.5, 0.75])
    c = np.zeros((3, 4))
    c[:, :3] = r
    c[:, 3] = centre - r @ centre + shift
    return c


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--lib", default=None, help="path of libvelr.so")
    ap.add_argument("--reps", type=int, default=3)
    ap.add_argument("--types", default="8u,16u,32f")
    args = ap.parse_args()

    lib = load_library(args.lib)
    core = ctypes.CDLL(os.path.join(os.path.dirname(lib._name), "libvelcore.so.7"))
    f32p = ctypes.POINTER(ctypes.c_float)

    rows = []

    # ---------------------------------------------------------------- remap
    n = REMAP_EDGE
    maps = displacement_maps(n)
    map_planes = [plane_pointers(m, ctypes.c_float) for m in maps]
    coords = np.stack([maps[2], maps[1], maps[0]]).astype(np.float64)  # scipy wants z, y, x
    for tname in args.types.split(","):
        dtype, ctype = TYPES[tname]
        src = workload_volume(n, dtype)
        dst = np.zeros_like(src)
        sp, dp = plane_pointers(src, ctype), plane_pointers(dst, ctype)
        fn = getattr(lib, "velrRemap_%s_C1PV" % tname)
        fn.restype = ctypes.c_int
        item = src.itemsize
        vol = VelrVolume(n, n, n)
        roi = VelrCuboid(0, 0, 0, n, n, n)

        def ours(code):
            st = fn(sp, vol, n * item, roi, map_planes[0], map_planes[1], map_planes[2], n * 4,
                    dp, n * item, vol, code)
            assert st == 0, st

        for code, order in KERNELS:
            rows.append(measure("remap", tname, code, order, n ** 3, args.reps, core, ours,
                                lambda: ndi.map_coordinates(src, coords, order=order,
                                                            mode="nearest", prefilter=False,
                                                            output=dtype)))

    # ---------------------------------------------------------------- warp
    n = WARP_EDGE
    c = rotation_forward(n)
    coeffs = (ctypes.c_double * 12)(*c.ravel())
    inv = np.linalg.inv(c[:, :3])
    inv_shift = -inv @ c[:, 3]
    # scipy maps output to input coordinates, axes z, y, x.
    matrix_zyx = inv[::-1, ::-1].copy()
    offset_zyx = inv_shift[::-1].copy()
    for tname in args.types.split(","):
        dtype, ctype = TYPES[tname]
        src = workload_volume(n, dtype)
        dst = np.zeros_like(src)
        sp, dp = plane_pointers(src, ctype), plane_pointers(dst, ctype)
        fn = getattr(lib, "velrWarpAffine_%s_C1PV" % tname)
        fn.restype = ctypes.c_int
        item = src.itemsize
        vol = VelrVolume(n, n, n)
        roi = VelrCuboid(0, 0, 0, n, n, n)

        def ours(code):
            st = fn(sp, vol, n * item, roi, dp, n * item, roi, coeffs, code, None)
            assert st == 0, st

        for code, order in KERNELS:
            rows.append(measure("warp", tname, code, order, n ** 3, args.reps, core, ours,
                                lambda: ndi.affine_transform(src, matrix_zyx, offset_zyx,
                                                             order=order, mode="nearest",
                                                             prefilter=False, output=dtype)))

    print("| op | type | code | scipy order | scipy Mvox/s | ours 1T Mvox/s | ours 2T Mvox/s "
          "(wall) | 1T / scipy | 2T / 1T (wall) |")
    print("|---|---|---|---|---|---|---|---|---|")
    for r in rows:
        print("| %s | %s | %d | %d | %.1f | %.1f | %.1f | %.1fx | %.2fx |" % r)


def measure(op, tname, code, order, voxels, reps, core, ours, peer):
    """Single-threaded figures use the calling thread's CPU time, so that other
    processes on a busy machine do not distort the ratio; the two-thread
    speed-up compares wall-clock times."""
    core.velSetNumThreads(1)
    ours(code)  # warm up
    c1 = best_of(reps, lambda: ours(code), time.thread_time)
    w1 = best_of(reps, lambda: ours(code))
    core.velSetNumThreads(2)
    # More tries: on a shared machine a run with both threads scheduled at
    # once is what measures the split.
    w2 = best_of(3 * reps, lambda: ours(code))
    core.velSetNumThreads(0)
    peer()
    cp = best_of(max(1, reps - 1), peer, time.thread_time)
    mv = voxels / 1e6
    row = (op, tname, code, order, mv / cp, mv / c1, mv / w2, cp / c1, w1 / w2)
    print("%s %s code %d: scipy %.1f, ours %.1f (1T cpu) / %.1f (2T wall) Mvox/s"
          % (op, tname, code, mv / cp, mv / c1, mv / w2), file=sys.stderr, flush=True)
    return row


if __name__ == "__main__":
    main()
