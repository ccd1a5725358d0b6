#!/usr/bin/env bash
# Installs the build tree into a scratch prefix and checks that a program
# outside the project can use the result.
# Usage: install_test.sh BUILD_DIR CONSUMER_SOURCE_DIR EXAMPLES_DIR WORK_DIR CXX [SANITIZERS]
set -euo pipefail

build=$1 consumer=$2 examples=$3 work=$4 cxx=$5 sanitize=${6:-}
prefix=$work/prefix
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

flags=()
[ -z "$sanitize" ] || flags=("-fsanitize=$sanitize" -fno-omit-frame-pointer)

rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$prefix" > "$work/install.log"

libdir=$(dirname "$(find "$prefix" -name json_rpc.pc -path '*/pkgconfig/*' | head -n 1)")/..
libdir=$(cd "$libdir" && pwd)

# Headers, and that they compile with nothing but the prefix and the
# dependencies on the include path.
for d in json_rpc json_spirit tessel transport; do
  ls "$prefix/include/$d"/*.h > /dev/null 2>&1 || fail "no headers in include/$d"
done
export PKG_CONFIG_PATH=$libdir/pkgconfig
for h in "$prefix"/include/{json_rpc,json_spirit,tessel,transport}/*.h; do
  echo "#include <${h#$prefix/include/}>"
done > "$work/all_headers.cpp"
# shellcheck disable=SC2046
"$cxx" -std=c++17 -fsyntax-only $(pkg-config --cflags json_rpc_tcp) "$work/all_headers.cpp" \
  || fail "installed headers do not compile on their own"

# Libraries: the SONAME link chain, and what each one exports.
for lib in json_rpc json_spirit tessel json_rpc_tcp; do
  so=$libdir/lib$lib.so
  [ -L "$so" ] || { fail "no $so"; continue; }
  soname=$(readelf -d "$so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
  [ -n "$soname" ] || fail "lib$lib.so has no SONAME"
  [ "$(readlink "$so")" = "$soname" ] || fail "lib$lib.so points to $(readlink "$so"), not its SONAME $soname"
  [ -e "$libdir/$soname" ] || fail "$soname is not installed"
  echo "lib$lib.so: SONAME $soname"

  nm -D --defined-only -C "$so" > "$work/$lib.symbols"
  if grep -F '(anonymous namespace)' "$work/$lib.symbols"; then
    fail "lib$lib.so exports file-local helpers"
  fi
  # Every strong exported symbol must belong to a name in an installed header
  # (sanitizer builds add their own markers, which are left out).
  awk '$2 ~ /^[TDBR]$/ && $3 !~ /^__(odr_asan|asan|ubsan|sanitizer|sancov)/ { $1 = ""; $2 = ""; print }' "$work/$lib.symbols" \
    | sed -E 's/^ +//; s/^(non-virtual thunk to|virtual thunk to|typeinfo name for|typeinfo for|vtable for|VTT for|guard variable for) //; s/^json_spirit:://; s/[(<: [].*//' \
    | sort -u > "$work/$lib.names"
  while read -r name; do
    grep -rqwF -- "$name" "$prefix/include" || fail "lib$lib.so exports $name, which no installed header declares"
  done < "$work/$lib.names"
  echo "lib$lib.so: $(wc -l < "$work/$lib.symbols") exported symbols, $(wc -l < "$work/$lib.names") names"
done

expect_symbol() {
  grep -qF -- "$2" "$work/$1.symbols" || fail "lib$1.so does not export $2"
}
expect_symbol tessel 'YAJL_Handler::YAJL_Handler('
expect_symbol tessel 'YAJL_Printer::print_s('
expect_symbol tessel 'YAJL_Gen::map_open('
expect_symbol tessel 'get_yajl_default_callbacks('
expect_symbol tessel 'uuid_string('
expect_symbol tessel 'Exponential_Backoff_Iterator::operator++('
expect_symbol tessel 'load_json_config('
expect_symbol json_spirit 'json_spirit::Value::Value(json_spirit::Value const&)'
expect_symbol json_spirit 'json_spirit::number_to_value('
expect_symbol json_spirit 'JSON_Reader::read('
expect_symbol json_spirit 'yajl_gen_value('
expect_symbol json_rpc 'JSON_RPC_Parser::key_table_1'
expect_symbol json_rpc 'JSON_RPC_Reader::open('
expect_symbol json_rpc 'JSON_RPC_Writer::write(JSON_RPC_Object const&'
expect_symbol json_rpc 'JSON_RPC_Request_Generator::JSON_RPC_Request_Generator('
expect_symbol json_rpc 'json_rpc_error_message('
expect_symbol json_rpc 'typeinfo for JSON_RPC_Object'
expect_symbol json_rpc 'typeinfo for JSON_RPC_Error'
expect_symbol json_rpc 'add_json_rpc_method('
expect_symbol json_rpc 'JSON_RPC_Scope::JSON_RPC_Scope('
expect_symbol json_rpc_tcp 'TCP_Server::start('
expect_symbol json_rpc_tcp 'TCP_Client::connect('

