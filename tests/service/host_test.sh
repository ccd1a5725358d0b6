#!/usr/bin/env bash
# jsonrpc-host serving examples/svc.conf as it stands, from a directory laid
# out like the repository root after the build, and jsonrpc-call against it:
# each kind of handler, errors, both framings, a notification fan-out, a
# refused call under pool overload, the transport's options, a graceful
# stop that drains the calls in flight (and a second signal that cuts it
# short), and a clean stop. Before that, the host's own arguments and
# --check of a good and a broken configuration.
#
# Usage: host_test.sh HOST CALL LIB_DIR EXAMPLES_DIR WORK_DIR [SANITIZED]
# SANITIZED is 1 in a sanitizer build, where a host out of descriptors is
# not run: the sanitizers' own checks need descriptors too.
set -u
host=$1 call=$2 lib=$3 examples=$4 work=$5 sanitized=${6:-0}
rm -rf "$work" && mkdir -p "$work/build" && ln -s "$lib" "$work/build/lib" && ln -s "$examples" "$work/examples"
cd "$work" || exit 1

pids=()
fail() {
  echo "FAIL: $*"
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null; done
  exit 1
}

# start_host NAME ARGS...: runs a host (under the command in wrap, if
# any), sets PORT once it listens.
wrap=()
start_host() {
  local name=$1; shift
  "${wrap[@]}" "$host" --listen 127.0.0.1:0 "$@" > "$name.out" 2> "$name.err" &
  pids+=($!)
  for _ in $(seq 1 100); do
    PORT=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$name.out")
    [ -n "$PORT" ] && return 0
    sleep 0.1
  done
  fail "$name did not listen: $(cat "$name.err")"
}

# expect STATUS PATTERN ARGS...: one call, its exit status and its output.
expect() {
  local status=$1 pattern=$2; shift 2
  local out rc
  out=$("$call" "$@" 2>&1 < /dev/null); rc=$?
  [ "$rc" -eq "$status" ] || fail "jsonrpc-call $* exited $rc, not $status: $out"
  grep -qF -- "$pattern" <<< "$out" || fail "jsonrpc-call $* printed '$out', without '$pattern'"
}

# Arguments: help, and refusals that name what they refuse.
for h in -h --help; do
  out=$("$host" "$h" 2>&1) || fail "$h exited $?"
  for word in --listen --svc-conf --framing --max-message-size --max-in-flight --io-threads --drain-time \
              'Server shutting' --check --verbose 'Exit status' '  0  ' '  1  ' '  2  '; do
    grep -qF -- "$word" <<< "$out" || fail "$h does not list $word"
  done
done
while IFS='|' read -r args message; do
  read -ra argv <<< "$args"
  out=$("$host" "${argv[@]}" 2>&1 < /dev/null); rc=$?
  [ "$rc" -eq 2 ] || fail "jsonrpc-host $args exited $rc, not 2: $out"
  grep -qF -- "$message" <<< "$out" || fail "jsonrpc-host $args printed '$out', without '$message'"
done <<'ROWS'
--listen 127.0.0.1:0 --svc-conf examples/svc.conf --bogus|jsonrpc-host: unknown option '--bogus'
--listen 127.0.0.1:0 --svc-conf examples/svc.conf --framing lines|bad value 'lines' for --framing
--listen 127.0.0.1:0 --svc-conf examples/svc.conf --max-message-size -1|bad value '-1' for --max-message-size
--listen 127.0.0.1:0 --svc-conf examples/svc.conf --max-in-flight 1k|bad value '1k' for --max-in-flight
--listen 127.0.0.1:0 --svc-conf examples/svc.conf --io-threads 1025|bad value '1025' for --io-threads
--listen 127.0.0.1:0 --svc-conf examples/svc.conf --drain-time -1|bad value '-1' for --drain-time
--listen 127.0.0.1:0 --svc-conf examples/svc.conf --drain-time 86401|bad value '86401' for --drain-time
--listen 127.0.0.1:0 --svc-conf examples/svc.conf --drain-time|option '--drain-time' needs a value
--listen nowhere --svc-conf examples/svc.conf|bad value 'nowhere' for --listen
--listen unix:x.sock --svc-conf examples/svc.conf --unix-mode 7a|bad value '7a' for --unix-mode
--listen 127.0.0.1:0 --listen http://127.0.0.1:0 --svc-conf examples/svc.conf|http:// is not served yet
--listen 127.0.0.1:0?framing=lines --svc-conf examples/svc.conf|the framing is ndjson or content-length
--listen unix:x.sock --svc-conf examples/svc.conf --unix-mode 1000|bad value '1000' for --unix-mode
--svc-conf examples/svc.conf|--listen HOST:PORT is needed
--check|--svc-conf FILE is needed
--check --svc-conf examples/svc.conf stray|unexpected argument 'stray'
--check=1 --svc-conf examples/svc.conf|option '--check' takes no value
ROWS

