#!/usr/bin/env bash
# Builds and runs the whole suite twice: a normal build, and one with
# AddressSanitizer and UndefinedBehaviorSanitizer. Fails when a test fails or none ran.
# A third build, with ThreadSanitizer, makes only the programs whose suites run threads
# and runs the tests labelled "threads".
# Then builds the fuzz targets with clang and runs each over its seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."

run_suite() {
  local dir=$1; shift
  bash scripts/setup.sh "$dir" -DFERRYHOLD_WERROR=ON "$@"
  # SUITE_LABEL, when set, runs only the tests carrying that label.
  (cd "$dir" && ctest -j2 --output-on-failure --no-tests=error --timeout 600 ${SUITE_LABEL:+-L "^$SUITE_LABEL\$"})
}

run_suite build
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-asan -DFERRYHOLD_SANITIZE=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFERRYHOLD_BENCH=OFF
echo "test.sh: both suites passed"

# The threaded suites under ThreadSanitizer: any report fails its test.
tsan_start=$SECONDS
FERRYHOLD_TARGETS=threaded_tests SUITE_LABEL=threads \
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  run_suite build-tsan -DFERRYHOLD_SANITIZE_THREAD=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFERRYHOLD_BENCH=OFF
echo "test.sh: threaded suites passed under ThreadSanitizer in $((SECONDS - tsan_start)) s"

# The fuzz targets build with clang and every seed of their corpora runs through them.
fuzz_start=$SECONDS
bash scripts/fuzz.sh --replay
echo "test.sh: fuzz targets built and replayed in $((SECONDS - fuzz_start)) s"

# The Debian packages, built from HEAD, checked by lintian and used unpacked: the tools
# on the sample volume, a program built through pkg-config (scripts/package-check.sh).
package_start=$SECONDS
bash scripts/package-check.sh
echo "test.sh: Debian packages built and checked in $((SECONDS - package_start)) s"
