# The counted checks that the programs' shell tests share; sourced by them.
# A test may define show_failure to print more after a failed check.
passed=0 failed=0
check() { # name, then a command that must succeed
  local name=$1
  shift
  if "$@"; then
    passed=$((passed + 1))
  else
    echo "FAIL: $name"
    if declare -F show_failure > /dev/null; then show_failure; fi
    failed=$((failed + 1))
  fi
}
