#!/usr/bin/env bash
# Installs what is missing, builds, and runs the remover on a sample
# installation inside the sandbox, showing what it removed.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh build >/dev/null
exec demo/run.sh
