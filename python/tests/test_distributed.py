"""The distributed batch: morven.dask.transfer_files and `python3 -m morven
transfer` on a scheduler with two worker processes on 127.0.0.1, every
output compared byte for byte with what the `morven` tool itself writes for
the same inputs and options."""

import ctypes as C
import io
import os
import pathlib
import pickle
import subprocess
import sys

import numpy as np
import pytest
from conftest import DATA, deep

import morven

distributed = pytest.importorskip("distributed")
Image = pytest.importorskip("PIL.Image")
tifffile = pytest.importorskip("tifffile")
mdask = pytest.importorskip("morven.dask")
pytest.importorskip("morven._tool")

TOOL = os.environ.get("MORVEN_TOOL")


def adobe_like_profile():
    """An RGB ICC profile with wide primaries and gamma 2.2, made by Little CMS."""
    lcms = C.CDLL("liblcms2.so.2")

    class xyY(C.Structure):
        _fields_ = [("x", C.c_double), ("y", C.c_double), ("Y", C.c_double)]

    lcms.cmsBuildGamma.restype = C.c_void_p
    lcms.cmsBuildGamma.argtypes = [C.c_void_p, C.c_double]
    lcms.cmsCreateRGBProfile.restype = C.c_void_p
    lcms.cmsCreateRGBProfile.argtypes = [C.c_void_p, C.c_void_p, C.c_void_p]
    lcms.cmsSaveProfileToMem.argtypes = [C.c_void_p, C.c_void_p, C.POINTER(C.c_uint32)]
    curve = lcms.cmsBuildGamma(None, 2.2)
    profile = lcms.cmsCreateRGBProfile(C.byref(xyY(0.3127, 0.3290, 1.0)),
                                       C.byref((xyY * 3)(xyY(0.64, 0.33, 1), xyY(0.21, 0.71, 1), xyY(0.15, 0.06, 1))),
                                       C.byref((C.c_void_p * 3)(curve, curve, curve)))
    size = C.c_uint32()
    lcms.cmsSaveProfileToMem(profile, None, C.byref(size))
    data = C.create_string_buffer(size.value)
    lcms.cmsSaveProfileToMem(profile, data, C.byref(size))
    return data.raw


@pytest.fixture(scope="module")
def pictures(tmp_path_factory):
    """A reference with an sRGB profile and inputs of every kind, all 64 x 48."""
    folder = tmp_path_factory.mktemp("pictures")
    chelsea = Image.open(DATA / "chelsea.png")
    chelsea.crop((100, 60, 196, 124)).save(folder / "ref.png", icc_profile=chelsea.info["icc_profile"])
    astronaut, coffee = (np.asarray(Image.open(DATA / f"{n}.png").convert("RGB")) for n in ("astronaut", "coffee"))
    a, c = astronaut[100:148, 180:244], coffee[150:198, 250:314]
    Image.fromarray(a).save(folder / "plain.png")
    exif = Image.Exif()
    exif[0x010F], exif[0x0112] = "Morven test camera", 6  # Make; orientation: turned on reading
    Image.fromarray(c).convert("L").save(folder / "gray.jpg", quality=92, exif=exif.tobytes())
    tifffile.imwrite(folder / "deep.tif", c.astype(np.uint16) * 256 + np.arange(64, dtype=np.uint16)[:, None],
                     photometric="rgb")
    alpha = np.tile(np.linspace(0, 255, 64).astype(np.uint8), (48, 1))
    Image.fromarray(np.dstack([a[::-1], alpha])).save(folder / "alpha.png")
    Image.fromarray(c[::-1]).save(folder / "wide.png", icc_profile=adobe_like_profile())
    whole = io.BytesIO()
    Image.fromarray(a).save(whole, "PNG")
    (folder / "broken.png").write_bytes(whole.getvalue()[:400])  # cut short in its pixel data
    Image.fromarray(alpha).save(folder / "mask.png")
    inputs = [str(folder / n) for n in ("plain.png", "gray.jpg", "deep.tif", "alpha.png", "wide.png", "broken.png")]
    return folder, inputs


