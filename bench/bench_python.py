#!/usr/bin/env python3
"""velm3d.Delaunay against scipy.spatial.Delaunay, and against the C++
library's bulk insertion of the same points.

Every run happens in a fresh interpreter (or, for C++, a forked child of
bench_triangulation), so each starts from the same heap and its peak memory
belongs to it alone. A run reports the wall time of the whole constructor
call (for velm3d: input checks, insertion and all output arrays), its CPU
time, and the growth of the peak resident set (VmHWM, reset just before the
call) over the resident set before it. Figures are medians over the runs.
The count of scipy's zero-volume tetrahedra is exact: a floating-point
determinant with an error bound, and rational arithmetic where that bound
does not decide.

Usage (with the interpreter that has velm3d installed, e.g. build/venv/bin/python):
  bench_python.py [--repeat R] [--sets uniform-10k,...] [--cpp PATH] [--markdown FILE]
  bench_python.py --tasks delaunay,linear,griddata,voronoi,find_simplex,neighbors [--sets ...] [--workers W]
--cpp names bench_triangulation (default build/bench/bench/bench_triangulation
if it exists); without it the C++ column stays empty. --tasks times the
toolbox against scipy in the same way: delaunay (the constructor, with
--workers threads for velm3d), linear
(LinearNDInterpolator, build and as many random queries as points), griddata
(linear, as many queries as points), voronoi, and, for velm3d alone,
find_simplex (as many random queries as points, on the built mesh) and
neighbors (vertex_neighbor_vertices of the built mesh).
"""

import argparse
import json
import os
import platform
import statistics
import subprocess
import sys
import tempfile
import time
from fractions import Fraction

import numpy as np

SETS = {
    "uniform-10k": ("uniform", 10_000),
    "uniform-100k": ("uniform", 100_000),
    "uniform-200k": ("uniform", 200_000),
    "uniform-1M": ("uniform", 1_000_000),
    "grid-50^3": ("grid", 50),
    "sphere-100k": ("sphere", 100_000),
}


def make_points(kind, n):
    rng = np.random.default_rng(12345)
    if kind == "uniform":
        return rng.random((n, 3))
    if kind == "grid":
        r = np.arange(n, dtype=np.float64)
        return np.stack(np.meshgrid(r, r, r, indexing="ij"), axis=-1).reshape(-1, 3)
    v = rng.normal(size=(n, 3))
    return v / np.linalg.norm(v, axis=1)[:, None]


def zero_volume_count(points, simplices):
    a, b, c, d = (points[simplices[:, k]] for k in range(4))
    u, v, w = b - a, c - a, d - a
    det = (u[:, 0] * (v[:, 1] * w[:, 2] - v[:, 2] * w[:, 1]) - u[:, 1] * (v[:, 0] * w[:, 2] - v[:, 2] * w[:, 0])
           + u[:, 2] * (v[:, 0] * w[:, 1] - v[:, 1] * w[:, 0]))
    perm = (np.abs(u[:, 0]) * (np.abs(v[:, 1] * w[:, 2]) + np.abs(v[:, 2] * w[:, 1]))
            + np.abs(u[:, 1]) * (np.abs(v[:, 0] * w[:, 2]) + np.abs(v[:, 2] * w[:, 0]))
            + np.abs(u[:, 2]) * (np.abs(v[:, 0] * w[:, 1]) + np.abs(v[:, 1] * w[:, 0])))
    small_ints = np.all(points == np.round(points)) and np.abs(points).max() < 2 ** 16
    if small_ints:  # every product is an integer below 2^53: the determinant is exact
        return int((det == 0).sum())
    count = 0
    for t in np.nonzero(np.abs(det) <= 1e-14 * perm)[0]:
        P = [[Fraction(float(x)) for x in points[i]] for i in simplices[t]]
        U = [[P[k][j] - P[0][j] for j in range(3)] for k in (1, 2, 3)]
        exact = (U[0][0] * (U[1][1] * U[2][2] - U[1][2] * U[2][1]) - U[0][1] * (U[1][0] * U[2][2] - U[1][2] * U[2][0])
                 + U[0][2] * (U[1][0] * U[2][1] - U[1][1] * U[2][0]))
        count += exact == 0
    return count


