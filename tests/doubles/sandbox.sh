#!/usr/bin/env bash
# The fixture layout and the bubblewrap command line shared by the end-to-end
# tests, the demo and the benchmarks.
#
# A fixture root F holds what a run sees in place of the real system:
#   F/Applications  bound at /Applications
#   F/Library       bound at /Library
#   F/home          bound over /root, the home folder that the password
#                   database gives root (the tests and the demo run as root)
#   F/sbin          bound over /usr/sbin; holds only the pkgutil double
#   F/launchctl     the launchctl double, bound read-only at /bin/launchctl
#                   (/bin is a fresh folder holding it and sh -> /usr/bin/sh)
#   F/state         bound at /var/db/doubles: the doubles' journal, the
#                   receipts database (receipts/<identifier>) and the loaded
#                   agents (launchd-loaded); see pkgutil and launchctl
# The remover's bundle is bound read-only at /opt/RemoverTool.app.
#
# usage:
#   sandbox.sh init F
#       lays down an empty fixture with the doubles in place.
#   sandbox.sh run [OPTION...] F PROGRAM [ARGUMENT...]
#       runs PROGRAM (a path inside the sandbox) over the fixture F. Options:
#         --bundle B            the RemoverTool.app to bind at
#                               /opt/RemoverTool.app (default: $REMOVER_BUNDLE;
#                               none is bound when neither is given)
#         --ro PATH             binds PATH (/Applications/..., /Library/... or
#                               /root/...) read-only, so nothing in it can be
#                               changed or removed
#         --setenv NAME VALUE   sets a variable on top of the defaults
#         --user UID:GID        runs PROGRAM as that user (through setpriv)
#         --chdir DIR           the working folder inside (default /)
#       The environment inside is cleared, then PATH=/usr/bin:/bin,
#       HOME=/root, USER=LOGNAME=root and LANG=C.UTF-8 are set; the
#       sanitizers' ASAN_OPTIONS, UBSAN_OPTIONS and LSAN_OPTIONS pass through.
#       The exit status is PROGRAM's, or 128 + N when signal N ended it.
#   sandbox.sh tree F
#       lists every path under /Applications, /Library and /root (not those
#       three themselves), sorted by path, one a line with a type mark:
#       "d PATH", "f PATH", "l PATH -> TARGET" (others: p, s, c, b).
#       Control characters in names are shown as ^M and the like.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

die() {
    printf 'sandbox.sh: %s\n' "$*" >&2
    exit 125
}

# fixture_path F PATH: the fixture's own path for PATH inside the sandbox.
fixture_path() {
    case $2 in
    /Applications | /Applications/*) printf '%s' "$1/Applications${2#/Applications}" ;;
    /Library | /Library/*) printf '%s' "$1/Library${2#/Library}" ;;
    /root | /root/*) printf '%s' "$1/home${2#/root}" ;;
    *) die "not a path inside the fixture: $2" ;;
    esac
}

init() {
    (($# == 1)) || die "usage: sandbox.sh init F"
    local f=$1
    mkdir -p "$f/Applications" "$f/Library" "$f/home" "$f/sbin" "$f/state/receipts"
    cp "$here/pkgutil" "$f/sbin/pkgutil"
    cp "$here/launchctl" "$f/launchctl"
    chmod 0755 "$f/sbin/pkgutil" "$f/launchctl"
    : >"$f/state/journal"
    : >"$f/state/launchd-loaded"
}

run() {
    local bundle=${REMOVER_BUNDLE-} user='' directory=/
    local -a after=() environment=()
    while (($#)); do
        case $1 in
        --bundle)
            (($# >= 2)) || die "--bundle needs a path"
            bundle=$2
            shift 2
            ;;
        --ro)
            (($# >= 2)) || die "--ro needs a path"
            after+=(--ro-bind "$2")
            shift 2
            ;;
        --setenv)
            (($# >= 3)) || die "--setenv needs a name and a value"
            environment+=(--setenv "$2" "$3")
            shift 3
            ;;
        --user)
            (($# >= 2)) || die "--user needs UID:GID"
            user=$2
            shift 2
            ;;
        --chdir)
            (($# >= 2)) || die "--chdir needs a folder"
            directory=$2
            shift 2
            ;;
        --) shift; break ;;
        -*) die "unknown option $1" ;;
        *) break ;;
        esac
    done
    (($# >= 2)) || die "usage: sandbox.sh run [OPTION...] F PROGRAM [ARGUMENT...]"
    local f=$1
    shift
    [[ -d $f/Applications && -d $f/Library && -d $f/home && -x $f/sbin/pkgutil && -x $f/launchctl && -d $f/state ]] ||
        die "not a fixture (sandbox.sh init F lays one down): $f"

    local -a command=(bwrap --ro-bind /usr /usr --symlink usr/lib /lib --symlink usr/lib64 /lib64
        --ro-bind /etc /etc --proc /proc --dev /dev --tmpfs /tmp
        --dir /bin --symlink /usr/bin/sh /bin/sh --ro-bind "$f/launchctl" /bin/launchctl
        --bind "$f/sbin" /usr/sbin
        --bind "$f/Applications" /Applications --bind "$f/Library" /Library
        --bind "$f/home" /root --bind "$f/state" /var/db/doubles)
    if [[ -n $bundle ]]; then
        [[ -d $bundle ]] || die "no bundle at $bundle"
        command+=(--ro-bind "$bundle" /opt/RemoverTool.app)
    fi
    local i
    for ((i = 0; i < ${#after[@]}; i += 2)); do
        command+=(--ro-bind "$(fixture_path "$f" "${after[i + 1]}")" "${after[i + 1]}")
    done
    command+=(--chdir "$directory" --clearenv --setenv PATH /usr/bin:/bin --setenv HOME /root
        --setenv USER root --setenv LOGNAME root --setenv LANG C.UTF-8)
    local name
    for name in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
        [[ -z ${!name+set} ]] || command+=(--setenv "$name" "${!name}")
    done
    command+=("${environment[@]}" --)
    if [[ -n $user ]]; then
        [[ $user =~ ^[0-9]+:[0-9]+$ ]] || die "--user needs UID:GID, not $user"
        command+=(/usr/bin/setpriv --reuid="${user%%:*}" --regid="${user##*:}" --clear-groups --)
    fi
    exec "${command[@]}" "$@"
}

tree() {
    (($# == 1)) || die "usage: sandbox.sh tree F"
    local f=$1 top mount
    for top in Applications Library home; do
        mount=/$top
        [[ $top != home ]] || mount=/root
        find "$f/$top" -mindepth 1 \( -type l -printf "%y $mount/%P -> %l\n" \) -o -printf "%y $mount/%P\n"
    done | LC_ALL=C sort -t ' ' -k 2 | cat -v
}

case ${1-} in
init | run | tree)
    subcommand=$1
    shift
    "$subcommand" "$@"
    ;;
*) die "usage: sandbox.sh init F | run [OPTION...] F PROGRAM [ARGUMENT...] | tree F" ;;
esac
