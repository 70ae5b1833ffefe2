#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the Debian packages twice, from two different directories, and
# checks that the .deb files are bit-identical; runs lintian (no errors, no
# warnings); installs the packages with apt, builds the consumer test against
# /usr with CMake and with pkg-config, runs it and the demo; removes the
# packages again (also when a step fails).
# Usage: scripts/package.sh [OUTPUT_DIR]   (default build/packages; needs root
# or sudo for apt). The .deb files stay in OUTPUT_DIR/first.
set -euo pipefail
source_dir="$(cd "$(dirname "$0")/.." && pwd)"
out="$(mkdir -p "${1:-$source_dir/build/packages}" && cd "${1:-$source_dir/build/packages}" && pwd)"
packages=(libvexutil1 libvexhost1 libvexutil-dev vexutil-demo)
if [ "$(id -u)" -ne 0 ]; then sudo=sudo; else sudo=; fi

bash "$source_dir/scripts/install-deps.sh" packaging
bash "$source_dir/scripts/debian-copyright.sh" --check

# build DIR: a copy of the working tree's tracked files in DIR/vexutil-VERSION,
# built there; dpkg-buildpackage puts the packages into DIR.
version="$(dpkg-parsechangelog -l "$source_dir/debian/changelog" -S Version)"
upstream="${version%-*}"
build() {
  local dir="$1" tree="$1/vexutil-$upstream"
  rm -rf "$dir"
  mkdir -p "$tree"
  (cd "$source_dir" && git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$tree")
  (cd "$tree" && dpkg-buildpackage -us -uc -b --jobs=auto >"$dir/build.log" 2>&1) || {
    tail -n 40 "$dir/build.log" >&2
    echo "package.sh: the package build in $dir failed (log: $dir/build.log)" >&2
    exit 1
  }
}

echo "== Building the packages in two directories"
build "$out/first"
build "$out/second/elsewhere"
debs=()
for package in "${packages[@]}"; do
  deb="$(cd "$out/first" && ls "${package}_${version}"_*.deb)"
  debs+=("$out/first/$deb")
  if ! cmp "$out/first/$deb" "$out/second/elsewhere/$deb"; then
    echo "package.sh: $deb differs between the two builds (try diffoscope)" >&2
    exit 1
  fi
  echo "   $deb: identical in both builds ($(sha256sum <"$out/first/$deb" | cut -c1-16))"
done

echo "== lintian"
changes="$(ls "$out"/first/vexutil_"${version}"_*.changes)"
lintian --fail-on error,warning --display-info "$changes" | tee "$out/lintian.txt"
if grep -qE '^[EW]: ' "$out/lintian.txt"; then
  echo "package.sh: lintian reported errors or warnings" >&2
  exit 1
fi

echo "== Installing with apt"
remove() {
  echo "== Removing the packages"
  $sudo apt-get purge -y -qq "${packages[@]}" >/dev/null
}
trap remove EXIT
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get install -y -qq --no-install-recommends "${debs[@]}" >/dev/null

echo "== The consumer against /usr with find_package"
consumer="$out/consumer"
rm -rf "$consumer"
cmake -S "$source_dir/tests/consumer" -B "$consumer/cmake" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$consumer/cmake" >/dev/null
grep -q "vexutil_DIR:PATH=/usr/lib/" "$consumer/cmake/CMakeCache.txt" || {
  echo "package.sh: find_package did not find the installed package under /usr" >&2
  exit 1
}
"$consumer/cmake/consumer"

echo "== The consumer against /usr with pkg-config"
flags="$(pkg-config --cflags --libs vexutil)"
echo "   pkg-config --cflags --libs vexutil: $flags"
# /usr/include and /usr/lib are the compiler's own: pkg-config leaves them out
# when the file spells them canonically.
if [[ " $flags " == *" -I/usr/include "* || " $flags " == *" -L/usr/lib"* ]]; then
  echo "package.sh: pkg-config passes system directories" >&2
  exit 1
fi
read -r -a flag_list <<<"$flags"
c++ -std=c++17 "$source_dir/tests/consumer/consumer.cpp" -o "$consumer/consumer-pc" "${flag_list[@]}"
"$consumer/consumer-pc"

echo "== The demo"
# The manual page is in the package (minimal systems may not install man pages).
# The listing is read whole first: grep -q quitting early would SIGPIPE dpkg-deb.
demo_files="$(dpkg-deb -c "$out/first/vexutil-demo_${version}"_*.deb)"
grep -q ' ./usr/share/man/man1/vexutil-demo.1.gz$' <<<"$demo_files" || {
  echo "package.sh: vexutil-demo ships no manual page" >&2
  exit 1
}
vexutil-demo --quiet --events 2000 --duration-ms 1000
echo "package.sh: packages built reproducibly, lintian-clean, installed, used and removed"
