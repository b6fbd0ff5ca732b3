#!/usr/bin/env bash
# Installs, from Debian's packages, everything zibd needs to build, run and be
# tested. Safe to run again: it installs only what is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libsqlite3-dev sqlite3
  g++-mips-linux-gnu qemu-user
  libfaketime faketime
  util-linux mount procps
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
