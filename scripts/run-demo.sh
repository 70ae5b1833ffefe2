#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs what is missing, builds the demo in the default configuration and
# runs it. Arguments are passed to the demo: bash scripts/run-demo.sh --help
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh core
cmake --preset default
cmake --build --preset default -j "$(nproc)" --target vexutil-demo
exec ./build/default/examples/vexutil-demo "$@"