def vm_kib(field):
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return 0


def toolbox_build(job, points):
    """The call that --tasks times, and the object whose size is reported."""
    task, impl, workers = job["task"], job["impl"], job.get("workers", 1)
    queries = np.random.default_rng(777).random((len(points), 3))
    values = np.sin(points[:, 0]) + points[:, 1]
    if impl == "scipy":
        import scipy.interpolate as si
        from scipy.spatial import Delaunay, Voronoi
        extra = {}
    else:
        import velm3d as si
        from velm3d import Delaunay, Voronoi
        extra = {"workers": workers}
    if task == "delaunay":
        return lambda: Delaunay(points, **extra)
    if task == "linear":
        return lambda: si.LinearNDInterpolator(points, values, **extra)(queries)
    if task == "griddata":
        return lambda: si.griddata(points, values, queries, **extra)
    if task == "voronoi":
        return lambda: Voronoi(points, **extra)
    import velm3d
    tri = velm3d.Delaunay(points, workers=workers)
    if task == "find_simplex":
        return lambda: tri.find_simplex(queries)
    tri.vertex_to_simplex
    return lambda: tri.vertex_neighbor_vertices


def child(job):
    """One run in this process; prints one JSON line."""
    kind, n = SETS[job["set"]]
    points = make_points(kind, n)
    impl = job["impl"]
    if "task" in job:
        build = toolbox_build(job, points)
    elif impl == "scipy":
        from scipy.spatial import Delaunay
        build = lambda: Delaunay(points)  # noqa: E731
    else:
        import velm3d
        build = lambda: velm3d.Delaunay(points, progress=impl == "velm3d+progress")  # noqa: E731
    with open("/proc/self/clear_refs", "w") as f:
        f.write("5")  # resets VmHWM to the current resident set
    before = vm_kib("VmRSS")
    cpu0, t0 = time.process_time(), time.perf_counter()
    tri = build()
    wall, cpu = time.perf_counter() - t0, time.process_time() - cpu0
    peak = vm_kib("VmHWM")
    out = {"wall": wall, "cpu": cpu, "mem_mib": (peak - before) / 1024,
           "nsimplex": int(getattr(tri, "nsimplex", 0))}
    if impl == "scipy" and job.get("count_flat"):
        out["flat"] = zero_volume_count(points, tri.simplices)
    print(json.dumps(out))


def run_child(job):
    proc = subprocess.run([sys.executable, __file__, "--child", json.dumps(job)], capture_output=True,
                          text=True, stdin=subprocess.DEVNULL)
    if proc.returncode != 0:
        return {"error": proc.stderr.strip().splitlines()[-1] if proc.stderr.strip() else "failed"}
    return json.loads(proc.stdout.strip().splitlines()[-1])


def run_cpp(cpp, points, repeat):
    with tempfile.NamedTemporaryFile("w", suffix=".xyz", delete=False) as f:
        np.savetxt(f, points, fmt="%.17g")
        path = f.name
    try:
        proc = subprocess.run([cpp, "--xyz", path, "--repeat", str(repeat)], capture_output=True, text=True)
    finally:
        os.unlink(path)
    wall = cpu = mem = None
    for line in proc.stdout.splitlines():
        words = line.split()
        if line.strip().startswith("construction time"):
            wall = float(words[2])
        elif line.strip().startswith("CPU time"):
            cpu = float(words[3])
        elif line.strip().startswith("peak - before"):
            mem = float(words[3])
    return {"wall": wall, "cpu": cpu, "mem_mib": mem}


def median(runs, key):
    values = [r[key] for r in runs if r.get(key) is not None]
    return statistics.median(values) if values else None


def cpu_model():
    try:
        out = subprocess.run(["lscpu"], capture_output=True, text=True).stdout
    except OSError:
        return platform.processor()
    fields = dict(line.split(":", 1) for line in out.splitlines() if ":" in line)
    return f"{fields.get('Model name', '?').strip()} (family {fields.get('CPU family', '?').strip()})"


