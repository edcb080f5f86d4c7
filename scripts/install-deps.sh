#!/usr/bin/env bash
# Installs what the build, the tests, the demo and the benchmarks use on
# Debian 12, and nothing when everything is already there.
set -euo pipefail
packages=(
    g++ gcc clang cmake make pkg-config   # the two compilers every build is checked with
    libgtest-dev                          # the test framework
    libplist-dev                          # property lists, XML and binary
    bubblewrap                            # the sandbox of the end-to-end tests, demo and benchmarks
    clang-format clang-tidy               # the format and static checks of the test script
    openssl                               # the digest oracle of the tests and bench/hash's baseline
    coreutils findutils util-linux time   # sha256sum, xargs, setpriv/unshare, /usr/bin/time
    strace                                # the system-call counts of a test and bench/remove
    dpkg-dev lintian                      # the Debian package: its library dependencies and its checks
    man-db                                # the manual pages' format check
)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
((${#missing[@]})) || exit 0
sudo_cmd=()
[[ $(id -u) -eq 0 ]] || sudo_cmd=(sudo)
echo "installing: ${missing[*]}"
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
