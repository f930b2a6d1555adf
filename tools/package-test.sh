#!/usr/bin/env bash
# Checks the Debian packages the way a user meets them. Takes a minute or more and may install
# Debian packages, so it is not part of ctest; a CI job calls it after tools/package.sh.
#   tools/package-test.sh [--install] <folder with the .deb files>
# Without --install: unpacks the packages into a scratch root with dpkg -x, builds examples/
# against it with CMake and examples/main.cpp with pkg-config, and runs what it built.
# With --install: also installs them with apt-get, builds the examples against /usr, runs
# `loomy serve` against `loomy connect` from the installed binaries when loomy-tools is there,
# and removes the packages again.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD

install=0
[ "${1:-}" = --install ] && { install=1; shift; }
debs=$(cd "${1:?usage: $0 [--install] <folder with the .deb files>}" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() { echo "FAILED: $*"; exit 1; }
for pkg in libloomy2 libloomy-dev; do
    ls "$debs"/${pkg}_*.deb >/dev/null 2>&1 || fail "no ${pkg} package in $debs"
done

root=$scratch/root
for deb in "$debs"/*.deb; do dpkg -x "$deb" "$root"; done
libdir=$(dirname "$(find "$root" -name 'libLoomy.so.*' -type f | head -1)")
[ -n "$libdir" ] || fail "libLoomy.so.* not in the packages"
for lib in Loomy Kestrel Tamarack; do
    soname=$(objdump -p "$libdir/lib$lib.so" | sed -n 's/ *SONAME *//p')
    [ "$soname" = "lib$lib.so.2" ] || fail "lib$lib.so has SONAME '$soname'"
done

# Builds examples/ with CMake against the given prefix and runs both programs.
build_examples() {
    local prefix=$1 build=$2
    cmake -S "$src/examples" -B "$build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
    cmake --build "$build" >/dev/null
    "$build/loomy-example" >"$build/example.out" || fail "loomy-example from $build"
    sh "$src/examples/run-pair.sh" "$build/loomy-pair-example" >"$build/pair.out" \
        || { cat "$build/pair.out"; fail "run-pair.sh with the examples from $build"; }
    sh "$src/examples/run-mirror.sh" "$build/loomy-serve-example" "$build/loomy-mirror-example" \
        >"$build/mirror.out" || { cat "$build/mirror.out"; fail "run-mirror.sh with the examples from $build"; }
    echo "ok: examples built with CMake against $prefix and run"
}

export LD_LIBRARY_PATH=$libdir
build_examples "$root/usr" "$scratch/cmake"

# loomy.pc finds its prefix from where it lies, so it serves as unpacked.
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
g++ -o "$scratch/pc-example" "$src/examples/main.cpp" $(pkg-config --cflags --libs loomy)
"$scratch/pc-example" | cmp - "$scratch/cmake/example.out" \
    || fail "the pkg-config build prints otherwise than the CMake build"
echo "ok: examples/main.cpp built with pkg-config against the scratch root and run"
unset LD_LIBRARY_PATH PKG_CONFIG_PATH

[ $install = 1 ] || exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$debs"/*.deb >/dev/null
build_examples /usr "$scratch/installed"
if [ -x /usr/bin/loomy ]; then
    # The serving side sets a value; the connecting side ends with status 0 once it holds it.
    /usr/bin/loomy serve --bind 127.0.0.1 --port 0 --set probe/value=int:7 >"$scratch/serve.out" 2>&1 &
    server=$!
    port=""
    for _ in $(seq 100); do
        port=$(sed -n 's/^listening [^ ]* \([0-9]*\)$/\1/p' "$scratch/serve.out")
        [ -n "$port" ] && break
        sleep 0.1
    done
    [ -n "$port" ] || { kill $server; cat "$scratch/serve.out"; fail "loomy serve printed no port"; }
    /usr/bin/loomy connect "127.0.0.1:$port" --expect probe/value=7 --timeout 30 >"$scratch/connect.out" 2>&1 \
        || { kill $server; cat "$scratch/serve.out" "$scratch/connect.out"; fail "loomy connect"; }
    kill $server
    echo "ok: the installed loomy connect got a value from the installed loomy serve"
fi
# dpkg-query fails for a package it doesn't know, such as loomy-tools when it wasn't built.
installed=$( (dpkg-query -W -f='${Package} ${Status}\n' loomy-tools libloomy-dev libloomy2 2>/dev/null || true) \
    | awk '/install ok installed/ {print $1}')
# shellcheck disable=SC2086
$sudo apt-get purge -y -qq $installed >/dev/null
echo "ok: the packages were installed, used and purged again"
