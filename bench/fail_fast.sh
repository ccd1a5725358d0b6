#!/usr/bin/env bash
# How fast failures reach a caller: the time from a host's SIGKILL (and
# SIGTERM, with no drain time) to the exit of a jsonrpc-call waiting for a
# long pool call (no answer, or -32001 "Server shutting down"), and
# the round trip of a call that the full pool refuses against that of an
# echo on the same connection.
# Usage: bench/fail_fast.sh [BUILD_DIR] (default: build; it must hold
# jsonrpc-host, jsonrpc-call and the example handler libraries). The refusal
# part needs python3 and is skipped without it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
work=$(mktemp -d)
trap 'kill -KILL $(jobs -p) 2> /dev/null; wait 2> /dev/null; rm -rf "$work"' EXIT
mkdir -p "$work/build" && ln -s "$build/lib" "$work/build/lib" && ln -s "$root/examples" "$work/examples"
cd "$work"

# start_host CONF: runs a host in the background, sets HOST and PORT.
start_host() {
  "$build/bin/jsonrpc-host" --listen 127.0.0.1:0 --svc-conf "$1" --drain-time 0 > host.out 2> host.err &
  HOST=$!
  PORT=
  for _ in $(seq 1 100); do
    PORT=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' host.out)
    [ -n "$PORT" ] && return 0
    sleep 0.1
  done
  echo "the host did not listen: $(cat host.err)" >&2
  exit 1
}

echo "== A host that ends during a call: time to the caller's exit (5 runs each)"
for signal in KILL TERM; do
  times=()
  for _ in 1 2 3 4 5; do
    start_host examples/svc.conf
    # The host's exit waits for the pool call, not the caller's.
    "$build/bin/jsonrpc-call" --timeout 60 "127.0.0.1:$PORT" pool.sleep 3000 > call.out 2> call.err &
    caller=$!
    sleep 0.5
    start=$(date +%s%N)
    kill "-$signal" "$HOST"
    status=0
    wait "$caller" || status=$?
    end=$(date +%s%N)
    wait "$HOST" 2> /dev/null || true
    # KILL: the connection's end (3); TERM: the drain's error answer (1).
    expected=3
    [ "$signal" = TERM ] && expected=1
    [ "$status" -eq "$expected" ] || echo "  the caller exited $status: $(tail -n 1 call.err)"
    times+=($(( (end - start) / 1000 )))
  done
  sorted=$(printf '%s\n' "${times[@]}" | sort -n | tr '\n' ' ')
  echo "SIG$signal: caller exits after (us, sorted): $sorted"
done

echo "== A call refused by the full pool, against an echo, on one connection"
if ! command -v python3 > /dev/null; then
  echo "skipped: no python3"
  exit 0
fi
# One worker and one queue place, both taken by long calls.
sed 's/-n 4 -h 16 -l 8/-n 1 -h 1 -l 1/' examples/svc.conf > small.conf
start_host small.conf
"$build/bin/jsonrpc-call" --timeout 60 "127.0.0.1:$PORT" pool.sleep 10000 > /dev/null 2>&1 &
sleep 0.3
"$build/bin/jsonrpc-call" --timeout 60 "127.0.0.1:$PORT" pool.sleep 10000 > /dev/null 2>&1 &
sleep 0.3
python3 - "$PORT" <<'PY'
import json, socket, statistics, sys, time
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
buf = b""
def call(i, method, params):
    global buf
    body = json.dumps({"jsonrpc": "2.0", "id": i, "method": method, "params": params}).encode()
    start = time.perf_counter()
    s.sendall(b"Content-Length: %d\r\n\r\n" % len(body) + body)
    while True:
        head = buf.find(b"\r\n\r\n")
        if head >= 0:
            n = int(buf[:head].split(b":")[1])
            if len(buf) >= head + 4 + n:
                message = json.loads(buf[head + 4:head + 4 + n])
                buf = buf[head + 4 + n:]
                return (time.perf_counter() - start) * 1e6, message
        chunk = s.recv(65536)
        if not chunk:
            sys.exit("the host closed the connection")
        buf += chunk
times = {"echo": [], "refused": []}
for i in range(400):
    us, _ = call(2 * i, "echo", [1])
    times["echo"].append(us)
    us, answer = call(2 * i + 1, "pool.sleep", 5)
    if answer.get("error", {}).get("code") != -32000:
        sys.exit("not refused: %s" % answer)
    times["refused"].append(us)
for name, v in times.items():
    v.sort()
    print("%-8s round trip p50 %.0f us, p90 %.0f us (400 calls)" % (name, statistics.median(v), v[int(len(v) * 0.9)]))
PY
