#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Puts an SPDX licence identifier at the top of every tracked C++, CMake and
# shell source that lacks one; running it again changes nothing.
#   C++ (.h .hpp .cpp .cc .cxx):  // SPDX-License-Identifier: MIT
#   CMake, shell, .ci/run:        # SPDX-License-Identifier: MIT
# A script's "#!" line stays first; the identifier goes right after it.
# Usage: scripts/spdx.sh [--check]   (--check: list the files lacking it, exit 1 if any)
set -euo pipefail
cd "$(dirname "$0")/.."
check=no
[ "${1:-}" = "--check" ] && check=yes
missing=0
while IFS= read -r -d '' file; do
  case "$file" in
    *.h | *.hpp | *.cpp | *.cc | *.cxx) line="// SPDX-License-Identifier: MIT" ;;
    *CMakeLists.txt | *.cmake | *.cmake.in | *.sh | .ci/run) line="# SPDX-License-Identifier: MIT" ;;
    *) continue ;;
  esac
  if head -n 3 "$file" | grep -q "SPDX-License-Identifier:"; then
    continue
  fi
  missing=$((missing + 1))
  if [ "$check" = yes ]; then
    echo "$file"
    continue
  fi
  tmp="$(mktemp)"
  if head -n 1 "$file" | grep -q '^#!'; then
    { head -n 1 "$file"; echo "$line"; tail -n +2 "$file"; } >"$tmp"
  else
    { echo "$line"; cat "$file"; } >"$tmp"
  fi
  # Keep the file's mode (scripts stay executable).
  cat "$tmp" >"$file"
  rm -f "$tmp"
done < <(git ls-files -z)
if [ "$check" = yes ] && [ "$missing" -gt 0 ]; then
  echo "spdx.sh: $missing files lack an SPDX identifier" >&2
  exit 1
fi
[ "$check" = yes ] || echo "spdx.sh: added the identifier to $missing files"
