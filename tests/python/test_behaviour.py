"""What a Python user relies on: input errors that name the row, library
failures as RuntimeError, silence on standard output, Ctrl-C, progress, the
GIL released during insertion, and memory given back."""

import os
import signal
import subprocess
import sys
import textwrap
import threading
import time

import numpy as np
import pytest

import velm3d

from conftest import assert_delaunay


def run_child(code, **kwargs):
    """Runs code in a fresh interpreter with the package; returns the process."""
    return subprocess.run([sys.executable, "-c", textwrap.dedent(code)], capture_output=True,
                          text=True, timeout=120, **kwargs)


@pytest.mark.parametrize("bad", [np.nan, np.inf, -np.inf])
def test_coordinates_out_of_the_exact_domain_name_the_first_bad_row(bad):
    points, row = np.random.default_rng(1).uniform(-1, 1, (10, 3)), 3
    points[row, 1] = points[row + 2, 0] = bad
    with pytest.raises(ValueError, match=f"row {row}: .*not finite"):
        velm3d.Delaunay(points)
    tri = velm3d.Delaunay(points[:row])
    with pytest.raises(ValueError, match=f"row {row}: "):
        tri.add_points(points)
    assert tri.npoints == row and tri.check()  # the failed call stored nothing
    # A query is no input: as in scipy, one that is not finite lies in no simplex.
    tri = velm3d.Delaunay(np.vstack([np.eye(3), np.zeros(3)]))
    assert list(tri.find_simplex(np.vstack([points[row], [0.1, 0.1, 0.1]]))) == [-1, 0]


@pytest.mark.parametrize("points, match", [
    ([[0, 0, 0], [1, 0, 0], [0, 1], [0, 0, 1]], "row 2: expected 3 coordinates"),
    ([[0, 0, 0], [1, 0, 0], ["a", 1, 2]], "row 2: .* can't be read"),
    ([[0, 0, 0], [1, None, 0]], "row 1: .* holds None where a number should be"),
    (np.zeros((5, 2)), "row 0: expected 3 coordinates"),
    (np.zeros((2, 2, 3)), r"shape \(n, 3\); got shape \(2, 2, 3\)"),
    (np.zeros(3), r"one point of shape \(3,\)"),
    (42, r"shape \(n, 3\)"),
])
def test_wrong_shapes_and_types_raise_value_error(points, match):
    with pytest.raises(ValueError, match=match):
        velm3d.Delaunay(points)


def test_other_dtypes_and_layouts_are_converted(rng):
    points = rng.integers(-5, 5, (100, 3))
    expected = velm3d.Delaunay(points.astype(np.float64))
    for variant in (points, points.astype(np.float32), np.asfortranarray(points.astype(float)),
                    points.astype(float)[:, ::-1][:, ::-1], points.tolist()):
        tri = velm3d.Delaunay(variant)
        assert np.array_equal(tri.simplices, expected.simplices)
        assert tri.points.dtype == np.float64


def test_library_assertion_becomes_runtime_error_with_the_report():
    tri = velm3d.Delaunay(np.eye(4)[:, :3])
    with pytest.raises(RuntimeError, match=r"Condition \[ vTet.empty\(\) failed \] at dt3Library/Dt3.cpp:\d+$"):
        tri._tri._fail_assertion_for_test()


def test_closed_object_keeps_its_arrays_and_refuses_queries(rng):
    points = rng.uniform(-1, 1, (50, 3))
    tri = velm3d.Delaunay(points)
    simplices = tri.simplices
    tri.close()
    assert tri.simplices is simplices and tri.convex_hull.shape[1] == 3
    for call in (lambda: tri.find_simplex(points), lambda: tri.add_points(points), tri.check):
        with pytest.raises(RuntimeError, match="closed"):
            call()


def test_nothing_reaches_standard_output_unless_verbose():
    code = """
        import numpy as np, velm3d
        p = np.random.default_rng(0).uniform(0, 1, (3000, 3))
        tri = velm3d.Delaunay(p, verbose={verbose})
        tri.add_points(p[:10])
        tri.add_points(np.empty((0, 3)))
        velm3d.Delaunay(p[:3], verbose={verbose}).add_points(p[3:9])
        tri.find_simplex(p); tri.check(); tri.close()
        tri._tri  # noqa
        try:
            velm3d.Delaunay(p, verbose={verbose})._tri._fail_assertion_for_test()
        except RuntimeError:
            pass
    """
    quiet = run_child(code.format(verbose=False))
    assert quiet.returncode == 0, quiet.stderr
    assert quiet.stdout == "" and quiet.stderr == ""
    loud = run_child(code.format(verbose=True))
    assert "Velm, , ERROR: Condition [ vTet.empty() failed ]" in loud.stdout


