#!/usr/bin/env bash
# Builds the library and runs the main example: two processes on this machine, one accepting
# and one connecting over TCP, that end with equal trees. The in-process example is
# build-example/examples/loomy-example.
set -euo pipefail
cd "$(dirname "$0")/.."

tools/deps.sh cmake ninja-build g++ qtbase5-dev

build_dir="${BUILD_DIR:-build-example}"
cmake -S . -B "$build_dir" -G Ninja -DBUILD_TESTING=OFF -DLOOMY_BUILD_EXAMPLES=ON
cmake --build "$build_dir" --parallel "$(nproc)" --target loomy-pair-example loomy-example
sh examples/run-pair.sh "$build_dir/examples/loomy-pair-example"
