#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs, with apt-get, whatever this project needs that the machine lacks.
# Usage: scripts/install-deps.sh [core|all|packaging|analysis|docs]
#   core:      building the library, the demo and the tests (default)
#   all:       also the systems that the comparison benchmark measures
#   packaging: also the Debian package build, lintian and the ABI check tools
#   analysis:  also Clang, for the thread-safety analysis (scripts/thread-safety.sh)
#   docs:      also Doxygen and Graphviz, for the API reference (target `docs`)
set -euo pipefail

group="${1:-core}"
packages=(build-essential cmake pkg-config libboost-thread-dev libboost-chrono-dev
          libgtest-dev libgmock-dev libbenchmark-dev systemtap-sdt-dev)
case "$group" in
  core) ;;
  all) packages+=(libboost-dev qtbase5-dev libconcurrentqueue-dev gnuplot-nox) ;;
  packaging) packages+=(debhelper dpkg-dev fakeroot lintian abigail-tools binutils) ;;
  analysis) packages+=(clang) ;;
  docs) packages+=(doxygen graphviz) ;;
  *) echo "unknown group: $group (core, all, packaging, analysis or docs)" >&2; exit 2 ;;
esac

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  sudo=sudo
else
  sudo=
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
