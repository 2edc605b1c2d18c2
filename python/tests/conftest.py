"""Shared fixtures: the bundled photographs, and the C library itself called
through ctypes on the same memory, the yardstick of byte-for-byte tests."""

import ctypes as C
import os
import pathlib

import numpy as np
import pytest

DATA = pathlib.Path(os.environ.get("MORVEN_DATA_DIR", pathlib.Path(__file__).parents[2] / "data" / "images"))
PHOTOS = ("astronaut", "chelsea", "coffee")
ENCODING = {"gray": 0, "BGR": 1, "RGB": 2, "RGBA": 4}


@pytest.fixture(scope="session")
def photos():
    io = pytest.importorskip("skimage.io")
    return {name: np.ascontiguousarray(io.imread(DATA / f"{name}.png")) for name in PHOTOS}


def deep(picture, seed=0):
    """A 16-bit picture with fine levels: every 8-bit level v spread around 257 v."""
    noise = np.random.default_rng(seed).integers(-128, 129, picture.shape)
    return np.clip(picture.astype(np.int32) * 257 + noise, 0, 65535).astype(np.uint16)


def pair(photos, kind, source="coffee", reference="chelsea"):
    """(source, reference, order) of one kind of picture: RGB, BGR, RGBA (random
    alpha), gray, gray+colour (a gray source), RGB16 or gray16."""
    src, ref = photos[source], photos[reference]
    gray = lambda p: p.mean(axis=2).astype(np.uint8)
    alpha = lambda: np.random.default_rng(1).integers(0, 256, src.shape[:2], dtype=np.uint8)
    make = {"BGR": lambda: (src[..., ::-1], ref[..., ::-1], "BGR"),
            "RGBA": lambda: (np.dstack([src, alpha()]), ref, "RGB"),
            "gray": lambda: (gray(src), gray(ref), "RGB"),
            "gray+colour": lambda: (gray(src), ref, "RGB"),
            "RGB16": lambda: (deep(src), deep(ref, 1), "RGB"),
            "gray16": lambda: (deep(gray(src)), deep(gray(ref), 1), "RGB")}
    source, reference, order = make.get(kind, lambda: (src, ref, "RGB"))()
    return np.ascontiguousarray(source), np.ascontiguousarray(reference), order


class Image(C.Structure):
    _fields_ = [("type", C.c_uint32), ("encoding", C.c_uint32), ("height", C.c_int32), ("width", C.c_int32),
                ("data", C.c_void_p), ("roi", C.c_int32 * 4), ("coi", C.c_int32)]


class TransferParams(C.Structure):
    _fields_ = [("targetProfile", C.c_void_p), ("strength", C.c_float), ("fidelity", C.c_float),
                ("contrast", C.c_int32), ("highTail", C.c_float), ("lowTail", C.c_float),
                ("smooth", C.c_int32), ("threshold", C.c_float), ("iterations", C.c_int32),
                ("maxStep", C.c_int32)]


class MatchOptions(C.Structure):
    _fields_ = [("space", C.c_int32), ("reserved", C.c_int32), ("statsMask", C.c_void_p),
                ("targetProfile16", C.c_void_p)]


class ContrastParams(C.Structure):
    _fields_ = [("highTail", C.c_float), ("lowTail", C.c_float), ("manual", C.c_int32),
                ("manualHigh", C.c_uint8), ("manualLow", C.c_uint8)]


class SmoothParams(C.Structure):
    _fields_ = [("threshold", C.c_float), ("iterations", C.c_int32)]


