#!/usr/bin/env bash
# A product of 10 packages of 100 MiB random bytes each over loopback from nginx:
# `crateworks fetch --jobs 1` against a sequential loop of `curl -s -o` and `md5sum` over
# the same files, plus `crateworks fetch --jobs 2`; RUNS runs each (default 5), taken in
# turns, a fresh output directory every run. Prints the medians of wall and CPU time,
# the ratio jobs1 / curl loop and the ratio jobs2 / jobs1 of the wall medians (lower is
# better). On a busy machine the CPU figures say more than the wall ones.
#   bench/fetch_bench.sh [BUILD_DIR] [RUNS]   (default: build 5)
# Everything lives in FETCH_BENCH_DIR (default /dev/shm) so that the disk does not
# decide the figure: about 1 GiB served and up to 1 GiB fetched at a time.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
runs=${2:-5}
crateworks=$(realpath "$build/bin/crateworks")
base=${FETCH_BENCH_DIR:-/dev/shm}
[ -d "$base" ] || base=/tmp
packages=10
package_size=$((100 << 20))

need_kib=$(( (2 * packages * package_size + (256 << 20)) >> 10 ))
free_kib=$(df -Pk "$base" | awk 'NR == 2 { print $4 }')
if [ "$free_kib" -lt "$need_kib" ]; then
  echo "fetch_bench: $base has $((free_kib >> 10)) MiB free, $((need_kib >> 10)) MiB needed" >&2
  exit 1
fi

work=$(mktemp -d "$base/fetch-bench-XXXXXX")
nginx_pid=
cleanup() {
  [ -n "$nginx_pid" ] && kill "$nginx_pid" 2>/dev/null && wait "$nginx_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

# The packages and their index; the ".bin" kind has no check of its own beyond the MD5.
mkdir -p "$work/html/product"
python3 - "$work/html/product" "$packages" "$package_size" <<'PY'
import hashlib, os, plistlib, sys
root, count, size = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
refs = []
for i in range(count):
    name = f"package{i:02}.bin"
    md5 = hashlib.md5()
    with open(os.path.join(root, name), "wb") as out:
        left = size
        while left:
            chunk = os.urandom(min(left, 1 << 20))
            md5.update(chunk)
            out.write(chunk)
            left -= len(chunk)
    refs.append({"URL": name, "Identifier": f"com.example.bench.package{i:02}", "Version": "1.0",
                 "Size": size, "MD5": md5.hexdigest()})
with open(os.path.join(root, "index.product"), "wb") as out:
    plistlib.dump({"ProductIdentifier": "com.example.bench", "ProductVersion": "1.0", "Packages": refs}, out)
with open(os.path.join(root, "MD5SUMS"), "w") as out:
    for ref in refs:
        out.write(f"{ref['MD5']}  {ref['URL']}\n")
PY
names=()
for ((i = 0; i < packages; i++)); do names+=("$(printf 'package%02d.bin' "$i")"); done

# shellcheck source=bench/nginx.sh
source bench/nginx.sh
start_nginx "$work"

url="http://127.0.0.1:$port/product/"
out="$work/out"
fetch() { "$crateworks" fetch "$url" "$out" --jobs "$1"; }
curl_loop() {
  mkdir -p "$out"
  local name
  for name in "${names[@]}"; do
    curl -s -o "$out/$name" "$url$name" && md5sum "$out/$name"
  done
}
# Every package in place, whole and nothing else beside it.
check_out() {
  (cd "$out" && md5sum --quiet -c "$work/html/product/MD5SUMS") || { echo "fetch_bench: $1 left wrong files" >&2; exit 1; }
  local count
  count=$(find "$out" -mindepth 1 | wc -l)
  [ "$count" -eq "$packages" ] || { echo "fetch_bench: $1 left $count entries, not $packages" >&2; exit 1; }
}
# "WALL CPU" in seconds, CPU being the user and system time of the command and its
# children (nginx's side is in neither figure).
measure() {
  local TIMEFORMAT='%3R %3U %3S' t
  t=$( { time "$@" > /dev/null 2> "$work/command.err"; } 2>&1 ) ||
    { echo "fetch_bench: $* failed" >&2; cat "$work/command.err" >&2; exit 1; }
  awk '{ printf "%.3f %.3f\n", $1, $2 + $3 }' <<< "$t"
}
load() { cut -d' ' -f1-3 /proc/loadavg; }

echo "load average before: $(load)"
jobs1=() jobs2=() loop=() cpu1=() cpu2=() cpuc=()
for ((run = 1; run <= runs; run++)); do
  rm -rf "$out"; r=$(measure fetch 1); read -r j1 u1 <<< "$r"; check_out "fetch --jobs 1"
  rm -rf "$out"; r=$(measure curl_loop); read -r c uc <<< "$r"; check_out "the curl loop"
  rm -rf "$out"; r=$(measure fetch 2); read -r j2 u2 <<< "$r"; check_out "fetch --jobs 2"
  rm -rf "$out"
  jobs1+=("$j1") loop+=("$c") jobs2+=("$j2") cpu1+=("$u1") cpuc+=("$uc") cpu2+=("$u2")
  printf 'run %d: jobs 1 %.3f s (cpu %.3f), curl loop %.3f s (cpu %.3f), jobs 2 %.3f s (cpu %.3f); load %s\n' \
    "$run" "$j1" "$u1" "$c" "$uc" "$j2" "$u2" "$(load)"
done
echo "load average after:  $(load)"
median() { printf '%s\n' "$@" | sort -g | sed -n "$(( ($# + 1) / 2 ))p"; }
m1=$(median "${jobs1[@]}") mc=$(median "${loop[@]}") m2=$(median "${jobs2[@]}")
printf 'crateworks fetch --jobs 1: median %.3f s, cpu median %.3f s\n' "$m1" "$(median "${cpu1[@]}")"
printf 'curl -s -o + md5sum loop:  median %.3f s, cpu median %.3f s\n' "$mc" "$(median "${cpuc[@]}")"
printf 'crateworks fetch --jobs 2: median %.3f s, cpu median %.3f s\n' "$m2" "$(median "${cpu2[@]}")"
printf 'ratio jobs1 / curl loop: %.3f\nratio jobs2 / jobs1:     %.3f\n' \
  "$(python3 -c "print($m1 / $mc)")" "$(python3 -c "print($m2 / $m1)")"