# --check: what loaded, what failed, and a status to go with it.
summary='Loaded 7 methods, 1 params filter and 1 REST creator; 0 failures.'
"$host" --check --svc-conf examples/svc.conf > check.out 2> check.err || fail "--check of the examples exited $?: $(cat check.err)"
grep -qxF "$summary" check.err || fail "--check summary: $(cat check.err)"
grep -qF "Loaded JSON-RPC handler(uri='pool.sum'" check.err || fail "--check does not list what loaded: $(cat check.err)"
grep -qxF 'examples/svc.conf: loaded' check.out || fail "--check verdict: $(cat check.out)"
# One record names a factory its library lacks, one a library that isn't
# there, one has no method; the rest still load.
sed 's/"make_echo"/"make_nothing"/; s|libexample_handlers.so", "init": "make_subscribe"|libmissing.so", "init": "make_subscribe"|' \
  examples/conf/handlers.json > broken.json
echo '[{"dll": "build/lib/libexample_handlers.so", "init": "make_echo"},
       {"method": "echo.too", "dll": "build/lib/libexample_handlers.so", "init": "make_echo"}]' > keyless.json
sed 's|-j examples/conf/handlers.json|-j broken.json -j keyless.json|' examples/svc.conf > broken.conf
"$host" --check --svc-conf broken.conf > check.out 2> check.err; rc=$?
[ "$rc" -eq 1 ] || fail "--check of a broken configuration exited $rc: $(cat check.err)"
for line in "Unable to get symbol 'make_nothing'" "Unable to open dll 'build/lib/libmissing.so'" \
            "Configuration record without 'method' skipped" \
            'Loaded 6 methods, 1 params filter and 1 REST creator; 3 failures.'; do
  grep -qF "$line" check.err || fail "--check of a broken configuration does not say '$line': $(cat check.err)"
done
grep -qxF 'broken.conf: failed to load (see above)' check.out || fail "--check verdict: $(cat check.out)"
"$host" --check --svc-conf no-such.conf > check.out 2> check.err; rc=$?
[ "$rc" -eq 1 ] && grep -qF "Can't read service configuration file 'no-such.conf'" check.err ||
  fail "--check of a missing file exited $rc: $(cat check.err)"

start_host main --svc-conf examples/svc.conf
main_pid=${pids[-1]}
addr=127.0.0.1:$PORT

# One call a row: exit status | what the output holds | method | params.
while IFS='|' read -r status pattern method params; do
  expect "$status" "$pattern" "$addr" "$method" ${params:+"$params"}
done <<'ROWS'
0|"result":[1,"a",{"b":null}]}|echo|[1,"a",{"b":null}]
0|"result":null}|echo|
1|"code":-32601|no.such.method|
2|not one JSON document|echo|[1,
0|"result":6.5}|pool.sum|[1,2,3.5]
0|"result":-1}|pool.sum|[9223372036854775807,-9223372036854775807,-1]
0|"result":0}|pool.sum|[]
1|"data":"element 1 is not a number"|pool.sum|[1,"2"]
1|"data":"params must be an array of numbers"|pool.sum|3
0|"result":2}|pool.sleep|2
0|"result":10}|slow.sleep|10
0|"result":0}|slow.sleep|[0]
1|"data":"params must be a whole number of milliseconds from 0 to 10000"|slow.sleep|10001
1|"data":"params must be a whole number of milliseconds from 0 to 10000"|slow.sleep|-1
1|"data":"params must be a whole number of milliseconds from 0 to 10000"|slow.sleep|"x"
1|"data":"params must be a subject or an array of subjects"|subscribe|5
1|"data":"params must be a subject or an array of subjects"|subscribe|[]
1|"data":"params must be a subject or an array of subjects"|unsubscribe|[1]
0|"result":0.5}|sum.stream|[1, 2.5, -3]
0|"result":0}|sum.stream|[]
0|"result":9223372036854775808.0}|sum.stream|[9223372036854775807, 1]
1|"data":"element 1 is not a number"|sum.stream|[1,[2],3]
1|"data":"element 2 is not a number"|sum.stream|[1, 2, {"a": [1]}, "x"]
1|"data":"element 0 is not a number"|sum.stream|[null]
1|"data":"params must be an array of numbers"|sum.stream|{"a": 1}
1|"data":"params must be an array of numbers"|sum.stream|7
ROWS
expect 0 '"result":200010000' "$addr" sum.stream "[$(seq -s, 1 20000)]"
expect 0 '' --notify "$addr" echo '"nobody answers this"'

