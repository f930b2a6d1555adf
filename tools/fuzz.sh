#!/usr/bin/env bash
# Builds the libFuzzer targets (installing clang when missing) and runs each for SECONDS
# (default 60) on its seed corpus in fuzz/corpus/<target>/. New inputs go to a scratch corpus in
# the build folder, never into the checked-in seeds. The first finding stops the run: its input
# is saved under fuzz/findings/ (for a regression test in tests/) and the script fails.
# Usage: tools/fuzz.sh [SECONDS] [TARGET...]     BUILD_DIR defaults to build-fuzz.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
shift || true
tools/deps.sh clang cmake ninja-build qtbase5-dev

build_dir="${BUILD_DIR:-build-fuzz}"
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(receive_fuzz types_fuzz stream_fuzz login_fuzz tree_fuzz)

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DLOOMY_BUILD_FUZZERS=ON \
    -DBUILD_TESTING=OFF -DLOOMY_BUILD_EXAMPLES=OFF "${launcher[@]}"
cmake --build "$build_dir" --target "${targets[@]}" --parallel "$(nproc)"

mkdir -p fuzz/findings
for target in "${targets[@]}"; do
    name="${target%_fuzz}"
    scratch="$build_dir/corpus/$name"
    mkdir -p "$scratch"
    echo "== $target for ${seconds}s"
    # Leaks inside Qt that a target can reach, each explained in fuzz/<target>.lsan.supp.
    suppressions=()
    [ -f "fuzz/$name.lsan.supp" ] && suppressions=("LSAN_OPTIONS=suppressions=$PWD/fuzz/$name.lsan.supp")
    # -rss_limit_mb: an allocation the size guard should have refused is a finding too.
    if ! env "${suppressions[@]}" "$build_dir/fuzz/$target" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=25 \
            -print_final_stats=1 -artifact_prefix="fuzz/findings/$name-" \
            "$scratch" "fuzz/corpus/$name"; then
        echo "$target: finding saved under fuzz/findings/ (replay: $build_dir/fuzz/$target <file>)" >&2
        exit 1
    fi
done
