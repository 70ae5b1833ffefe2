#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds and runs vexutil-compare: the same asynchronous and synchronous
# workloads on this library, Boost.Asio, Qt 5, a locked queue and a lock-free
# queue, interleaved over several rounds. Prints the medians and their ratio
# to this library and writes them to build/compare/compare.csv and
# build/compare/compare.png.
# Usage: scripts/compare.sh [extra vexutil-compare arguments, e.g. --rounds 9]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh all

build=build/compare
jobs="$(nproc)"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release \
  -DVEXUTIL_BUILD_TESTS=OFF -DVEXUTIL_BUILD_EXAMPLES=OFF -DVEXUTIL_BUILD_BENCHMARKS=ON >/dev/null
cmake --build "$build" --target vexutil-compare -j "$jobs"

csv="$build/compare.csv"
png="$build/compare.png"
"$build/benchmarks/vexutil-compare" --rounds 7 --csv "$csv" "$@"
gnuplot -e "csv='$csv'; png='$png'" benchmarks/compare/plot.gp
echo "wrote $csv and $png"
