#!/usr/bin/env bash
# jsonrpc-call against real servers on loopback: jsonrpc-host over TCP,
# jayson (JSON-RPC over HTTP), json-server (REST), nginx with TLS, and a
# scripted server for answers that break off; its output and exit status in
# each case, its argument errors, and its memory with a large params file.
#
# Usage: jsonrpc_call_test.sh CALL HOST LIB_DIR EXAMPLES_DIR NODE_PEERS_DIR WORK_DIR SANITIZED
# SANITIZED is 1 in a sanitizer build: memory figures are not checked there
# and the large params are smaller.
set -u
call=$1 host=$2 lib=$3 examples=$4 peers=$5 work=$6 sanitized=$7
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$work" && mkdir -p "$work/build" && ln -s "$lib" "$work/build/lib" && ln -s "$examples" "$work/examples"
cd "$work" || exit 1

source "$here/test_check.sh"
pids=() hosts=()
cleanup() { for p in "${pids[@]}"; do kill -TERM "$p" 2> /dev/null; done; }
trap cleanup EXIT
show_failure() {
  [ -f out ] && echo "  stdout: $(head -c 600 out)"
  [ -f err ] && echo "  stderr: $(head -c 600 err)"
}
abort() { echo "FAIL: $*"; exit 1; }
# run ARGS...: jsonrpc-call with stdout in out, stderr in err, status in rc.
run() { "$call" "$@" > out 2> err < /dev/null; rc=$?; }
# expect NAME STATUS STDOUT_PATTERN ARGS...: one run, its status, and a
# pattern its standard output holds ("" for an empty output).
expect() {
  local name=$1 status=$2 pattern=$3
  shift 3
  run "$@"
  check "$name: exit $status (got $rc)" test "$rc" -eq "$status"
  if [ -z "$pattern" ]; then
    check "$name: nothing on standard output" test ! -s out
  else
    check "$name: output holds $pattern" grep -qF -- "$pattern" out
  fi
}
said() { grep -qF -- "$1" err; }

# wait_port FILE PREFIX: the port a server printed after PREFIX, bounded.
wait_port() {
  local port=""
  for _ in $(seq 1 150); do
    port=$(sed -n "s/^$2\([0-9]*\)\$/\1/p" "$1" 2> /dev/null | head -n 1)
    [ -n "$port" ] && break
    sleep 0.1
  done
  echo "$port"
}
# start_node NAME SCRIPT: a Node server that ends when this script does
# (its standard input closes); sets PORT.
start_node() {
  local fd
  exec {fd}> >(exec node "$2" > "$1.out" 2> "$1.err")
  PORT=$(wait_port "$1.out" 'PORT ')
  [ -n "$PORT" ] || abort "$1 did not start: $(cat "$1.err") (are node and $peers/node_modules installed? scripts/setup.sh --tests)"
}
# start_host NAME ARGS...: jsonrpc-host on a free port; sets PORT.
start_host() {
  local name=$1
  shift
  "$host" --listen 127.0.0.1:0 "$@" > "$name.out" 2> "$name.err" &
  pids+=($!)
  hosts+=($!)
  PORT=$(wait_port "$name.out" 'listening on 127\.0\.0\.1:')
  [ -n "$PORT" ] || abort "$name did not listen: $(cat "$name.err")"
}

# ---------------------------------------------------------------- arguments
for h in -h --help; do
  run "$h"
  check "$h: exit 0" test "$rc" -eq 0
  for word in --framing --timeout --connect-timeout --notify --subscribe --count --subscribe-method --rest \
              --cacert --insecure --peak-rss @FILE 'Exit status' '  0  ' '  1  ' '  2  ' '  3  '; do
    check "$h lists $word" grep -qF -- "$word" out
  done
done
# One row a case: the arguments, then what the message must say.
while IFS='|' read -r args message; do
  read -ra argv <<< "$args"
  run "${argv[@]}"
  check "'$args': exit 2 (got $rc)" test "$rc" -eq 2
  check "'$args': says $message" said "$message"
  check "'$args': sends nothing" test ! -s out
