"""Files transferred on a Dask cluster by the command-line tool's own pipeline.

Each file goes through the tool's code, compiled into ``morven._tool``: its
readers and writers, metadata, colour management and atomic writes, so
that every output equals, byte for byte, what ``morven transfer`` writes.

The reference is read and decoded once, on the driver, together with the
masks; there too its statistics are counted for the sources that need no
conversion of it (the gray and colour ones with its own profile or, when it
has one, with none). That object is sent once to every worker. A source with
another ICC profile needs the reference converted into that profile first:
each worker does so from the decoded reference it holds, once per profile.
"""

import dataclasses
import os
import sys
import threading

from . import FileError

__all__ = ["FileResult", "FileBatch", "transfer_files"]

_OPTIONS = ("space", "strength", "fidelity", "max_step", "contrast", "low_tail", "high_tail", "smooth",
            "smooth_threshold", "smooth_iterations", "ignore_profiles", "quality", "lossless", "strip", "force",
            "skip_existing", "tiff_compression")


@dataclasses.dataclass
class FileResult:
    """What happened to one input.

    ``status`` is ``"written"``, ``"skipped"`` (the output existed and
    ``skip_existing`` was given) or ``"failed"``; then ``file`` names the
    file at fault (the input, the output or a mask) and ``reason`` says why,
    as the tool's one-line message does. ``notes`` are the tool's notes as
    ``(file, text)`` pairs, ``timings`` its seconds spent decoding, in the
    library, encoding and writing.
    """
    input: str
    output: str
    status: str
    file: str = ""
    reason: str = ""
    notes: list = dataclasses.field(default_factory=list)
    timings: dict = dataclasses.field(default_factory=dict)


@dataclasses.dataclass
class FileBatch:
    """The results of :func:`transfer_files` (folders that could not be
    listed, then every file in the order of the inputs) and the notes said
    before any file ran (reading the reference and the masks, listing
    folders)."""
    results: list
    notes: list

    @property
    def failed(self):
        return [r for r in self.results if r.status == "failed"]


def _tool():
    try:
        from . import _tool
    except ImportError as error:
        raise ImportError("morven was built without the command-line tool's code (morven._tool); "
                          "build it with the tool (CMake option MORVEN_BUILD_TOOLS)") from error
    return _tool


def _job(reference, mask, source_mask, reference_mask, format, options):
    tool = _tool()
    unknown = set(options) - set(_OPTIONS)
    if unknown:
        raise TypeError(f"unknown option(s) {', '.join(sorted(unknown))}; expected some of {', '.join(_OPTIONS)}")
    settings = dict(tool.DEFAULTS, ignore_profiles=False, lossless=False, strip=False, force=False,
                    skip_existing=False)
    settings.update({k: v for k, v in options.items() if v is not None})
    paths = [os.fspath(p) if p is not None else "" for p in (reference, mask, source_mask, reference_mask)]
    return tool.FileTransfer(*paths, format=format or "", **settings)


def _transfer_one(input, output, job):
    """One file on a worker: the result, a failure included."""
    try:
        written, notes, timings = job.run(input, output)
        return FileResult(input, output, "written" if written else "skipped", notes=notes, timings=timings)
    except FileError as error:
        return FileResult(input, output, "failed", error.file, error.reason)
    except MemoryError:
        return FileResult(input, output, "failed", input, "out of memory")
    except Exception as error:  # what the tool reports as the input's failure
        return FileResult(input, output, "failed", input, str(error))


class _Console:
    """Lines and a progress bar on stderr, as the tool draws them: a line
    erases the bar and the bar is drawn again below it."""

    def __init__(self):
        self.bar = ""
        self.lock = threading.Lock()

    def line(self, text):
        with self.lock:
            erase = "\r\033[K" if self.bar else ""
            sys.stderr.write(f"{erase}{text}\n{self.bar}")
            sys.stderr.flush()

    def progress(self, done, total, failed):
        width = 30
        filled = done * width // total if total else width
        bar = f"[{'#' * filled}{'-' * (width - filled)}] {done}/{total}"
        self.show(bar + (f" ({failed} failed)" if failed else ""))

    def show(self, bar):
        with self.lock:
            erase = "\r\033[K" if self.bar else ""
            self.bar = bar
            sys.stderr.write(erase + bar)
            sys.stderr.flush()


