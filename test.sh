#!/usr/bin/env bash
# Runs every test: installs what is missing, builds, and runs ctest, first
# on the sanitizer build (AddressSanitizer and UndefinedBehaviorSanitizer),
# then on the normal build.
set -euo pipefail
root=$(cd "$(dirname "$0")" && pwd)
"$root/scripts/setup.sh" --tests
"$root/scripts/build.sh" "$root/build-asan" -DAMBRIX_SANITIZE=ON
ctest --test-dir "$root/build-asan" --output-on-failure -j2
"$root/scripts/build.sh" "$root/build"
ctest --test-dir "$root/build" --output-on-failure -j2