def test_ctrl_c_interrupts_a_long_triangulation_within_a_second():
    # A shell that starts a job in the background without job control has the
    # job ignore SIGINT, and Python then leaves Ctrl-C ignored: the child takes
    # Python's own handler back.
    code = """
        import signal, sys, time, numpy as np, velm3d
        signal.signal(signal.SIGINT, signal.default_int_handler)
        p = np.random.default_rng(0).uniform(0, 1, (1500000, 3))
        small = velm3d.Delaunay(p[:2000])
        before = small.simplices.copy()
        print("go", flush=True)
        try:
            velm3d.Delaunay(p)
            print("finished", flush=True)
        except KeyboardInterrupt:
            print("interrupted", time.monotonic(), flush=True)
        print("go", flush=True)
        try:
            small.add_points(p[2000:])
        except KeyboardInterrupt:
            assert (small.simplices == before).all() and small.npoints == 2000
            try:
                small.find_simplex(p[:3])
            except RuntimeError:
                print("interrupted", time.monotonic(), flush=True)
    """
    child = subprocess.Popen([sys.executable, "-c", textwrap.dedent(code)], stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True)

    def resident_bytes():
        with open(f"/proc/{child.pid}/statm") as f:
            return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    try:
        for _ in range(2):
            assert child.stdout.readline().strip() == "go"
            # The signal comes once the child has grown by 300 MiB (the
            # insertion under way, most of it to come), however slowly the
            # machine runs.
            start, deadline = resident_bytes(), time.monotonic() + 60
            while resident_bytes() < start + 300 * 2**20:
                assert time.monotonic() < deadline
                time.sleep(0.01)
            sent = time.monotonic()
            child.send_signal(signal.SIGINT)
            word, when = child.stdout.readline().split()
            assert word == "interrupted"
            # A report comes every 4096 insertions (about 20 ms); the rest is
            # releasing the mesh. The margin is for a busy machine.
            assert float(when) - sent < 1.5
        assert child.wait(timeout=60) == 0, child.stderr.read()
    finally:
        child.kill()
        child.wait()


def test_progress_counts_points_and_an_error_in_the_display_stops_cleanly(monkeypatch, rng):
    code = """
        import sys
        sys.modules["tqdm"] = None  # as if not installed
        import numpy as np, velm3d
        p = np.random.default_rng(0).uniform(0, 1, (20000, 3))
        velm3d.Delaunay(p, progress=True)
    """
    child = run_child(code)
    assert child.returncode == 0 and child.stdout == ""
    lines = child.stderr.split("\n")  # the carriage returns, read as text, are line ends
    assert lines[1] == "velm3d: 4096 of 20000 points inserted (20%)"
    assert lines[-2:] == ["velm3d: 20000 of 20000 points inserted (100%)", ""]
    from velm3d import _delaunay
    calls = []

    def broken(self, done, total):
        calls.append((done, total))
        raise ZeroDivisionError("display failed")

    monkeypatch.setattr(_delaunay._ProgressBar, "__call__", broken)
    with pytest.raises(ZeroDivisionError):
        velm3d.Delaunay(rng.uniform(0, 1, (10000, 3)), progress=True)
    assert calls == [(4096, 10000)]


def test_insertion_releases_the_gil_and_threads_take_turns(rng):
    points = rng.uniform(0, 1, (150000, 3))
    count = 0
    stop = False

    def spin():
        nonlocal count
        while not stop:
            count += 1

    spinner = threading.Thread(target=spin)
    spinner.start()
    try:
        velm3d.Delaunay(points)
    finally:
        stop = True
        spinner.join()
    assert count > 100000  # a held GIL would leave the spinner a few slices at most
    results = {}

    def build(k):
        results[k] = velm3d.Delaunay(points[k::4][:4000])

    workers = [threading.Thread(target=build, args=(k,)) for k in range(4)]
    for w in workers:
        w.start()
    for w in workers:
        w.join()
    for k in range(4):
        assert_delaunay(results[k], points[k::4][:4000])


def test_two_triangulations_run_at_once_in_two_threads(rng, monkeypatch):
    # The progress reports of two insertions interleave only when both are
    # inside the library at the same time.
    from velm3d import _delaunay
    reports = []
    monkeypatch.setattr(_delaunay._ProgressBar, "__call__",
                        lambda self, done, total: reports.append(threading.get_ident()) or True)
    clouds = [rng.uniform(0, 1, (120000, 3)) for _ in range(2)]
    results = {}
    threads = [threading.Thread(target=lambda k=k: results.update({k: velm3d.Delaunay(clouds[k], progress=True,
                                                                                         workers=2)}))
               for k in range(2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    switches = sum(a != b for a, b in zip(reports, reports[1:]))
    assert switches >= 2, reports
    # Each gets the tetrahedra that one worker alone finds (the points are in
    # general position), which the exact oracle checks elsewhere.
    for k in range(2):
        alone = velm3d.Delaunay(clouds[k]).simplices
        assert np.array_equal(np.unique(np.sort(results[k].simplices, axis=1), axis=0),
                              np.unique(np.sort(alone, axis=1), axis=0))
