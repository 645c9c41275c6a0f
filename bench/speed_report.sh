#!/usr/bin/env bash
# Every speed figure of the reaper chain in one run, each ratio printed beside its
# target, for a quiet machine (the figures are only as good as the machine is idle):
#   1. walking a BOM of 500,150 entries with full paths against reading its bytes once
#      (bom_enumerate: at most 1.5x, peak memory at most 1.2x the file);
#   2. FileSizer on 200,000 files against du -s (filesizer_bench: both processors idle at
#      most 0.60x wall and 1.1x CPU, one processor busy at most 0.95x wall);
#   3. the reaper against du -s over its own reapable paths, without and with its system
#      path cache (reaper_bench: at most 0.75x and 0.60x);
#   4. ferryhold user-paths against find -xdev (ferryhold_bench.sh: at most 0.15x);
#   5. the scaling table: the reaper (with its cache) and ferryhold user-paths on the
#      benchmark volume at a quarter, one and four times its size (150,000 files at one),
#      elapsed time and peak memory against du -s and find -xdev, medians of 3 runs
#      (GNU time, /usr/bin/time, measures them).
#
#   bench/speed_report.sh [BUILD_DIR] [WORK_DIR] [SCALES]
# Defaults: build, /tmp/ferryhold-speed, "0.25 1 4". The volumes are built in WORK_DIR
# on first use and kept for later runs (the one at four times takes about 2.5 GB).
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
work=${2:-/tmp/ferryhold-speed}
scales=${3:-0.25 1 4}
mkdir -p "$work"
work=$(realpath "$work")

volume() {  # the benchmark volume at a scale, built when missing
    local dir="$work/volume-$1"
    [ -d "$dir" ] || "$build/bin/reaper_bench" --build "$dir" "$1" >&2
    echo "$dir"
}

echo "== machine: $(nproc) processors, kernel $(uname -r), load average $(cut -d' ' -f1-4 /proc/loadavg)"
echo
echo "== 1. BOM walk"
"$build/bin/bom_enumerate"
echo
echo "== 2. FileSizer"
"$build/bin/filesizer_bench"
echo
main=$(volume 1)
echo "== 3. reaper ($main)"
"$build/bin/reaper_bench" "$main"
echo
echo "== 4. ferryhold user-paths"
bash bench/ferryhold_bench.sh "$build" "$main" || echo "FAILED: bench/ferryhold_bench.sh"
echo
echo "== 5. scaling table"
for scale in $scales; do volume "$scale" >/dev/null; done
python3 - "$build" "$work" $scales <<'PY'
import os, plistlib, statistics, subprocess, sys, tempfile

build, work, scales = sys.argv[1], sys.argv[2], sys.argv[3:]
runs = 3

def run(command):
    """Elapsed seconds and peak resident memory (MiB) of one run of the command, taken by
    GNU time (a child forked from this interpreter would carry its size into the peak);
    NaNs when it fails (the table then shows nan, and the failure is reported)."""
    with tempfile.NamedTemporaryFile("r") as report:
        code = subprocess.run(["/usr/bin/time", "-f", "%e %M", "-o", report.name, *command],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode
        fields = report.read().split()
    if code != 0 or len(fields) < 2:
        print(f"FAILED ({code}): {' '.join(command)}")
        return float("nan"), float("nan")
    return float(fields[-2]), int(fields[-1]) / 1024

def measure(commands):
    """Medians of `runs` runs of each command, taken in turns, after one warm-up each."""
    results = {name: [] for name in commands}
    for command in commands.values():
        run(command)
    for _ in range(runs):
        for name, command in commands.items():
            results[name].append(run(command))
    return {name: (statistics.median(t for t, _ in r), statistics.median(m for _, m in r))
            for name, r in results.items()}

def files_on(volume):
    return sum(len(names) for _, _, names in os.walk(volume))

rows = []
for scale in scales:
    volume = f"{work}/volume-{scale}"
    reaper = [f"{build}/bin/reaper", volume, "10.7"]
    out = subprocess.run(reaper, capture_output=True, check=True).stdout
    paths = [volume + p for p in plistlib.loads(out).get("ReapablePaths", [])
             if os.path.lexists(volume + p)]
    figures = measure({
        "reaper": reaper,
        "du": ["du", "-s", *paths],
        "user-paths": [f"{build}/bin/ferryhold", "user-paths", volume],
        "find": ["find", volume, "-xdev"],
    })
    rows.append((scale, files_on(volume), figures))

print(f"{'scale':>5} {'files':>8} | {'reaper s':>8} {'du -s s':>8} {'ratio':>5} {'reaper MiB':>10} {'du MiB':>6}"
      f" | {'user-paths s':>12} {'find s':>7} {'ratio':>5} {'user-paths MiB':>14} {'find MiB':>8}"
      f" | {'reaper us/file':>14} {'user-paths us/file':>18}")
for scale, files, f in rows:
    (rt, rm), (dt, dm), (ut, um), (ft, fm) = f["reaper"], f["du"], f["user-paths"], f["find"]
    print(f"{scale:>5} {files:>8} | {rt:>8.3f} {dt:>8.3f} {rt / dt:>5.2f} {rm:>10.1f} {dm:>6.1f}"
          f" | {ut:>12.3f} {ft:>7.3f} {ut / ft:>5.2f} {um:>14.1f} {fm:>8.1f}"
          f" | {rt / files * 1e6:>14.2f} {ut / files * 1e6:>18.2f}")
print("linear cost: the time per file stays level from row to row; flat memory: the peak stays level")
PY
