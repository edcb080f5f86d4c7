#!/usr/bin/env bash
# The fixture layout and the bubblewrap command line of the end-to-end tests,
# the demo and the benchmarks: the one place that knows either. The tests'
# C++ support asks `sandbox.sh layout F` where things lie.
#
# A fixture F comes in one of two layouts, chosen when it is laid down.
#
# separate (the default): every top-level folder is a mount of its own.
#   F/Applications  bound at /Applications
#   F/Library       bound at /Library
#   F/home          bound over /root, the home folder that the password
#                   database gives root (the tests and the demo run as root)
#   F/state         bound at /var/db/doubles
#   F/launchctl     the launchctl double, bound read-only at /bin/launchctl
#                   (/bin is a fresh folder holding it and sh -> /usr/bin/sh)
#   /tmp is a fresh tmpfs.
#
# single-disk: one fixture folder F/fs is bound as "/", so /Applications,
# /Library, /root and /tmp are plain folders of one file system.
#   F/fs            Applications, Library, root, tmp, var/db/doubles,
#                   bin (launchctl double, sh -> /usr/bin/sh), lib -> usr/lib,
#                   lib64 -> usr/lib64, and the mount points opt, proc, dev,
#                   usr, etc; /usr and /etc are the host's, read-only.
#
# In both, F/sbin is bound over /usr/sbin and holds only the pkgutil double;
# /var/db/doubles holds the doubles' journal, the receipts database
# (receipts/<identifier>) and the loaded agents (launchd-loaded); the
# remover's bundle is bound read-only at /opt/RemoverTool.app. The real "/"
# is never bound.
#
# usage:
#   sandbox.sh init [--layout separate|single-disk] F
#       lays down an empty fixture with the doubles in place.
#   sandbox.sh layout F
#       prints one line per folder of the fixture that a program inside sees:
#       "INSIDE<TAB>HOST<TAB>listed" for those that tree lists,
#       "INSIDE<TAB>HOST<TAB>-" for the others.
#   sandbox.sh path F PATH
#       prints where PATH, a path inside the sandbox, lies in the fixture.
#   sandbox.sh run [OPTION...] F PROGRAM [ARGUMENT...]
#       runs PROGRAM (a path inside the sandbox) over the fixture F. Options:
#         --bundle B            the RemoverTool.app to bind at
#                               /opt/RemoverTool.app (default: $REMOVER_BUNDLE;
#                               none is bound when neither is given)
#         --ro PATH             binds PATH (/Applications/..., /Library/... or
#                               /root/...) read-only, so nothing in it can be
#                               changed or removed
#         --bind SOURCE PATH    binds the fixture's SOURCE (a path inside, as
#                               for --ro) at PATH: a mount of its own on the
#                               same disk
#         --setenv NAME VALUE   sets a variable on top of the defaults
#         --user UID:GID        runs PROGRAM as that user (through setpriv)
#         --chdir DIR           the working folder inside (default /)
#         --no-caps             drops every capability: root inside cannot
#                               mount or make namespaces
#         --seccomp FILE        loads the compiled seccomp filter in FILE
#                               (a cBPF program) before PROGRAM starts
#         --no-proc             mounts no /proc: PROGRAM cannot learn its own
#                               path, descriptors or mounts from there
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
doubles=$(cd "$here/../doubles" && pwd)

die() {
    printf 'sandbox.sh: %s\n' "$*" >&2
    exit 125
}

# layout_of F: the fixture's layout, as init wrote it.
layout_of() {
    if [[ -f $1/layout ]]; then
        cat "$1/layout"
    else
        die "not a fixture (sandbox.sh init F lays one down): $1"
    fi
}

# layout F: the folders a program inside sees, with their places in F.
layout() {
    (($# == 1)) || die "usage: sandbox.sh layout F"
    local f=$1
    case $(layout_of "$f") in
    separate)
        printf '%s\t%s\t%s\n' /Applications "$f/Applications" listed /Library "$f/Library" listed \
            /root "$f/home" listed /var/db/doubles "$f/state" -
        ;;
    single-disk)
        printf '%s\t%s\t%s\n' /Applications "$f/fs/Applications" listed /Library "$f/fs/Library" listed \
            /root "$f/fs/root" listed /var/db/doubles "$f/fs/var/db/doubles" - /tmp "$f/fs/tmp" -
        ;;
    *) die "unknown layout in $f/layout" ;;
    esac
}

