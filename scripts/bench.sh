#!/usr/bin/env bash
# Builds (the normal, optimised build) and runs the benchmark: every figure
# beside its floor and their ratio, with the targets. Arguments after the
# build folder go to bench/run.sh (e.g. --smoke).
# Usage: scripts/bench.sh [BUILD_DIR] [--smoke]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build
if [[ $# -gt 0 && $1 != --* ]]; then
  build=$1
  shift
fi
"$root/scripts/build.sh" "$build" >/dev/null
exec "$root/bench/run.sh" "$build" "$@"
