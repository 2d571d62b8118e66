#!/usr/bin/env bash
# Repeats the harness and prints how many rounds each case passed, beside how many threads. Then sweeps the
# crash path and the recovery beside 1, 16 and 256 threads, and prints how many runs passed.
# Builds nothing; after ./test.sh: Tests/Harness/repeat.sh [rounds, 100 unless said] [build folder]
set -euo pipefail
rounds=${1:-100}
build=${2:-"$(dirname "${BASH_SOURCE[0]}")/../../build/release"}
status=0

# table <title>: of the lines "passed: case threads count"; all others go to standard error.
table() {
  awk -v title="$1" '
    $1 == "passed:" { if (!($2 in known)) { known[$2]; names[++count] = $2 }
                      if (!($3 in seen)) { seen[$3]; threads[++columns] = $3 }
                      passed[$2, $3] = $4; next }
    { print > "/dev/stderr" }
    END {
      printf "%-22s", title
      for (i = 1; i <= columns; ++i) { printf " %9s", threads[i] }
      print ""
      for (n = 1; n <= count; ++n) {
        printf "%-22s", names[n]
        for (i = 1; i <= columns; ++i) { printf " %9s", passed[names[n], threads[i]] }
        print ""
      }
    }'
}

repeated() {
  local failed=0
  KIV_HARNESS_ROUNDS=$rounds "$build/tests/harness_tests" --gtest_brief=1 --gtest_filter='*Harness*' || failed=1
  KIV_HARNESS_ROUNDS=$rounds "$build/tests/survival_tests" --gtest_brief=1 --gtest_filter='*Survival*' || failed=1
  return $failed
}

swept() {
  local threads failed=0
  for threads in 1 16 256; do
    KIV_SWEEP_THREADS=$threads "$build/tests/survival_tests" --gtest_brief=1 --gtest_filter='Sweep.*' || failed=1
  done
  return $failed
}

repeated | table "of $rounds" || status=1
swept | table "of all calls" || status=1
exit $status