class Library:
    """The shared library's own functions, with headers over NumPy memory."""

    def __init__(self, path):
        self.lib = lib = C.CDLL(path)
        lib.wzImageCreateHeaderWithType.restype = C.POINTER(Image)
        lib.wzImageCreateHeaderWithType.argtypes = [C.c_int32, C.c_int32, C.c_uint32, C.c_uint32]
        for name in ("wzHistogramTransferSupportCreate", "wzImageColorProfile16Create"):
            getattr(lib, name).restype = C.c_void_p
        self.support = lib.wzHistogramTransferSupportCreate()
        self.smooth_support = C.cast(self.support, C.POINTER(C.c_void_p))[0]

    def header(self, array, encoding=None):
        if array is None:
            return None
        encoding = ENCODING["gray"] if array.ndim == 2 else ENCODING[encoding]
        kind = 12 if array.dtype == np.uint16 else 0
        h = self.lib.wzImageCreateHeaderWithType(array.shape[1], array.shape[0], encoding, kind)
        h.contents.data = array.ctypes.data
        return h

    def profile(self, picture, encoding, mask, space, wide):
        """The target a transfer uses: 8-bit channels, or deep."""
        if not wide:
            bins = np.zeros((3, 256), np.float32)
            self.lib.wzImageFillColorProfileMasked(self.header(picture, encoding), self.header(mask),
                                                   bins.ctypes.data_as(C.c_void_p))
            return bins
        p = C.c_void_p(self.lib.wzImageColorProfile16Create())
        assert self.lib.wzImageFillColorProfile16(self.header(picture, encoding), self.header(mask), space, p) == 0
        return p

    def transfer(self, source, target, encoding="RGB", space=0, mask=None, source_mask=None, out=None, **kw):
        params = TransferParams(None, kw.get("strength", 1.0), kw.get("fidelity", 0.9), kw.get("contrast", 0),
                                kw.get("high_tail", 9.0), kw.get("low_tail", 50.0), kw.get("smooth", 0),
                                kw.get("smooth_threshold", 0.1), kw.get("smooth_iterations", 2),
                                kw.get("max_step", 255))
        deep_target = isinstance(target, C.c_void_p)
        if not deep_target:
            params.targetProfile = target.ctypes.data
        options = MatchOptions(space, 0, C.cast(self.header(source_mask), C.c_void_p),
                               target if deep_target else None)
        dst = source.copy() if out is None else out  # a new result keeps the source's alpha
        src = self.header(source, encoding)
        status = self.lib.wzHistogramTransferFilterWithOptions(
            C.byref(params), C.byref(options), C.c_void_p(self.support), src, self.header(mask),
            src if dst is source else self.header(dst, encoding), None)
        assert status in (0, 3)
        return dst

    def filter(self, name, image, guide=None, encoding="RGB", mask=None, **kw):
        """equalize, stretch, contrast or smooth, as the C functions run them."""
        out = np.empty_like(image)
        src, dst, stats = self.header(image, encoding), self.header(out, encoding), self.header(mask)
        if name == "equalize":
            self.lib.wzHistogramEqualizationMasked(src, stats, dst)
        elif name == "stretch":
            self.lib.wzHistogramStretchMasked(src, stats, dst)
        elif name == "contrast":
            params = ContrastParams(kw.get("high_tail", 9.0), kw.get("low_tail", 4.0), 0, 255, 0)
            self.lib.wzContrastEnhanceFilterMasked(C.byref(params), src, stats, None, dst, None)
        else:
            params = SmoothParams(kw.get("threshold", 0.1), kw.get("iterations", 2))
            guide = self.header(guide, encoding)
            if image.dtype == np.uint16:
                self.lib.wzSelectiveSmooth16(C.byref(params), guide, src, dst, None)
            else:
                smooth = self.lib.wzSelectiveSmoothGray if image.ndim == 2 else self.lib.wzSelectiveSmooth
                smooth(C.byref(params), C.c_void_p(self.smooth_support), guide, src, dst, None)
        return out


@pytest.fixture(scope="session")
def clib():
    path = os.environ.get("MORVEN_LIBRARY")
    if not path:
        pytest.skip("MORVEN_LIBRARY (the path of libmorven.so) is not set")
    return Library(path)