def fmt(x, digits=2):
    return "" if x is None else f"{x:.{digits}f}"


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--child")
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--sets", default=",".join(SETS))
    ap.add_argument("--cpp", default="build/bench/bench/bench_triangulation")
    ap.add_argument("--markdown")
    ap.add_argument("--tasks")
    ap.add_argument("--workers", type=int, default=1)
    args = ap.parse_args()
    if args.child:
        child(json.loads(args.child))
        return
    if args.tasks:
        toolbox(args)
        return
    cpp = args.cpp if os.path.exists(args.cpp) else None
    header = ("| Input | Points | velm3d | scipy | speed-up | velm3d with progress | C++ insertion | "
              "velm3d / C++ | memory velm3d / scipy (MiB) | scipy's zero-volume tetrahedra |")
    lines = [f"CPU: {cpu_model()}; median of {args.repeat} runs, each in a fresh process; "
             "times in seconds (wall).", "", header, "|" + "---|" * 10]
    print("\n".join(lines), flush=True)
    for name in args.sets.split(","):
        kind, n = SETS[name]
        points = make_points(kind, n)
        res = {}
        impls = ["velm3d", "scipy"] + (["velm3d+progress"] if name in ("uniform-200k", "uniform-1M") else [])
        # The implementations take turns, run by run.
        for r in range(args.repeat):
            for impl in impls:
                res.setdefault(impl, []).append(run_child({"set": name, "impl": impl, "count_flat": r == 0}))
        if cpp:
            res["cpp"] = [run_cpp(cpp, points, args.repeat)]
        v, s = median(res["velm3d"], "wall"), median(res["scipy"], "wall")
        vp = median(res.get("velm3d+progress", []), "wall")
        c = median(res.get("cpp", []), "wall")
        flat = next((x["flat"] for x in res["scipy"] if "flat" in x), None)
        err = next((x["error"] for x in res["scipy"] if "error" in x), None)
        row = [name, f"{len(points):,}", fmt(v), fmt(s) if err is None else f"fails: {err[:40]}",
               fmt(s / v, 1) + "x" if s and v else "", fmt(vp), fmt(c), fmt(v / c) if v and c else "",
               f"{fmt(median(res['velm3d'], 'mem_mib'), 0)} / {fmt(median(res['scipy'], 'mem_mib'), 0)}",
               "" if flat is None else f"{flat:,} of {res['scipy'][0]['nsimplex']:,}"]
        line = "| " + " | ".join(row) + " |"
        lines.append(line)
        print(line, flush=True)
    if args.markdown:
        with open(args.markdown, "w") as f:
            f.write("\n".join(lines) + "\n")


def toolbox(args):
    lines = [f"CPU: {cpu_model()}; median of {args.repeat} runs, each in a fresh process; times in seconds "
             f"(wall, CPU in brackets); velm3d with workers={args.workers}.", "",
             "| Task | Input | velm3d | scipy | speed-up |", "|---|---|---|---|---|"]
    print("\n".join(lines), flush=True)
    for task in args.tasks.split(","):
        for name in args.sets.split(","):
            impls = ["velm3d"] + (["scipy"] if task in ("delaunay", "linear", "griddata", "voronoi") else [])
            res = {}
            for _ in range(args.repeat):
                for impl in impls:
                    job = {"set": name, "impl": impl, "task": task, "workers": args.workers}
                    res.setdefault(impl, []).append(run_child(job))
            v, s = median(res["velm3d"], "wall"), median(res.get("scipy", []), "wall")
            vc, sc = median(res["velm3d"], "cpu"), median(res.get("scipy", []), "cpu")
            row = [task, name, f"{fmt(v)} ({fmt(vc)})", f"{fmt(s)} ({fmt(sc)})" if s else "",
                   fmt(s / v, 1) + "x" if s and v else ""]
            lines.append("| " + " | ".join(row) + " |")
            print(lines[-1], flush=True)
    if args.markdown:
        with open(args.markdown, "w") as f:
            f.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
