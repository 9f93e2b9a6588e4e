"""The notebook kernel's part of the benchmark: the execute round trip of a
cell whose value is a 10x10 matrix, typeset (text/latex beside text/plain)
against the same cell with %display plain, taking turns in rounds so that
both meet the same phases of the machine.
Usage: notebook.py BUILD_DIR [--smoke]"""
import json
import os
import statistics
import sys
import tempfile
import time

from jupyter_client.manager import start_new_kernel

CELL = "Matrix(10, 10, [seq([seq(i * j - 1/3, j = 1..10)], i = 1..10)]);"


def round_trip(kc, n):
    """The median of n executions of the cell, in microseconds."""
    times = []
    for _ in range(n):
        start = time.perf_counter()
        reply = kc.execute_interactive(CELL, timeout=60, output_hook=lambda m: None)
        times.append((time.perf_counter() - start) * 1e6)
        assert reply["content"]["status"] == "ok", reply["content"]
    return statistics.median(times)


def main():
    build = os.path.abspath(sys.argv[1])
    smoke = "--smoke" in sys.argv
    src = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    with tempfile.TemporaryDirectory() as data:
        os.makedirs(os.path.join(data, "kernels", "vexel"))
        with open(os.path.join(data, "kernels", "vexel", "kernel.json"), "w") as f:
            json.dump({"argv": [os.path.join(src, "shell", "vexel"), "--jupyter-kernel", "{connection_file}"],
                       "display_name": "Vexel", "language": "vexel",
                       "env": {"BUILD": build, "LD_PRELOAD": os.environ.get("KERNEL_PRELOAD", "")}}, f)
        os.environ["JUPYTER_DATA_DIR"] = data
        km, kc = start_new_kernel(kernel_name="vexel", startup_timeout=60)
        try:
            rounds, per = (2, 5) if smoke else (10, 40)
            plain, typeset = [], []
            round_trip(kc, per)  # warm-up
            for _ in range(rounds):
                kc.execute_interactive("%display plain", timeout=60, output_hook=lambda m: None)
                plain.append(round_trip(kc, per))
                kc.execute_interactive("%display latex", timeout=60, output_hook=lambda m: None)
                typeset.append(round_trip(kc, per))
        finally:
            kc.stop_channels()
            km.shutdown_kernel(now=True)
    floor, value = statistics.median(plain), statistics.median(typeset)
    ratio = value / floor
    print()
    print("-- notebook kernel: execute round trip of a cell whose value is a 10x10 matrix")
    print("%-44s %10s %-11s" % ("floor: the cell with %display plain", "%.1f" % floor, "us"))
    print("%-44s %10s %-11s %10s %8s  %-14s %s" % ("the cell typeset (text/latex too)", "%.1f" % value, "us",
                                                   "%.1f" % floor, "%.2fx" % ratio, "<= 1.5x",
                                                   "yes" if ratio <= 1.5 else "NO"))


if __name__ == "__main__":
    main()