done <<'ROWS'
--x 127.0.0.1:1 echo|jsonrpc-call: unknown option '--x'
-q 127.0.0.1:1 echo|jsonrpc-call: unknown option '-q'
--timeout abc 127.0.0.1:1 echo|bad value 'abc' for --timeout
--timeout=0 127.0.0.1:1 echo|bad value '0' for --timeout
--connect-timeout -5 127.0.0.1:1 echo|bad value '-5' for --connect-timeout
--count x 127.0.0.1:1 --subscribe a|bad value 'x' for --count
--framing lines 127.0.0.1:1 echo|bad value 'lines' for --framing
--rest PATCH http://127.0.0.1:1/x|bad value 'PATCH' for --rest
--rest GET http://127.0.0.1:1/x {}|--rest GET takes no BODY
--notify=yes 127.0.0.1:1 echo|option '--notify' takes no value
127.0.0.1:1 echo [1] extra|unexpected argument 'extra'
127.0.0.1:1|no METHOD given
--timeout|option '--timeout' needs a value
no-port echo|bad address 'no-port'
--rest GET 127.0.0.1:1/x|--rest wants an http:// or https:// URL
--insecure http://127.0.0.1:1/ echo|--insecure is for https:// URLs
--cacert c.pem http://127.0.0.1:1/ echo|--cacert is for https:// URLs
127.0.0.1:1 echo [1,|PARAMS '[1,': not one JSON document
127.0.0.1:1 echo @no-such-file|no-such-file: can't read it: No such file or directory
ROWS

# ---------------------------------------------------------------- TCP
start_host main --svc-conf examples/svc.conf
addr=127.0.0.1:$PORT
printf '[1, 2.5,\n -3]' > small.json
expect "params from a file" 0 '"result":0.5}' "$addr" sum.stream @small.json
"$call" "$addr" sum.stream - < small.json > out 2> err; rc=$?
check "params from standard input: exit 0" test "$rc" -eq 0
check "params from standard input: result" grep -qF '"result":0.5}' out
printf '[1, 2,' > cut.json
expect "a cut-off params file" 2 '' "$addr" sum.stream @cut.json
check "a cut-off params file: named" said "cut.json: not one JSON document: parse error: premature EOF"
printf '[1] [2]' | "$call" "$addr" echo - > out 2> err; rc=$?
check "two documents on standard input: exit 2" test "$rc" -eq 2
check "two documents on standard input: named" said "standard input: not one JSON document"
: | "$call" "$addr" echo - > out 2> err; rc=$?
check "empty standard input: exit 2" test "$rc" -eq 2
check "empty standard input: named" said "standard input: not one JSON document: parse error: premature EOF"
{ printf '%.0s[' $(seq 1 200); printf '%.0s]' $(seq 1 200); } > deep.json
expect "params nested 200 deep" 2 '' "$addr" echo @deep.json
check "params nested 200 deep: named" said "deep.json: not one JSON document: nested deeper than a message may be"
# The host is still there after the refused sends.
expect "echo after refused params" 0 '"result":"still here"' "$addr" echo '"still here"'
# With content-length framing the transport holds the request to learn its
# length: a file beyond 64 MiB is refused before anything is sent.
truncate -s 65M sparse.json
expect "content-length refuses a large file" 2 '' "$addr" echo @sparse.json
check "content-length refusal names ndjson" said "use --framing ndjson"
# Params longer than a command line may be (about 229 KB).
seq -s, 1 40000 | sed 's/^/[/; s/$/]/' | tr -d '\n' > numbers.json
expect "229 KB of params from a file" 0 '"result":800020000}' "$addr" sum.stream @numbers.json
expect "notify with params from a file" 0 '' --notify "$addr" echo @small.json
expect "unknown method" 1 '"code":-32601' "$addr" no.such.method
# A call ends with its connection, its time limit or a signal, whichever
# comes first; only the answer goes to standard output.
expect "framing the host refuses" 3 '' --timeout 30 --framing ndjson "$addr" echo '[1]'
check "framing the host refuses: said so" said "no answer to 'echo': the connection closed"
expect "no answer in time" 3 '' --timeout 1 "$addr" slow.sleep 3000
check "no answer in time: said so" said "no answer to 'slow.sleep' within 1 s"
"$call" "$addr" slow.sleep 5000 > out 2> err &
caller=$!
# Once SIGTERM is blocked (bit 15 of SigBlk), it comes to the caller's wait.
for _ in $(seq 1 100); do
  mask=$(sed -n 's/^SigBlk:\s*//p' "/proc/$caller/status" 2> /dev/null)
  [ -n "$mask" ] && (( 0x$mask & 0x4000 )) && break
  sleep 0.05
done
kill -TERM "$caller"
wait "$caller"
rc=$?
check "a call stopped by SIGTERM: exit 3 (got $rc)" test "$rc" -eq 3
check "a call stopped by SIGTERM: said so" said "no answer to 'slow.sleep': stopped by signal 15"

# A large params file streams over NDJSON framing while the host's params
# filter sums it: the client's peak memory stays far below the file's size.
start_host ndjson --svc-conf examples/svc.conf --framing ndjson
if [ "$sanitized" = 1 ]; then mb=4; else mb=64; fi
count=$((mb * 1024 * 1024 / 2))
{ printf '['; yes '1,' | head -n $((count - 1)) | tr -d '\n'; printf '1]'; } > big.json
"$call" --peak-rss --framing ndjson "127.0.0.1:$PORT" sum.stream @big.json > out 2> err; rc=$?
check "$mb MB params over NDJSON: exit 0" test "$rc" -eq 0
check "$mb MB params over NDJSON: the host summed all $count" grep -qF "\"result\":$count}" out
rss=$(sed -n 's/^jsonrpc-call: peak RSS \([0-9]*\) KiB$/\1/p' err)
check "$mb MB params over NDJSON: peak RSS reported" test -n "$rss"
echo "jsonrpc-call, $mb MB params over TCP/NDJSON: peak RSS ${rss:-?} KiB"
if [ "$sanitized" != 1 ]; then
  check "$mb MB params over NDJSON: peak RSS ${rss:-?} KiB below 32 MiB" test "${rss:-999999}" -lt 32768
fi

# ---------------------------------------------------------------- HTTP
start_node jayson "$peers/jayson_server.js"
rpc=http://127.0.0.1:$PORT/
expect "HTTP call" 0 '"result":3' "$rpc" add '[1,2]'
check "HTTP call: status on standard error" said "HTTP status 200"
expect "HTTP error response" 1 '"code":-32000' "$rpc" fail '[1]'
expect "HTTP notify answered 204" 0 '' --notify "$rpc" add '[1,2]'
check "HTTP notify: status 204" said "HTTP status 204"
expect "HTTP params from a file" 0 '"items":40000' "$rpc" measure @numbers.json
"$call" "$rpc" measure - < numbers.json > out 2> err; rc=$?
check "HTTP params from standard input: exit 0" test "$rc" -eq 0
check "HTTP params from standard input: all items" grep -qF '"items":40000' out

start_node answers "$here/http_answers.js"
answers=http://127.0.0.1:$PORT
expect "notify answered 204" 0 '' --notify "$answers/204" ping
expect "notify answered with an empty 200" 0 '' --notify "$answers/empty" ping
expect "notify answered 404" 1 '' --notify "$answers/html-404" ping
expect "call answered 204" 3 '' "$answers/204" ping
expect "call cut off" 3 '' "$answers/cut" ping
check "call cut off: said so" said "the exchange failed: the answer broke off"
expect "call cut off (chunked)" 3 '' "$answers/cut-chunked" ping
expect "call answered with bad JSON" 3 '' "$answers/bad-json" ping
expect "call answered text/html" 3 '' "$answers/html-200" ping
expect "call without an answer in time" 3 '' --timeout 1 "$answers/silent" ping
check "call without an answer in time: said so" said "no answer within 1 s"
# The request body is chunked and carries the params whole.
"$call" --peak-rss "$answers/count" load @big.json > out 2> err; rc=$?
size=$(stat -c %s big.json)
check "$mb MB params over HTTP: exit 0" test "$rc" -eq 0
check "$mb MB params over HTTP: chunked" grep -qF '"chunked":true,"ends":"}"' out
check "$mb MB params over HTTP: all $size bytes" grep -qF "\"params_bytes\":$size}" out
rss=$(sed -n 's/^jsonrpc-call: peak RSS \([0-9]*\) KiB$/\1/p' err)
echo "jsonrpc-call, $mb MB params over HTTP: peak RSS ${rss:-?} KiB"
if [ "$sanitized" != 1 ]; then
  check "$mb MB params over HTTP: peak RSS ${rss:-?} KiB below 32 MiB" test "${rss:-999999}" -lt 32768
fi

# ---------------------------------------------------------------- REST
start_node rest "$peers/rest_server.js"
rest=http://127.0.0.1:$PORT
expect "REST GET" 0 '{"id":1,"name":"first","tags":["a","b"]}' --rest GET "$rest/items/1"
expect "REST GET of nothing" 1 '{}' --rest GET "$rest/items/99"
check "REST GET of nothing: status" said "HTTP status 404"
printf '{"name":"from stdin"}' | "$call" --rest POST "$rest/items" - > out 2> err; rc=$?
check "REST POST from standard input: exit 0" test "$rc" -eq 0
check "REST POST from standard input: created" grep -qF '"name":"from stdin"' out
printf '{"name":"from a file"}' > item.json
expect "REST PUT from a file" 0 '{"id":2,"name":"from a file"}' --rest PUT "$rest/items/2" @item.json
expect "REST DELETE" 0 '{}' --rest DELETE "$rest/items/2"
expect "REST refused connection" 3 '' --rest GET "http://127.0.0.1:1/items"
check "REST refused connection: said so" said "the exchange failed: no connection: Connection refused"
expect "REST cut off" 3 '' --rest GET "$answers/cut"
expect "REST cut off (chunked)" 3 '' --rest GET "$answers/cut-chunked"
expect "REST 404 with an HTML body" 1 '' --rest GET "$answers/html-404"
check "REST 404 with an HTML body: not shown" said "the text/html body is not shown"
expect "REST 204" 0 '' --rest DELETE "$answers/204"

# ---------------------------------------------------------------- TLS
for name in server other; do
  openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost \
    -addext subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout "$name.key" -out "$name.pem" > /dev/null 2>&1 ||
    abort "openssl could not make a certificate"
done
mkdir -p www tmp && printf '{"tls":true}' > www/doc.json
nginx_port=""
for _ in 1 2 3; do
  port=$(node -e "const s=require('net').createServer().listen(0,'127.0.0.1',()=>{console.log(s.address().port);s.close()})")
  cat > nginx.conf <<EOF
daemon off;
master_process off;
worker_processes 1;
error_log $work/nginx.err warn;
pid $work/nginx.pid;
events { worker_connections 16; }
http {
  access_log off;
  client_body_temp_path $work/tmp/body;
  proxy_temp_path $work/tmp/proxy;
  fastcgi_temp_path $work/tmp/fastcgi;
  uwsgi_temp_path $work/tmp/uwsgi;
  scgi_temp_path $work/tmp/scgi;
  types { application/json json; }
  server {
    listen 127.0.0.1:$port ssl;
    ssl_certificate $work/server.pem;
    ssl_certificate_key $work/server.key;
    location / { root $work/www; }
  }
}
EOF
  nginx -p "$work" -e "$work/nginx.err" -c "$work/nginx.conf" &
  pids+=($!)
  for _ in $(seq 1 50); do
    (exec 3<> "/dev/tcp/127.0.0.1/$port") 2> /dev/null && { nginx_port=$port; break; }
    sleep 0.1
  done
  [ -n "$nginx_port" ] && break
done
[ -n "$nginx_port" ] || abort "nginx did not start: $(cat nginx.err 2> /dev/null)"
tls=https://127.0.0.1:$nginx_port
expect "TLS with --cacert" 0 '{"tls":true}' --cacert server.pem --rest GET "$tls/doc.json"
expect "TLS with --insecure" 0 '{"tls":true}' --insecure --rest GET "$tls/doc.json"
expect "TLS with the system's trust" 3 '' --rest GET "$tls/doc.json"
check "TLS with the system's trust: the check failed" said "certificate"
expect "TLS with another certificate" 3 '' --cacert other.pem --rest GET "$tls/doc.json"
expect "TLS with an unreadable --cacert" 2 '' --cacert no-such.pem --rest GET "$tls/doc.json"
check "TLS with an unreadable --cacert: named" said "--cacert: no certificate could be read from 'no-such.pem'"
expect "TLS with both" 2 '' --cacert server.pem --insecure --rest GET "$tls/doc.json"

# The hosts stop cleanly: a sanitizer's report would change their status.
for p in "${hosts[@]}"; do
  kill -TERM "$p"
  wait "$p"
  check "host $p stopped with status 0 (got $?)" test "$?" -eq 0
done

echo "jsonrpc-call: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
