"""ctypes access to libvelr for the Python peer benchmarks, so that our
library and the peer run in one process on the same arrays."""
import ctypes
import math
import os

import numpy as np


def load_library(path=None):
    """Loads libvelr.so: an explicit path, $VELR_LIB, or the bench build."""
    if path is None:
        path = os.environ.get("VELR_LIB")
    if path is None:
        here = os.path.dirname(os.path.abspath(__file__))
        path = os.path.join(here, "..", "..", "build", "bench", "libvelr.so")
    return ctypes.CDLL(os.path.abspath(path))


class VelrVolume(ctypes.Structure):
    _fields_ = [("width", ctypes.c_int), ("height", ctypes.c_int), ("depth", ctypes.c_int)]


class VelrCuboid(ctypes.Structure):
    _fields_ = [("x", ctypes.c_int), ("y", ctypes.c_int), ("z", ctypes.c_int),
                ("width", ctypes.c_int), ("height", ctypes.c_int), ("depth", ctypes.c_int)]


class VelrPoint(ctypes.Structure):
    _fields_ = [("x", ctypes.c_int), ("y", ctypes.c_int), ("z", ctypes.c_int)]


class SplitMix64:
    """The workloads' generator (see bench/workloads/rng.cpp)."""

    MASK = (1 << 64) - 1

    def __init__(self, seed):
        self.s = seed & self.MASK

    def next(self):
        self.s = (self.s + 0x9E3779B97F4A7C15) & self.MASK
        z = self.s
        z = ((z ^ (z >> 30)) * 0xBF58476D1CE4E5B9) & self.MASK
        z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & self.MASK
        return z ^ (z >> 31)

    def uniform(self, a=0.0, b=1.0):
        return a + (b - a) * ((self.next() >> 11) * 2.0 ** -53)


def volume_content(n, seed):
    """Content in [0, 1] of an n^3 workload volume, array [z][y][x] (double)."""
    rng = SplitMix64(seed)
    waves = []
    for _ in range(6):
        kx, ky, kz = rng.uniform(-4, 4), rng.uniform(-4, 4), rng.uniform(-4, 4)
        ph, a = rng.uniform(0, 2 * math.pi), rng.uniform(0.05, 0.12)
        waves.append((kx, ky, kz, ph, a))
    z, y, x = np.meshgrid(np.arange(n), np.arange(n), np.arange(n), indexing="ij")
    v = np.full((n, n, n), 0.5)
    for kx, ky, kz, ph, a in waves:
        v += a * np.sin(2 * math.pi * (kx * x + ky * y + kz * z) / n + ph)
    return np.clip(v, 0.0, 1.0)


def workload_volume(n, dtype, seed=2024):
    """The standard volume of one element type: uint8, uint16, float32, int16."""
    v = volume_content(n, seed)
    if dtype == np.uint8:
        return np.round(255 * v).astype(np.uint8)
    if dtype == np.uint16:
        return np.round(65535 * v).astype(np.uint16)
    if dtype == np.int16:
        return np.round(4095 * v).astype(np.int16)
    return v.astype(np.float32)


def plane_pointers(arr, ctype):
    """Array of plane pointers of a C-contiguous [z][y][x] numpy array."""
    ptr_t = ctypes.POINTER(ctype)
    planes = (ptr_t * arr.shape[0])()
    base = arr.ctypes.data
    for z in range(arr.shape[0]):
        planes[z] = ctypes.cast(base + z * arr.strides[0], ptr_t)
    return planes
