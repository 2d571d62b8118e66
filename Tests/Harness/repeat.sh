#!/usr/bin/env bash
# Repeats the harness and prints how many rounds each case passed, beside how many threads.
# Builds nothing; after ./test.sh: Tests/Harness/repeat.sh [rounds, 100 unless said] [build folder]
set -euo pipefail
rounds=${1:-100}
build=${2:-"$(dirname "${BASH_SOURCE[0]}")/../../build/release"}

KIV_HARNESS_ROUNDS=$rounds "$build/tests/harness_tests" --gtest_brief=1 --gtest_filter='*Harness*' |
  awk -v rounds="$rounds" '
    $1 == "passed:" { if (!($2 in known)) { known[$2]; names[++count] = $2 }
                      if (!($3 in seen)) { seen[$3]; threads[++columns] = $3 }
                      passed[$2, $3] = $4; next }
    { print > "/dev/stderr" }
    END {
      printf "%-20s", "of " rounds
      for (i = 1; i <= columns; ++i) { printf " %6s", threads[i] }
      print ""
      for (n = 1; n <= count; ++n) {
        printf "%-20s", names[n]
        for (i = 1; i <= columns; ++i) { printf " %6s", passed[names[n], threads[i]] }
        print ""
      }
    }'