@pytest.fixture(scope="module")
def cluster():
    """(address, client): a scheduler and two worker processes on 127.0.0.1."""
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, host="127.0.0.1",
                                  dashboard_address=None) as local, distributed.Client(local) as client:
        client.wait_for_workers(2, timeout=60)
        yield local.scheduler_address, client


_tool_runs = {}


def tool_batch(pictures, tmp_path_factory, flags):
    """The tool's own batch run: (output folder, the lines it printed)."""
    key = tuple(flags)
    if key not in _tool_runs:
        if not TOOL:
            pytest.skip("MORVEN_TOOL (the path of the morven executable) is not set")
        folder, inputs = pictures
        out = tmp_path_factory.mktemp("tool")
        run = subprocess.run([TOOL, "transfer", "--reference", str(folder / "ref.png"), "-o", str(out), *inputs,
                              *flags], capture_output=True, text=True, timeout=60)
        assert run.returncode == 1, run.stderr  # broken.png
        _tool_runs[key] = out, run.stderr.splitlines()
    return _tool_runs[key]


def same_outputs(ours, theirs):
    names = sorted(p.name for p in pathlib.Path(theirs).iterdir())
    assert sorted(p.name for p in pathlib.Path(ours).iterdir()) == names
    for name in names:
        assert (pathlib.Path(ours) / name).read_bytes() == (pathlib.Path(theirs) / name).read_bytes(), name


def output_name(path, options):
    path = pathlib.Path(path)
    return path.stem + {"tiff": ".tif", "jpeg": ".jpg"}[options["format"]] if "format" in options else path.name


# Options of transfer_files, and the tool's flags for the same run.
RUNS = [
    ({}, []),
    (dict(space="rgb", contrast=True, low_tail=20, smooth=True, strength=0.8, format="jpeg", quality=75),
     ["--space", "rgb", "--contrast", "--low-tail", "20", "--smooth", "--strength", "0.8", "--format", "jpeg",
      "--quality", "75"]),
    (dict(format="tiff", ignore_profiles=True, mask="mask.png", source_mask="mask.png", fidelity=1.0, strip=True),
     ["--format", "tiff", "--ignore-profiles", "--mask", "mask.png", "--source-mask", "mask.png", "--fidelity", "1",
      "--strip"]),
]


@pytest.mark.parametrize("options,flags", RUNS)
def test_batch_on_the_cluster_equals_the_tool(pictures, cluster, tmp_path, tmp_path_factory, options, flags):
    folder, inputs = pictures
    address, client = cluster
    options = {k: str(folder / v) if k.endswith("mask") else v for k, v in options.items()}
    flags = [str(folder / f) if f.endswith(".png") else f for f in flags]
    theirs, said = tool_batch(pictures, tmp_path_factory, flags)
    seen = []
    # The defaults run without a client: transfer_files starts a local cluster of its own.
    batch = mdask.transfer_files(inputs, folder / "ref.png", tmp_path, client if options else None,
                                 on_result=seen.append, **options, **({} if options else dict(workers=1)))

    assert [r.input for r in batch.results] == inputs
    assert sorted(seen, key=lambda r: inputs.index(r.input)) == batch.results
    same_outputs(tmp_path, theirs)
    # Failures: every reason as the tool gives it, and the corrupt file among them.
    failed = {r.input for r in batch.failed}
    assert str(folder / "broken.png") in failed
    assert failed == {i for i in inputs if not (theirs / output_name(i, options)).exists()}
    for r in batch.failed:
        assert f"morven: {r.file}: {r.reason}" in said
    # Notes: those of the tool, with our output folder for its own.
    notes = [(f, t) for r in batch.results for f, t in r.notes] + batch.notes
    ours = {f"morven: note: {f.replace(str(tmp_path), str(theirs))}: {t}" for f, t in notes}
    assert ours == {line for line in said if line.startswith("morven: note:")}
    if options.get("format") == "jpeg":  # alpha and 16 bits are dropped, and said so
        assert len(ours) >= 2
    if not options:  # with the defaults, the corrupt file alone fails
        assert failed == {str(folder / "broken.png")}
        assert all(r.timings["decode"] > 0 for r in batch.results if r.status == "written")


