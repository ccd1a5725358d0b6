#!/usr/bin/env bash
# Installs what the project needs, and nothing that is already there.
#
#   scripts/setup.sh           the build: compiler, CMake, ACE, YAJL, Boost,
#                              OpenSSL (what scripts/main.sh needs)
#   scripts/setup.sh --tests   the build, and what the tests need: GoogleTest,
#                              clang for the fuzz target, nginx and openssl,
#                              Node.js with the test peers (scripts/test.sh)
#   scripts/setup.sh --bench   the build, and Google Benchmark with the
#                              benchmarks' peers: libjson-rpc-cpp for
#                              bench/run.sh, Go's sourcegraph/jsonrpc2 for
#                              bench/server_bench.sh
#
# The options may be combined. Safe to run again.
set -euo pipefail
cd "$(dirname "$0")/.."

tests=false bench=false
for arg in "$@"; do
  case $arg in
    --tests) tests=true ;;
    --bench) bench=true ;;
    -h|--help) sed -n '2,14p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "setup.sh: unknown option '$arg' (--tests, --bench)" >&2; exit 2 ;;
  esac
done

pkgs=(
  build-essential cmake pkg-config
  libace-dev libace-ssl-dev libyajl-dev libboost-dev uuid-dev libssl-dev
)
if $tests; then
  pkgs+=(libgtest-dev libgmock-dev clang libclang-rt-14-dev llvm nginx openssl nodejs)
fi
if $bench; then
  # The peers the round-trip and server benchmarks compare with.
  pkgs+=(libbenchmark-dev libjsonrpccpp-dev golang-go golang-github-sourcegraph-jsonrpc2-dev)
fi

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# Some nodejs builds bring npm along; the Debian one needs the npm package.
if $tests && ! command -v npm > /dev/null; then
  missing+=(npm)
fi

if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

$tests || exit 0

# The Node peers of the tests, each pinned by its package-lock.json and
# installed again only when the lock file is newer than the installation:
# the interoperability test's client (tests/interop), and the HTTP tests'
# servers jayson and json-server (tests/http/node).
for dir in tests/interop tests/http/node; do
  if [ ! -f "$dir/node_modules/.package-lock.json" ] ||
     [ "$dir/package-lock.json" -nt "$dir/node_modules/.package-lock.json" ]; then
    (cd "$dir" && npm ci --no-audit --no-fund)
  fi
done
