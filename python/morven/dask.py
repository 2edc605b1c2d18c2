"""Morven on Dask: the transfer of pictures larger than memory.

:func:`transfer` takes a chunked ``dask.array`` and returns a lazy one whose
values equal those of :func:`morven.transfer` on the whole picture, byte for
byte, for any chunking. The library's filters come apart into statistics
that add up over chunks, curves computed once from the sums, and per-pixel
(or, for smoothing, per-neighbourhood) application:

1. per chunk, the source's statistics (under ``source_mask``), summed;
2. the matching table or curves, computed once;
3. with ``contrast``, per chunk the brightness statistics of the matched
   chunk, summed, and the tone curve computed once;
4. per chunk, matching, contrast, selective smoothing (with an overlap of
   ``smooth_iterations`` pixels: each pass reads only the 8 neighbours) and
   the blend under ``mask``.

Every pass reads the source again rather than keeping it: a picture larger
than memory streams through in chunks. Runs on any Dask scheduler, the
distributed one included.
"""

import functools
import warnings

import dask
import dask.array as da
import numpy as np
from dask.graph_manipulation import bind

from . import (SPACES, NoPixelsWarning, _checked_profile, _effective_space, _is_profile, _library_rows, _morven,
               _space_code, _target)

__all__ = ["transfer"]

_NO_PIXELS = _morven.NO_PIXELS
_FLOAT_LIMIT = float(1 << 24)


def _tree_sum(parts):
    """The sum of delayed arrays, added pairwise in a tree."""
    if not parts:
        raise ValueError("nothing to sum")
    while len(parts) > 1:
        parts = [dask.delayed(np.add)(parts[i], parts[i + 1]) if i + 1 < len(parts) else parts[i]
                 for i in range(0, len(parts), 2)]
    return parts[0]


def _blocks(array):
    """The array's blocks as delayed values, in the order of its chunk grid's rows and columns."""
    return list(array.to_delayed(optimize_graph=False).ravel())


def _summed(function, array, mask, *args):
    """function(block, mask block, *args) summed over the chunks."""
    masks = _blocks(mask) if mask is not None else [None] * len(_blocks(array))
    return _tree_sum([dask.delayed(function)(b, m, *args) for b, m in zip(_blocks(array), masks)])


def _as_array(value, name, like=None):
    if isinstance(value, da.Array):
        array = value
    elif isinstance(value, np.ndarray):
        if like is not None and value.shape != like.shape[:2]:
            raise ValueError(f"{name} has shape {value.shape}, expected {like.shape[:2]}")
        array = da.from_array(value, chunks="auto" if like is None else like.chunks[:2])
    else:
        raise TypeError(f"{name} must be a dask.array.Array or a numpy.ndarray, not {type(value).__name__}")
    if like is not None:
        if array.dtype == bool:
            array = da.where(array, np.uint8(255), np.uint8(0))
        if array.dtype != np.uint8:
            raise TypeError(f"{name} must be uint8 or bool, got {array.dtype}")
        if array.shape != like.shape[:2]:
            raise ValueError(f"{name} has shape {array.shape}, expected {like.shape[:2]}")
        array = array.rechunk(like.chunks[:2])
    return array


def _picture(array, name, order):
    if array.dtype not in (np.uint8, np.uint16):
        raise TypeError(f"{name} must be uint8 or uint16, got {array.dtype}")
    if not (array.ndim == 2 or (array.ndim == 3 and array.shape[2] in (3, 4))):
        raise ValueError(f"{name} must have shape (H, W), (H, W, 3) or (H, W, 4), got {array.shape}")
    if 0 in array.shape:
        raise ValueError(f"{name} is empty: shape {array.shape}")
    # The same order checks as a single call (one pixel of the same layout).
    _morven.counts8(np.zeros((1, 1) + array.shape[2:], np.uint8), None, order)
    return array.rechunk({2: -1}) if array.ndim == 3 else array


# --- Per-chunk and once-only steps ------------------------------------------
# Each takes and returns plain arrays, so that any scheduler can run it.

