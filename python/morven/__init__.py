"""Morven's histogram transfer and image filters on NumPy arrays.

Pictures are C-contiguous ``numpy.ndarray`` of dtype ``uint8`` or ``uint16``
and shape ``(H, W)``, ``(H, W, 3)`` or ``(H, W, 4)``. They are handed to the
library as they lie in memory, without a copy; ``order`` says how the colour
channels are stored: ``"RGB"`` (what imaging and plotting libraries use, and
RGBA for four channels) or ``"BGR"`` (what computer-vision libraries use).
Alpha is never changed: a new result carries the source's alpha, an ``out``
array keeps its own.

Every function releases the GIL while the library works, and Ctrl-C stops a
long call from the main thread within a row or a pass (KeyboardInterrupt).
Pictures larger than memory, and scale-out, are in :mod:`morven.dask`.
"""

import warnings

import numpy as np

from . import _morven

__all__ = [
    "Profile", "NoPixelsWarning", "transfer", "match_histograms", "profile", "equalize", "stretch",
    "contrast", "smooth", "library_version",
]

#: The version of this package (the library's it was built with).
__version__ = _morven.VERSION

#: The version of the library that is running.
library_version = _morven.library_version()

SPACES = {"rgb": 0, "luma": 1, "ycbcr": 2, "lab": 3}
_SPACE_NAMES = {code: name for name, code in SPACES.items()}


class NoPixelsWarning(UserWarning):
    """The statistics selected no pixel: the result holds the source's values."""


class Profile(np.ndarray):
    """Per-channel histograms of a picture, as :func:`profile` returns them.

    A ``(3, 256)`` float32 array for 8-bit pictures in the ``"rgb"`` space
    (counts that stop growing at 2^24, as the library keeps them), else a
    ``(3, 65536)`` float64 array of exact counts on the 16-bit scale. Rows
    follow the space's name: red, green, blue; Y', Cb, Cr; L*, a*, b*. The
    ``space`` attribute names the space the counts were taken in. Profiles
    can be summed, saved and passed wherever a reference picture is.
    """

    def __new__(cls, bins, space="rgb"):
        if space not in SPACES:
            raise ValueError(f"unknown space {space!r}; expected one of {sorted(SPACES)}")
        obj = np.asarray(bins).view(cls)
        obj.space = space
        return obj

    def __array_finalize__(self, obj):
        self.space = getattr(obj, "space", "rgb")

    def __reduce__(self):
        rebuild, args, state = super().__reduce__()
        return rebuild, args, (state, self.space)

    def __setstate__(self, state):
        base, self.space = state
        super().__setstate__(base)


def _space_code(space):
    try:
        return SPACES[space]
    except (KeyError, TypeError):
        raise ValueError(f"space must be one of {sorted(SPACES)}, got {space!r}") from None


def _library_rows(bins, space):
    """Profile rows in the library's order (channel 3 first)."""
    return bins if space == "rgb" else bins[::-1]


def _is_profile(reference):
    return isinstance(reference, np.ndarray) and reference.dtype.kind == "f"


def _checked_profile(reference, space):
    """(target8, target16) for a profile given as a reference."""
    bins = np.asarray(reference)
    if bins.ndim != 2 or bins.shape[0] != 3 or bins.shape[1] not in (256, 65536):
        raise ValueError(f"a profile must have shape (3, 256) or (3, 65536), got {bins.shape}")
    if not np.all(np.isfinite(bins)) or np.any(bins < 0):
        raise ValueError("a profile must hold finite counts of zero or more")
    given = getattr(reference, "space", space)
    if bins.shape[1] == 256:
        if space != "rgb" or given != "rgb":
            raise ValueError(f"a (3, 256) profile holds 8-bit channels and serves space 'rgb', not {space!r}")
        return np.ascontiguousarray(bins, dtype=np.float32), None
    same = {"luma", "ycbcr"}
    if given != space and not (given in same and space in same):
        raise ValueError(f"the profile was counted in space {given!r}, the call asks for {space!r}")
    return None, np.ascontiguousarray(_library_rows(bins, given), dtype=np.float64)