# Fan-out: two subscribers get one notification each.
for s in 1 2; do
  "$call" --count 1 "$addr" --subscribe news sport > "sub$s.out" 2> "sub$s.err" &
  sub[$s]=$!
done
for s in 1 2; do
  for _ in $(seq 1 100); do grep -q '"result"' "sub$s.err" && break; sleep 0.1; done
  grep -q '"result":\["news","sport"\]' "sub$s.err" || fail "subscriber $s: $(cat "sub$s.err")"
done
expect 0 '' --notify "$addr" weather '"not subscribed"'
expect 0 '' --notify "$addr" news '{"headline":"fan-out"}'
for s in 1 2; do
  wait "${sub[$s]}" || fail "subscriber $s exited $?"
  [ "$(cat "sub$s.out")" = '{"jsonrpc":"2.0","method":"news","params":{"headline":"fan-out"}}' ] ||
    fail "subscriber $s printed: $(cat "sub$s.out")"
done

# NDJSON framing, on a host of its own that logs each call (-v).
start_host ndjson --svc-conf examples/svc.conf --framing ndjson -v
expect 0 '"result":"lines"' --framing ndjson "127.0.0.1:$PORT" echo '"lines"'
for _ in $(seq 1 50); do grep -q "called JSON-RPC 'echo'" ndjson.err && break; sleep 0.1; done
grep -q "^Channel(type: 0) 127\.0\.0\.1:[0-9]*(127\.0\.0\.1:[0-9]*) called JSON-RPC 'echo'\.$" ndjson.err || fail "-v does not log the call: $(cat ndjson.err)"
# The transport hands params to the filter as they stream in: a number
# that no value can hold, which the reader would refuse in a tree, is the
# filter's to judge.
# With params ahead of the method no filter runs; the handler sums itself.
exec 3<> "/dev/tcp/127.0.0.1/$PORT" || fail "no raw connection"
printf '{"jsonrpc":"2.0","id":1,"method":"sum.stream","params":[1,1e400]}\n{"id":2,"params":[1,2,3],"method":"sum.stream"}\n' >&3
read -r -t 10 answer <&3
read -r -t 10 second <&3
exec 3>&-
[ "$answer" = '{"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"Invalid params","data":"element 1 is not a number"}}' ] ||
  fail "filtered params: $answer"
[ "$second" = '{"jsonrpc":"","id":2,"result":6}' ] || fail "params ahead of the method: $second"
kill -TERM "${pids[-1]}" && wait "${pids[-1]}" || fail "the NDJSON host did not stop cleanly"

# Overload: one worker and room for two waiting calls. With the worker held
# by a long call, of three more calls one is refused at once with -32000
# "Server busy", while the host goes on reading.
sed 's/-n 4 -h 16 -l 8/-n 1 -h 2 -l 1/' examples/svc.conf > small-pool.conf
start_host small --svc-conf small-pool.conf
"$call" --timeout 20 "127.0.0.1:$PORT" pool.sleep 3000 > long.out 2>&1 &
long=$!
sleep 0.5
callers=()
for i in 1 2 3; do
  ("$call" --timeout 6 "127.0.0.1:$PORT" pool.sleep 10 > "short$i.out" 2>&1; echo $? > "short$i.rc") &
  callers+=($!)
