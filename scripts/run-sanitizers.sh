#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds and runs the whole test suite under AddressSanitizer with
# UndefinedBehaviorSanitizer, then under ThreadSanitizer. Any sanitizer report
# fails the test that produced it, and so this script.
# Usage: scripts/run-sanitizers.sh [asan] [tsan]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh core
presets=("$@")
[ "${#presets[@]}" -gt 0 ] || presets=(asan tsan)
for preset in "${presets[@]}"; do
  echo "=== ${preset} ==="
  cmake --preset "$preset"
  cmake --build --preset "$preset" -j "$(nproc)"
  ctest --preset "$preset" -j "$(nproc)"
done
