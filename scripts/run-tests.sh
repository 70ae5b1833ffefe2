#!/usr/bin/env bash
# Installs what is missing, builds the default configuration and runs every
# test through ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh core
cmake --preset default
cmake --build --preset default -j "$(nproc)"
ctest --preset default -j "$(nproc)"
