#!/usr/bin/env bash
# Checks of the installed tree, the Debian package and the manual pages.
#
#   packaging-test.sh manual-pages MAN_DIR QELUTIL
#       there is a page for each program, every page formats without a
#       warning, and qelutil(1) has an entry for every command qelutil's help
#       lists
#   packaging-test.sh install BUILD_DIR
#       `cmake --install` with DESTDIR and a prefix: the bundle under
#       lib/remover, relative links in bin/, the programs run through them
#   packaging-test.sh package BUILD_DIR PACKAGE_DIR
#       cpack makes exactly one .deb in PACKAGE_DIR (emptied first)
#   packaging-test.sh package-contents PACKAGE_DIR
#       its control data, documents and manual pages; unpacked with dpkg -x,
#       the programs run through the links in usr/bin, and RemoverPreview
#       refuses to run as anyone but root
#   packaging-test.sh lintian PACKAGE_DIR
#       lintian reports no error on it
#
# The installed programs run as nobody, whose home folder does not exist, so
# no setting of this machine or of root takes part.
set -euo pipefail

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

scratch=
make_scratch() {
    scratch=$(mktemp -d)
    trap 'rm -rf "$scratch"' EXIT
    chmod 755 "$scratch"
}

as_nobody() {
    setpriv --reuid=nobody --regid=nogroup --clear-groups --reset-env -- "$@"
}

# The bundle's programs installed under ROOT/PREFIX, reached through
# ROOT/PREFIX/bin.
check_installed_tree() {
    local root=$1 prefix=$2
    local bundle=$root$prefix/lib/remover/RemoverTool.app
    for file in Contents/Info.plist Contents/MacOS/RemoverTool Contents/MacOS/qelutil Contents/MacOS/RemoverPreview \
        Contents/Resources/FileList.txt Contents/Resources/English.lproj/Localizable.strings \
        Contents/Resources/Preview/RecordingTool Contents/Resources/Preview/RecordingInstallManager.so; do
        [[ -f $bundle/$file ]] || fail "missing from the installed bundle: $file"
    done
    for file in Contents/MacOS/RemoverTool Contents/MacOS/qelutil Contents/MacOS/RemoverPreview \
        Contents/Resources/Preview/RecordingTool; do
        [[ -x $bundle/$file ]] || fail "not executable in the installed bundle: $file"
    done
    # A shared object is loaded, not run: Debian wants it without the
    # executable bits.
    local library_mode
    library_mode=$(stat -c %a "$bundle/Contents/Resources/Preview/RecordingInstallManager.so")
    [[ $library_mode == 644 ]] || fail "RecordingInstallManager.so has mode $library_mode, not 644"
    for program in RemoverTool qelutil RemoverPreview; do
        local link=$root$prefix/bin/$program
        [[ -L $link ]] || fail "$link is not a link"
        local target
        target=$(readlink "$link")
        [[ $target == ../lib/remover/RemoverTool.app/Contents/MacOS/$program ]] ||
            fail "$link points to $target, not into the bundle by a relative path"
        [[ -x $link ]] || fail "$link does not lead to an executable"
    done

    printf 'a small file\n' >"$scratch/sample"
    local expected actual
    expected=$(sha256sum <"$scratch/sample" | cut -d' ' -f1)
    actual=$(as_nobody "$root$prefix/bin/qelutil" sha256 "$scratch/sample")
    [[ $actual == "$expected" ]] || fail "installed qelutil sha256 printed \"$actual\", sha256sum \"$expected\""
    # The application type is read from the bundle's Info.plist: it prints
    # only when the program found its bundle through the link.
    actual=$(as_nobody "$root$prefix/bin/qelutil" app-type)
    [[ $actual == "Lumidoc Remover" ]] || fail "installed qelutil app-type printed \"$actual\""
    echo "installed tree under $prefix: bundle, links and programs fine"
}

