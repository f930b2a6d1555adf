#!/usr/bin/env bash
# Builds the library and runs the main example.
set -euo pipefail
cd "$(dirname "$0")/.."

tools/deps.sh cmake ninja-build g++ qtbase5-dev

build_dir="${BUILD_DIR:-build-example}"
cmake -S . -B "$build_dir" -G Ninja -DBUILD_TESTING=OFF -DLOOMY_BUILD_EXAMPLES=ON
cmake --build "$build_dir" --parallel "$(nproc)" --target loomy-example
"$build_dir/examples/loomy-example"
