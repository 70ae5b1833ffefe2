#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Guards the binary interface of libvexutil.so against the committed baseline
# abi/libvexutil.abi (libabigail's ABI description of the public interface).
#
# Usage: scripts/abi.sh check | baseline | prove
#   check     build the library with debug information, prove the debug
#             information is there, and compare its interface with the
#             baseline: any difference except added functions and variables
#             fails (exit 1).
#   baseline  build the library and write its interface to the baseline.
#             Only for an intended change: an addition, or a break that comes
#             with a new SONAME (raise the first number of the project's
#             VERSION in CMakeLists.txt, rename the version node in
#             cmake/vexutil.map and the runtime package in debian/control to
#             match, then run this).
#   prove     show that the check catches the breaks it exists for: in a
#             scratch copy of the tree, a virtual function added in the middle
#             of EventMgr and a data member added to InputRequestEvent, built
#             together; the check must fail and report each of them.
# Environment: ABI_BUILD_DIR (default build/abi) is the build directory;
# CMAKE_CXX_COMPILER_LAUNCHER is honoured by CMake if set.
set -euo pipefail
source_dir="$(cd "$(dirname "$0")/.." && pwd)"
baseline="$source_dir/abi/libvexutil.abi"
build_dir="${ABI_BUILD_DIR:-$source_dir/build/abi}"

for tool in abidw abidiff readelf; do
  if ! command -v "$tool" >/dev/null; then
    echo "abi.sh: $tool is missing (scripts/install-deps.sh packaging installs it)" >&2
    exit 2
  fi
done

# build SOURCE BUILD: the library alone, optimised and with debug information
# (abidiff compares types from DWARF), and its public headers installed into
# BUILD/headers-prefix for abidw and abidiff to tell public types from private.
build() {
  local source="$1" build="$2"
  cmake -S "$source" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g -DNDEBUG" -DVEXUTIL_BUILD_TESTS=OFF \
    -DVEXUTIL_BUILD_BENCHMARKS=OFF -DVEXUTIL_BUILD_EXAMPLES=OFF >/dev/null
  cmake --build "$build" --target vexutil --parallel >/dev/null
  rm -rf "$build/headers-prefix"
  cmake --install "$build" --component development --prefix "$build/headers-prefix" >/dev/null
}

# library BUILD: the path of the built shared library, after proving that it
# carries debug information describing the interface. Without it abidiff sees
# symbols only and passes a changed class layout silently.
library() {
  local lib
  lib="$(readlink -f "$1/libvexutil.so")"
  # Read the section list whole before searching it: "readelf | grep -q" under
  # pipefail fails at random when grep quits early and readelf gets SIGPIPE.
  local sections
  sections="$(readelf -S --wide "$lib")"
  if ! grep -q ' \.debug_info ' <<<"$sections"; then
    echo "abi.sh: $lib has no debug information; the comparison would miss layout changes" >&2
    exit 1
  fi
  echo "$lib"
}

dump() {
  local build="$1" out="$2" lib
  lib="$(library "$build")"
  abidw --drop-private-types --no-corpus-path --no-comp-dir-path --short-locs \
    --headers-dir "$build/headers-prefix/include" --out-file "$out" "$lib"
  # The dump must describe the classes themselves, not only their symbols.
  for class in EventMgr InputRequestEvent BaseEvent; do
    if ! grep -q "class-decl name='$class'" "$out"; then
      echo "abi.sh: the description of $lib lacks the class $class" >&2
      exit 1
    fi
  done
}

# compare BUILD LIBRARY: 0 when LIBRARY (checked by library() beforehand, out
# of any condition, so that a missing debug information stops the script)
# keeps the baseline's ABI.
compare() {
  local build="$1" lib="$2" status=0
  # Every non-zero exit is a failure: a changed data member only sets the bit
  # that a harmless addition sets too, which --no-added-syms suppresses.
  abidiff --no-added-syms --drop-private-types --hd2 "$build/headers-prefix/include" \
    "$baseline" "$lib" || status=$?
  return "$status"
}

case "${1:-}" in
  check)
    build "$source_dir" "$build_dir"
    lib="$(library "$build_dir")"
    if compare "$build_dir" "$lib"; then
      echo "abi.sh: the interface matches abi/libvexutil.abi (additions allowed)"
    else
      echo "abi.sh: the interface differs from abi/libvexutil.abi (see above)." >&2
      echo "abi.sh: if the change is intended, read 'scripts/abi.sh' on regenerating the baseline." >&2
      exit 1
    fi
    ;;
  baseline)
    build "$source_dir" "$build_dir"
    mkdir -p "$(dirname "$baseline")"
    dump "$build_dir" "$baseline"
    echo "abi.sh: wrote abi/libvexutil.abi; commit it with the change that needs it"
    ;;
  prove)
    scratch="$(mktemp -d)"
    trap 'rm -rf "$scratch"' EXIT
    # The working tree's versions of the tracked files only: anything else a build left in the tree stays out.
    (cd "$source_dir" && git ls-files -z --cached | xargs -0 cp --parents -t "$scratch")
    declare -A breaks=(
      [virtual]="eventmgr/include/vexutil/eventmgr/EventMgr.h"
      [member]="inputreqevt/include/vexutil/inputreqevt/InputRequestEvent.h"
    )
    misplaced() {
      echo "abi.sh: found no place for the $1 break in ${breaks[$1]}; update 'prove' to the header's new shape" >&2
      exit 1
    }
    # Both breaks go into one build; the check must fail and report each.
    for kind in virtual member; do
      header="$scratch/${breaks[$kind]}"
      cp "$header" "$header.orig"
      if [ "$kind" = virtual ]; then
        awk '/^class VEXUTIL_API EventMgr/ { inside = 1 }
             inside && /^  virtual [^~]/ && ++seen == 2 { print "  virtual void abiProbe() {}"; done = 1 }
             { print } END { exit !done }' "$header.orig" >"$header" || misplaced "$kind"
      else
        awk '/^class VEXUTIL_API InputRequestEvent/ { inside = 1 }
             { print } inside && /^ private:/ && !done { print "  std::int32_t abiProbe_ = 0;"; done = 1 }
             END { exit !done }' "$header.orig" >"$header" || misplaced "$kind"
      fi
      rm "$header.orig"
    done
    build "$scratch" "$scratch/build"
    lib="$(library "$scratch/build")"
    if compare "$scratch/build" "$lib" >"$scratch/abidiff.txt"; then
      echo "abi.sh: the check missed both breaks" >&2
      exit 1
    fi
    declare -A reported=([virtual]="EventMgr::abiProbe()" [member]="abiProbe_'")
    for kind in virtual member; do
      if ! grep -qF "${reported[$kind]}" "$scratch/abidiff.txt"; then
        echo "abi.sh: the check missed the break ($kind in ${breaks[$kind]})" >&2
        exit 1
      fi
      echo "abi.sh: the check caught the break ($kind in ${breaks[$kind]}):"
      grep -m 1 -F -A 2 "${reported[$kind]}" "$scratch/abidiff.txt" | sed 's/^/    /'
    done
    ;;
  *)
    sed -n '2,21p' "$0" | sed 's/^# \{0,1\}//'
    exit 2
    ;;
esac
