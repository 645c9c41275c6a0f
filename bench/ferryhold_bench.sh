#!/usr/bin/env bash
# `ferryhold user-paths ROOT` against `find ROOT -xdev` on the reaper benchmark volume
# (120 system receipts, 400,000 BOM entries, 150,000 files on disk), warm cache.
#   bench/ferryhold_bench.sh [BUILD_DIR] [VOLUME]   (defaults: build, /tmp/benchvol)
# Builds the volume with reaper_bench when it is missing. Prints the medians of nine
# interleaved runs of each, their ratio (target <= 0.15) in elapsed and in CPU time, the
# share of the rule-data tool that every analysis starts, and the directory entries
# each program read below ROOT (counted by strace from the getdents64 calls, "." and
# ".." left out).
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
volume=${2:-/tmp/benchvol}
[ -d "$volume" ] || "$build/bin/reaper_bench" "$volume" >/dev/null
volume=$(realpath "$volume")

python3 - "$build" "$volume" <<'PY'
import re, resource, shutil, statistics, subprocess, sys, time

build, volume = sys.argv[1], sys.argv[2]
ferryhold = [f"{build}/bin/ferryhold", "user-paths", volume]
find = ["find", volume, "-xdev"]
tool = [f"{build}/lib/Ferryhold.framework/Resources/MigrationData/ConfMigrator/pdExtraKeepPaths", volume]
runs = 9

cpu = {}

def elapsed(command):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.perf_counter()
    subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    wall = time.perf_counter() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu.setdefault(command[0], []).append(after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime)
    return wall

# Warm the page cache and the volume's system path cache.
for command in (find, ferryhold, find, ferryhold):
    elapsed(command)
times = {"ferryhold": [], "find": [], "tool": []}
for _ in range(runs):
    times["ferryhold"].append(elapsed(ferryhold))
    times["find"].append(elapsed(find))
    times["tool"].append(elapsed(tool))
median = {name: statistics.median(values) for name, values in times.items()}

kept = subprocess.run(ferryhold, capture_output=True, check=True).stdout.count(b"<string>")
print(f"volume {volume}: ferryhold user-paths kept {kept} paths")
print(f"ferryhold user-paths {median['ferryhold']:.3f} s, find -xdev {median['find']:.3f} s, "
      f"ratio {median['ferryhold'] / median['find']:.2f} (target <= 0.15)")
cpu_ours, cpu_find = statistics.median(cpu[ferryhold[0]][2:]), statistics.median(cpu[find[0]][2:])
print(f"CPU time (user + system, children included): ferryhold {cpu_ours:.3f} s, find {cpu_find:.3f} s, "
      f"ratio {cpu_ours / cpu_find:.2f}")
print(f"of which the rule-data tool pdExtraKeepPaths alone {median['tool']:.3f} s "
      f"({median['tool'] / median['ferryhold']:.0%})")

def entries_read(command):
    """Directory entries read below the volume by the command and its children."""
    trace = subprocess.run(["strace", "-f", "-y", "-e", "trace=getdents64", "-o", "/dev/stdout", *command],
                           capture_output=True, text=True, errors="replace", check=True).stdout
    pattern = re.compile(r"getdents64\(\d+<([^>]*)>, [^/]*/\* (\d+) entries \*/")
    total, reads = 0, 0
    for directory, count in pattern.findall(trace):
        if directory == volume or directory.startswith(volume + "/"):
            total += int(count)
            reads += int(count) == 0  # each directory is read to its end once per listing
    return total - 2 * reads, reads

if shutil.which("strace"):
    ours, our_dirs = entries_read(ferryhold)
    theirs, their_dirs = entries_read(find)
    print(f"entries read below the volume: ferryhold {ours} in {our_dirs} directory listings "
          f"(the receipts folder's included), find {theirs} in {their_dirs}")
else:
    print("entries read: strace is not installed")
PY
