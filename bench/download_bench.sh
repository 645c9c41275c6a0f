#!/usr/bin/env bash
# A 1 GiB file over loopback from nginx: `crateworks download` against `curl -s -o`,
# five runs each, alternating. Prints both medians and the ratio (ours / curl; lower is
# better).
#   bench/download_bench.sh [BUILD_DIR]   (default: build)
# Both write into DOWNLOAD_BENCH_DIR (default /dev/shm) so that the disk does not
# decide the figure; the served file lives there too.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
crateworks=$(realpath "$build/bin/crateworks")
base=${DOWNLOAD_BENCH_DIR:-/dev/shm}
[ -d "$base" ] || base=/tmp
work=$(mktemp -d "$base/download-bench-XXXXXX")
nginx_pid=
cleanup() {
  [ -n "$nginx_pid" ] && kill "$nginx_pid" 2>/dev/null && wait "$nginx_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

mkdir -p "$work/html"
head -c $((1 << 30)) /dev/urandom > "$work/html/big.bin"
# shellcheck source=bench/nginx.sh
source bench/nginx.sh
start_nginx "$work"

url="http://127.0.0.1:$port/big.bin"
seconds() { local s e; s=$(date +%s.%N); "$@"; e=$(date +%s.%N); python3 -c "print($e - $s)"; }
ours=() theirs=()
for _ in 1 2 3 4 5; do
  rm -f "$work/a" "$work/b"
  ours+=("$(seconds "$crateworks" download "$url" "$work/a")")
  rm -f "$work/a"
  theirs+=("$(seconds curl -s -o "$work/b" "$url")")
  rm -f "$work/b"
done
median() { printf '%s\n' "$@" | sort -g | sed -n 3p; }
m_ours=$(median "${ours[@]}")
m_curl=$(median "${theirs[@]}")
printf 'crateworks download: median %.3f s\ncurl -s -o:          median %.3f s\nratio: %.3f\n' \
  "$m_ours" "$m_curl" "$(python3 -c "print($m_ours / $m_curl)")"
