#!/usr/bin/env bash
# Installs the Debian packages the build needs. Idempotent: does nothing when
# every package is already present. Works as root or through sudo.
set -euo pipefail

packages=(
  build-essential cmake make pkg-config
  nlohmann-json3-dev libcurl4-openssl-dev libcpp-httplib-dev
  libplist++-dev libplist-dev libhowardhinnant-date-dev libfmt-dev libcli11-dev
  libssl-dev libsqlite3-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libsdbus-c++-dev libsystemd-dev libgps-dev
  dbus-daemon python3-dbusmock python3-dbus gpsd gpsd-clients
  chromium librsvg2-bin
  python3 time
  # make fuzz: clang with libFuzzer's runtime (the one that matches clang 14, Debian 12's clang)
  clang libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  echo "error: need root or sudo to install: ${missing[*]}" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
