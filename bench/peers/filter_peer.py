#!/usr/bin/env python3
"""3-D convolution of the int16 256^3 workload: velrFilter_16s_C1PV (1 and 2
threads) against scipy.ndimage.convolve on the same data, in one process.

Our filter reads a caller-provided border, so it gets the volume padded by
edge replication, which is what scipy's mode='nearest' does internally. Both
sides produce 256^3 int16 output voxels; we check that ours equals the
exactly rounded result. Usage: filter_peer.py [--lib path] [--reps n]
"""
import argparse
import ctypes
import os
import sys
import time

import numpy as np
import scipy.ndimage as ndi

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import velr_ctypes as vc  # noqa: E402

N = 256


def binomial(*rows):
    """Separable kernel as an array [z][y][x] from its x, y, z factors."""
    kx, ky, kz = (np.array(r, dtype=np.int64) for r in rows)
    return (kz[:, None, None] * ky[None, :, None] * kx[None, None, :]).astype(np.int32)


WORKLOADS = [
    ("3x3x3", binomial([1, 2, 1], [1, 2, 1], [1, 2, 1]), 64),
    ("5x5x5", binomial([1, 4, 6, 4, 1], [1, 4, 6, 4, 1], [1, 4, 6, 4, 1]), 4096),
    ("7x3x3", binomial([1, 6, 15, 20, 15, 6, 1], [1, 2, 1], [1, 2, 1]), 1024),
]


class Velr:
    def __init__(self, path):
        self.lib = vc.load_library(path)
        core_path = os.path.join(os.path.dirname(self.lib._name), "libvelcore.so")
        self.core = ctypes.CDLL(core_path if os.path.exists(core_path) else "libvelcore.so")
        self.core.velSetNumThreads.argtypes = [ctypes.c_int]
        i16p = ctypes.POINTER(ctypes.c_int16)
        self.lib.velrFilterGetBufSize.argtypes = [vc.VelrVolume, vc.VelrVolume, ctypes.c_int,
                                                  ctypes.POINTER(ctypes.c_int)]
        self.lib.velrFilter_16s_C1PV.argtypes = [
            ctypes.POINTER(i16p), ctypes.c_int, ctypes.POINTER(i16p), ctypes.c_int, vc.VelrVolume,
            ctypes.POINTER(ctypes.c_int32), vc.VelrVolume, vc.VelrPoint, ctypes.c_int,
            ctypes.POINTER(ctypes.c_uint8)]

    def prepare(self, padded, border, kernel, divisor, threads):
        """Returns a no-argument callable that filters into `out`."""
        self.core.velSetNumThreads(threads)
        kd, kh, kw = kernel.shape
        dv = vc.VelrVolume(N, N, N)
        kv = vc.VelrVolume(kw, kh, kd)
        size = ctypes.c_int()
        assert self.lib.velrFilterGetBufSize(dv, kv, 1, ctypes.byref(size)) == 0
        buf = (ctypes.c_uint8 * size.value)()
        out = np.zeros((N, N, N), dtype=np.int16)
        # Plane pointers of the padded source at the region's origin.
        interior = padded[:, border:, border:]
        assert padded.flags.c_contiguous
        src_planes = vc.plane_pointers(padded, ctypes.c_int16)
        i16p = ctypes.POINTER(ctypes.c_int16)
        row_offset = border * padded.strides[1] + border * padded.strides[2]
        for z in range(padded.shape[0]):
            src_planes[z] = ctypes.cast(ctypes.addressof(src_planes[z].contents) + row_offset, i16p)
        first = ctypes.cast(ctypes.addressof(src_planes) + border * ctypes.sizeof(i16p), ctypes.POINTER(i16p))
        dst_planes = vc.plane_pointers(out, ctypes.c_int16)
        kernel_c = np.ascontiguousarray(kernel, dtype=np.int32)
        kptr = kernel_c.ctypes.data_as(ctypes.POINTER(ctypes.c_int32))
        anchor = vc.VelrPoint(kw // 2, kh // 2, kd // 2)
        keep = (interior, src_planes, dst_planes, kernel_c, buf)

        def run():
            _ = keep
            st = self.lib.velrFilter_16s_C1PV(first, padded.strides[1], dst_planes, out.strides[1], dv, kptr,
                                              kv, anchor, divisor, buf)
            assert st == 0, st
        return run, out


def best_time(fn, reps):
    fn()  # warm caches and page in the output
    times = []
    for _ in range(reps):
        t0 = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t0)
    return min(times)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--lib", default=None, help="path to libvelr.so")
    ap.add_argument("--reps", type=int, default=3)
    args = ap.parse_args()

    velr = Velr(args.lib)
    vol = vc.workload_volume(N, np.int16)
    border = 3
    padded = np.pad(vol, border, mode="edge")
    vox = float(N) ** 3

    print(f"int16 {N}^3, best of {args.reps}; Mvox/s = million output voxels per second")
    print(f"{'kernel':8} {'scipy':>9} {'velr 1T':>9} {'velr 2T':>9} {'1T/scipy':>9} {'2T/1T':>7}  exact")
    for name, kernel, divisor in WORKLOADS:
        weights = kernel.astype(np.float64) / divisor
        scipy_out = np.empty_like(vol)
        t_scipy = best_time(lambda: ndi.convolve(vol, weights, output=scipy_out, mode="nearest"), args.reps)

        run1, out1 = velr.prepare(padded, border, kernel, divisor, 1)
        t1 = best_time(run1, args.reps)
        run2, out2 = velr.prepare(padded, border, kernel, divisor, 2)
        t2 = best_time(run2, args.reps)
        velr.core.velSetNumThreads(0)

        # Sums of the binomial kernels are exact in double, so rint of the
        # float64 convolution is the exactly rounded quotient.
        exact = np.rint(ndi.convolve(vol.astype(np.float64), weights, mode="nearest"))
        ok = np.array_equal(out1, exact.astype(np.int16)) and np.array_equal(out1, out2)
        m_s, m_1, m_2 = vox / t_scipy / 1e6, vox / t1 / 1e6, vox / t2 / 1e6
        print(f"{name:8} {m_s:9.1f} {m_1:9.1f} {m_2:9.1f} {m_1 / m_s:9.1f} {m_2 / m_1:7.2f}  {'yes' if ok else 'NO'}")
        if name == "3x3x3":
            mhz = cpu_mhz()
            if mhz:
                print(f"         3x3x3 one thread: {27 * vox / t1 / (mhz * 1e6):.1f} multiply-accumulates per cycle "
                      f"at the nominal {mhz:.0f} MHz")


def cpu_mhz():
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("cpu MHz"):
                    return float(line.split(":")[1])
    except OSError:
        pass
    return None


if __name__ == "__main__":
    main()
