#!/usr/bin/env bash
# Installs what the build, the tests, the demo and the benchmarks need on
# Debian 12, skipping what is already there.
set -euo pipefail
packages=(g++ gcc cmake make pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          libplist-dev bubblewrap clang-tidy openssl coreutils findutils util-linux time)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo_cmd=()
  [[ $(id -u) -eq 0 ]] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
fi
