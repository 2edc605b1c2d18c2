"""The array functions against the C library on the same memory, on worked
numbers, and every refusal."""

import pathlib
import pickle

import numpy as np
import pytest
from conftest import deep, pair

import morven

SPACE = {"rgb": 0, "luma": 1, "ycbcr": 2, "lab": 3}


def selection(shape, seed):
    """A mask selecting about 70 % of the pixels."""
    return (np.random.default_rng(seed).random(shape) < 0.7).astype(np.uint8) * 255


# kind, space the C library must run in, options
TRANSFERS = [
    ("RGB", "rgb", {}),
    ("BGR", "rgb", dict(contrast=True, smooth=True, masks=True)),
    ("RGBA", "rgb", dict(strength=0.7, max_step=3, fidelity=0.5, masks=True)),
    ("gray", "rgb", dict(contrast=True, low_tail=20.0, high_tail=30.0, smooth=True, masks=True)),
    ("gray+colour", "luma", {}),
    ("RGB16", "rgb", dict(contrast=True, smooth=True, smooth_iterations=3, masks=True)),
    ("gray16", "rgb", dict(smooth=True, smooth_threshold=0.3)),
    ("RGB", "lab", dict(contrast=True, masks=True)),
    ("RGB16", "ycbcr", dict(fidelity=1.0)),
    ("RGB", "luma", dict(profile=True, smooth=True)),
    ("RGB", "rgb", dict(in_place=True, smooth=True, masks=True)),
]


@pytest.mark.parametrize("kind,space,options", TRANSFERS)
def test_transfer_equals_c_library(photos, clib, kind, space, options):
    source, reference, order = pair(photos, kind)
    options = dict(options)
    use_masks, use_profile, in_place = (options.pop(k, False) for k in ("masks", "profile", "in_place"))
    m = {}
    if use_masks:
        ramp = np.broadcast_to(np.linspace(0, 255, source.shape[1]).astype(np.uint8), source.shape[:2])
        m = dict(mask=np.ascontiguousarray(ramp), source_mask=selection(source.shape[:2], 3),
                 reference_mask=selection(reference.shape[:2], 4))
    encoding = {"BGR": "BGR", "RGBA": "RGBA"}.get(kind, "RGB")
    wide = space != "rgb" or reference.dtype == np.uint16
    target = clib.profile(reference, "BGR" if kind == "BGR" else "RGB", m.get("reference_mask"), SPACE[space], wide)
    expected = clib.transfer(source.copy(), target, encoding, SPACE[space], m.get("mask"), m.get("source_mask"),
                             **{k: int(v) if isinstance(v, bool) else v for k, v in options.items()})
    if use_profile:
        reference = morven.profile(reference, m.get("reference_mask"), space=space)
        m.pop("reference_mask", None)
    kept = source.copy()
    result = morven.transfer(source, reference, space="rgb" if kind == "gray+colour" else space, order=order,
                             out=source if in_place else None, **m, **options)
    assert result.dtype == source.dtype and result.shape == source.shape
    assert np.array_equal(result, expected)
    assert (result is source) == in_place
    if not in_place:
        assert np.array_equal(source, kept)
    if kind == "RGBA":
        assert np.array_equal(result[..., 3], kept[..., 3])


@pytest.mark.parametrize("name,depth,options", [
    ("equalize", 8, {}), ("equalize", 16, dict(mask=True)), ("stretch", 8, dict(mask=True)),
    ("stretch", 16, {}), ("contrast", 8, dict(low_tail=30.0)), ("contrast", 16, dict(mask=True, high_tail=40.0)),
    ("smooth", 8, dict(threshold=0.2, iterations=3)), ("smooth", 8, dict(gray=True)),
    ("smooth", 16, dict(gray=True)),
])
def test_filters_equal_c_library(photos, clib, name, depth, options):
    options = dict(options)
    picture = photos["astronaut"]
    if options.pop("gray", False):
        picture = np.ascontiguousarray(picture[..., 1])
    if name == "stretch":  # levels 40..167 of 0..255
        picture = picture // 2 + 40
    if depth == 16:
        picture = deep(picture)
    if options.pop("mask", False):
        options["mask"] = selection(picture.shape[:2], 5)
    guide = None
    if name == "smooth":  # the equalized picture, smoothed where the original is flat
        guide, picture = picture, morven.equalize(picture)
    expected = clib.filter(name, picture, guide, **options)
    result = getattr(morven, name)(picture, *([] if guide is None else [guide]), **options)
    assert np.array_equal(result, expected)
    assert not np.array_equal(result, picture)


