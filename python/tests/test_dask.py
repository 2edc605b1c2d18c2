"""morven.dask.transfer equals morven.transfer on the whole picture, byte for
byte, whatever the chunking; it stays lazy and reads the source per pass."""

import threading

import numpy as np
import pytest
from conftest import pair

import morven

da = pytest.importorskip("dask.array")
import morven.dask as mdask  # noqa: E402


# kind, chunks (none divides 512 x 512), options
CASES = [
    ("RGB", (100, 130), dict(contrast=True, smooth=True, masks=True)),
    ("RGB", (37, 512), dict(space="lab", smooth=True, smooth_iterations=4, fidelity=0.6)),
    ("RGB", (300, 77), dict(space="luma", contrast=True, reference="dask")),
    ("RGBA", (129, 129), dict(max_step=4, strength=0.8, smooth=True, masks=True)),
    ("gray", (70, 90), dict(contrast=True, low_tail=80.0, smooth=True, masks=True, reference="dask")),
    ("RGB16", (111, 200), dict(contrast=True, smooth=True, masks=True)),
    ("RGB16", (200, 99), dict(space="ycbcr", reference="profile")),
    ("gray16", (64, 300), dict(smooth=True, smooth_iterations=3, contrast=True)),
]


@pytest.mark.parametrize("kind,chunks,options", CASES)
def test_chunked_transfer_equals_single_call(photos, kind, chunks, options):
    source, reference, _ = pair(photos, kind, "astronaut", "coffee")
    options = dict(options)
    how = options.pop("reference", "picture")
    rng = np.random.default_rng(7)
    if options.pop("masks", False):
        options["mask"] = rng.integers(0, 256, source.shape[:2], dtype=np.uint8)
        options["source_mask"] = rng.random(source.shape[:2]) < 0.6
        options["reference_mask"] = rng.random(reference.shape[:2]) < 0.5
    expected = morven.transfer(source, reference, **options)
    if how == "dask":
        reference = da.from_array(reference, chunks=(45, 80) + reference.shape[2:])
    elif how == "profile":
        reference = morven.profile(reference, space=options.get("space", "rgb"))
    array = da.from_array(source, chunks=chunks + source.shape[2:])
    result = mdask.transfer(array, reference, **options)
    assert isinstance(result, da.Array) and result.chunks[:2] == array.chunks[:2]
    assert np.array_equal(result.compute(), expected)


def test_counts_saturate_as_in_one_call():
    # 20 million pixels at level 0 and 5 million spread: one call's float bin
    # stops at 2^24, and so must the sum over four chunks of fewer pixels.
    rng = np.random.default_rng(3)
    source = np.zeros((5000, 5000), np.uint8)
    source[:1000] = rng.integers(0, 256, (1000, 5000), dtype=np.uint8)
    reference = np.arange(256, dtype=np.uint8).reshape(16, 16)
    expected = morven.transfer(source, reference, contrast=True)
    result = mdask.transfer(da.from_array(source, chunks=(2500, 2500)), reference, contrast=True).compute()
    assert np.array_equal(result, expected)
    # Half the rows hold the same distribution with no bin near 2^24: the
    # counts one would get without saturation. They give another result.
    exact = morven.transfer(np.ascontiguousarray(source[::2]), reference, contrast=True)
    assert not np.array_equal(exact[:500], expected[:1000:2])
    # The same picture as a chunked reference: its summed level-0 count stops at 2^24 too.
    small = rng.integers(0, 256, (64, 64), dtype=np.uint8)
    result = mdask.transfer(small, da.from_array(source, chunks=(2500, 2500))).compute()
    assert np.array_equal(result, morven.transfer(small, source))


@pytest.mark.parametrize("contrast,passes", [(False, 2), (True, 3)])
def test_lazy_and_reads_the_source_once_per_pass(photos, contrast, passes):
    reads, lock = [], threading.Lock()
    source = photos["chelsea"]

    def load(block, block_id=None):
        with lock:
            reads.append(block_id)
        return block

    array = da.from_array(source, chunks=(100, 200, 3)).map_blocks(load, meta=np.empty((0, 0, 0), np.uint8))
    result = mdask.transfer(array, photos["coffee"], contrast=contrast)
    assert reads == []
    computed = result.compute()
    blocks = 3 * 3
    assert len(reads) == passes * blocks and len(set(reads)) == blocks
    assert np.array_equal(computed, morven.transfer(source, photos["coffee"], contrast=contrast))


def test_no_pixels_warns_when_computed(photos):
    source = photos["chelsea"]
    result = mdask.transfer(da.from_array(source, chunks=(100, 100, 3)), photos["coffee"],
                            source_mask=np.zeros(source.shape[:2], np.uint8), contrast=True)
    with pytest.warns(morven.NoPixelsWarning):
        assert np.array_equal(result.compute(), source)


@pytest.mark.parametrize("array,kwargs,error,message", [
    (np.zeros((8, 8, 3), np.float32), {}, TypeError, "uint8 or uint16"),
    (np.zeros((8, 8, 4), np.uint8), dict(order="BGR"), ValueError, "BGRA"),
    (np.zeros((8, 8, 3), np.uint8), dict(mask=np.zeros((8, 9), np.uint8)), ValueError, "mask has shape"),
    (np.zeros((8, 8, 3), np.uint8), dict(fidelity=float("inf")), ValueError, "fidelity must be a finite"),
    ([[1, 2]], {}, TypeError, "array must be a dask"),
])
def test_refusals(array, kwargs, error, message):
    with pytest.raises(error, match=message):
        mdask.transfer(array, np.full((4, 4, 3), 9, np.uint8), **kwargs)
