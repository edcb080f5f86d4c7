#!/usr/bin/env bash
# fuzz.sh [SECONDS [BUILD_DIR]]: runs every libFuzzer target of fuzz/ for
# SECONDS each (default 20), as many at once as there are cores. The targets
# come from BUILD_DIR (default build-fuzz/): a build directory configured with
# REMOVER_FUZZ=ON (clang++) is used as it is, and built if needed; any other
# is configured for the fuzzers alone first (RelWithDebInfo, no tests).
# Each target starts from its checked-in seeds (fuzz/corpus/<Subject>/) plus
# what earlier runs found (BUILD_DIR/corpus/<Subject>/, not checked in).
# A finding (crash, sanitizer report, failed check, leak, timeout) fails the
# script; the input that did it is saved as
# BUILD_DIR/artifacts/<Subject>/crash-... (or leak-, timeout-, oom-).
# Reproduce one with:  BUILD_DIR/fuzz/<Subject>Fuzzer <that file>
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
dir=${2:-build-fuzz}

if ! grep -qs '^REMOVER_FUZZ:BOOL=ON$' "$dir/CMakeCache.txt"; then
    CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DREMOVER_FUZZ=ON \
        -DBUILD_TESTING=OFF -DREMOVER_ENABLE_WERROR=ON >/dev/null
fi
cmake --build "$dir" -j"$(nproc)" --target fuzzers

# The targets run the shared services, which log to the log file of the user
# who runs them: each target runs over a private, empty home folder (a tmpfs
# in a mount namespace of its own), so no real home folder is written.
home=$(getent passwd "$(id -u)" | cut -d: -f6)
in_private_home() {
    unshare --mount --propagation private -- sh -c \
        'mount -t tmpfs -o mode=0700 tmpfs "$0" && mkdir "$0/Library" && exec "$@"' "$home" "$@"
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# run_target NAME: one target for SECONDS; its output goes to BUILD_DIR/NAME.log.
run_target() {
    local name=$1 subject=${1%Fuzzer}
    mkdir -p "$dir/corpus/$subject" "$dir/artifacts/$subject"
    # New inputs go to the first folder; the seeds are only read.
    in_private_home "$dir/fuzz/$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$dir/artifacts/$subject/" "$dir/corpus/$subject" "fuzz/corpus/$subject" \
        >"$dir/$name.log" 2>&1
}

# report NAME STATUS: the target's summary, or its log's end and where the input is.
report() {
    local name=$1 status=$2
    if ((status == 0)); then
        echo "== $name, ${seconds}s: $(grep -E 'stat::number_of_executed_units' "$dir/$name.log" | awk '{print $2}') runs," \
            "$(grep -oE 'cov: [0-9]+' "$dir/$name.log" | tail -n 1)"
        return 0
    fi
    tail -n 60 "$dir/$name.log" >&2
    echo "$name: finding; input saved in $dir/artifacts/${name%Fuzzer}/" >&2
    return 1
}

mapfile -t names < <(for source in fuzz/*Fuzzer.cpp; do basename "$source" .cpp; done)
declare -A running=()
failed=0
finish_one() {
    local pid status=0
    wait -n -p pid || status=$?
    report "${running[$pid]}" "$status" || failed=1
    unset "running[$pid]"
}
for name in "${names[@]}"; do
    while ((${#running[@]} >= $(nproc))); do
        finish_one
    done
    run_target "$name" &
    running[$!]=$name
done
while ((${#running[@]} > 0)); do
    finish_one
done
((failed == 0)) || exit 1
echo "every fuzz target ran ${seconds}s without a finding"
