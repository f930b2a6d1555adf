#!/usr/bin/env bash
# Builds Release, installed under /usr, and makes the Debian packages with CPack:
# libloomy2, libloomy-dev and, when the build has the loomy command, loomy-tools.
# The .deb files land in the build folder (BUILD_DIR, default build-package); their paths are
# printed one per line at the end. Extra arguments go to CMake's configure step.
set -euo pipefail
cd "$(dirname "$0")/.."

# dpkg-dev brings dpkg-shlibdeps, which computes the packages' dependencies; file finds the ELF files.
tools/deps.sh cmake ninja-build g++ qtbase5-dev dpkg-dev file

build_dir="${BUILD_DIR:-build-package}"
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DBUILD_TESTING=OFF -DLOOMY_BUILD_EXAMPLES=OFF "$@"
cmake --build "$build_dir" --parallel "$(nproc)"
rm -f "$build_dir"/*.deb
(cd "$build_dir" && cpack -G DEB >/dev/null)
ls "$build_dir"/*.deb
