#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Writes debian/copyright (machine-readable format) from LICENSE, so that the
# packages carry the project's licence word for word.
# Usage: scripts/debian-copyright.sh [--check]
#   --check  fail (exit 1) when debian/copyright is not what LICENSE gives.
set -euo pipefail
cd "$(dirname "$0")/.."
holder="$(sed -n 's/^Copyright (c) //p' LICENSE)"
if [ -z "$holder" ]; then
  echo "debian-copyright.sh: LICENSE has no 'Copyright (c)' line" >&2
  exit 1
fi
generate() {
  cat <<HEADER
Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: libvexutil
Comment: Generated from LICENSE by scripts/debian-copyright.sh.

Files: *
Copyright: $holder
License: MIT

License: MIT
HEADER
  # The licence text without its title and copyright line; blank lines become
  # " ." as the format requires.
  sed -e '1,/^Copyright (c)/d' LICENSE | sed -e '/./,$!d' | sed -e 's/^$/./' -e 's/^/ /'
}
if [ "${1:-}" = "--check" ]; then
  if ! diff -u debian/copyright <(generate); then
    echo "debian-copyright.sh: debian/copyright is out of date; run scripts/debian-copyright.sh" >&2
    exit 1
  fi
else
  generate >debian/copyright
fi