def test_profile_counts_and_rows():
    # Two pixels: (10, 20, 30) and (10, 21, 30) in RGB order.
    picture = np.array([[[10, 20, 30], [10, 21, 30]]], np.uint8)
    p = morven.profile(picture)
    assert p.shape == (3, 256) and p.dtype == np.float32 and p.space == "rgb"
    assert (p[0, 10], p[1, 20], p[1, 21], p[2, 30]) == (2, 1, 1, 2) and p.sum() == 6
    # Stored as BGR the same bytes mean blue 10, red 30.
    assert morven.profile(picture, order="BGR")[0, 30] == 2
    # A mask selects the second pixel only.
    assert morven.profile(picture, np.array([[0, 1]], np.uint8))[1, 21] == 1
    assert morven.profile(picture, np.array([[0, 1]], np.uint8)).sum() == 3
    # 16 bits: level v in bin v, exact counts in float64.
    p16 = morven.profile(np.array([[1000, 1000, 65535]], np.uint16))
    assert p16.shape == (3, 65536) and p16.dtype == np.float64
    assert (p16[0, 1000], p16[0, 65535]) == (2, 1)
    # Lab rows are L*, a*, b*: white has L* = 100 and neutral chroma.
    lab = morven.profile(np.full((2, 2, 3), 255, np.uint8), space="lab")
    assert lab.space == "lab" and lab[0, 65535] == 4
    assert abs(int(np.argmax(lab[1])) - 32768) <= 1 and abs(int(np.argmax(lab[2])) - 32768) <= 1


@pytest.mark.parametrize("image,reference,axis,expected", [
    # Four levels of one share each go to the reference's four levels.
    ([[0, 50, 100, 200]], [[10, 20, 30, 40]], None, [[10, 20, 30, 40]]),
    # A 16-bit volume, as one channel; the image a transposed (not C-contiguous) view.
    (np.array([[[0, 2000], [1000, 3000]]], np.uint16).transpose(0, 2, 1),
     np.array([[[400, 300], [200, 100]]], np.uint16), None, [[[100, 200], [300, 400]]]),
    # Channels on the first axis, each with its own reference channel.
    ([[5, 9], [7, 7]], [[1, 3], [200, 200]], 0, [[1, 3], [200, 200]]),
    # Three channels last: one colour picture, 8- and 16-bit.
    ([[[0, 9, 4], [1, 8, 5]]], [[[30, 70, 2], [20, 60, 250]]], -1, [[[20, 70, 2], [30, 60, 250]]]),
    (np.array([[[0, 9, 4], [1, 8, 5]]], np.uint16), np.array([[[30, 70, 2], [20, 60, 9000]]], np.uint16), -1,
     [[[20, 70, 2], [30, 60, 9000]]]),
])
def test_match_histograms_worked(image, reference, axis, expected):
    image = np.asarray(image, dtype=getattr(image, "dtype", np.uint8))
    reference = np.asarray(reference, dtype=image.dtype)
    result = morven.match_histograms(image, reference, channel_axis=axis)
    assert result.dtype == image.dtype and np.array_equal(result, expected)


def test_no_pixels_warns_and_keeps_the_source(photos):
    source = photos["coffee"]
    with pytest.warns(morven.NoPixelsWarning):
        result = morven.transfer(source, photos["chelsea"], source_mask=np.zeros(source.shape[:2], np.uint8))
    assert np.array_equal(result, source)


