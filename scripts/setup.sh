#!/usr/bin/env bash
# Installs every build, test and benchmark dependency. Safe to run again.
set -euo pipefail

pkgs=(
  build-essential cmake pkg-config
  libace-dev libyajl-dev libboost-dev uuid-dev libssl-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev llvm
  libace-ssl-dev nginx openssl
  nodejs
  # Benchmarks only: the reference the round-trip benchmark compares with.
  libjsonrpccpp-dev
)

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# Some nodejs builds bring npm along; the Debian one needs the npm package.
command -v npm > /dev/null || missing+=(npm)

if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The interoperability test's client, pinned by tests/interop/package-lock.json;
# installed again only when the lock file is newer than the installation.
interop="$(dirname "$0")/../tests/interop"
if [ ! -f "$interop/node_modules/.package-lock.json" ] ||
   [ "$interop/package-lock.json" -nt "$interop/node_modules/.package-lock.json" ]; then
  (cd "$interop" && npm ci --no-audit --no-fund)
fi

# The HTTP tests' peers jayson and json-server, pinned by
# tests/http/node/package-lock.json; installed again only when the lock file
# is newer than the installation.
http_peers="$(dirname "$0")/../tests/http/node"
if [ ! -f "$http_peers/node_modules/.package-lock.json" ] ||
   [ "$http_peers/package-lock.json" -nt "$http_peers/node_modules/.package-lock.json" ]; then
  (cd "$http_peers" && npm ci --no-audit --no-fund)
fi
