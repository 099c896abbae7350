#!/usr/bin/env bash
# What a long simulated walk costs lurewave-sim: a shopper paces an aisle of 30 beacons ranged once
# a second (bench/sim_scenario.py) for each span of hours; prints simulated hours per CPU-second
# and the peak resident memory, with the printed timeline only and with the map and the report.
#
#   bench/sim_walk.sh SIM [HOURS...]      (default 1 6 24; `make bench` runs it as bench_sim)
#
# Needs /usr/bin/time (Debian's `time`) and /usr/bin/python3.
set -euo pipefail
sim=$1
shift
hours=("$@")
[ ${#hours[@]} -gt 0 ] || hours=(1 6 24)
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One run: "<sim hours per CPU-second> <peak RSS in MB>".
measure() {
  local scenario=$1 h=$2
  shift 2
  /usr/bin/time -v -o "$work/time" "$sim" run "$scenario" --documents "$work/docs.$RANDOM" "$@" \
    > /dev/null
  awk -v h="$h" -F': ' '
    /User time/ { cpu += $2 } /System time/ { cpu += $2 } /Maximum resident/ { kb = $2 }
    END { printf "%8.2f %10.1f\n", (cpu > 0 ? h / cpu : 0), kb / 1024 }' "$work/time"
}

printf '%-6s %-9s %8s %10s\n' hours outputs "h/CPU-s" "peak MB"
for h in "${hours[@]}"; do
  /usr/bin/python3 "$here/sim_scenario.py" "$h" > "$work/walk.json"
  printf '%-6s %-9s %s\n' "$h" none "$(measure "$work/walk.json" "$h")"
  printf '%-6s %-9s %s\n' "$h" "svg+html" \
    "$(measure "$work/walk.json" "$h" --svg "$work/map.svg" --report "$work/report.html")"
done
