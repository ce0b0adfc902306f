"""Captures per second of qvreconstruction.batch.process: one after another, and over
a local Dask cluster of 1 and 2 worker processes (one thread each), started with
Dask's default environment and with batch.WORKER_MALLOC:

    env PYTHONPATH=build/python python3 bench/batch_scaling.py [captures]

Dask's nanny copies its worker environment into the parent's, where it then outranks
the configuration; each environment is therefore measured in a fresh process.
"""
import os
import shutil
import subprocess
import sys
import tempfile
import time

from dask.distributed import Client, LocalCluster

import qvreconstruction as qv
from qvreconstruction import batch


def timed(paths, out, label, client=None):
    start = time.perf_counter()
    batch.process(paths, out, client=client, progress=False)
    seconds = time.perf_counter() - start
    print(f"{label:>28}: {len(paths)} captures in {seconds:.2f} s, {len(paths) / seconds:.1f} per second", flush=True)
    shutil.rmtree(out)


def clusters(work, environment):
    """Runs the batch over 1 and 2 workers started with the given environment."""
    if environment == "WORKER_MALLOC":
        os.environ.update(batch.WORKER_MALLOC)
    paths = sorted(os.path.join(work, name) for name in os.listdir(work) if name.endswith(".raw"))
    for workers in (1, 2):
        with LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                          dashboard_address=None) as cluster, Client(cluster) as client:
            client.run(batch.convert, paths[0], os.path.join(work, "warm"))  # each worker sets up once
            timed(paths, os.path.join(work, "out"), f"{workers} worker{'s' if workers > 1 else ''}, {environment}",
                  client)


def main() -> None:
    if len(sys.argv) == 4 and sys.argv[1] == "--clusters":
        clusters(sys.argv[2], sys.argv[3])
        return
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 64
    work = tempfile.mkdtemp(prefix="qv-batch-")
    try:
        binned, full = qv.sample_calibration()
        paths = []
        for k in range(count):
            raw, _, _, _ = qv.simulate_capture(full, scene=("boxes", "plane", "sphere", "wall")[k % 4], noise=1.0, seed=k)
            paths.append(os.path.join(work, f"capture{k:03}.raw"))
            raw.astype("<u2").tofile(paths[-1])
        timed(paths, os.path.join(work, "out"), "serial")
        for environment in ("Dask's default", "WORKER_MALLOC"):
            subprocess.run([sys.executable, __file__, "--clusters", work, environment], check=True)
    finally:
        shutil.rmtree(work)


# Dask starts worker processes by spawning, which imports this file again: only the
# parent runs the benchmark.
if __name__ == "__main__":
    main()
