#!/usr/bin/env bash
# Installs what is missing, builds the remover and its preview (and the
# library double the sample installation uses), and runs on a sample
# installation inside the sandbox first the preview, then the remover,
# showing what it removed.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target RemoverTool RemoverPreview qelutil test_doubles >/dev/null
exec demo/run.sh
