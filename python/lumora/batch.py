"""python3 -m lumora.batch: lumora-fuse --batch spread over a Dask cluster.

    python3 -m lumora.batch [--scheduler ADDRESS] [--workers N] [OPTION]... FILE|FOLDER... -o FOLDER

The brackets are found, grouped and named by lumora-fuse's own code, with
its options (--group, --format, --overwrite, --report and the fusion
options); each bracket is then one Dask task that runs the tool's single run
in the worker's process, so every output is byte for byte what
lumora-fuse --batch writes, metadata included. Existing outputs are skipped
unless --overwrite; the JSON report is the tool's. Exit status: 0, 1 when a
bracket failed, 2 on a usage error, 130 when interrupted.

Without --scheduler a local cluster of N worker processes (default 2, one
thread each) is started. With it, the workers of a running cluster
(`dask scheduler`, `dask worker ADDRESS` on each machine) fuse: every worker
must reach the inputs and the output folder at the same paths.
"""

import sys
import time

from . import _lumora

USAGE = ("Usage: python3 -m lumora.batch [--scheduler ADDRESS] [--workers N] [OPTION]... "
         "FILE|FOLDER... -o FOLDER")


def _fuse_one(args, inputs, output):
    """One bracket, in a worker: the outcome of lumora-fuse's single run."""
    from lumora import _lumora as worker_side  # imported in the worker's process
    start = time.monotonic()
    outcome = worker_side.fuse_bracket(args, inputs, output)
    outcome["seconds"] = time.monotonic() - start
    return outcome


def _split(argv):
    """Our own options (--scheduler, --workers) apart from the tool's."""
    scheduler, workers, rest = None, 2, []
    it = iter(argv)
    for arg in it:
        name, eq, value = arg.partition("=")
        if name in ("--scheduler", "--workers"):
            if not eq:
                value = next(it, None)
                if value is None:
                    raise SystemExit(f"lumora.batch: {name} needs a value\n{USAGE}")
            if name == "--scheduler":
                scheduler = value
            elif not value.isdigit() or not 1 <= int(value) <= 256:
                raise SystemExit(f"lumora.batch: --workers: '{value}' is not valid (1 to 256)\n{USAGE}")
            else:
                workers = int(value)
        else:
            rest.append(arg)
    return scheduler, workers, rest


def run(argv):
    """The batch of argv (without the program name); returns the exit status."""
    scheduler, workers, args = _split(argv)
    status, brackets, todo = _lumora.plan_batch(args)
    if status != -1:  # the tool's "go on"
        return status
    from distributed import Client, LocalCluster

    cluster = None if scheduler else LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                                                  dashboard_address=None)
    client = Client(scheduler or cluster)
    overall, done = 0, 0
    try:
        futures = {k: client.submit(_fuse_one, args, brackets[k]["inputs"], brackets[k]["output"], pure=False)
                   for k in todo}
        for k, future in futures.items():
            bracket = brackets[k]
            try:
                outcome = future.result()
            except KeyboardInterrupt:
                raise
            except Exception as error:  # a worker lost, a task that raised
                outcome = {"status": 1, "line": f"{type(error).__name__}: {error}", "frames": [],
                           "alignment": "none", "deghost": "none", "seconds": 0.0}
            bracket.update(frames=outcome["frames"], alignment=outcome["alignment"], deghost=outcome["deghost"],
                           seconds=outcome["seconds"])
            done += 1
            if outcome["status"] == 0:
                bracket["status"] = "fused"
                said = f"fused -> {bracket['output']} in {outcome['seconds']:.1f} s"
            else:
                bracket["error"] = outcome["line"]
                overall = 1
                said = f"failed: {outcome['line']}"
            print(f"lumora.batch: bracket {done} of {len(todo)}: {said}", file=sys.stderr, flush=True)
    except KeyboardInterrupt:
        overall = 130
    finally:
        client.close()
        if cluster is not None:
            cluster.close()
    return _lumora.finish_batch(args, brackets, overall)


def main():
    sys.exit(run(sys.argv[1:]))


if __name__ == "__main__":
    main()