message='{"id":7,"method":"sum","jsonrpc":"2.0","params":{"a":[1,2.5,"x"]}}'
expected='{"jsonrpc":"2.0","id":7,"method":"sum","params":{"a":[1,2.5,"x"]}}'
check_run() {
  local what=$1
  shift
  local out
  if ! out=$("$@" "$message"); then
    fail "$what consumer failed"
  elif [ "$out" != "$expected" ]; then
    fail "$what consumer printed '$out', expected '$expected'"
  else
    echo "$what consumer: $out"
  fi
}

# A server and a client over TCP: the examples' own test runs them against
# each other.
check_tcp() {
  local what=$1 server=$2 client=$3
  if ldd "$server" | grep 'libjson_rpc_tcp\.so' | grep -qv -- "$prefix"; then
    fail "$what example server does not use the installed libjson_rpc_tcp"
  fi
  if env -u LD_LIBRARY_PATH bash "$examples/server_client_test.sh" "$server" "$client" > "$work/$what-tcp.log" 2>&1; then
    echo "$what TCP example: $(grep -c -- '->' "$work/$what-tcp.log") calls answered, server stopped"
  else
    cat "$work/$what-tcp.log"
    fail "$what TCP example failed"
  fi
}

# find_package.
if ! cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" \
  -DEXAMPLES_DIR="$examples" \
  -DCMAKE_CXX_FLAGS="${flags[*]}" -DCMAKE_EXE_LINKER_FLAGS="${flags[*]}" > "$work/cmake-configure.log" 2>&1; then
  cat "$work/cmake-configure.log"
  fail "find_package(json_rpc) consumer does not configure"
else
  cmake --build "$work/cmake-build" > "$work/cmake-build.log" 2>&1 \
    || { cat "$work/cmake-build.log"; fail "find_package(json_rpc) consumer does not build"; }
  if ldd "$work/cmake-build/consumer" | grep 'libjson_rpc\.so' | grep -qv -- "$prefix"; then
    fail "find_package(json_rpc) consumer does not use the installed library"
  fi
  [ ! -x "$work/cmake-build/consumer" ] || check_run find_package "$work/cmake-build/consumer"
  # CMake gives the programs in its build tree an rpath to the prefix.
  if [ -x "$work/cmake-build/example-server" ] && [ -x "$work/cmake-build/example-client" ]; then
    check_tcp find_package "$work/cmake-build/example-server" "$work/cmake-build/example-client"
  fi
fi

# pkg-config.
version=$(pkg-config --modversion json_rpc) || fail "pkg-config does not find json_rpc"
echo "pkg-config json_rpc $version: $(pkg-config --cflags --libs json_rpc)"
# shellcheck disable=SC2046
if "$cxx" -std=c++17 "${flags[@]}" "$consumer/consumer.cpp" -o "$work/consumer-pc" $(pkg-config --cflags --libs json_rpc); then
  LD_LIBRARY_PATH=$libdir check_run pkg-config "$work/consumer-pc"
else
  fail "pkg-config consumer does not build"
fi

# The TCP programs through pkg-config, with the prefix's library folder as
# their rpath: they run without LD_LIBRARY_PATH.
tcp_version=$(pkg-config --modversion json_rpc_tcp) || fail "pkg-config does not find json_rpc_tcp"
[ "$tcp_version" = "$version" ] || fail "json_rpc_tcp is version $tcp_version, json_rpc $version"
echo "pkg-config json_rpc_tcp $tcp_version: $(pkg-config --cflags --libs json_rpc_tcp)"
built=1
for program in server client; do
  # shellcheck disable=SC2046
  "$cxx" -std=c++17 "${flags[@]}" "$examples/$program.cpp" -o "$work/example-$program-pc" \
    $(pkg-config --cflags --libs json_rpc_tcp) -Wl,-rpath,"$(pkg-config --variable=libdir json_rpc_tcp)" \
    || { fail "pkg-config example $program does not build"; built=0; }
done
[ "$built" -eq 0 ] || check_tcp pkg-config "$work/example-server-pc" "$work/example-client-pc"

if [ "$failures" -ne 0 ]; then
  echo "$failures install check(s) failed"
  exit 1
fi
echo "install checks passed"
