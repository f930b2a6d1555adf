#!/usr/bin/env bash
# Builds the libFuzzer targets (installing clang when missing) and runs each for SECONDS
# (default 60) on its seed corpus in fuzz/corpus/<target>/. New inputs go to a scratch corpus in
# the build folder, never into the checked-in seeds. The first finding stops the run: its input
# is saved under fuzz/findings/ (for a regression test in tests/) and the script fails.
# Targets run side by side, one per core.
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
# -O1 with line tables: what libFuzzer is usually run at, and far less compile time than -O2 -g.
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DLOOMY_BUILD_FUZZERS=ON \
    -DBUILD_TESTING=OFF -DLOOMY_BUILD_EXAMPLES=OFF "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG" \
    "${launcher[@]}"
cmake --build "$build_dir" --target "${targets[@]}" --parallel "$(nproc)"

mkdir -p fuzz/findings
# Runs one target; its output goes to a log in the build folder.
run_target() {
    local target=$1 name="${1%_fuzz}"
    local scratch="$build_dir/corpus/$name"
    mkdir -p "$scratch"
    # Leaks inside Qt that a target can reach, each explained in fuzz/<target>.lsan.supp.
    local suppressions=()
    [ -f "fuzz/$name.lsan.supp" ] && suppressions=("LSAN_OPTIONS=suppressions=$PWD/fuzz/$name.lsan.supp")
    # -rss_limit_mb: an allocation the size guard should have refused is a finding too.
    env "${suppressions[@]}" "$build_dir/fuzz/$target" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=25 \
        -print_final_stats=1 -artifact_prefix="fuzz/findings/$name-" \
        "$scratch" "fuzz/corpus/$name" >"$build_dir/$target.log" 2>&1
}

# As many targets at a time as there are cores; each prints its log and final figures when done.
failed=0
running=()
finish() {
    local target=$1 pid=$2
    if wait "$pid"; then
        echo "== $target for ${seconds}s: no finding"
        grep -E '^(stat::number_of_executed_units|stat::average_exec_per_sec|#[0-9]+ +DONE)' "$build_dir/$target.log" || true
    else
        tail -60 "$build_dir/$target.log"
        echo "$target: finding saved under fuzz/findings/ (replay: $build_dir/fuzz/$target <file>)" >&2
        failed=1
    fi
}
for target in "${targets[@]}"; do
    if [ ${#running[@]} -ge "$(nproc)" ]; then
        finish ${running[0]} ${running[1]}
        running=("${running[@]:2}")
    fi
    run_target "$target" &
    running+=("$target" $!)
done
while [ ${#running[@]} -gt 0 ]; do
    finish ${running[0]} ${running[1]}
    running=("${running[@]:2}")
done
exit $failed
