#!/usr/bin/python3
"""Volume resize against scipy.ndimage.zoom on the standard workloads.

Both sides run in this one process on the same numpy volumes: our library
through ctypes, scipy.ndimage.zoom with grid_mode=True and mode='nearest'
(the same coordinate mapping and edge replication) at order 0, 1 and 3
(prefilter=False, so it interpolates the samples as our four-tap codes do).
Codes 1, 2, 4 and 6 are compared with orders 0, 1, 3 and 3. Every figure is
the best of --repeat runs; the ratio is ours over scipy's throughput.

Usage: resize_peer.py [--lib build/bench/libvelr.so] [--repeat 3]
                      [--workloads zoom2,zoom0.5,aniso] [--types 8u,16u,32f]
                      [--codes 1,2,4,6] [--threads 1]
"""
import argparse
import ctypes
import os
import sys
import time

import numpy as np
import scipy
import scipy.ndimage

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import velr_ctypes as vc  # noqa: E402

WORKLOADS = {
    "zoom2": (128, (2.0, 2.0, 2.0)),
    "zoom0.5": (256, (0.5, 0.5, 0.5)),
    "aniso": (128, (1.5, 0.75, 2.0)),
}
TYPES = {"8u": (np.uint8, ctypes.c_uint8), "16u": (np.uint16, ctypes.c_uint16),
         "32f": (np.float32, ctypes.c_float)}
ORDER_OF_CODE = {1: 0, 2: 1, 4: 3, 5: 3, 6: 3, 7: 3}


def bind(lib, tname, planar):
    fn = getattr(lib, "velrResize_%s_C1%s" % (tname, "PV" if planar else "V"))
    fn.restype = ctypes.c_int
    common_tail = [ctypes.c_double] * 6 + [ctypes.c_int, ctypes.c_void_p]
    if planar:
        fn.argtypes = ([ctypes.c_void_p, vc.VelrVolume, ctypes.c_int, vc.VelrCuboid,
                        ctypes.c_void_p, ctypes.c_int, vc.VelrCuboid] + common_tail)
    else:
        fn.argtypes = ([ctypes.c_void_p, vc.VelrVolume, ctypes.c_int, ctypes.c_int, vc.VelrCuboid,
                        ctypes.c_void_p, ctypes.c_int, ctypes.c_int, vc.VelrCuboid] + common_tail)
    return fn


def best_of(repeat, fn):
    """Best wall time and best process CPU time of `repeat` runs."""
    wall, cpu = float("inf"), float("inf")
    for _ in range(repeat):
        w0, c0 = time.perf_counter(), time.process_time()
        fn()
        wall = min(wall, time.perf_counter() - w0)
        cpu = min(cpu, time.process_time() - c0)
    return wall, cpu


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--lib", default=None)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--workloads", default="zoom2,zoom0.5,aniso")
    ap.add_argument("--types", default="8u,16u,32f")
    ap.add_argument("--codes", default="1,2,4,6")
    ap.add_argument("--threads", type=int, default=1)
    args = ap.parse_args()

    lib = vc.load_library(args.lib)
    core = ctypes.CDLL(os.path.join(os.path.dirname(lib._name), "libvelcore.so"))
    core.velSetNumThreads(args.threads)
    get_cuboid = lib.velrGetResizeCuboid
    get_cuboid.argtypes = [vc.VelrCuboid, ctypes.POINTER(vc.VelrCuboid)] + [ctypes.c_double] * 6 + [
        ctypes.c_int]
    buf_size = lib.velrResizeGetBufSize
    buf_size.argtypes = [vc.VelrCuboid, vc.VelrCuboid, ctypes.c_int, ctypes.c_int,
                         ctypes.POINTER(ctypes.c_int)]

    print("scipy %s, numpy %s, our threads %d, best of %d (wall / process CPU)" %
          (scipy.__version__, np.__version__, args.threads, args.repeat))
    header = ("workload", "type", "code", "layout", "ours Mvox/s", "scipy Mvox/s", "ratio wall",
              "ratio cpu", "max |diff|")
    print("%-8s %-4s %-4s %-6s %12s %13s %10s %9s %10s" % header)
    codes = [int(c) for c in args.codes.split(",")]
    for wname in args.workloads.split(","):
        n, f = WORKLOADS[wname]
        src_roi = vc.VelrCuboid(0, 0, 0, n, n, n)
        dst_roi = vc.VelrCuboid()
        get_cuboid(src_roi, ctypes.byref(dst_roi), f[0], f[1], f[2], 0, 0, 0, 1)
        shape = (dst_roi.depth, dst_roi.height, dst_roi.width)
        voxels = shape[0] * shape[1] * shape[2]
        for tname in args.types.split(","):
            dtype, ctype = TYPES[tname]
            src = np.ascontiguousarray(vc.workload_volume(n, dtype))
            scipy_times = {}
            for code in codes:
                order = ORDER_OF_CODE[code]
                size = ctypes.c_int()
                buf_size(src_roi, dst_roi, 1, code, ctypes.byref(size))
                buf = np.zeros(size.value, np.uint8)
                if order not in scipy_times:
                    zoom = (f[2], f[1], f[0])

                    def peer():
                        peer.out = scipy.ndimage.zoom(src, zoom, order=order, mode="nearest",
                                                      grid_mode=True, prefilter=False)

                    scipy_times[order] = (best_of(args.repeat if order < 3 else 1, peer), peer.out)
                (s_wall, s_cpu), s_out = scipy_times[order]
                for planar in (False, True):
                    dst = np.zeros(shape, dtype)
                    fn = bind(lib, tname, planar)
                    item = src.itemsize
                    if planar:
                        sp = vc.plane_pointers(src, ctype)
                        dp = vc.plane_pointers(dst, ctype)

                        def ours():
                            return fn(sp, vc.VelrVolume(n, n, n), n * item, src_roi, dp,
                                      shape[2] * item, dst_roi, f[0], f[1], f[2], 0, 0, 0, code,
                                      buf.ctypes.data)
                    else:
                        def ours():
                            return fn(src.ctypes.data, vc.VelrVolume(n, n, n), n * item,
                                      n * n * item, src_roi, dst.ctypes.data, shape[2] * item,
                                      shape[1] * shape[2] * item, dst_roi, f[0], f[1], f[2], 0, 0,
                                      0, code, buf.ctypes.data)
                    status = ours()
                    if status != 0:
                        print("status %d for %s %s code %d" % (status, wname, tname, code))
                        continue
                    o_wall, o_cpu = best_of(args.repeat, ours)
                    diff = np.abs(dst.astype(np.float64) - s_out.astype(np.float64)).max()
                    print("%-8s %-4s %-4d %-6s %12.1f %13.1f %10.1f %9.1f %10.4g" %
                          (wname, tname, code, "C1PV" if planar else "C1V", voxels / o_wall / 1e6,
                           voxels / s_wall / 1e6, s_wall / o_wall, s_cpu / o_cpu, diff))
                    sys.stdout.flush()


if __name__ == "__main__":
    main()