def _c(block):
    return None if block is None else np.ascontiguousarray(block)


def _deep_profile(block, mask, order, space):
    return _morven.profile16(_c(block), _c(mask), order, space)


def _counts8(block, mask, order):
    return _morven.counts8(_c(block), _c(mask), order)


def _saturated(counts):
    """An 8-bit profile from exact counts, as one call's float profile holds them."""
    return np.minimum(counts, _FLOAT_LIMIT).astype(np.float32)


def _plan(stats, eight, target8, target16, space, strength, fidelity, max_step, channels):
    """The matching table (8-bit channels) or curves, computed once."""
    if eight:
        status, mapping = _morven.match_table(stats, target8, strength, fidelity, max_step)
    else:
        status, mapping = _morven.match_curves(stats, space, target8, target16, strength, fidelity, max_step,
                                               channels)
    if status == _NO_PIXELS:
        warnings.warn("transfer: the statistics selected no pixel; the result holds the source's values",
                      NoPixelsWarning)
    return status, eight, mapping


def _matched(block, plan, order):
    status, eight, mapping = plan
    block = np.ascontiguousarray(block)
    out = block.copy() if block.ndim == 3 and block.shape[2] == 4 else None
    apply = _morven.apply_table if eight else _morven.apply_curves
    return apply(mapping, block, out, order)


def _contrast_counts(block, mask, plan, order):
    return _morven.contrast_counts(_matched(block, plan, order), _c(mask), order)


def _tone_curve(counts, wide, low_tail, high_tail):
    status, curve = _morven.contrast_curve(counts, wide, low_tail, high_tail)
    if status == _NO_PIXELS:
        warnings.warn("transfer: the contrast statistics selected no pixel", NoPixelsWarning)
    return status, curve


def _processed(block, plan, curve, smooth, order):
    """Matching, contrast and smoothing of one chunk (with its overlap)."""
    block = np.ascontiguousarray(block)
    if plan[0] == _NO_PIXELS:
        return block
    out = _matched(block, plan, order)
    if curve is not None:
        status, levels = curve
        if status == _NO_PIXELS:  # the single call stops after this stage too
            return out
        _morven.apply_contrast(levels, out, out, order)
    if smooth is not None:
        _morven.smooth(out, block, out, smooth[0], smooth[1], order)
    return out


def _blended(block, processed, mask, plan, curve, order):
    if plan[0] == _NO_PIXELS or (curve is not None and curve[0] == _NO_PIXELS):
        return processed
    mask = np.ascontiguousarray(mask.reshape(mask.shape[:2]))
    return _morven.blend(np.ascontiguousarray(block), np.ascontiguousarray(processed), mask, None, order)


# --- The transfer --------------------------------------------------------------

def _dask_target(reference, reference_mask, space, order, source_gray):
    """(space, target8, target16) of a reference held in a dask array, summed over its chunks."""
    reference = _picture(reference, "reference", order)
    mask = _as_array(reference_mask, "reference_mask", reference) if reference_mask is not None else None
    space = _effective_space(source_gray, reference.ndim == 2, space)
    if space == "rgb" and reference.dtype == np.uint8:
        counts = _summed(_counts8, reference, mask, order)
        return space, dask.delayed(_saturated)(counts), None
    return space, None, _summed(_deep_profile, reference, mask, order, SPACES[space])


