#!/usr/bin/env bash
# Installs what is missing, builds, runs every test, runs clang-tidy over the
# project's own sources, then builds and runs the suite again under
# AddressSanitizer and UndefinedBehaviorSanitizer. Fails on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

echo "== build"
scripts/build.sh build
echo "== tests"
ctest --test-dir build --output-on-failure -j"$(nproc)"

echo "== clang-tidy"
mapfile -t sources < <(git ls-files 'platform/*.cpp' 'base/*.cpp' 'fsutil/*.cpp' 'remover/*.cpp' 'tools/*.cpp' 2>/dev/null \
                       || find platform base fsutil remover tools -name '*.cpp')
clang-tidy -p build --quiet "${sources[@]}" 2>/dev/null | tee build/clang-tidy.log
if grep -qE '(warning|error):' build/clang-tidy.log; then
  echo "clang-tidy reported findings" >&2
  exit 1
fi

echo "== sanitizer build and tests"
scripts/build.sh build-sanitize -DREMOVER_SANITIZE=ON
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-sanitize --output-on-failure -j"$(nproc)"