def test_chunked_transfer_on_the_cluster(photos, cluster):
    """morven.dask.transfer's tasks, run by the worker processes, give the single call's result."""
    da = pytest.importorskip("dask.array")
    source, reference = deep(photos["coffee"]), photos["chelsea"]
    expected = morven.transfer(source, reference, space="lab", contrast=True, smooth=True)
    result = mdask.transfer(da.from_array(source, chunks=(150, 250, 3)), reference, space="lab", contrast=True,
                            smooth=True)
    assert np.array_equal(cluster[1].compute(result).result(), expected)


def test_command_line(pictures, cluster, tmp_path, tmp_path_factory):
    folder, inputs = pictures
    address, _ = cluster
    theirs, said = tool_batch(pictures, tmp_path_factory, [])

    def run(*args):
        return subprocess.run([sys.executable, "-m", "morven", "transfer", "--scheduler", address, "--reference",
                               str(folder / "ref.png"), "-o", str(tmp_path), *args], capture_output=True, text=True,
                              timeout=60)

    first = run(*inputs)
    assert first.returncode == 1, first.stderr
    same_outputs(tmp_path, theirs)
    failure = [line for line in said if line.startswith(f"morven: {folder / 'broken.png'}: ")]
    assert len(failure) == 1 and failure[0] in first.stderr.splitlines()
    assert "5 of 6 images transferred" in first.stderr and "; 1 failed" in first.stderr
    again = run(*inputs[:-1], "--skip-existing", "--contrast")
    assert again.returncode == 0, again.stderr
    assert "0 of 5 images transferred" in again.stderr and "5 skipped" in again.stderr
    same_outputs(tmp_path, theirs)
    wrong = run(*inputs, "--high-tail", "5")
    assert wrong.returncode == 2 and "--high-tail needs --contrast" in wrong.stderr


def test_reference_statistics_travel_with_the_pickled_job(pictures, tmp_path):
    """The driver counts the statistics for sources without a profile or with
    the reference's; a copy converts the reference for another profile itself."""
    folder, inputs = pictures
    from morven._files import _job
    job = _job(folder / "ref.png", None, None, None, None, {})
    copy = pickle.loads(pickle.dumps(job))
    assert sorted(copy.target_keys) == sorted(job.target_keys) == ["colour", "colour into sRGB", "gray",
                                                                   "gray into sRGB"]
    copy.run(str(folder / "plain.png"), str(tmp_path / "plain.png"))
    assert len(copy.target_keys) == 4
    copy.run(str(folder / "wide.png"), str(tmp_path / "wide.png"))
    assert "colour into a profile of" in " ".join(copy.target_keys) and len(job.target_keys) == 4
    job.run(str(folder / "wide.png"), str(tmp_path / "again.png"))
    assert (tmp_path / "wide.png").read_bytes() == (tmp_path / "again.png").read_bytes()


@pytest.mark.parametrize("reference,extra,options,error,message", [
    ("missing.png", [], {}, morven.FileError, "missing.png: cannot open"),
    ("ref.png", [], dict(strength=2), ValueError, "strength must be between 0"),
    ("ref.png", [], dict(force=True, skip_existing=True), ValueError, "exclude each other"),
    ("ref.png", ["sub/plain.png"], {}, ValueError, "would both be written to"),
    ("ref.png", [], dict(colour=True), TypeError, "unknown option"),
])
def test_refusals_before_any_file_runs(pictures, tmp_path, reference, extra, options, error, message):
    folder, _ = pictures
    inputs = [folder / "plain.png"] + [folder / name for name in extra]
    with pytest.raises(error, match=message):
        mdask.transfer_files(inputs, folder / reference, tmp_path / "out", **options)
    assert not (tmp_path / "out").exists()
