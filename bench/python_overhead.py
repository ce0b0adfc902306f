"""Time per full-stream calculate_depth call through the Python package, to set beside
the C++ benchmark's CalculateDepth_dual_filtered/fast (run both on one core):

    taskset -c 1 env PYTHONPATH=build/python python3 bench/python_overhead.py
    taskset -c 1 build/bench/qv_bench --benchmark_filter=CalculateDepth_dual_filtered/fast
"""
import statistics
import time

import qvreconstruction as qv

binned, full = qv.sample_calibration()
raw, width, height, _ = qv.simulate_capture(full, scene="boxes")
r = qv.Reconstruction()
r.set_type(qv.DeviceType.GENERIC, qv.StreamType.DUAL_FREQ)
r.init(binned, full)
for _ in range(20):
    r.calculate_depth(raw, width, height)
runs = []
for _ in range(9):
    start = time.perf_counter()
    for _ in range(100):
        r.calculate_depth(raw, width, height)
    runs.append((time.perf_counter() - start) / 100 * 1e3)
print(f"calculate_depth through Python: median {statistics.median(runs):.3f} ms, best {min(runs):.3f} ms")