def _bad_arguments():
    rgb = np.zeros((4, 6, 3), np.uint8)
    ref = np.full((3, 3, 3), 7, np.uint8)
    t = morven.transfer
    lab16 = morven.Profile(np.ones((3, 65536)), "lab")
    flat = np.zeros(66, np.uint8)
    guide = np.ones_like(rgb)
    return [
        (t, (rgb.astype(float), ref), {}, TypeError, "uint8 or uint16"),
        (t, (np.zeros((4, 6, 2), np.uint8), ref), {}, ValueError, "shape"),
        (t, (rgb, ref), dict(order="XYZ"), ValueError, "order"),
        (t, (np.zeros((4, 6, 4), np.uint8), ref), dict(order="BGR"), ValueError, "BGRA"),
        (t, (np.zeros((4, 12, 3), np.uint8)[:, ::2], ref), {}, ValueError, "C-contiguous"),
        (t, (np.zeros((0, 6, 3), np.uint8), ref), {}, ValueError, "empty"),
        (t, (rgb, ref), dict(mask=np.zeros((6, 4), np.uint8)), ValueError, "mask has shape"),
        (t, (rgb, ref), dict(source_mask=np.zeros((4, 6))), TypeError, "source_mask must be uint8 or bool"),
        (t, (rgb, ref), dict(out=np.zeros((4, 6, 3), np.uint16)), ValueError, "out must have"),
        (t, (rgb, ref), dict(out=np.broadcast_to(rgb, rgb.shape)), ValueError, "read-only"),
        (t, (flat[:63].reshape(3, 7, 3), ref), dict(out=flat[3:].reshape(3, 7, 3)), ValueError, "overlaps"),
        (t, (rgb, ref), dict(space="hsv"), ValueError, "space must be"),
        (t, (rgb, [1, 2, 3]), {}, TypeError, "reference must be"),
        (t, (rgb, np.ones((3, 100))), {}, ValueError, "(3, 256) or (3, 65536)"),
        (t, (rgb, -np.ones((3, 256))), {}, ValueError, "finite counts"),
        (t, (rgb, np.ones((3, 256))), dict(space="lab"), ValueError, "serves space 'rgb'"),
        (t, (rgb, lab16), {}, ValueError, "counted in space 'lab'"),
        (t, (rgb, lab16), dict(space="lab", reference_mask=np.zeros((3, 3), np.uint8)), ValueError,
         "reference_mask"),
        (t, (rgb, ref), dict(strength=float("nan")), ValueError, "strength must be a finite"),
        (t, (rgb, ref), dict(smooth_iterations=-1), ValueError, "smooth_iterations"),
        (morven.match_histograms, (rgb, ref.astype(np.uint16)), {}, TypeError, "one dtype"),
        (morven.match_histograms, (rgb, ref[..., 0]), {}, ValueError, "number of dimensions"),
        (morven.match_histograms, (rgb, ref[..., :2]), {}, ValueError, "number of channels"),
        (morven.match_histograms, (rgb, ref), dict(channel_axis=3), ValueError, "out of range"),
        (morven.smooth, (rgb, ref), {}, ValueError, "must match"),
        (morven.smooth, (rgb, guide), dict(out=guide), ValueError, "must not be the guide"),
        (morven.profile, (rgb,), dict(space="xyz"), ValueError, "space must be"),
    ]


@pytest.mark.parametrize("function,args,kwargs,error,message", _bad_arguments())
def test_bad_arguments_raise(function, args, kwargs, error, message):
    with pytest.raises(error, match=message.replace("(", r"\(").replace(")", r"\)")):
        function(*args, **kwargs)


def test_profile_pickles_with_its_space():
    p = morven.Profile(np.arange(6.0).reshape(3, 2), "ycbcr")
    q = pickle.loads(pickle.dumps(p))
    assert q.space == "ycbcr" and np.array_equal(q, p) and (p + q).space == "ycbcr"


def test_versions():
    assert morven.library_version == morven.__version__
    assert len([int(x) for x in morven.__version__.split(".")]) == 3
    tomllib = pytest.importorskip("tomllib")
    project = tomllib.loads((pathlib.Path(__file__).parents[1] / "pyproject.toml").read_text())
    assert project["project"]["version"] == morven.__version__
