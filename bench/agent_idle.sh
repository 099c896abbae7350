#!/usr/bin/env bash
# Idle cost of lurewave-agent: the agent runs the example kit with a Bluetooth adapter and a gpsd
# that hear nothing, and this counts how often its threads wake (voluntary and involuntary context
# switches of every thread, from /proc) and the CPU time it uses over a measured span.
#
#   bench/agent_idle.sh [BUILD_DIR] [SECONDS]      (default build, 120)
#
# Needs dbus-daemon, python3-dbusmock and gpsd (scripts/install-deps.sh installs them).
set -euo pipefail
build=${1:-build}
span=${2:-120}
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

free_port() { /usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

# A private bus playing the system and session buses, with BlueZ and one powered adapter.
dbus-daemon --session --nofork --nosyslog --address="unix:path=$work/bus" 2>/dev/null & pids+=($!)
bus="unix:path=$work/bus"
for _ in $(seq 100); do [ -S "$work/bus" ] && break; sleep 0.05; done
DBUS_SYSTEM_BUS_ADDRESS=$bus /usr/bin/python3 -m dbusmock --system -t bluez5 >/dev/null 2>&1 & pids+=($!)
for _ in $(seq 200); do
  dbus-send --bus="$bus" --print-reply --dest=org.bluez /org/bluez org.bluez.Mock.AddAdapter \
    string:hci0 string:idle >/dev/null 2>&1 && break
  sleep 0.05
done

# A gpsd with no receiver: clients connect and hear nothing.
gps_port=$(free_port)
gpsd -N -n -S "$gps_port" -F "$work/gpsd.sock" >/dev/null 2>&1 & pids+=($!)

# The operator's server.
port=$(free_port)
mkdir -p "$work/bundle"
for f in kit.json campaigns.json Info.plist Lurewave.plist Zonewise.plist; do
  sed "s/127\.0\.0\.1:8080/127.0.0.1:$port/g" "$root/examples/agent/$f" > "$work/$f"
done
mv "$work"/*.plist "$work/bundle/"
"$build/bin/lurewave-sim" serve --kit "$work/kit.json" --campaigns "$work/campaigns.json" \
  --port "$port" >/dev/null & pids+=($!)
sleep 1

DBUS_SYSTEM_BUS_ADDRESS=$bus DBUS_SESSION_BUS_ADDRESS=$bus \
  "$build/bin/lurewave-agent" --bundle "$work/bundle" --documents "$work/docs" \
  --gpsd "127.0.0.1:$gps_port" >"$work/agent.log" 2>&1 & agent=$!
pids+=($agent)
sleep 5  # start-up (first sync, registration) is not idle time

switches() {
  local total=0
  for s in /proc/"$agent"/task/*/status; do
    local v n
    v=$(awk '/^voluntary_ctxt_switches/ {print $2}' "$s" 2>/dev/null || echo 0)
    n=$(awk '/^nonvoluntary_ctxt_switches/ {print $2}' "$s" 2>/dev/null || echo 0)
    total=$((total + v + n))
  done
  echo "$total"
}
cpu() { awk '{print $14 + $15}' "/proc/$agent/stat"; }

s0=$(switches); c0=$(cpu)
sleep "$span"
s1=$(switches); c1=$(cpu)
threads=$(ls /proc/"$agent"/task | wc -l)
hz=$(getconf CLK_TCK)
grep -c "" "$work/agent.log" | sed "s/^/  agent log lines: /"
grep -v "DidRangeBeacons" "$work/agent.log" | cut -c1-160 | head -${SHOW_LOG:-0}
echo "lurewave-agent idle for ${span} s: $threads threads"
awk -v s=$((s1 - s0)) -v span="$span" 'BEGIN {printf "  wake-ups: %d (%.1f per minute)\n", s, s * 60 / span}'
awk -v c=$((c1 - c0)) -v hz="$hz" -v span="$span" \
  'BEGIN {printf "  CPU: %.2f s (%.3f %% of one core)\n", c / hz, 100 * c / hz / span}'
echo "  per thread (context switches since start):"
for t in /proc/"$agent"/task/*; do
  printf "    %-16s %s\n" "$(cat "$t/comm")" \
    "$(awk '/ctxt_switches/ {s += $2} END {print s}' "$t/status")"
done
