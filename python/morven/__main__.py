"""python3 -m morven transfer: the tool's batch transfer on a Dask cluster.

    python3 -m morven transfer --scheduler tcp://HOST:8786 --reference REF -o OUTDIR INPUT... [options]

Without --scheduler a local cluster of processes runs it. The options are
those of ``morven transfer`` in batch mode, with its defaults; so are the
messages and the exit status: 0 done, 1 a file failed (after all the others
were done), 2 a wrong command line, 130 interrupted.
"""

import argparse
import os
import sys
import time


def _range(kind, low, high):
    def parse(text):
        value = kind(text)
        if not low <= value <= high:
            raise argparse.ArgumentTypeError(f"{text} is not between {low} and {high}")
        return value
    return parse


def _parser():
    top = argparse.ArgumentParser(prog="python3 -m morven", description="The morven tool's commands on Dask.")
    commands = top.add_subparsers(dest="command", required=True, metavar="COMMAND")
    p = commands.add_parser(
        "transfer", help="give pictures the colours of a reference, on a Dask cluster",
        usage="python3 -m morven transfer [--scheduler ADDRESS] --reference REF -o OUTDIR INPUT... [options]",
        description="Every INPUT (files, or folders whose PNG, JPEG, TIFF and WebP files are taken) is "
                    "transferred into OUTDIR by the morven tool's own pipeline, on the workers of a Dask "
                    "cluster; one failed file does not stop the others. Workers must see the inputs, OUTDIR "
                    "and this package at the same paths.")
    p.add_argument("inputs", nargs="+", metavar="INPUT")
    p.add_argument("--reference", required=True, metavar="REF", help="the reference for every INPUT")
    p.add_argument("-o", "--output", required=True, metavar="OUTDIR", help="the folder to write into")
    p.add_argument("--scheduler", metavar="ADDRESS",
                   help="the Dask scheduler, e.g. tcp://HOST:8786 (default: a local cluster of processes)")
    p.add_argument("--workers", type=_range(int, 1, 1024), metavar="N", help="local cluster: worker processes")
    p.add_argument("--wait-for-workers", type=_range(float, 0, 86400), default=60, metavar="SECONDS",
                   help="with --scheduler: how long to wait for a first worker (default 60)")
    p.add_argument("--strength", type=_range(float, 0, 1), metavar="X")
    p.add_argument("--fidelity", type=_range(float, 0, 1), metavar="X")
    p.add_argument("--max-step", type=_range(int, 0, 255), metavar="N")
    p.add_argument("--contrast", action="store_true", default=None)
    p.add_argument("--high-tail", type=_range(float, 0, 1000), metavar="P")
    p.add_argument("--low-tail", type=_range(float, 0, 1000), metavar="P")
    p.add_argument("--smooth", action="store_true", default=None)
    p.add_argument("--smooth-threshold", type=_range(float, 0, 1), metavar="X")
    p.add_argument("--smooth-iterations", type=_range(int, 0, 100000), metavar="N")
    p.add_argument("--space", type=str.lower, choices=["rgb", "luma", "ycbcr", "lab"])
    p.add_argument("--ignore-profiles", action="store_true", default=None)
    p.add_argument("--mask", metavar="MASK")
    p.add_argument("--source-mask", metavar="FILE")
    p.add_argument("--reference-mask", metavar="FILE")
    p.add_argument("--format", type=str.lower, choices=["png", "jpg", "jpeg", "tif", "tiff", "webp"])
    p.add_argument("--quality", type=_range(int, 1, 100), metavar="Q")
    p.add_argument("--lossless", action="store_true", default=None)
    p.add_argument("--tiff-compression", type=str.lower, choices=["none", "lzw", "deflate"])
    p.add_argument("--strip", action="store_true", default=None)
    exclusive = p.add_mutually_exclusive_group()
    exclusive.add_argument("-f", "--force", action="store_true", default=None)
    exclusive.add_argument("--skip-existing", action="store_true", default=None)
    p.add_argument("-q", "--quiet", action="store_true", help="print errors only")
    return top, p


def _transfer(args, parser):
    import distributed

    from . import FileError
    from ._files import console, transfer_files

    for option, needs in (("high_tail", "contrast"), ("low_tail", "contrast"), ("smooth_threshold", "smooth"),
                          ("smooth_iterations", "smooth")):
        if getattr(args, option) is not None and not getattr(args, needs):
            parser.error(f"--{option.replace('_', '-')} needs --{needs}")

    def note(file, text):
        if not args.quiet:
            console.line(f"morven: note: {file}: {text}")

    def report(result):
        if result.status == "failed":
            console.line(f"morven: {result.file}: {result.reason}")
        for file, text in result.notes:
            note(file, text)

    options = {name: getattr(args, name) for name in (
        "strength", "fidelity", "max_step", "contrast", "high_tail", "low_tail", "smooth", "smooth_threshold",
        "smooth_iterations", "space", "ignore_profiles", "quality", "lossless", "tiff_compression", "strip", "force",
        "skip_existing")}
    start = time.monotonic()
    client = None
    try:
        if args.scheduler:
            try:
                client = distributed.Client(args.scheduler, timeout=30)
                client.wait_for_workers(1, timeout=args.wait_for_workers)
            except (OSError, TimeoutError, distributed.TimeoutError) as error:
                console.line(f"morven: cannot use the scheduler at {args.scheduler}: {error}")
                return 1
        workers = len(client.scheduler_info()["workers"]) if client else args.workers
        batch = transfer_files(args.inputs, args.reference, args.output, client, mask=args.mask,
                               source_mask=args.source_mask, reference_mask=args.reference_mask,
                               format=args.format, workers=args.workers, on_note=note, on_result=report,
                               progress=not args.quiet and sys.stderr.isatty(), **options)
    except FileError as error:
        console.line(f"morven: {error}")
        return 1
    except ValueError as error:
        console.line(f"morven transfer: {error}")
        return 2
    except KeyboardInterrupt:
        console.line("morven: interrupted")
        return 130
    finally:
        if client is not None:
            client.close()
    files = [r for r in batch.results if r.output]
    if not batch.results:
        console.line("morven: nothing to do: no input images")
        return 1
    if not args.quiet:
        written = sum(r.status == "written" for r in files)
        skipped = sum(r.status == "skipped" for r in files)
        where = f"on the cluster at {args.scheduler}" if args.scheduler else "on a local cluster"
        line = (f"morven: {written} of {len(files)} images transferred into {args.output} in "
                f"{time.monotonic() - start:.2f} s {where}")
        if workers:
            line += f" of {workers} worker{'s' if workers != 1 else ''}"
        if skipped:
            line += f"; {skipped} skipped (already there)"
        if batch.failed:
            line += f"; {len(batch.failed)} failed"
        console.line(line)
    return 1 if batch.failed else 0


def main(argv=None):
    parser, transfer = _parser()
    args = parser.parse_args(argv)
    return _transfer(args, transfer)


if __name__ == "__main__":
    sys.exit(main())
