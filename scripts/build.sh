#!/usr/bin/env bash
# Configures and builds into build/ (or the folder given), after setup.
# --target NAME (repeatable) builds those targets alone instead of all;
# other extra arguments go to cmake's configure step.
# Usage: build.sh [BUILD_DIR] [--target NAME]... [cmake configure arguments]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
shift || true
configure=()
targets=()
while [[ $# -gt 0 ]]; do
  if [[ $1 == --target && $# -ge 2 ]]; then
    targets+=(--target "$2")
    shift 2
  else
    configure+=("$1")
    shift
  fi
done
"$root/scripts/setup.sh"
cmake -S "$root" -B "$build" -DAMBRIX_WERROR=ON "${configure[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)" "${targets[@]}"
