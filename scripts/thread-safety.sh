#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the library with Clang's thread-safety analysis, its findings as
# errors: every member marked VEXUTIL_GUARDED_BY is touched only with its
# mutex held, and every function marked VEXUTIL_REQUIRES is called so (see
# eventmgr/src/ThreadSafety.h). Needs clang: scripts/install-deps.sh analysis.
# Environment: TSA_BUILD_DIR (default build/thread-safety).
set -euo pipefail
source_dir="$(cd "$(dirname "$0")/.." && pwd)"
build_dir="${TSA_BUILD_DIR:-$source_dir/build/thread-safety}"

if ! command -v clang++ >/dev/null; then
  echo "thread-safety.sh: clang++ is missing (scripts/install-deps.sh analysis installs it)" >&2
  exit 2
fi
cmake -S "$source_dir" -B "$build_dir" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug \
  "-DCMAKE_CXX_FLAGS=-Wthread-safety -Werror=thread-safety" \
  -DVEXUTIL_BUILD_TESTS=OFF -DVEXUTIL_BUILD_BENCHMARKS=OFF -DVEXUTIL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build_dir" --target vexutil -j"$(nproc)" >/dev/null
echo "thread-safety.sh: every lock annotation holds"
