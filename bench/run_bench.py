#!/usr/bin/env python3
"""Times whole scans of generated shares in the test sandbox, next to the floor program.

    run_bench.py --bin BUILD/mediawalk --floor BUILD/floor --work DIR [--sizes 1000,10000,100000]
                 [--runs N] [--seed S] [--out FILE] [--label TEXT]

For every size it makes (once, cached under DIR/shares) a share with make_share.py, times the
floor program on it, and scans it with a stub detector that answers nothing at once, with no
detector on PATH, with the shipped detect_char_encode on PATH (--tool) and with the scanner built
to ask the same detector in-process (--builtin-bin). Then it times the floor program's other yardstick: as many one-row
transactions as files were scanned, which is the least the scan's statements after the first m3u
playlist cost, each committing on its own. Each phase's time is taken from when its log line arrives on stdout (the
program's stdout is line-buffered); "count" includes the sandbox's start. CPU time and peak
resident memory come from /usr/bin/time run inside the sandbox: the program's own, with the
largest of the shells and detectors it starts. With several runs the fastest is kept.

Run as root, it adds cold-cache rows per size: the page cache is dropped ("sync; echo 3 >
/proc/sys/vm/drop_caches") before each run of the floor's read pass (walk, lstat and the first
4 KiB of every media file, one at a time, no database) and before each scan with no detector,
and the cold scan's "× floor" is against that read pass. Without root they are skipped, with a
note saying so.
"""

import argparse
import datetime
import os
import platform
import shutil
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(REPO, "tests", "e2e"))

# Phase ends, in the order the program prints them; each phase starts where the previous ends.
MARKS = [
    ("count", b"total_file_cnt["),
    ("setup", b"Scan Music -->"),
    ("walk", b"Parse playlist-->"),
    ("playlists", b"Sort DBtable-->"),
    ("sort", b"Assign path_objid_tbl media-->"),
    ("flags", b"Cover old-DB table-->"),
]
SHOWN_PHASES = ["count", "walk", "playlists", "sort", "flags"]


def make_share(work, size, seed):
    folder = os.path.join(work, "shares", "%d-s%d" % (size, seed))
    stamp = os.path.join(folder, "done")
    generator = os.path.join(HERE, "make_share.py")
    version = str(os.stat(generator).st_mtime_ns)
    if os.path.exists(stamp) and open(stamp).read() == version:
        return os.path.join(folder, "Media_1") + "/"
    if os.path.exists(folder):
        shutil.rmtree(folder)
    os.makedirs(os.path.dirname(folder), exist_ok=True)
    started = time.monotonic()
    subprocess.run([sys.executable, generator, "--files", str(size), "--seed", str(seed), folder],
                   check=True, stdout=subprocess.DEVNULL)
    with open(stamp, "w") as f:
        f.write(version)
    print("  made the %d-file share in %.1f s" % (size, time.monotonic() - started), flush=True)
    return os.path.join(folder, "Media_1") + "/"


# A child of this Python process starts with Python's own peak in its ru_maxrss (fork and exec
# carry it over), so the peak is taken by /usr/bin/time, whose fresh child starts small.
TIME = "/usr/bin/time"


def measured(command, rss_file):
    """command with /usr/bin/time put right before the program (the last element)."""
    if not os.access(TIME, os.X_OK):
        return command
    return command[:-1] + [TIME, "-f", "%M %U %S", "-o", rss_file] + command[-1:]


def peak_rss(rss_file, usage):
    """(peak RSS KiB, CPU seconds) of the program and its children; from /usr/bin/time's note,
    else the wait4 figures (the peak then an upper bound)."""
    try:
        with open(rss_file) as f:
            rss, user, system = f.read().split()[-3:]
            return int(rss), (float(user), float(system))
    except (OSError, ValueError):
        return usage.ru_maxrss, (usage.ru_utime, usage.ru_stime)
    finally:
        if os.path.exists(rss_file):
            os.unlink(rss_file)


def timed_run(sb, timeout):
    """One sandboxed run; returns (status, wall seconds, {mark: seconds}, maxrss KiB, stdout)."""
    import harness
    ovl = tempfile.mkdtemp(prefix="ovl", dir=sb.root)
    sb.xmldb = harness.Xmldb(sb.path("run", "xmldb_sock"), "answer", sb.path("log", "xmldb"))
    seen = {}
    lines = []
    rss_file = sb.path("log", "maxrss")
    try:
        with open(sb.path("log", "stderr"), "wb") as err:
            started = time.monotonic()
            proc = subprocess.Popen(measured(sb.command(ovl), rss_file), env=sb.environment(), stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE, stderr=err, cwd=sb.root)
            killer = threading.Timer(timeout, proc.kill)
            killer.start()
            for line in proc.stdout:
                now = time.monotonic() - started
                lines.append(line)
                for name, prefix in MARKS:
                    if name not in seen and line.startswith(prefix):
                        seen[name] = now
            _, status, usage = os.wait4(proc.pid, 0)
            wall = time.monotonic() - started
            killer.cancel()
            proc.returncode = os.waitstatus_to_exitcode(status)
    finally:
        sb.xmldb.stop()
        harness.rmtree(ovl)
    rss, cpu = peak_rss(rss_file, usage)
    return proc.returncode, wall, seen, rss, cpu, b"".join(lines)


