#!/usr/bin/env bash
# Sets up and builds, makes the sample volume (samples/sample.volume) in the build
# directory, and runs the reaper on it for a target release of 10.7, printing its result.
set -euo pipefail
cd "$(dirname "$0")/.."
FERRYHOLD_TARGETS="reaper make-volume" bash scripts/setup.sh build
rm -rf build/sample-volume
build/bin/make-volume samples/sample.volume build/sample-volume
build/bin/reaper "$PWD/build/sample-volume" 10.7
echo
