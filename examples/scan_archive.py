#!/usr/bin/python3
"""Describe every file of a photo archive with `tarn info --json`, on Dask.

    python3 examples/scan_archive.py DIR [--scheduler ADDRESS] [--workers N]
                                         [--batch-size N] [--tarn PATH]

Every file under DIR (recursively; paths are joined onto DIR as given) is
described by `tarn info --json`, in batches of files per call, and one JSON
line per file is printed to stdout: exactly the line `tarn info --json`
prints for that file, in the order the batches finish. Files that are not
readable HEIF files get their `"ok": false` line, as from `tarn info`.

The batches run on a Dask bag: on a LocalCluster of this machine by default,
or on the Dask scheduler at ADDRESS (`tcp://host:8786`), whose workers must
all see DIR at the same path and have `tarn` (or --tarn PATH) installed.

Needs Dask and Dask distributed (Debian: python3-dask python3-distributed,
which Debian's /usr/bin/python3 sees; another python3 earlier on PATH may
not). Exit status: 0 every file was read, 1 some file was not a readable
HEIF file, 2 bad command line or a batch that `tarn` could not run.
"""
import argparse
import os
import subprocess
import sys

# Exit statuses of `tarn info`: 0 every file read, 1 some file not readable.
TARN_OK = 0
TARN_SOME_UNREADABLE = 1


def archive_paths(root):
    """Every regular file under root, joined onto root as given, sorted."""
    paths = []
    for folder, subfolders, files in os.walk(root):
        subfolders.sort()
        for name in sorted(files):
            path = os.path.join(folder, name)
            if os.path.isfile(path):
                paths.append(path)
    return paths


def describe_batch(paths, tarn):
    """Runs one `tarn info --json` over a batch; returns (lines, any_unreadable)."""
    paths = list(paths)
    if not paths:
        return [([], False)]
    # "--" ends the options, so a file named like an option stays a file.
    done = subprocess.run([tarn, "info", "--json", "--", *paths], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, check=False)
    if done.returncode not in (TARN_OK, TARN_SOME_UNREADABLE):
        raise RuntimeError(f"{tarn} info exited with {done.returncode}: "
                           f"{done.stderr.decode(errors='replace').strip()}")
    lines = done.stdout.decode().splitlines()
    if len(lines) != len(paths):
        raise RuntimeError(f"{tarn} info printed {len(lines)} lines for {len(paths)} files")
    # One element per partition: the bag's map_partitions wants a sequence.
    return [(lines, done.returncode == TARN_SOME_UNREADABLE)]


def scan(paths, client, tarn, batch_size):
    """Yields (lines, any_unreadable) per batch as the batches finish."""
    import dask.bag
    from distributed import as_completed

    bag = dask.bag.from_sequence(paths, partition_size=batch_size)
    batches = bag.map_partitions(describe_batch, tarn).to_delayed()
    for future in as_completed(client.compute(batches)):
        for result in future.result():
            yield result
        future.release()


def main():
    parser = argparse.ArgumentParser(
        description="Describe every file under DIR with `tarn info --json` on Dask.")
    parser.add_argument("dir", metavar="DIR", help="archive folder, searched recursively")
    parser.add_argument("--scheduler", metavar="ADDRESS",
                        help="address of a running Dask scheduler (default: a LocalCluster here)")
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 1,
                        help="workers of the LocalCluster (default: the number of CPUs)")
    parser.add_argument("--batch-size", type=int, default=256,
                        help="files per `tarn info` call (default: 256)")
    parser.add_argument("--tarn", default="tarn",
                        help="the tarn program as the workers find it (default: tarn on PATH)")
    args = parser.parse_args()
    if args.workers < 1 or args.batch_size < 1:
        parser.error("--workers and --batch-size must be at least 1")
    if not os.path.isdir(args.dir):
        parser.error(f"{args.dir} is not a folder")
    try:
        from distributed import Client, LocalCluster
    except ImportError:
        print("scan_archive.py needs Dask distributed (Debian: python3-dask python3-distributed, "
              "run with /usr/bin/python3)", file=sys.stderr)
        return 2

    paths = archive_paths(args.dir)
    if not paths:
        return TARN_OK
    unreadable = False
    try:
        if args.scheduler:
            cluster = None
            client = Client(args.scheduler)
        else:
            # The work happens in tarn processes, so the workers can be
            # threads of this process, one task each: nothing to start but
            # them, and nothing listening on the network.
            cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1,
                                   processes=False, dashboard_address=None)
            client = Client(cluster)
        try:
            for lines, some_unreadable in scan(paths, client, args.tarn, args.batch_size):
                if lines:
                    sys.stdout.write("\n".join(lines) + "\n")
                    sys.stdout.flush()
                unreadable = unreadable or some_unreadable
        finally:
            client.close()
            if cluster is not None:
                cluster.close()
    except (RuntimeError, OSError) as e:
        print(f"scan_archive.py: {e}", file=sys.stderr)
        return 2
    return TARN_SOME_UNREADABLE if unreadable else TARN_OK


if __name__ == "__main__":
    sys.exit(main())