def phase_times(seen, wall):
    out = {}
    previous = 0.0
    for name, _ in MARKS:
        if name not in seen:
            return None
        out[name] = seen[name] - previous
        previous = seen[name]
    out["rest"] = wall - previous
    return out


LABELS = {"none": "no detector", "stub": "stub detector", "tool": "shipped detector",
          "builtin": "built-in detector"}


def drop_caches():
    subprocess.run(["sync"], check=True)
    with open("/proc/sys/vm/drop_caches", "w") as f:
        f.write("3\n")


def scan(share, mode, runs, timeout, extra_env=(), tool=None, builtin_bin=None, before=None):
    import harness
    saved_bin = harness.BIN
    if mode == "builtin":
        harness.BIN = builtin_bin
    sb = harness.Sandbox(name="bench")
    sb.extra_env.update(item.split("=", 1) for item in extra_env)
    try:
        sb.conf(sharepath=share)
        sb.etc("codepage", "cp850\n")
        sb.detector(None)
        if mode == "stub":
            script = sb.path("bin", "detect_char_encode")
            with open(script, "w") as f:
                f.write("#!/bin/sh\nprintf ''\n")
            os.chmod(script, 0o755)
        elif mode == "tool":
            sb.real_detector(tool)
        elif shutil.which("detect_char_encode", path=sb.environment()["PATH"]):
            raise SystemExit("run_bench.py: a detect_char_encode is on the system PATH; "
                             "the no-detector runs would not be without one")
        best = None
        for _ in range(runs):
            if before:
                before()
            status, wall, seen, rss, cpu, out = timed_run(sb, timeout)
            phases = phase_times(seen, wall)
            if status != 1 or phases is None:
                tail = out[-1500:].decode("utf-8", "replace")
                raise SystemExit("run_bench.py: run failed (status %d):\n%s" % (status, tail))
            if best is None or wall < best["wall"]:
                best = {"wall": wall, "phases": phases, "rss": rss, "cpu": cpu,
                        "scanned": _scanned(out)}
        return best
    finally:
        sb.cleanup()
        harness.BIN = saved_bin


def _scanned(out):
    for line in out.splitlines():
        if line.startswith(b"total_scan_cnt["):
            return int(line[len(b"total_scan_cnt["):-1])
    return 0


def floor(program, share, work, runs, commits=None, cold=False):
    """The floor program's best run over the share, or with commits=N its N one-row transactions,
    or with cold set its read pass with the page cache dropped before each run."""
    db = os.path.join(work, "floor.db")
    if cold:
        args = ["--read-pass", share]
    else:
        args = (["--commits", str(commits)] if commits is not None else [share]) + [db]
    best = None
    for _ in range(runs):
        if cold:
            drop_caches()
        started = time.monotonic()
        rss_file = os.path.join(work, "floor.maxrss")
        proc = subprocess.Popen(measured([program], rss_file) + args, stdout=subprocess.PIPE)
        out = proc.stdout.read()
        _, status, usage = os.wait4(proc.pid, 0)
        wall = time.monotonic() - started
        proc.returncode = os.waitstatus_to_exitcode(status)
        if proc.returncode != 0:
            raise SystemExit("run_bench.py: the floor program failed")
        if best is None or wall < best["wall"]:
            rss, cpu = peak_rss(rss_file, usage)
            best = {"wall": wall, "rss": rss, "cpu": cpu, "out": out.decode().strip()}
        if os.path.exists(db):
            os.unlink(db)
    return best


