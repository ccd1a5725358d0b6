#!/usr/bin/env bash
# Sets up the machine, then builds and runs every test: the suite in a normal
# build, under AddressSanitizer and UndefinedBehaviorSanitizer, and under
# ThreadSanitizer, then the reader's fuzz target for a minute. Fails on any
# failure.
# BUILD_PREFIX (default "build") names the build directories, JOBS (default 2)
# the parallel jobs, FUZZ_SECONDS (default 60) the fuzzing time.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh --tests

prefix=${BUILD_PREFIX:-build}
jobs=${JOBS:-2}
fuzz_seconds=${FUZZ_SECONDS:-60}

suite() { # build dir, cmake options...
  local dir=$1
  shift
  echo "== $dir: configure and build"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" > /dev/null
  cmake --build "$dir" -j "$jobs" > "$dir/build.log" 2>&1 || { tail -n 80 "$dir/build.log"; return 1; }
  if grep -q 'warning:' "$dir/build.log"; then
    grep -A3 'warning:' "$dir/build.log"
    echo "$dir: the build has warnings"
    return 1
  fi
  echo "== $dir: ctest"
  (cd "$dir" && ctest --output-on-failure --no-tests=error -j "$jobs")
}

suite "$prefix-test"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
suite "$prefix-asan" -DJSON_RPC_SANITIZE=address,undefined

export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
suite "$prefix-tsan" -DJSON_RPC_SANITIZE=thread

echo "== $prefix-fuzz: fuzz_reader for $fuzz_seconds seconds"
fuzz=$prefix-fuzz
CC=clang CXX=clang++ cmake -S . -B "$fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DJSON_RPC_BUILD_FUZZ=ON \
  -DJSON_RPC_BUILD_TESTS=OFF > /dev/null
cmake --build "$fuzz" --target fuzz_reader -j "$jobs" > "$fuzz/build.log" 2>&1 || { tail -n 80 "$fuzz/build.log"; exit 1; }
# New inputs go to a scratch corpus; the seeds in fuzz/corpus and the JSON
# test suite, when it is beside the repository, are only read.
rm -rf "$fuzz/corpus" && mkdir -p "$fuzz/corpus"
seeds=(fuzz/corpus)
[ -d ../shared/testdata/JSONTestSuite/test_parsing ] && seeds+=(../shared/testdata/JSONTestSuite/test_parsing)
if "$fuzz/bin/fuzz_reader" -max_total_time="$fuzz_seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$fuzz/" "$fuzz/corpus" "${seeds[@]}" > "$fuzz/fuzz.log" 2>&1; then
  grep -E '^Done|stat::number_of_executed_units' "$fuzz/fuzz.log"
  echo "fuzz_reader: no crash"
else
  tail -n 60 "$fuzz/fuzz.log"
  echo "fuzz_reader: crashed; the input is in $fuzz/"
  exit 1
fi