def _effective_space(source_gray, reference_gray, space):
    """The space a gray source or a gray reference is matched in: luma, as
    a colour picture matched to a gray one can only be."""
    if reference_gray and not source_gray:
        return "luma"
    if source_gray and not reference_gray and space == "rgb":
        return "luma"
    return space


def _target(reference, reference_mask, space, order, source_gray):
    """(space, target8, target16) for a reference picture or profile."""
    if _is_profile(reference):
        if reference_mask is not None:
            raise ValueError("reference_mask applies to a reference picture, not to a profile")
        return (space,) + _checked_profile(reference, space)
    if not isinstance(reference, np.ndarray):
        raise TypeError(f"reference must be a numpy.ndarray (a picture or a profile), "
                        f"not {type(reference).__name__}")
    space = _effective_space(source_gray, reference.ndim == 2, space)
    if space == "rgb" and reference.dtype == np.uint8:
        return space, _morven.profile8(reference, reference_mask, order), None
    return space, None, _morven.profile16(reference, reference_mask, order, SPACES[space])


def _warn_no_pixels(status, what):
    if status == _morven.NO_PIXELS:
        warnings.warn(f"{what}: the statistics selected no pixel; the result holds the source's values",
                      NoPixelsWarning, stacklevel=3)


def transfer(source, reference, *, strength=1.0, fidelity=0.9, max_step=255, contrast=False, low_tail=50.0,
             high_tail=9.0, smooth=False, smooth_threshold=0.1, smooth_iterations=2, mask=None, source_mask=None,
             reference_mask=None, space="rgb", order="RGB", out=None):
    """Gives ``source`` the colour distribution of ``reference``.

    ``reference`` is a picture (any size, 8- or 16-bit, gray or colour) or a
    :class:`Profile`. The match runs per channel in ``space`` ``"rgb"``, or on
    the luma only (``"luma"``), or in Y'CbCr or CIELAB; a gray source with a
    colour reference, or a colour source with a gray one, is matched by luma.
    ``strength`` blends the match with the identity, ``fidelity`` below 1
    smooths the curve, ``max_step`` limits its steepness (255: no limit).
    ``contrast`` then stretches levels, clipping ``low_tail`` and
    ``high_tail`` per mille of the pixels; ``smooth`` pulls the result's
    local differences back toward the source's where the source is flat
    (``smooth_threshold`` of the full scale, ``smooth_iterations`` passes).
    ``mask`` (uint8 or bool, ``(H, W)``) blends the result into the source:
    255 keeps the result, 0 the source. ``source_mask`` and
    ``reference_mask`` choose the pixels that count in the statistics.
    ``out`` may be ``source`` itself. Returns the result; warns with
    :class:`NoPixelsWarning` when no pixel counted (the result is then the
    source).
    """
    _space_code(space)
    source_gray = isinstance(source, np.ndarray) and source.ndim == 2
    space, target8, target16 = _target(reference, reference_mask, space, order, source_gray)
    result, status = _morven.transfer(
        source, out, target8, target16, SPACES[space], strength, fidelity, max_step, bool(contrast), low_tail,
        high_tail, bool(smooth), smooth_threshold, smooth_iterations, mask, source_mask, order)
    _warn_no_pixels(status, "transfer")
    return result


def profile(image, mask=None, order="RGB", *, space="rgb"):
    """The per-channel histograms of ``image`` (the pixels ``mask`` selects,
    where it is non-zero) as a :class:`Profile`: ``(3, 256)`` float32 for an
    8-bit picture in space ``"rgb"``, else ``(3, 65536)`` float64 counted in
    ``space``. A gray picture counts its one channel in every row (in
    ``"rgb"``) or as gray (luma, or L*, with neutral chroma)."""
    _space_code(space)
    if space == "rgb" and isinstance(image, np.ndarray) and image.dtype == np.uint8:
        return Profile(_morven.profile8(image, mask, order), space)
    return Profile(_library_rows(_morven.profile16(image, mask, order, SPACES[space]), space), space)