done
sleep 0.5
expect 0 '"result":"still reading"' "127.0.0.1:$PORT" echo '"still reading"'
# The refused caller has its answer before the long call ends.
for _ in $(seq 1 20); do [ "$(cat short*.rc 2> /dev/null | grep -cx 1)" -eq 1 ] && break; sleep 0.1; done
kill -0 "$long" 2> /dev/null || fail "the refusal came only after the long call"
wait "${callers[@]}"
wait "$long" || fail "the long call: $(cat long.out)"
refused=$(grep -lx 1 short*.rc | sed 's/rc$/out/' | xargs -r grep -l '"code":-32000,"message":"Server busy"' | wc -l)
answered=$(grep -lx 0 short*.rc | wc -l)
lines=$(grep -c "^JSON-RPC 'pool.sleep' by 127.0.0.1:[0-9]* refused: " small.err)
[ "$refused" -eq 1 ] && [ "$answered" -eq 2 ] && [ "$lines" -eq 1 ] ||
  fail "overload: $answered answered, $refused refused, $lines refusal lines"
kill -TERM "${pids[-1]}" && wait "${pids[-1]}" || fail "the small host did not stop cleanly"

# A host killed during a call: its caller fails at once (exit 3), long
# before its own limit of 120 s or the call's 10 s.
start_host doomed --svc-conf examples/svc.conf
"$call" --timeout 120 "127.0.0.1:$PORT" pool.sleep 10000 > doomed.call 2>&1 &
doomed_call=$!
sleep 0.5
kill -KILL "${pids[-1]}"
wait "${pids[-1]}" 2> /dev/null
for _ in $(seq 1 50); do kill -0 "$doomed_call" 2> /dev/null || break; sleep 0.1; done
kill -0 "$doomed_call" 2> /dev/null && fail "the caller still waits 5 s after its host was killed"
wait "$doomed_call"
rc=$?
[ "$rc" -eq 3 ] || fail "the caller of a killed host exited $rc: $(cat doomed.call)"
unset 'pids[-1]'

# answered_soon: an echo call to the last host is answered within a bounded
# number of tries.
answered_soon() {
  for _ in $(seq 1 50); do
    "$call" --timeout 5 "127.0.0.1:$PORT" echo 1 > /dev/null 2>&1 && return 0
    sleep 0.2
  done
  return 1
}

# Descriptors: the host raises its soft limit to the hard one. Out of
# descriptors, accepting pauses with one line for the spell, and resumes
# when connections end.
if command -v prlimit > /dev/null; then
  wrap=(prlimit --nofile=64:256)
  start_host raised --svc-conf examples/svc.conf
  grep -q '^Max open files *256 *256 ' "/proc/${pids[-1]}/limits" ||
    fail "the soft limit was not raised: $(grep 'open files' "/proc/${pids[-1]}/limits")"
  kill -TERM "${pids[-1]}" && wait "${pids[-1]}" || fail "the raised host did not stop cleanly"
fi
if command -v prlimit > /dev/null && [ "$sanitized" != 1 ]; then
  wrap=(prlimit --nofile=40:40)
  start_host few --svc-conf examples/svc.conf
  wrap=()
  held=()
  for _ in $(seq 1 50); do
    exec {fd}<> "/dev/tcp/127.0.0.1/$PORT" && held+=("$fd")
  done
  sleep 1.5
  pauses=$(grep -c 'accepting pauses until connections end' few.err)
  [ "$pauses" -eq 1 ] || fail "out of descriptors: $pauses lines, not one: $(tail -n 5 few.err)"
  for fd in "${held[@]}"; do exec {fd}>&-; done
  answered_soon || fail "no call answered once the descriptors were free"
  kill -TERM "${pids[-1]}" && wait "${pids[-1]}" || fail "the host with few descriptors did not stop cleanly"
fi

# A connection past --max-connections is closed at once, with a line; once
# one ends, the next is taken.
start_host capped --svc-conf examples/svc.conf --max-connections 2
exec {one}<> "/dev/tcp/127.0.0.1/$PORT" && exec {two}<> "/dev/tcp/127.0.0.1/$PORT" || fail "no raw connections"
sleep 0.5
expect 3 'the connection closed' "127.0.0.1:$PORT" echo 1
grep -q 'refused: 2 open, the most allowed\.$' capped.err || fail "no refusal line: $(tail -n 3 capped.err)"
exec {one}>&-
answered_soon || fail "no call answered under the cap once a connection ended"
exec {two}>&-
kill -TERM "${pids[-1]}" && wait "${pids[-1]}" || fail "the capped host did not stop cleanly"

