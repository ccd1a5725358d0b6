#!/usr/bin/env bash
# Sets up the machine, builds jsonrpc-cat into build/bin/ and runs it over
# the sample messages in examples/.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build --target jsonrpc-cat -j "${JOBS:-2}"

echo
echo "== build/bin/jsonrpc-cat --piece 1 < examples/messages.ndjson"
build/bin/jsonrpc-cat --piece 1 < examples/messages.ndjson

echo
echo "== build/bin/jsonrpc-cat < examples/refused.ndjson (refusals go to standard error)"
status=0
build/bin/jsonrpc-cat < examples/refused.ndjson 2>&1 || status=$?
echo "exit status $status (1: some messages were refused)"
[ "$status" -eq 1 ]