def _channel_axis(image, reference, channel_axis):
    if channel_axis is None:
        return None
    ndim = image.ndim
    if not -ndim <= channel_axis < ndim:
        raise ValueError(f"channel_axis {channel_axis} is out of range for {ndim} dimensions")
    axis = channel_axis % ndim
    if image.shape[axis] != reference.shape[axis]:
        raise ValueError("image and reference must have the same number of channels")
    return axis


def match_histograms(image, reference, *, channel_axis=-1):
    """Adjusts ``image`` so that its histogram matches that of ``reference``,
    channel by channel along ``channel_axis`` (``None``: the whole array as
    one channel, for gray pictures and volumes of any dimension).

    A drop-in for ``skimage.exposure.match_histograms`` on uint8 and uint16
    data: every level goes to the point of the reference's distribution at
    the same cumulative share, computed at 16-bit precision and rounded to
    the nearest level. The result has the image's dtype.
    """
    for name, array in (("image", image), ("reference", reference)):
        if not isinstance(array, np.ndarray):
            raise TypeError(f"{name} must be a numpy.ndarray, not {type(array).__name__}")
        if array.dtype not in (np.uint8, np.uint16):
            raise TypeError(f"{name} must be uint8 or uint16, got {array.dtype}")
    if image.dtype != reference.dtype:
        raise TypeError(f"image and reference must have one dtype, got {image.dtype} and {reference.dtype}")
    if image.ndim != reference.ndim:
        raise ValueError("image and reference must have the same number of dimensions")
    if image.size == 0 or reference.size == 0:
        raise ValueError("image and reference must not be empty")
    axis = _channel_axis(image, reference, channel_axis)

    def as_plane(array):
        # Any array as one gray picture of its last dimension's width.
        array = np.ascontiguousarray(array)
        return array.reshape(-1, array.shape[-1] if array.ndim else 1)

    if axis is None:
        return _morven.match_planes(as_plane(image), as_plane(reference), None, "RGB").reshape(image.shape)
    if axis == image.ndim - 1 and image.shape[-1] == 3:
        # Three channels side by side: one colour picture, matched per channel.
        def as_picture(array):
            array = np.ascontiguousarray(array)
            return array.reshape(-1, array.shape[-2] if array.ndim > 2 else 1, 3)

        return _morven.match_planes(as_picture(image), as_picture(reference), None, "RGB").reshape(image.shape)
    result = np.empty_like(image)
    for c in range(image.shape[axis]):
        plane = _morven.match_planes(as_plane(np.take(image, c, axis)), as_plane(np.take(reference, c, axis)),
                                     None, "RGB")
        index = [slice(None)] * image.ndim
        index[axis] = c
        result[tuple(index)] = plane.reshape(result[tuple(index)].shape)
    return result


def equalize(image, *, mask=None, order="RGB", out=None):
    """Equalises every channel by its own histogram (of the pixels ``mask``
    selects); 16-bit pictures at 16-bit precision."""
    result, status = _morven.equalize(image, mask, out, order)
    _warn_no_pixels(status, "equalize")
    return result


def stretch(image, *, mask=None, order="RGB", out=None):
    """Maps the occupied range of every channel (among the pixels ``mask``
    selects) onto the full scale; a channel holding one value is kept."""
    result, status = _morven.stretch(image, mask, out, order)
    _warn_no_pixels(status, "stretch")
    return result


def contrast(image, *, low_tail=4.0, high_tail=9.0, mask=None, order="RGB", out=None):
    """Levels stretch of the brightness (the largest of the colour channels):
    ``low_tail`` per mille of the pixels (among those ``mask`` selects) may
    fall below the new black, ``high_tail`` per mille above the new white."""
    result, status = _morven.contrast(image, low_tail, high_tail, mask, out, order)
    _warn_no_pixels(status, "contrast")
    return result


def smooth(image, guide, *, threshold=0.1, iterations=2, order="RGB", out=None):
    """Selective smoothing: where ``guide`` (as a rule the picture before
    processing) is locally flat, neighbouring steps of ``image`` are pulled
    back toward the guide's (``threshold`` is a fraction of the full scale;
    ``iterations`` passes). 8-bit pictures need three or four channels."""
    return _morven.smooth(image, guide, out, threshold, iterations, order)