# --io-threads: the I/O threads, by name, once they have all started.
start_host threads --svc-conf examples/svc.conf --io-threads 3
for _ in $(seq 1 50); do
  io=$(cat /proc/"${pids[-1]}"/task/*/comm 2> /dev/null | grep -cx tcp-io)
  [ "$io" -ge 3 ] && break
  sleep 0.1
done
[ "$io" -eq 3 ] || fail "--io-threads 3 runs $io I/O threads"
kill -TERM "${pids[-1]}" && wait "${pids[-1]}" || fail "the host with 3 I/O threads did not stop cleanly"

# --max-in-flight 1: a connection's second request is read only once its
# first is answered, so a short sleep sent behind a long one starts, and
# ends, after it (without the cap the short one ends first). The transport
# lets the next request in as the answer starts to go out, so an echo
# there could still overtake it.
start_host one-in-flight --svc-conf examples/svc.conf --framing ndjson --max-in-flight 1
exec {raw}<> "/dev/tcp/127.0.0.1/$PORT" || fail "no raw connection"
printf '{"jsonrpc":"2.0","id":1,"method":"slow.sleep","params":300}\n{"jsonrpc":"2.0","id":2,"method":"slow.sleep","params":50}\n' >&$raw
read -r -t 10 first <&$raw
read -r -t 10 second <&$raw
exec {raw}>&-
[ "$first" = '{"jsonrpc":"2.0","id":1,"result":300}' ] && [ "$second" = '{"jsonrpc":"2.0","id":2,"result":50}' ] ||
  fail "--max-in-flight 1 answered '$first' then '$second'"
kill -TERM "${pids[-1]}" && wait "${pids[-1]}" || fail "the host with one request in flight did not stop cleanly"

# in_flight LOG N: waits until the host logging to LOG (with -v) has
# dispatched N calls of slow.sleep or pool.sleep.
in_flight() {
  for _ in $(seq 1 100); do
    [ "$(grep -cE "called JSON-RPC '(slow|pool)\.sleep'" "$1")" -ge "$2" ] && return 0
    sleep 0.1
  done
  fail "$2 calls are not in flight: $(tail -n 5 "$1")"
}
# stopped_soon PID: the host exits with status 0 within 8 s of the signal.
stopped_soon() {
  for _ in $(seq 1 80); do kill -0 "$1" 2> /dev/null || break; sleep 0.1; done
  kill -0 "$1" 2> /dev/null && fail "the host $1 still runs 8 s after the signal"
  wait "$1" || fail "the host $1 exited $? after the signal"
}
# The long calls below run on the pool: the host waits for its workers
# before it unloads the handlers. A call on a thread of its own would still
# run in a handler that is being unloaded.

# Drain: on SIGTERM the host answers the call that ends within --drain-time,
# answers the one that would not with -32001, and exits once its pool is
# done.
start_host draining --svc-conf examples/svc.conf --drain-time 2 -v
draining=${pids[-1]}
"$call" --timeout 30 "127.0.0.1:$PORT" slow.sleep 500 > short.call 2>&1 &
short=$!
"$call" --timeout 30 "127.0.0.1:$PORT" pool.sleep 5000 > long.call 2>&1 &
long=$!
in_flight draining.err 2
kill -TERM "$draining"
for _ in $(seq 1 50); do grep -q '^Stopping on signal 15: draining for up to 2 s\.$' draining.err && break; sleep 0.1; done
grep -q '^Stopping on signal 15: draining for up to 2 s\.$' draining.err || fail "no drain line: $(tail -n 3 draining.err)"
stopped_soon "$draining"
wait "$short" || fail "the call that ends within the drain exited $?: $(cat short.call)"
grep -qF '"result":500}' short.call || fail "the call that ends within the drain printed: $(cat short.call)"
wait "$long"
rc=$?
[ "$rc" -eq 1 ] && grep -qF '"error":{"code":-32001,"message":"Server shutting down"}' long.call ||
  fail "the call left at the end of the drain exited $rc: $(cat long.call)"
grep -q '^TCP: 1 request(s) not answered within the drain time' draining.err && grep -q '^Stopped\.$' draining.err ||
  fail "the drain's log: $(cat draining.err)"
unset 'pids[-1]'

# During a drain a new connection is refused (or, taken just before the
# listener closed, never read); a second signal closes the connections at
# once, leaving the call unanswered. That call ending without an answer
# shows that the drain still ran when the new connection was tried: without
# the cut the drain would have waited for the call and answered it.
start_host cut --svc-conf examples/svc.conf --drain-time 60 -v
cut=${pids[-1]}
"$call" --timeout 30 "127.0.0.1:$PORT" pool.sleep 6000 > cut.call 2>&1 &
cut_call=$!
in_flight cut.err 1
kill -TERM "$cut"
for _ in $(seq 1 50); do grep -q '^Stopping on signal 15: draining' cut.err && break; sleep 0.1; done
expect 3 '' --timeout 2 "127.0.0.1:$PORT" echo 1
kill -INT "$cut"
stopped_soon "$cut"
wait "$cut_call"
rc=$?
[ "$rc" -eq 3 ] && grep -qF 'the connection closed' cut.call || fail "the call of a cut drain exited $rc: $(cat cut.call)"
grep -q '^Signal 2: closing every connection now\.$' cut.err || fail "no line for the second signal: $(cat cut.err)"
unset 'pids[-1]'

# A Unix domain socket: its file takes --unix-mode, jsonrpc-call reaches it,
# the stale file of a killed host is replaced, and the file goes with the
# host that stops.
sock="$PWD/host.sock"
start_unix() {
  "$host" --listen "unix:$sock" "$@" --svc-conf examples/svc.conf > unix.out 2> unix.err &
  unix_host=$!
  for _ in $(seq 1 100); do grep -q "^listening on unix:$sock\$" unix.out && return 0; sleep 0.1; done
  fail "no Unix listener: $(cat unix.err)"
}
start_unix
kill -KILL "$unix_host"
wait "$unix_host" 2> /dev/null
[ -S "$sock" ] || fail "the killed host left no socket file"
start_unix --unix-mode 600
[ "$(stat -c %a "$sock")" = 600 ] || fail "the socket file has mode $(stat -c %a "$sock"), not 600"
expect 0 '"result":[1,"unix"]' "unix:$sock" echo '[1, "unix"]'
kill -TERM "$unix_host"
wait "$unix_host" || fail "the Unix host exited $?: $(cat unix.err)"
[ ! -e "$sock" ] || fail "the socket file outlived the host"

# Several listeners at once, each with its framing: TCP with the default
# one, a Unix socket and TCP with NDJSON; each answers in its own.
"$host" --listen 127.0.0.1:0 --listen "unix:$sock?framing=ndjson" --listen "tcp://127.0.0.1:0?framing=ndjson" \
  --svc-conf examples/svc.conf > many.out 2> many.err &
many_host=$!
for _ in $(seq 1 100); do [ "$(grep -c '^listening on ' many.out)" -eq 3 ] && break; sleep 0.1; done
[ "$(grep -c '^listening on ' many.out)" -eq 3 ] || fail "not three listeners: $(cat many.out many.err)"
mapfile -t many < <(sed -n 's/^listening on //p' many.out)
[ "${many[1]}" = "unix:$sock" ] || fail "the second listener is ${many[1]}"
expect 0 '"result":"cl"' "${many[0]}" echo '"cl"'
expect 0 '"result":"nd1"' --framing ndjson "${many[1]}" echo '"nd1"'
expect 0 '"result":"nd2"' --framing ndjson "${many[2]}" echo '"nd2"'
kill -TERM "$many_host"
wait "$many_host" || fail "the host of several listeners exited $?: $(cat many.err)"
[ ! -e "$sock" ] || fail "the socket file outlived the host of several listeners"

# Clean stop of the main host.
kill -TERM "$main_pid"
wait "$main_pid" || fail "the host exited $? on SIGTERM: $(cat main.err)"
grep -q '^Stopped\.$' main.err || fail "no stop line: $(cat main.err)"
# Without -v the log has the summary, and no line for each connection or call.
grep -qxF "$summary" main.err || fail "no summary line: $(cat main.err)"
if grep -E 'is registered|called JSON-RPC|^Loaded JSON' main.err; then fail "the host logged per call without -v"; fi
if grep -E 'Unexpected error|handelr|Unable to' main.err; then fail "the host logged faults"; fi
echo "jsonrpc-host: $(( ${#pids[@]} )) hosts, all checks passed"
