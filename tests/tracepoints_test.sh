#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Proves: the built library carries every static tracepoint of provider
# "vexutil", each site of each probe with the number of arguments that
# scripts/vexutil-trace.bt and other tracers read, and an is-enabled
# semaphore (without one a tracer could never switch the probe on).
# Usage: tracepoints_test.sh READELF LIBRARY
set -euo pipefail

readelf="$1"
library="$2"
declare -A expected=(
  [publish]=2 [dequeue]=3 [notify_start]=3 [notify_end]=4 [subscribe]=4
  [unsubscribe]=3 [sync_wait_start]=1 [sync_wait_end]=2 [deadlock_report]=2)

# One line per probe site: name, semaphore address, argument count.
sites=$("$readelf" -n --wide "$library" | awk '
  /Provider:/ { ours = ($NF == "vexutil"); next }
  ours && /Name:/ { name = $2 }
  ours && /Semaphore:/ { semaphore = $NF }
  ours && /Arguments:/ { print name, semaphore, NF - 1; ours = 0 }')

status=0
declare -A seen=()
while read -r name semaphore count; do
  [ -n "$name" ] || continue
  if [ -z "${expected[$name]:-}" ]; then
    echo "unexpected probe vexutil:$name"; status=1; continue
  fi
  seen[$name]=1
  if [ "$count" != "${expected[$name]}" ]; then
    echo "vexutil:$name has $count arguments, expected ${expected[$name]}"; status=1
  fi
  if [ $((semaphore)) -eq 0 ]; then
    echo "vexutil:$name has no semaphore"; status=1
  fi
done <<< "$sites"
for name in "${!expected[@]}"; do
  if [ -z "${seen[$name]:-}" ]; then
    echo "probe vexutil:$name is missing"; status=1
  fi
done
[ "$status" -eq 0 ] && echo "all ${#expected[@]} probes present"
exit "$status"
