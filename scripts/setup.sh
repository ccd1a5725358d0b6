#!/usr/bin/env bash
# Installs every build, test and benchmark dependency. Safe to run again.
set -euo pipefail

pkgs=(
  build-essential cmake pkg-config
  libace-dev libyajl-dev libboost-dev uuid-dev libssl-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev llvm
)

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
