#!/usr/bin/env bash
# Builds the benchmarks in their own build directory and prints their
# figures. Usage: bench/run.sh [BUILD_DIR] (default: build-bench beside this
# folder's parent).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-bench}

cmake -S "$root" -B "$build" -DJSON_RPC_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j2 --target pool_bench >/dev/null

echo "== Pool handler against per-call thread and direct handlers =="
# Three runs of each; the summary takes their medians.
"$build/bin/pool_bench" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true

echo "== Forwarding and params filters: 256 MB with constant memory =="
# Peak resident memory of the proxy (forward), of the host with the
# sum.stream filter (filter) and of one without it (assembled), then the
# forward path's speed against YAJL parsing alone (medians of three runs).
cmake --build "$build" -j2 --target forward_bench >/dev/null
"$build/bin/forward_bench" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true

echo "== Round trips against libjson-rpc-cpp and raw floors =="
# In process, TCP and HTTP; skipped when libjson-rpc-cpp is not installed.
# Release, like the figures in the README; server threads pinned to CPU 1
# and client threads to CPU 0 (rpc_bench --no-pin leaves them to the
# scheduler); three runs of each, and the table takes their medians.
cmake -S "$root" -B "$build" -DJSON_RPC_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release >/dev/null
# (grep reads the whole list: an early exit would break the pipe.)
if cmake --build "$build" --target help | grep '^\.\.\. rpc_bench$' >/dev/null; then
  cmake --build "$build" -j2 --target rpc_bench >/dev/null
  "$build/bin/rpc_bench" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
else
  echo "skipped: libjson-rpc-cpp (libjsonrpccpp-dev) is not installed; scripts/setup.sh --bench installs it"
fi
