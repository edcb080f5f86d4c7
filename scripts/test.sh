#!/usr/bin/env bash
# Installs what is missing, builds, runs every test, runs clang-tidy over the
# project's own sources, builds and tests again with clang++, then builds and
# runs the suite again under AddressSanitizer and UndefinedBehaviorSanitizer.
# Every build treats warnings as errors. Ends by running every fuzz target
# for 20 seconds (scripts/fuzz.sh). Fails on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

run_suite() {
    ctest --test-dir "$1" --output-on-failure -j"$(nproc)"
}

echo "== build (g++, Release)"
BUILD_TYPE=Release scripts/build.sh build -DREMOVER_ENABLE_WERROR=ON
echo "== tests"
run_suite build

echo "== clang-tidy"
mapfile -t sources < <(git ls-files 'platform/*.cpp' 'base/*.cpp' 'fsutil/*.cpp' 'remover/*.cpp' 'preview/*.cpp' 'tools/*.cpp' \
                       2>/dev/null || find platform base fsutil remover preview tools -name '*.cpp')
tidy_status=0
clang-tidy -p build --quiet "${sources[@]}" >build/clang-tidy.log 2>&1 || tidy_status=$?
# clang-tidy counts the warnings it suppressed on standard error; the findings
# themselves and any error are what is worth showing.
grep -vE '^[0-9]+ warnings? (and [0-9]+ errors? )?generated\.$|^Suppressed [0-9]+ warnings|^Use -header-filter' \
    build/clang-tidy.log || true
if ((tidy_status != 0)) || grep -qE '(warning|error):' build/clang-tidy.log; then
    echo "clang-tidy reported findings (exit status $tidy_status)" >&2
    exit 1
fi

echo "== build (clang++, Debug) and tests"
CC=clang CXX=clang++ BUILD_TYPE=Debug scripts/build.sh build-clang -DREMOVER_ENABLE_WERROR=ON
run_suite build-clang

echo "== sanitizer build and tests"
scripts/build.sh build-sanitize -DREMOVER_SANITIZE=ON -DREMOVER_ENABLE_WERROR=ON
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_suite build-sanitize

echo "== fuzz targets, 20 s each"
scripts/fuzz.sh 20
