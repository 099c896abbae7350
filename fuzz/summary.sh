#!/usr/bin/env bash
# One line per fuzzing run from libFuzzer's log: executions, coverage (cov: edges, ft: features),
# corpus size, and what it found (the reproducers libFuzzer wrote, with the kind of each).
# Usage: fuzz/summary.sh TARGET LOG CRASH_DIR
set -uo pipefail
target=$1 log=$2 crashes=$3
execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
last=$(grep -E '^#[0-9]+' "$log" | grep -E 'cov: ' | tail -1)
cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
corp=$(sed -n 's/.* corp: \([0-9]*\/[0-9a-zA-Z]*\).*/\1/p' <<<"$last")
found=$(grep -E '^==[0-9]+==ERROR|^SUMMARY|deadly signal|out-of-memory|timeout after' "$log" | head -3 | tr '\n' ' ')
files=$(find "$crashes" -maxdepth 1 -type f 2>/dev/null | wc -l)
printf '%-16s execs %-10s cov %-6s ft %-7s corpus %-10s findings %s %s\n' \
  "$target" "${execs:-?}" "${cov:-?}" "${ft:-?}" "${corp:-?}" "$files" "${found:+($found)}"
