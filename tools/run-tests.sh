#!/usr/bin/env bash
# Builds everything and runs every test. Extra arguments go to CMake's configure step,
# e.g. tools/run-tests.sh -DLOOMY_SANITIZE=address,undefined (use a separate BUILD_DIR then).
set -euo pipefail
cd "$(dirname "$0")/.."

tools/deps.sh cmake ninja-build g++ qtbase5-dev libgtest-dev libgmock-dev libbenchmark-dev

build_dir="${BUILD_DIR:-build}"
cmake -S . -B "$build_dir" -G Ninja -DBUILD_TESTING=ON -DLOOMY_BUILD_BENCHMARKS=ON "$@"
cmake --build "$build_dir" --parallel "$(nproc)"
ctest --test-dir "$build_dir" --output-on-failure --parallel "$(nproc)"