manual_pages() {
    local man_dir=$1 qelutil=$2
    for page in RemoverTool.8 RemoverPreview.8 qelutil.1; do
        [[ -f $man_dir/$page ]] || fail "no $page in $man_dir"
    done
    local pages=("$man_dir"/*.[0-9])
    for page in "${pages[@]}"; do
        local warnings
        warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
        [[ -z $warnings ]] || fail "$page: $warnings"
        echo "$page: no warnings"
    done
    local rendered commands
    rendered=$(LC_ALL=C.UTF-8 MANWIDTH=200 man -l "$man_dir/qelutil.1")
    commands=$(as_nobody "$qelutil" help | sed -n 's/^  \([^ ]*\).*/\1/p')
    [[ -n $commands ]] || fail "qelutil help lists no commands"
    local missing=()
    for command in $commands; do
        grep -qE "^ {7}$command( |\$)" <<<"$rendered" || missing+=("$command")
    done
    ((${#missing[@]} == 0)) || fail "qelutil(1) has no entry for: ${missing[*]}"
    echo "qelutil(1) describes every command: $(echo $commands)"
}

install_tree() {
    local build_dir=$1
    make_scratch
    DESTDIR=$scratch/root cmake --install "$build_dir" --prefix /opt/remover >/dev/null
    check_installed_tree "$scratch/root" /opt/remover
    for page in man8/RemoverTool.8.gz man8/RemoverPreview.8.gz man1/qelutil.1.gz; do
        gzip -t "$scratch/root/opt/remover/share/man/$page" || fail "$page is not a gzip file"
    done
}

package() {
    local build_dir=$1 package_dir=$2
    rm -rf "$package_dir"
    mkdir -p "$package_dir"
    (cd "$build_dir" && cpack -G DEB -B "$package_dir" >"$package_dir/cpack.log") ||
        { cat "$package_dir/cpack.log"; fail "cpack failed"; }
    local debs=("$package_dir"/*.deb)
    ((${#debs[@]} == 1)) && [[ -f ${debs[0]} ]] || fail "cpack made no single .deb: ${debs[*]}"
    echo "made ${debs[0]}"
}

the_package() {
    local debs=("$1"/*.deb)
    [[ -f ${debs[0]} ]] || fail "no package in $1"
    echo "${debs[0]}"
}

package_contents() {
    local deb
    deb=$(the_package "$1")
    make_scratch
    [[ $(dpkg-deb -f "$deb" Package) == remover-tool ]] || fail "package name"
    local depends
    depends=$(dpkg-deb -f "$deb" Depends)
    [[ $depends =~ (^|, )libplist3( |,|$) ]] || fail "Depends names no libplist3: $depends"
    [[ $depends =~ (^|, )libc6( |,|$) ]] || fail "Depends names no libc6: $depends"
    echo "Depends: $depends"

    dpkg -x "$deb" "$scratch/root"
    local doc=$scratch/root/usr/share/doc/remover-tool
    head -1 "$doc/copyright" | grep -qx 'Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' ||
        fail "the copyright file is not in the machine-readable format"
    gzip -t "$doc/changelog.gz" || fail "changelog.gz"
    for page in man8/RemoverTool.8.gz man8/RemoverPreview.8.gz man1/qelutil.1.gz; do
        local file=$scratch/root/usr/share/man/$page
        gzip -t "$file" || fail "$page is not a gzip file"
        local warnings
        warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$file" 2>&1 >/dev/null)
        [[ -z $warnings ]] || fail "$page: $warnings"
    done
    check_installed_tree "$scratch/root" /usr

    # Run as nobody it must stop before making any mount, and say why.
    local status=0 error
    error=$(as_nobody "$scratch/root/usr/bin/RemoverPreview" x /Applications/A.app 2>&1 >/dev/null) || status=$?
    ((status == 77)) || fail "RemoverPreview run as nobody exited with status $status, not 77: $error"
    [[ $error == *"must run as root"* ]] || fail "RemoverPreview run as nobody said \"$error\" on standard error"
    echo "RemoverPreview as nobody: exit status 77, \"$error\""
}

run_lintian() {
    local deb
    deb=$(the_package "$1")
    local output status=0
    output=$(as_nobody lintian --fail-on error --display-level '>=warning' "$deb" 2>&1) || status=$?
    [[ -z $output ]] || echo "$output"
    ((status == 0)) || fail "lintian reported errors (exit status $status)"
    if grep -q '^E: ' <<<"$output"; then
        fail "lintian reported errors"
    fi
    echo "lintian: no error"
}

mode=${1:?mode}
shift
case $mode in
manual-pages) manual_pages "$@" ;;
install) install_tree "$@" ;;
package) package "$@" ;;
package-contents) package_contents "$@" ;;
lintian) run_lintian "$@" ;;
*) fail "unknown mode $mode" ;;
esac
