#!/usr/bin/env bash
# Builds the fuzz targets with clang (libraries instrumented too) and runs them.
#   scripts/fuzz.sh [SECONDS [TARGET...]]
#                               fuzz every target (or the named ones) for SECONDS each
#                               (default 60), starting from its seeds in
#                               fuzz/corpus/<target>; new inputs collect in
#                               fuzz/corpus-work/<target>, findings in
#                               fuzz/corpus-work/findings/; prints a line per target.
#   scripts/fuzz.sh --replay    run every seed of every target once through the fuzzer
#                               binary; fails when a target does not build or a seed
#                               crashes, leaks or hangs.
#   scripts/fuzz.sh --seeds     write the seed corpora afresh with the project's writers
#                               (make-fuzz-seeds); regression seeds stay as they are.
# The build directory is build-fuzz, or FERRYHOLD_FUZZ_BUILD.
# Exits 1 when anything was found.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${FERRYHOLD_FUZZ_BUILD:-build-fuzz}
mode=fuzz
seconds=60
case "${1:-}" in
  --replay) mode=replay; shift ;;
  --seeds) mode=seeds; shift ;;
  '') ;;
  *[!0-9]* | 0) echo "usage: scripts/fuzz.sh [SECONDS [TARGET...]] | --replay | --seeds" >&2; exit 2 ;;
  *) seconds=$1; shift ;;
esac

# Every name given must be a target: a misspelt one would otherwise be skipped quietly
# while the others run.
for name in "$@"; do
  if [ ! -f "fuzz/$name.cpp" ]; then
    echo "fuzz: no target named $name (the targets: $(cd fuzz && ls *.cpp | sed 's/\.cpp$//' | tr '\n' ' '))" >&2
    exit 2
  fi
done

targets=()
for src in fuzz/*.cpp; do
  name=$(basename "$src" .cpp)
  if [ $# -gt 0 ] && [[ " $* " != *" $name "* ]]; then continue; fi
  if [ "$mode" != seeds ] && ! compgen -G "fuzz/corpus/$name/*" >/dev/null; then
    echo "fuzz: $name has no seeds in fuzz/corpus/$name" >&2
    exit 1
  fi
  targets+=("$name")
done
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz: no fuzz targets in fuzz/" >&2
  exit 2
fi

build_targets="${targets[*]}"
[ "$mode" = seeds ] && build_targets=make-fuzz-seeds
# The tests' support library is configured (not built) for the seed generator's sake.
FERRYHOLD_TARGETS="$build_targets" bash scripts/setup.sh "$build" \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DFERRYHOLD_WERROR=ON -DFERRYHOLD_SANITIZE=ON -DFERRYHOLD_TESTS=ON -DFERRYHOLD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link

if [ "$mode" = seeds ]; then
  ASAN_OPTIONS=detect_leaks=0 "$build"/bin/make-fuzz-seeds fuzz/corpus
  exit 0
fi

# Inputs as large as the biggest archives worth mutating; ten seconds on one input is a hang.
common=(-max_len=65536 -timeout=10 -rss_limit_mb=2048)

if [ "$mode" = replay ]; then
  failed=0
  for t in "${targets[@]}"; do
    log=$build/replay-$t.log
    seeds=(fuzz/corpus/"$t"/*)
    # Given files rather than a directory, libFuzzer runs each once and stops at the first fault.
    if timeout 600 "$build"/bin/"$t" "${common[@]}" "${seeds[@]}" >"$log" 2>&1; then
      echo "fuzz: $t replayed ${#seeds[@]} seeds"
    else
      echo "fuzz: $t failed on its seeds:" >&2
      tail -n 40 "$log" >&2
      failed=1
    fi
  done
  exit $failed
fi

# Sets cpu_used to the CPU seconds (user + system) this shell's finished children have
# used so far; `times` runs in this shell, since a subshell has children of its own.
times_file=$(mktemp)
trap 'rm -f "$times_file"' EXIT
children_cpu() {
  times >"$times_file"
  cpu_used=$(tail -n 1 "$times_file" |
    awk '{ n = 0; for (i = 1; i <= 2; i++) { split($i, t, /[ms]/); n += t[1] * 60 + t[2] } printf "%.0f", n }')
}

mkdir -p fuzz/corpus-work/findings
printf '%-24s %8s %12s %8s %8s  %s\n' target cpu-s executions cov ft findings
found=0
for t in "${targets[@]}"; do
  work=fuzz/corpus-work/$t
  log=fuzz/corpus-work/$t.log
  mkdir -p "$work"
  before=$(find fuzz/corpus-work/findings -name "$t-*" | wc -l)
  children_cpu
  cpu_before=$cpu_used
  rc=0
  "$build"/bin/"$t" "${common[@]}" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix=fuzz/corpus-work/findings/"$t"- "$work" fuzz/corpus/"$t" >"$log" 2>&1 || rc=$?
  children_cpu
  cpu=$((cpu_used - cpu_before))
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  # The last status line carries the coverage reached (edges, then features).
  status=$(grep -E '^#[0-9]+' "$log" | tail -n 1 || true)
  [ -n "$execs" ] || execs=$(sed -E -n 's/^#([0-9]+).*/\1/p' <<<"$status")
  cov=$(sed -E -n 's/.* cov: ([0-9]+).*/\1/p' <<<"$status")
  ft=$(sed -E -n 's/.* ft: ([0-9]+).*/\1/p' <<<"$status")
  after=$(find fuzz/corpus-work/findings -name "$t-*" | wc -l)
  if [ "$rc" -eq 0 ] && [ "$after" -eq "$before" ]; then
    verdict=nothing
  else
    found=1
    kind=$(grep -m 1 -E 'ERROR: [A-Za-z]+: |runtime error: ' "$log" |
      sed -E 's/.*(ERROR: [A-Za-z]+|runtime error): //; s/ on (address|unknown address).*//; s/ \(.*//' | cut -c 1-60 || true)
    artifact=$(sed -n 's/.*Test unit written to \([^ ]*\).*/\1/p' "$log" | tail -n 1)
    verdict="FOUND (${kind:-exit $rc}) ${artifact:-see $log}"
  fi
  printf '%-24s %8s %12s %8s %8s  %s\n' "$t" "$cpu" "${execs:-?}" "${cov:-?}" "${ft:-?}" "$verdict"
done
exit $found