# fixture_path F PATH: the fixture's own path for PATH inside the sandbox.
fixture_path() {
    local inside host listed
    while IFS=$'\t' read -r inside host listed; do
        if [[ $2 == "$inside" || $2 == "$inside"/* ]]; then
            printf '%s' "$host${2#"$inside"}"
            return
        fi
    done < <(layout "$1")
    die "not a path inside the fixture: $2"
}

path() {
    (($# == 2)) || die "usage: sandbox.sh path F PATH"
    fixture_path "$1" "$2"
    printf '\n'
}

init() {
    local kind=separate
    if [[ ${1-} == --layout ]]; then
        (($# >= 2)) || die "--layout needs separate or single-disk"
        kind=$2
        shift 2
    fi
    (($# == 1)) || die "usage: sandbox.sh init [--layout separate|single-disk] F"
    local f=$1 state launchctl
    case $kind in
    separate)
        mkdir -p "$f/Applications" "$f/Library" "$f/home" "$f/state"
        state=$f/state launchctl=$f/launchctl
        ;;
    single-disk)
        local r=$f/fs
        mkdir -p "$r/Applications" "$r/Library" "$r/root" "$r/tmp" "$r/bin" "$r/opt" "$r/proc" "$r/dev" \
            "$r/usr" "$r/etc" "$r/var/db/doubles"
        chmod 1777 "$r/tmp"
        ln -sfn usr/lib "$r/lib"
        ln -sfn usr/lib64 "$r/lib64"
        ln -sfn /usr/bin/sh "$r/bin/sh"
        state=$r/var/db/doubles launchctl=$r/bin/launchctl
        ;;
    *) die "unknown layout $kind (separate or single-disk)" ;;
    esac
    mkdir -p "$f/sbin" "$state/receipts"
    cp "$doubles/pkgutil" "$f/sbin/pkgutil"
    cp "$doubles/launchctl" "$launchctl"
    chmod 0755 "$f/sbin/pkgutil" "$launchctl"
    : >"$state/journal"
    : >"$state/launchd-loaded"
    printf '%s\n' "$kind" >"$f/layout"
}

run() {
    local bundle=${REMOVER_BUNDLE-} user='' directory=/ filter=''
    local -a after=() environment=() restrictions=() proc=(--proc /proc)
    while (($#)); do
        case $1 in
        --bundle)
            (($# >= 2)) || die "--bundle needs a path"
            bundle=$2
            shift 2
            ;;
        --ro)
            (($# >= 2)) || die "--ro needs a path"
            after+=(--ro-bind "$2" "$2")
            shift 2
            ;;
        --bind)
            (($# >= 3)) || die "--bind needs a source and a path"
            after+=(--bind "$2" "$3")
            shift 3
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
        --no-caps)
            restrictions+=(--cap-drop ALL)
            shift
            ;;
        --no-proc)
            proc=()
            shift
            ;;
        --seccomp)
            (($# >= 2)) || die "--seccomp needs a file"
            [[ -f $2 ]] || die "no seccomp filter at $2"
            filter=$2
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
    local -a command
    case $(layout_of "$f") in
    separate)
        [[ -d $f/Applications && -d $f/Library && -d $f/home && -x $f/sbin/pkgutil && -x $f/launchctl && -d $f/state ]] ||
            die "not a fixture (sandbox.sh init F lays one down): $f"
        command=(bwrap --ro-bind /usr /usr --symlink usr/lib /lib --symlink usr/lib64 /lib64
            --ro-bind /etc /etc "${proc[@]}" --dev /dev --tmpfs /tmp
            --dir /bin --symlink /usr/bin/sh /bin/sh --ro-bind "$f/launchctl" /bin/launchctl
            --bind "$f/sbin" /usr/sbin
            --bind "$f/Applications" /Applications --bind "$f/Library" /Library
            --bind "$f/home" /root --bind "$f/state" /var/db/doubles)
        ;;
    single-disk)
        [[ -d $f/fs/Applications && -d $f/fs/Library && -d $f/fs/root && -x $f/sbin/pkgutil && -x $f/fs/bin/launchctl ]] ||
            die "not a fixture (sandbox.sh init F lays one down): $f"
        command=(bwrap --bind "$f/fs" / --ro-bind /usr /usr --bind "$f/sbin" /usr/sbin
            --ro-bind /etc /etc "${proc[@]}" --dev /dev)
        ;;
    esac
    if [[ -n $bundle ]]; then
        [[ -d $bundle ]] || die "no bundle at $bundle"
        # bubblewrap would make /opt 0700: another user could not reach the bundle.
        command+=(--perms 0755 --dir /opt --ro-bind "$bundle" /opt/RemoverTool.app)
    fi
    local i
    for ((i = 0; i < ${#after[@]}; i += 3)); do
        command+=("${after[i]}" "$(fixture_path "$f" "${after[i + 1]}")" "${after[i + 2]}")
    done
    command+=(--chdir "$directory" --clearenv --setenv PATH /usr/bin:/bin --setenv HOME /root
        --setenv USER root --setenv LOGNAME root --setenv LANG C.UTF-8)
    local name
    for name in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
        [[ -z ${!name+set} ]] || command+=(--setenv "$name" "${!name}")
    done
    if [[ -n $filter ]]; then
        local filter_fd
        exec {filter_fd}<"$filter"
        restrictions+=(--seccomp "$filter_fd")
    fi
    command+=("${environment[@]}" "${restrictions[@]}" --)
    if [[ -n $user ]]; then
        [[ $user =~ ^[0-9]+:[0-9]+$ ]] || die "--user needs UID:GID, not $user"
        command+=(/usr/bin/setpriv --reuid="${user%%:*}" --regid="${user##*:}" --clear-groups --)
    fi
    exec "${command[@]}" "$@"
}

tree() {
    (($# == 1)) || die "usage: sandbox.sh tree F"
    local inside host listed
    layout "$1" | while IFS=$'\t' read -r inside host listed; do
        [[ $listed == listed ]] || continue
        find "$host" -mindepth 1 \( -type l -printf "%y $inside/%P -> %l\n" \) -o -printf "%y $inside/%P\n"
    done | LC_ALL=C sort -t ' ' -k 2 | cat -v
}

case ${1-} in
init | layout | path | run | tree)
    subcommand=$1
    shift
    "$subcommand" "$@"
    ;;
*) die "usage: sandbox.sh init [--layout L] F | layout F | path F PATH | run [OPTION...] F PROGRAM [ARGUMENT...] | tree F" ;;
esac
