#!/usr/bin/env bash
# Sets up and builds, then runs the reaper on the sample volume and prints its result.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh build
echo "sample: built build/bin/reaper and build/bin/crateworks" >&2
