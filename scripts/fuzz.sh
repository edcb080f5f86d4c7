#!/usr/bin/env bash
# fuzz.sh [SECONDS]: builds the libFuzzer targets of fuzz/ with clang++ in
# build-fuzz/ and runs every target for SECONDS each (default 20), one after
# the other. Each starts from its checked-in seeds (fuzz/corpus/<Subject>/)
# plus what earlier runs found (build-fuzz/corpus/<Subject>/, not checked in).
# A finding (crash, sanitizer report, failed check, leak, timeout) stops the
# script with a non-zero status; the input that did it is saved as
# build-fuzz/artifacts/<Subject>/crash-... (or leak-, timeout-, oom-).
# Reproduce one with:  build-fuzz/fuzz/<Subject>Fuzzer <that file>
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
dir=build-fuzz

CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DREMOVER_FUZZ=ON \
    -DBUILD_TESTING=OFF -DREMOVER_ENABLE_WERROR=ON >/dev/null
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
for source in fuzz/*Fuzzer.cpp; do
    name=$(basename "$source" .cpp)
    subject=${name%Fuzzer}
    mkdir -p "$dir/corpus/$subject" "$dir/artifacts/$subject"
    echo "== $name, ${seconds}s"
    # New inputs go to the first folder; the seeds are only read.
    in_private_home "$dir/fuzz/$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$dir/artifacts/$subject/" "$dir/corpus/$subject" "fuzz/corpus/$subject" \
        >"$dir/$name.log" 2>&1 || {
        tail -n 60 "$dir/$name.log" >&2
        echo "$name: finding; input saved in $dir/artifacts/$subject/" >&2
        exit 1
    }
    grep -E '^#[0-9]+.*DONE|stat::number_of_executed_units|cov:' "$dir/$name.log" | tail -n 2
done
echo "every fuzz target ran ${seconds}s without a finding"