console = _Console()  # shared: lines printed while the bar is shown go above it


def _run(client, job, items, progress, on_result):
    """The items on the client's cluster, in their order."""
    import distributed

    shipped = client.scatter(job, broadcast=True, hash=False)
    inputs, outputs = [i for i, _ in items], [o for _, o in items]
    futures = client.map(_transfer_one, inputs, outputs, job=shipped, pure=False)
    index = {future.key: n for n, future in enumerate(futures)}
    results, failed = [None] * len(items), 0
    if progress:
        console.progress(0, len(items), 0)
    try:
        for future in distributed.as_completed(futures):
            n = index[future.key]
            try:
                result = future.result()
            except Exception as error:  # the worker died, or the task could not run
                result = FileResult(inputs[n], outputs[n], "failed", inputs[n], f"{type(error).__name__}: {error}")
            results[n] = result
            failed += result.status == "failed"
            if on_result:
                on_result(result)
            if progress:
                console.progress(sum(r is not None for r in results), len(items), failed)
    finally:
        if progress:
            console.show("")
        client.cancel(futures + [shipped])
    return results


def transfer_files(inputs, reference, outdir, client=None, *, mask=None, source_mask=None, reference_mask=None,
                   format=None, workers=None, progress=False, on_note=None, on_result=None, **options):
    """Gives every input picture the colours of ``reference`` on a Dask
    cluster, as ``morven transfer --reference REF -o OUTDIR INPUT...`` does.

    ``inputs`` are files and folders (whose PNG, JPEG, TIFF and WebP files
    are taken); each output goes into ``outdir`` under its input's name (in
    ``format``, ``"png"``, ``"jpeg"``, ``"tiff"`` or ``"webp"``, when
    given). Every file runs through the command-line tool's own pipeline,
    with its options and defaults: ``space`` (``"lab"``), ``strength``,
    ``fidelity``, ``max_step``, ``contrast``, ``low_tail``, ``high_tail``,
    ``smooth``, ``smooth_threshold``, ``smooth_iterations``,
    ``ignore_profiles``, ``quality``, ``lossless``, ``tiff_compression``,
    ``strip``, ``force`` and ``skip_existing``; ``mask``, ``source_mask`` and ``reference_mask`` are
    files. Every worker must see the inputs, the output folder and the
    package at the same paths as the caller.

    ``client`` is a ``distributed.Client``; without one a local cluster of
    processes is started (``workers`` of them, by default as many as Dask
    chooses for this machine) and closed at the end. ``progress`` draws a
    progress bar on stderr. ``on_note(file, text)`` is called with each note
    said before the files run, and ``on_result`` with each
    :class:`FileResult` as it arrives (folders that could not be listed
    first).

    Returns a :class:`FileBatch`: one failed file fails alone, with its
    reason, and the others are done. Raises :class:`morven.FileError` when
    the reference or a mask cannot be read, or the output folder cannot be
    written, and ``ValueError`` for options out of range or when two inputs
    would be written to one output.
    """
    job = _job(reference, mask, source_mask, reference_mask, format, options)
    if isinstance(inputs, (str, bytes, os.PathLike)):
        inputs = [inputs]
    outdir = os.fspath(outdir)
    items, messages, clash = _tool().plan_batch([os.fspath(i) for i in inputs], outdir, format or "")
    if clash:
        raise ValueError(clash)
    notes = [(file, text) for failure, file, text in messages if not failure]
    unlisted = [FileResult(file, "", "failed", file, text) for failure, file, text in messages if failure]
    batch = FileBatch(unlisted, list(job.notes) + notes)
    for file, text in batch.notes if on_note else ():
        on_note(file, text)
    for result in unlisted if on_result else ():
        on_result(result)
    if not items:
        return batch
    _tool().prepare_folder(outdir)
    if client is not None:
        batch.results += _run(client, job, items, progress, on_result)
        return batch
    import distributed
    with distributed.LocalCluster(n_workers=workers, processes=True, dashboard_address=":0") as cluster, \
            distributed.Client(cluster) as local:
        batch.results += _run(local, job, items, progress, on_result)
    return batch
