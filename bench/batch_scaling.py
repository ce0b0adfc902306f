"""Captures per second of qvreconstruction.batch.process: one after another, and over
a local Dask cluster of 1 and 2 worker processes (one thread each):

    env PYTHONPATH=build/python python3 bench/batch_scaling.py [captures]
"""
import os
import shutil
import sys
import tempfile
import time

from dask.distributed import Client, LocalCluster

import qvreconstruction as qv
from qvreconstruction import batch

count = int(sys.argv[1]) if len(sys.argv) > 1 else 64
work = tempfile.mkdtemp(prefix="qv-batch-")
try:
    binned, full = qv.sample_calibration()
    paths = []
    for k in range(count):
        raw, _, _, _ = qv.simulate_capture(full, scene=("boxes", "plane", "sphere", "wall")[k % 4], noise=1.0, seed=k)
        paths.append(os.path.join(work, f"capture{k:03}.raw"))
        raw.astype("<u2").tofile(paths[-1])

    def timed(label, client=None):
        out = os.path.join(work, label)
        start = time.perf_counter()
        batch.process(paths, out, client=client, progress=False)
        seconds = time.perf_counter() - start
        print(f"{label:>10}: {count} captures in {seconds:.2f} s, {count / seconds:.1f} per second")
        shutil.rmtree(out)

    timed("serial")
    for workers in (1, 2):
        with LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, dashboard_address=None) as cluster, \
                Client(cluster) as client:
            client.run(batch.convert, paths[0], os.path.join(work, "warm"))  # each worker sets up once
            timed(f"{workers} worker{'s' if workers > 1 else ''}", client)
finally:
    shutil.rmtree(work)