def transfer(array, reference, *, strength=1.0, fidelity=0.9, max_step=255, contrast=False, low_tail=50.0,
             high_tail=9.0, smooth=False, smooth_threshold=0.1, smooth_iterations=2, mask=None, source_mask=None,
             reference_mask=None, space="rgb", order="RGB"):
    """:func:`morven.transfer` on a chunked picture, as a lazy dask array.

    ``array`` is a ``dask.array.Array`` (or a NumPy array, then chunked);
    ``reference`` a picture (NumPy or Dask) or a :class:`morven.Profile`;
    the masks are NumPy or Dask arrays of the picture's height and width,
    rechunked to its chunks. The options are those of
    :func:`morven.transfer`, with the same results. A blend ``mask`` on a
    16-bit picture is refused: the library has no public 16-bit blend.
    """
    _space_code(space)
    array = _picture(_as_array(array, "array"), "array", order)
    blend = _as_array(mask, "mask", array) if mask is not None else None
    stats_mask = _as_array(source_mask, "source_mask", array) if source_mask is not None else None
    wide = array.dtype == np.uint16
    gray = array.ndim == 2
    if blend is not None and wide:
        raise ValueError("mask: blending 16-bit pictures chunk by chunk needs a 16-bit blend that the library "
                         "does not offer; use morven.transfer on the whole picture, or an 8-bit picture")
    if smooth and gray and not wide:
        raise ValueError("smooth: the library smooths 8-bit pictures of three or four channels only, "
                         "not 8-bit gray ones")
    if contrast and not wide and stats_mask is None and array.shape[0] * array.shape[1] > 2**31 - 1:
        raise ValueError("contrast: the library counts the pixels of an 8-bit picture in 32 bits; "
                         "this one has 2^31 or more")
    for name, value in (("strength", strength), ("fidelity", fidelity), ("low_tail", low_tail),
                        ("high_tail", high_tail), ("smooth_threshold", smooth_threshold)):
        if not np.isfinite(value):
            raise ValueError(f"{name} must be a finite number")
    if not -2**31 <= max_step < 2**31:
        raise ValueError("max_step is out of range")
    if not 0 <= smooth_iterations <= 1000000:
        raise ValueError(f"smooth_iterations must be between 0 and 1000000, got {smooth_iterations}")

    if isinstance(reference, da.Array):
        space, target8, target16 = _dask_target(reference, reference_mask, space, order, gray)
    elif _is_profile(reference) or isinstance(reference, np.ndarray):
        space, target8, target16 = _target(reference, reference_mask, space, order, gray)
    else:
        raise TypeError(f"reference must be a picture (numpy or dask array) or a profile, "
                        f"not {type(reference).__name__}")

    # 1-2: the source's statistics, and the table or curves.
    eight = not wide and space == "rgb" and target8 is not None
    if eight:
        stats = _summed(_counts8, array, stats_mask, order)
    else:
        stats = _summed(_deep_profile, array, stats_mask, order, SPACES[space])
    plan = dask.delayed(_plan)(stats, eight, target8, target16, SPACES[space], strength, fidelity, max_step,
                               1 if gray else 3)

    # 3: contrast measures the matched picture, read again after the plan.
    curve = None
    if contrast:
        again = bind([a for a in (array, stats_mask) if a is not None], [plan])
        counts = _summed(_contrast_counts, again[0], again[1] if stats_mask is not None else None, plan, order)
        curve = dask.delayed(_tone_curve)(counts, wide, low_tail, high_tail)

    # 4: the result, from the source read once more.
    parents = [plan] + ([curve] if curve is not None else [])
    final = bind([a for a in (array, blend) if a is not None], parents)
    source, weights = final[0], (final[1] if blend is not None else None)
    steps = (smooth_threshold, smooth_iterations) if smooth else None
    process = functools.partial(_processed, smooth=steps, order=order)
    meta = np.empty((0,) * source.ndim, source.dtype)  # no trial calls on empty blocks
    if smooth and smooth_iterations > 0:
        depth = {0: smooth_iterations, 1: smooth_iterations}
        if not gray:
            depth[2] = 0
        result = da.map_overlap(process, source, depth=depth, boundary="none", trim=True, meta=meta,
                                plan=plan, curve=curve)
    else:
        result = da.map_blocks(process, source, meta=meta, plan=plan, curve=curve)
    if weights is not None:
        if not gray:  # blocks align by trailing axes: the mask gets the channel axis
            weights = weights[:, :, None]
        result = da.map_blocks(_blended, source, result, weights, meta=meta, plan=plan, curve=curve, order=order)
    return result
