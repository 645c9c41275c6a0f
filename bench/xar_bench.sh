#!/usr/bin/env bash
# XAR archives against bsdtar on one generated tree (20,000 files, about 200 MB of mixed
# text and binary content): creation time and size, and extraction time of the same
# gzip archive. Prints both times and the ratios (ours / bsdtar; lower is better).
#   bench/xar_bench.sh [BUILD_DIR]   (default: build)
# With XAR_BENCH_BASELINE naming another crateworks binary (an earlier build), its
# create is timed against ours too, five runs each in turns, medians compared: what
# writing beside OUT, syncing and renaming costs. Point XAR_BENCH_DIR at a disk-backed
# directory to include a real sync.
# The work happens in memory (XAR_BENCH_DIR, default /dev/shm) so that the figures
# measure the two programs rather than the disk's write-back.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
crateworks=$(realpath "$build/bin/crateworks")
base=${XAR_BENCH_DIR:-/dev/shm}
[ -d "$base" ] || base=/tmp
work=$(mktemp -d "$base/xar-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT

python3 - "$work/tree" <<'PY'
import os, random, sys
root = sys.argv[1]
rng = random.Random(20261123)
words = [''.join(rng.choice('abcdefghijklmnopqrstuvwxyz') for _ in range(rng.randint(2, 10))) for _ in range(5000)]
total, files = 0, 20000
for i in range(files):
    d = os.path.join(root, f"d{i % 40:02}", f"s{i % 7}")
    os.makedirs(d, exist_ok=True)
    size = rng.randint(1000, 19000)
    kind = i % 4
    if kind < 2:    # text
        out = []
        n = 0
        while n < size:
            line = ' '.join(rng.choices(words, k=rng.randint(4, 14))) + '\n'
            out.append(line)
            n += len(line)
        data = ''.join(out).encode()[:size]
    elif kind == 2:  # random bytes, incompressible
        data = rng.randbytes(size)
    else:            # structured binary: records with small varying fields
        data = b''.join(i.to_bytes(4, 'little') + rng.randbytes(4) + b'\0' * 8 for i in range(size // 16))
    with open(os.path.join(d, f"f{i:05}.{'txt' if kind < 2 else 'bin'}"), 'wb') as f:
        f.write(data)
    total += len(data)
print(f"tree: {files} files, {total / 1e6:.0f} MB")
PY

# Wall and CPU (user + system) seconds of one run, as "WALL CPU".
timed() {
  /usr/bin/time -o "$work/time" -f '%e %U %S' "$@" >/dev/null 2>&1
  awk '{ printf "%.2f %.2f\n", $1, $2 + $3 }' "$work/time"
}
# The fastest of three runs (by wall time) of "PREPARE; COMMAND...": the machine is
# shared, and the quickest run is the one least disturbed by others.
best_of_three() {
  local prepare=$1 best="" run
  shift
  for _ in 1 2 3; do
    $prepare
    run=$(timed "$@")
    if [ -z "$best" ] || awk -v a="$run" -v b="$best" 'BEGIN { split(a, x, " "); split(b, y, " "); exit !(x[1] < y[1]) }'; then
      best=$run
    fi
  done
  echo "$best"
}
cat "$work"/tree/*/*/* >/dev/null  # warm the page cache

t_bsd_create=$(timed bsdtar --format xar -cf "$work/bsdtar.xar" -C "$work/tree" .)
t_our_create=$(timed "$crateworks" xar create "$work/ours.xar" "$work/tree")
s_bsd=$(stat -c %s "$work/bsdtar.xar")
s_our=$(stat -c %s "$work/ours.xar")

empty_destination() { rm -rf "$work/x"; mkdir "$work/x"; }
no_destination() { rm -rf "$work/x"; }  # crateworks creates it

t_bsd_extract=$(best_of_three empty_destination bsdtar -xf "$work/bsdtar.xar" -C "$work/x")
mv "$work/x" "$work/x-bsdtar"
t_our_extract=$(best_of_three no_destination "$crateworks" xar extract "$work/bsdtar.xar" "$work/x")
diff -r "$work/x-bsdtar" "$work/x" >/dev/null || { echo "extracted trees differ" >&2; exit 1; }
rm -rf "$work/x-bsdtar"
t_bsd_extract2=$(best_of_three empty_destination bsdtar -xf "$work/ours.xar" -C "$work/x")
t_our_extract2=$(best_of_three no_destination "$crateworks" xar extract "$work/ours.xar" "$work/x")

wall() { echo "${1%% *}"; }
cpu() { echo "${1##* }"; }
ratio() { echo "scale=3; $1 / $2" | bc; }
report() {  # label ours bsdtar
  printf '%-26s crateworks %5.2fs (cpu %5.2fs)  bsdtar %5.2fs (cpu %5.2fs)  ratio %s (cpu %s)\n' "$1" \
    "$(wall "$2")" "$(cpu "$2")" "$(wall "$3")" "$(cpu "$3")" "$(ratio "$(wall "$2")" "$(wall "$3")")" \
    "$(ratio "$(cpu "$2")" "$(cpu "$3")")"
}
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
report "create:" "$t_our_create" "$t_bsd_create"
printf '%-26s crateworks %d bytes  bsdtar %d bytes  ratio %s\n' "size:" "$s_our" "$s_bsd" "$(ratio "$s_our" "$s_bsd")"
report "extract (bsdtar archive):" "$t_our_extract" "$t_bsd_extract"
report "extract (our archive):" "$t_our_extract2" "$t_bsd_extract2"

if [ -n "${XAR_BENCH_BASELINE:-}" ]; then
  baseline=$(realpath "$XAR_BENCH_BASELINE")
  walls_ours=() walls_base=()
  for _ in 1 2 3 4 5; do
    rm -f "$work/base.xar" "$work/ours.xar"; sync
    walls_base+=("$(wall "$(timed "$baseline" xar create "$work/base.xar" "$work/tree")")")
    rm -f "$work/base.xar"; sync
    walls_ours+=("$(wall "$(timed "$crateworks" xar create "$work/ours.xar" "$work/tree")")")
  done
  median5() { printf '%s\n' "$@" | sort -n | sed -n 3p; }
  m_ours=$(median5 "${walls_ours[@]}") m_base=$(median5 "${walls_base[@]}")
  printf '%-26s crateworks %5.2fs  baseline %5.2fs  ratio %s (medians of 5, in %s)\n' "create vs baseline:" \
    "$m_ours" "$m_base" "$(ratio "$m_ours" "$m_base")" "$base"
fi
