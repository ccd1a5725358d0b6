#!/usr/bin/env bash
# Runs the example server and client against each other on 127.0.0.1 and
# checks what the client prints and that the server stops cleanly.
# Usage: server_client_test.sh SERVER CLIENT
set -euo pipefail

server=$1 client=$2
work=$(mktemp -d)
pid=
cleanup() {
  [ -z "$pid" ] || kill -KILL "$pid" 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# The server picks a free port and names it on its first line.
"$server" 127.0.0.1:0 > "$work/server.out" 2> "$work/server.err" &
pid=$!
address=
for _ in $(seq 200); do
  address=$(sed -n 's/^listening on //p' "$work/server.out")
  [ -n "$address" ] && break
  kill -0 "$pid" 2> /dev/null || break
  sleep 0.05
done
if [ -z "$address" ]; then
  echo "FAIL: the server did not listen"
  cat "$work/server.err"
  exit 1
fi
echo "server listening on $address"

expected='add [1, 2, 3.5] -> 6.5
divide [7, 2] -> 3.5
divide [1, 0] -> error 1 Division by zero [1,0]
add "x" -> error -32602 Invalid params "expected an array of numbers"
subscribe null -> true
publish {"headline": "hello"} -> true
news {"headline":"hello"}'
status=0
out=$(timeout 60 "$client" "$address" 2> "$work/client.err") || status=$?
echo "$out"
if [ "$status" -ne 0 ] || [ "$out" != "$expected" ]; then
  echo "FAIL: the client exited with $status; expected:"
  echo "$expected"
  cat "$work/client.err"
  exit 1
fi

# A bad address is refused with a line that says so.
if "$client" 127.0.0.1 > /dev/null 2> "$work/bad.err" || ! grep -q "bad address '127.0.0.1'" "$work/bad.err"; then
  echo "FAIL: the client took a bad address"
  cat "$work/bad.err"
  exit 1
fi

# A clean stop on SIGTERM: "stopped" and status 0.
kill -TERM "$pid"
status=0
for _ in $(seq 200); do
  kill -0 "$pid" 2> /dev/null || break
  sleep 0.05
done
if kill -0 "$pid" 2> /dev/null; then
  echo "FAIL: the server did not stop on SIGTERM"
  exit 1
fi
wait "$pid" || status=$?
pid=
if [ "$status" -ne 0 ] || [ "$(tail -n 1 "$work/server.out")" != stopped ]; then
  echo "FAIL: the server exited with $status after SIGTERM"
  cat "$work/server.out" "$work/server.err"
  exit 1
fi
echo "server stopped"
