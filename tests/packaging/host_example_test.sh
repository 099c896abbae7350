#!/usr/bin/env bash
# Installs this build tree into a scratch prefix and builds the README's host example against it
# the two ways a host can: CMake's find_package and pkg-config. Both programs must link and run.
# every_layer.cpp goes in beside it, so that every layer has to link, not only the one the example
# calls. Usage: host_example_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

src=${1:?source directory}
build=${2:?build directory}
cxx=${CXX:-c++}
here=$(cd "$(dirname "$0")" && pwd)

work=$(mktemp -d "${TMPDIR:-/tmp}/quenby-host.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() {
    printf 'FAILED (%s)\n' "$*" >&2
    exit 1
}
step() { printf '== %s\n' "$*"; }

step "cmake --install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
    { cat "$work/install.log" >&2; fail "cmake --install"; }

# The program is the README's own block after its marker, so the README cannot drift from what
# is checked here.
awk '/<!-- tests\/packaging builds/ { marked = 1; next }
     marked && /^```cpp$/ { inside = 1; next }
     inside && /^```$/ { exit }
     inside' "$src/README.md" >"$work/host.cpp"
grep -q '^int main' "$work/host.cpp" || fail "README: no whole program in the block after the marker"

# The bundle declares location use and points the kit at a closed local port: the first sync then
# fails at once with "connection refused", which is where --once ends the run.
mkdir -p "$work/bundle"
plist() {
    printf '<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0"><dict>'
    printf '<key>%s</key><string>%s</string>' "$@"
    printf '</dict></plist>\n'
}
plist NSLocationWhenInUseUsageDescription "Finds the store's shelves" >"$work/bundle/Info.plist"
plist ZWKitURL "http://127.0.0.1:9/kit" ZWAPIToken packaging >"$work/bundle/Zonewise.plist"

run_host() {  # WAY EXECUTABLE
    local out status=0
    out=$(XDG_DATA_HOME="$work/data" timeout 30 "$2" "$work/bundle" --once 2>&1) || status=$?
    printf '%s\n' "$out"
    [ "$status" -eq 0 ] || fail "$1: the host exited with status $status"
    # Whatever the sync's outcome, the host must have got as far as hearing it.
    grep -qE '^(synced|Error Domain=)' <<<"$out" || fail "$1: the host never heard the first sync"
}

step "CMake: find_package(Quenby), Quenby::quenby and Quenby::quenby_linux"
mkdir -p "$work/cmake-host"
cat >"$work/cmake-host/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(quenby_host LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(Quenby REQUIRED)
add_executable(host "$work/host.cpp" "$here/every_layer.cpp")
target_link_libraries(host PRIVATE Quenby::quenby Quenby::quenby_linux)
CMAKE
{
    cmake -S "$work/cmake-host" -B "$work/cmake-host/build" -DCMAKE_PREFIX_PATH="$prefix" &&
        cmake --build "$work/cmake-host/build"
} >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log" >&2; fail "CMake: configure or build"; }
run_host CMake "$work/cmake-host/build/host"

step "pkg-config: $cxx -std=c++20 host.cpp \$(pkg-config --cflags --libs quenby)"
pc=$(find "$prefix" -name quenby.pc -print -quit)
[ -n "$pc" ] || fail "pkg-config: no quenby.pc installed"
flags=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs quenby) ||
    fail "pkg-config: quenby.pc does not resolve"
echo "$flags"
# shellcheck disable=SC2086  # the flags are words
"$cxx" -std=c++20 "$work/host.cpp" "$here/every_layer.cpp" $flags -o "$work/host-pc" || fail "pkg-config: compile or link"
run_host pkg-config "$work/host-pc"

step "both ways built and ran"
