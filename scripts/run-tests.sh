#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs what is missing, builds the default configuration and runs every
# test through ctest. Arguments are passed to ctest, for example
#   bash scripts/run-tests.sh -LE slow     # leave out the tests labelled slow
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh core
cmake --preset default
cmake --build --preset default -j "$(nproc)"
ctest --preset default -j "$(nproc)" "$@"
