#!/usr/bin/env bash
# Installs what is missing, then checks everything, each step timed:
#   1. g++, Release, warnings as errors: build, and run the whole suite;
#   2. clang-format (--dry-run -Werror) and clang-tidy over the project's own
#      sources (the compile commands of step 1);
#   3. clang++ with AddressSanitizer, UndefinedBehaviorSanitizer and the
#      fuzzers' coverage instrumentation, warnings as errors: one build of
#      everything (which also shows clang++ builds the whole tree without a
#      warning), the whole suite again under the sanitizers, then every fuzz
#      target of that same build for 20 s (scripts/fuzz.sh).
# Fails on the first step that fails; prints each step's time at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
timings=()
step() {
    local title=$1
    shift
    echo "== $title"
    local start=$SECONDS
    "$@"
    local took=$((SECONDS - start))
    timings+=("$(printf '%3dm%02ds  %s' $((took / 60)) $((took % 60)) "$title")")
    printf -- '-- %s: %dm%02ds\n' "$title" $((took / 60)) $((took % 60))
}
print_timings() {
    ((${#timings[@]})) || return 0
    echo "== time of each step"
    printf '%s\n' "${timings[@]}"
    printf '%3dm%02ds  all\n' $((SECONDS / 60)) $((SECONDS % 60))
}
trap print_timings EXIT

run_suite() {
    ctest --test-dir "$1" --output-on-failure -j"$jobs"
}

lint() {
    mapfile -t sources < <(git ls-files '*.cpp' '*.h' '*.c' 2>/dev/null ||
                           find platform base fsutil remover preview tools tests fuzz bench -name '*.cpp' -o -name '*.h')
    clang-format --dry-run -Werror "${sources[@]}"

    mapfile -t product < <(printf '%s\n' "${sources[@]}" | grep -E '^(platform|base|fsutil|remover|preview|tools)/.*\.cpp$')
    local status=0
    # As many clang-tidy processes as cores, four files each, reading the
    # compile commands of build/.
    printf '%s\0' "${product[@]}" |
        xargs -0 -n 4 -P "$jobs" clang-tidy -p build --quiet >build/clang-tidy.log 2>&1 || status=$?
    # clang-tidy counts the warnings it suppressed on standard error; the
    # findings themselves and any error are what is worth showing.
    grep -vE '^[0-9]+ warnings? (and [0-9]+ errors? )?generated\.$|^Suppressed [0-9]+ warnings|^Use -header-filter' \
        build/clang-tidy.log || true
    if ((status != 0)) || grep -qE '(warning|error):' build/clang-tidy.log; then
        echo "clang-tidy reported findings (exit status $status)" >&2
        return 1
    fi
}

step "install what is missing" scripts/install-deps.sh
step "build (g++, Release, warnings as errors)" \
    env BUILD_TYPE=Release scripts/build.sh build -DREMOVER_ENABLE_WERROR=ON
step "tests (g++, Release)" run_suite build
step "clang-format and clang-tidy" lint
step "build (clang++, ASan+UBSan, fuzz targets, warnings as errors)" \
    env CC=clang CXX=clang++ BUILD_TYPE=RelWithDebInfo scripts/build.sh build-sanitize \
    -DREMOVER_SANITIZE=ON -DREMOVER_FUZZ=ON -DREMOVER_ENABLE_WERROR=ON
step "tests (clang++, ASan+UBSan)" \
    env ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-sanitize --output-on-failure -j"$jobs"
step "fuzz targets, 20 s each" scripts/fuzz.sh 20 build-sanitize
