#!/usr/bin/env bash
# Builds server_bench (Release) with jsonrpc-host, the example handlers, the
# epoll and ACE floors and, if Go is installed, the sourcegraph/jsonrpc2 echo
# server, then runs it. Usage: bench/server_bench.sh [BUILD_DIR] [server_bench options]
# (default BUILD_DIR: build-bench beside this folder's parent).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build-bench
if [[ $# -gt 0 && $1 != --* ]]; then
  build=$1
  shift
fi

cmake -S "$root" -B "$build" -DJSON_RPC_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j2 --target server_bench >/dev/null
echo "# built by: bench/server_bench.sh $build $*"
"$build/bin/server_bench" "$@"