def fmt_row(size, kind, r, floor_wall=None):
    cells = ["%d" % size, kind, "%.3f" % r["wall"], "%.2f + %.2f" % r["cpu"], "%.0f" % (size / r["wall"])]
    if "phases" in r:
        cells += ["%.3f" % r["phases"][p] for p in SHOWN_PHASES]
        cells.append("%.1f" % (r["rss"] / 1024.0))
        cells.append("%.2f" % (r["wall"] / floor_wall) if floor_wall else "")
    else:
        cells += [""] * len(SHOWN_PHASES) + ["%.1f" % (r["rss"] / 1024.0), "1.00" if kind == "floor" else ""]
    return "| " + " | ".join(cells) + " |"


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin", required=True)
    ap.add_argument("--floor", required=True)
    ap.add_argument("--work", required=True)
    ap.add_argument("--sizes", default="1000,10000,100000")
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--modes", default="none,stub,tool,builtin")
    ap.add_argument("--tool", help="the shipped detect_char_encode, for the tool mode")
    ap.add_argument("--builtin-bin", help="mediawalk built with MEDIAWALK_BUILTIN_DETECTOR, for the builtin mode")
    ap.add_argument("--timeout", type=float, default=3600)
    ap.add_argument("--out", help="also write the table (markdown) to this file")
    ap.add_argument("--label", default="", help="a line shown above the table")
    ap.add_argument("--cold", choices=("auto", "no"), default="auto",
                    help="cold-cache rows: auto adds them when run as root")
    ap.add_argument("--env", action="append", default=[], metavar="NAME=VALUE",
                    help="an extra environment variable for the program (for experiments)")
    args = ap.parse_args()

    args.work = os.path.abspath(args.work)
    os.makedirs(args.work, exist_ok=True)
    os.environ["MEDIAWALK_BIN"] = os.path.abspath(args.bin)
    os.environ["MEDIAWALK_E2E_WORK"] = os.path.join(os.path.abspath(args.work), "runs")
    import harness
    problem = harness.sandbox_problem()
    if problem:
        raise SystemExit("run_bench.py: cannot sandbox here: " + problem)

    sizes = [int(s) for s in args.sizes.split(",")]
    cold = args.cold == "auto" and os.geteuid() == 0
    if args.cold == "auto" and not cold:
        print("cold-cache rows skipped: dropping the page cache needs root", flush=True)
    modes = args.modes.split(",")
    for mode, path in (("tool", args.tool), ("builtin", args.builtin_bin)):
        if mode in modes and not (path and os.path.isfile(path)):
            raise SystemExit("run_bench.py: the %s mode needs --%s" % (mode, "tool" if mode == "tool" else "builtin-bin"))
    tool = os.path.abspath(args.tool) if args.tool else None
    builtin_bin = os.path.abspath(args.builtin_bin) if args.builtin_bin else None
    header = ("| files | run | wall s | CPU user + sys s | files/s | " + " | ".join(p + " s" for p in SHOWN_PHASES)
              + " | peak RSS MiB | × floor |")
    rule = "|" + "---|" * (header.count("|") - 1)
    rows = [header, rule]
    walls = {}
    notes = []
    for size in sizes:
        share = make_share(args.work, size, args.seed)
        fl = floor(args.floor, share, args.work, args.runs)
        rows.append(fmt_row(size, "floor", fl))
        print(rows[-1], flush=True)
        scanned = None
        for mode in modes:
            r = scan(share, mode, args.runs, args.timeout, args.env, tool, builtin_bin)
            walls[(size, mode)] = r["wall"]
            scanned = scanned or r["scanned"]
            rows.append(fmt_row(size, LABELS[mode], r, fl["wall"]))
            print(rows[-1], flush=True)
        if scanned:
            # After the first m3u playlist every statement commits on its own; one such
            # transaction per scanned file is the least of it.
            cm = floor(args.floor, share, args.work, args.runs, commits=scanned)
            rows.append(fmt_row(size, "%d commits" % scanned, cm))
            print(rows[-1], flush=True)
            if (size, "none") in walls:
                notes.append("%d files, no detector: scan / floor %.2f, scan / (floor + commits) %.2f" % (
                    size, walls[(size, "none")] / fl["wall"], walls[(size, "none")] / (fl["wall"] + cm["wall"])))
        for mode in ("tool", "builtin"):
            if (size, "none") in walls and (size, mode) in walls:
                notes.append("%d files, %s / no detector: %.2f" % (
                    size, LABELS[mode], walls[(size, mode)] / walls[(size, "none")]))
        if cold:
            fc = floor(args.floor, share, args.work, args.runs, cold=True)
            rows.append(fmt_row(size, "floor read pass, cold", fc))
            print(rows[-1], flush=True)
            r = scan(share, "none", args.runs, args.timeout, args.env, before=drop_caches)
            rows.append(fmt_row(size, "no detector, cold", r, fc["wall"]))
            print(rows[-1], flush=True)
            notes.append("%d files, cold cache, no detector: scan / floor read pass %.2f" % (size, r["wall"] / fc["wall"]))

    for mode in modes:
        for small, big in zip(sizes, sizes[1:]):
            if (small, mode) in walls and (big, mode) in walls:
                notes.append("time(%d) / time(%d), %s: %.2f (linear: %.1f)" % (
                    big, small, LABELS[mode],
                    walls[(big, mode)] / walls[(small, mode)], big / small))
    stamp = datetime.datetime.now().strftime("%Y-%m-%d %H:%M")
    text = "\n".join(
        ([args.label, ""] if args.label else [])
        + ["%s on %s, %d CPUs, Python %s; best of %d runs; share seed %d." % (
            stamp, platform.node() or "this machine", os.cpu_count() or 0, platform.python_version(),
            args.runs, args.seed), ""]
        + rows + [""] + notes
        + ([] if cold else ["", "Cold-cache rows skipped: dropping the page cache needs root."])) + "\n"
    print()
    print(text)
    if args.out:
        os.makedirs(os.path.dirname(os.path.abspath(args.out)), exist_ok=True)
        with open(args.out, "a") as f:
            f.write(text + "\n")


if __name__ == "__main__":
    main()
