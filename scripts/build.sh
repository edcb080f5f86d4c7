#!/usr/bin/env bash
# build.sh [BUILD_DIR [extra cmake arguments...]]: configures and builds.
# The build type is RelWithDebInfo unless BUILD_TYPE or an extra
# -DCMAKE_BUILD_TYPE=... says otherwise; CC and CXX choose the compilers.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
cmake --build "$dir" -j"$(nproc)"
