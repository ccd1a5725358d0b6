#!/usr/bin/env bash
# The main job: installs the build's dependencies (scripts/setup.sh without
# --tests), builds into build/, and runs a short
# demonstration of jsonrpc-host serving the example handler libraries, with
# jsonrpc-call as its client: a call of each handler kind, a notification
# fan-out to two subscribers, a call refused under pool overload, and a
# clean stop. Ends with jsonrpc-cat reading messages in single bytes.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DJSON_RPC_BUILD_TESTS=OFF > /dev/null
cmake --build build -j "${JOBS:-2}"

host=build/bin/jsonrpc-host
call=build/bin/jsonrpc-call
work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -TERM "$p" 2> /dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

# start_host NAME SVC_CONF: a host on a free port; sets PORT.
start_host() {
  "$host" --listen 127.0.0.1:0 --svc-conf "$2" > "$work/$1.out" 2> "$work/$1.err" &
  pids+=($!)
  for _ in $(seq 1 100); do
    PORT=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/$1.out")
    [ -n "$PORT" ] && return 0
    sleep 0.1
  done
  cat "$work/$1.err"
  exit 1
}

show() {
  local line="\$ jsonrpc-call $*"
  [ ${#line} -le 100 ] || line="${line:0:96} ..."
  echo "$line"
  "$call" "$@" || echo "(exit status $?)"
}

echo
echo "== jsonrpc-host --svc-conf examples/svc.conf"
start_host main examples/svc.conf
main_pid=${pids[-1]}
addr=127.0.0.1:$PORT
echo "listening on $addr"
grep -m1 '^Loaded ' "$work/main.err"

echo
echo "== one call of each handler kind"
show "$addr" echo '{"direct":"handler"}'
show "$addr" slow.sleep 50
show "$addr" pool.sum '[1,2,3.5]'
seq -s, 1 100000 | sed 's/^/[/; s/$/]/' > "$work/numbers.json"
show "$addr" sum.stream @"$work/numbers.json"
show "$addr" no.such.method

echo
echo "== notification fan-out: two subscribers to 'news'"
for s in 1 2; do
  "$call" --count 1 "$addr" --subscribe news > "$work/sub$s.out" 2> "$work/sub$s.err" &
  sub[$s]=$!
done
for s in 1 2; do
  for _ in $(seq 1 100); do grep -q '"result"' "$work/sub$s.err" && break; sleep 0.1; done
done
show --notify "$addr" news '{"headline":"fan-out"}'
for s in 1 2; do
  wait "${sub[$s]}"
  echo "subscriber $s got: $(cat "$work/sub$s.out")"
done

echo
echo "== pool overload: 1 worker, room for 2 queued calls, 4 calls at once"
sed 's/-n 4 -h 16 -l 8/-n 1 -h 2 -l 1/' examples/svc.conf > "$work/small.conf"
start_host small "$work/small.conf"
small=127.0.0.1:$PORT
"$call" --timeout 20 "$small" pool.sleep 2000 > "$work/long.out" 2>&1 &
callers=($!)
sleep 0.5
for i in 1 2 3; do
  (rc=0; "$call" --timeout 4 "$small" pool.sleep 10 > "$work/short$i.out" 2>&1 || rc=$?; echo $rc > "$work/short$i.rc") &
  callers+=($!)
done
wait "${callers[@]}"
for i in 1 2 3; do echo "call $i: exit $(cat "$work/short$i.rc") $(cat "$work/short$i.out")"; done
echo "long call: $(cat "$work/long.out")"
echo "host log: $(grep -m1 'Failed to schedule task' "$work/small.err")"
echo "(a refused call is answered -32000 \"Server busy\" at once: exit 1)"

echo
echo "== clean stop (SIGTERM)"
for p in "${pids[@]}"; do kill -TERM "$p"; done
for p in "${pids[@]}"; do wait "$p"; done
pids=()
tail -n 1 "$work/main.err"

echo
echo "== jsonrpc-cat --piece 1 < examples/messages.ndjson"
build/bin/jsonrpc-cat --piece 1 < examples/messages.ndjson
