#!/usr/bin/env bash
# Runs jsonrpc-cat over the examples and over edge cases of its input.
# Usage: jsonrpc_cat_test.sh JSONRPC_CAT EXAMPLES_DIR WORK_DIR
set -uo pipefail

cat_bin=$1 examples=$2 work=$3
source "$(dirname "$0")/test_check.sh"
rm -rf "$work" && mkdir -p "$work"

run() { # args...: runs jsonrpc-cat, stdout to $work/out, stderr to $work/err, status to $status
  "$cat_bin" "$@" > "$work/out" 2> "$work/err"
  status=$?
}
has() { grep -qF -- "$1" "$work/err"; }

cat > "$work/messages.expected" <<'EOF'
{"jsonrpc":"2.0","id":1,"method":"subtract","params":[42,23]}
{"jsonrpc":"2.0","method":"update","params":{"items":[1,2.5,-300.0,true,null],"name":"café"}}
{"jsonrpc":"2.0","id":"a7","method":"subtract","params":{"minuend":42,"subtrahend":23}}
{"jsonrpc":"2.0","id":1,"result":19}
{"jsonrpc":"2.0","id":"a7","error":{"code":-32601,"message":"Method not found","data":{"method":"sum"}}}
{"jsonrpc":"2.0","id":9,"error":{"code":-32603,"message":"no code given"}}
EOF

# The same output whatever the piece size, blank line skipped.
for piece in 1 2 7 4096 1000000; do
  run --piece "$piece" < "$examples/messages.ndjson"
  check "examples, piece $piece: exit 0" test "$status" -eq 0
  check "examples, piece $piece: output" cmp -s "$work/out" "$work/messages.expected"
  check "examples, piece $piece: quiet" test ! -s "$work/err"
done

# Refusals are reported with the parser's line, and reading goes on.
run --piece 3 < "$examples/refused.ndjson"
check "refused: exit 1" test "$status" -eq 1
check "refused: good messages written" test "$(cat "$work/out")" = \
  "$(printf '%s\n' '{"jsonrpc":"2.0","method":"ok","params":[1]}' '{"jsonrpc":"2.0","method":"still read after the refusals"}')"
check "refused: unknown member" has '<stdin>:2: message refused (err=5)'
check "refused: batch" has '<stdin>:3: message refused (err=3)'
check "refused: real id" has '<stdin>:4: message refused (err=9)'
check "refused: no object" has '<stdin>:5: message assembled no object'
check "refused: parser line" has 'Failed to parse JSON-RPC: parse error: client cancelled parse via callback return value'
check "refused: parser err" has ', callback=5, err=5, level=1, key=0, parent_key=0'

# CRLF line ends, blanks around a message, no final newline.
printf '  {"method":"a"}\r\n\r\n\t{"method":"b"}' > "$work/crlf"
run --piece 1 < "$work/crlf"
check "crlf: exit 0" test "$status" -eq 0
check "crlf: output" test "$(cat "$work/out")" = "$(printf '%s\n' '{"jsonrpc":"","method":"a"}' '{"jsonrpc":"","method":"b"}')"

# Two messages on one line are one refused message.
printf '{"method":"a"}{"method":"b"}\n{"method":"c"}\n' > "$work/two"
run < "$work/two"
check "two on a line: exit 1" test "$status" -eq 1
check "two on a line: next line read" test "$(cat "$work/out")" = '{"jsonrpc":"","method":"c"}'
check "two on a line: reported" has '<stdin>:1: message refused (err=0)'

# A cut-off last message.
printf '{"method":"a"}\n{"method":"b","params":[1,' > "$work/cut"
run < "$work/cut"
check "cut off: exit 1" test "$status" -eq 1
check "cut off: reported" has '<stdin>:2: message refused'

# Files: one message each, over several lines; an empty file is refused.
printf '{\n  "id": 3,\n  "result": {\n    "a": [1, 2]\n  }\n}\n' > "$work/pretty.json"
: > "$work/empty.json"
run --piece 5 "$work/pretty.json" "$work/empty.json" "$examples/messages.ndjson"
check "files: exit 1" test "$status" -eq 1
check "files: output" test "$(cat "$work/out")" = '{"jsonrpc":"","id":3,"result":{"a":[1,2]}}'
check "files: empty refused" has "$work/empty.json: message refused"
check "files: several messages in one file refused" has "$examples/messages.ndjson: message refused"

# A long message streams through in small pieces unchanged.
{
  printf '{"jsonrpc":"2.0","method":"big","params":["'
  head -c 3000000 /dev/zero | tr '\0' 'x'
  printf '"]}\n'
} > "$work/long"
run --piece 4096 < "$work/long"
check "long: exit 0" test "$status" -eq 0
check "long: output" cmp -s "$work/out" "$work/long"

# Options.
run --help < /dev/null
check "help: exit 0" test "$status" -eq 0
check "help: usage" grep -q -- '--piece N' "$work/out"
run -h < /dev/null
check "-h: exit 0" test "$status" -eq 0
check "-h: exit statuses" grep -q -- '^  2  bad usage' "$work/out"
for bad in 0 -1 x 12x; do
  run --piece "$bad" < /dev/null
  check "piece $bad refused" test "$status" -eq 2
  check "piece $bad named" has "jsonrpc-cat: bad value '$bad' for --piece"
done
run --piece=0 < /dev/null
check "--piece=0 named" has "bad value '0' for --piece"
run --pieces 3 < /dev/null
check "unknown option: exit 2" test "$status" -eq 2
check "unknown option named" has "jsonrpc-cat: unknown option '--pieces'"
run --piece < /dev/null
check "missing value named" has "jsonrpc-cat: option '--piece' needs a value"
run "$work/no-such-file"
check "missing file: exit 2" test "$status" -eq 2

echo "jsonrpc-cat: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
