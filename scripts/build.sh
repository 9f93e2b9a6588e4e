#!/usr/bin/env bash
# Configures and builds into build/ (or the folder given), after setup.
# Extra arguments go to cmake's configure step.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
shift || true
"$root/scripts/setup.sh"
cmake -S "$root" -B "$build" -DAMBRIX_WERROR=ON "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
