#!/usr/bin/env bash
# demo-test.sh BUILD_DIR: runs demo/run.sh on the bundle of BUILD_DIR and
# checks what it shows, so the demo cannot rot unnoticed:
#   - the preview changed nothing and called no tool double;
#   - the preview and the remover both ended with status 0;
#   - after the real run, what is left of the sample installation is exactly
#     expected-after.txt beside this script: the folders the system keeps, the
#     other product's reference, the unrelated launch agent and the old
#     version's receipt; everything of the suite is gone.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$1
out=$(mktemp "${TMPDIR:-/tmp}/demo-test-XXXXXX")
trap 'rm -f "$out"' EXIT

REMOVER_BUNDLE=$build/RemoverTool.app REMOVER_DOUBLES_BUILD=$build/tests/doubles \
    "$here/../../demo/run.sh" >"$out" 2>&1 || {
    cat "$out"
    echo "demo-test: demo/run.sh failed" >&2
    exit 1
}

failed=0
check() {
    if ! grep -qxF -- "$1" "$out"; then
        echo "demo-test: missing line: $1" >&2
        failed=1
    fi
}
check "(after the preview: every file in place, no tool double called)"
if [[ $(grep -cxF "(exit status 0)" "$out") != 2 ]]; then
    echo "demo-test: the preview and the remover did not both end with status 0" >&2
    failed=1
fi
if ! diff -u "$here/expected-after.txt" <(awk '/^=== After: files/ { f = 1 } /^=== Gone/ { f = 0 } f' "$out"); then
    echo "demo-test: what the demo leaves after the real run differs (above)" >&2
    failed=1
fi
if ((failed)); then
    cat "$out"
    exit 1
fi
echo "demo: preview changed nothing; the real run left exactly what it should"
