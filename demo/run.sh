#!/usr/bin/env bash
# run.sh: previews the remover on a sample Corvane Lumidoc 10 installation
# inside the sandbox, then runs it for real and shows what it changed.
#
# It builds nothing: it expects a build (scripts/build.sh) with the bundle at
# build/RemoverTool.app, or the bundle named by REMOVER_BUNDLE. The
# install-manager library double is taken from tests/doubles of the same
# build folder (or REMOVER_DOUBLES_BUILD) when it has been built (target
# test_doubles); without it the remover reports the library as missing.
# KEEP_FIXTURE=1 keeps the fixture folder for a look afterwards; FULL_TREE=1
# lists the insides of bundles too (they are folded by default).
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
top=$(cd "$here/.." && pwd)
sandbox=$top/tests/sandbox/sandbox.sh
bundle=${REMOVER_BUNDLE:-$top/build/RemoverTool.app}
doubles=${REMOVER_DOUBLES_BUILD:-$(dirname "$bundle")/tests/doubles}
app="/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app"

if [[ ! -x $bundle/Contents/MacOS/RemoverTool ]]; then
    echo "run.sh: no built remover at $bundle (run scripts/build.sh, or set REMOVER_BUNDLE)" >&2
    exit 1
fi

fixture=$(mktemp -d "${TMPDIR:-/tmp}/lumidoc-demo-XXXXXX")
if [[ ${KEEP_FIXTURE:-0} == 1 ]]; then
    trap 'echo "(fixture kept in $fixture)"' EXIT
else
    trap 'rm -rf "$fixture"' EXIT
fi

"$sandbox" init "$fixture"
state=$("$sandbox" path "$fixture" /var/db/doubles)
"$here/sample-install.sh" "$fixture"

# The remover runs from a copy of its bundle that carries the library double.
mkdir -p "$fixture/bundle"
cp -a "$bundle" "$fixture/bundle/RemoverTool.app"
if [[ -f $doubles/CorvaneHOV.so ]]; then
    mkdir -p "$fixture/bundle/RemoverTool.app/Contents/Frameworks"
    cp "$doubles/CorvaneHOV.so" "$fixture/bundle/RemoverTool.app/Contents/Frameworks/CorvaneHOV.dylib"
else
    echo "note: no library double at $doubles/CorvaneHOV.so (build the target test_doubles)" >&2
fi

heading() {
    printf '\n=== %s\n' "$*"
}

# Lists a tree with the insides of bundles left out, unless FULL_TREE=1.
fold_bundles() {
    if [[ ${FULL_TREE:-0} == 1 ]]; then
        cat "$1"
    else
        grep -Ev '\.(app|plugin|action|bundle|framework)/' "$1" || true
    fi
}

show_state() {
    heading "$1: files under /Applications, /Library and /root (bundle insides folded)"
    "$sandbox" tree "$fixture" >"$fixture/tree-$1"
    fold_bundles "$fixture/tree-$1"
    heading "$1: package receipts"
    ls "$state/receipts"
    heading "$1: loaded launch agents"
    cat -v "$state/launchd-loaded"
}

show_state Before
: >"$state/journal"

# The preview first: the same command line, nothing changed, no tool run.
heading "RemoverPreview x \"$app\" (nothing changes)"
status=0
"$sandbox" run --bundle "$fixture/bundle/RemoverTool.app" "$fixture" \
    /opt/RemoverTool.app/Contents/MacOS/RemoverPreview x "$app" || status=$?
echo "(exit status $status)"
"$sandbox" tree "$fixture" >"$fixture/tree-Previewed"
if cmp -s "$fixture/tree-Before" "$fixture/tree-Previewed" && [[ ! -s $state/journal ]]; then
    echo "(after the preview: every file in place, no tool double called)"
else
    echo "(after the preview: the fixture changed, which must never happen)" >&2
    exit 1
fi

heading "RemoverTool x \"$app\""
status=0
"$sandbox" run --bundle "$fixture/bundle/RemoverTool.app" "$fixture" \
    /opt/RemoverTool.app/Contents/MacOS/RemoverTool x "$app" || status=$?
echo "(exit status $status)"

show_state After
heading "Gone (bundle insides folded)"
LC_ALL=C comm -23 <(LC_ALL=C sort "$fixture/tree-Before") <(LC_ALL=C sort "$fixture/tree-After") |
    LC_ALL=C sort -t ' ' -k 2 >"$fixture/tree-gone"
fold_bundles "$fixture/tree-gone"
heading "Calls the tool doubles saw"
awk -F '\t' '{ line = $1; for (i = 2; i <= NF; i++) line = line " \"" $i "\""; print line }' "$state/journal"
