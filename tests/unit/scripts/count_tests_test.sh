#!/usr/bin/env bash
# Every kind of test is counted, each in its own way.
set -euo pipefail
source_directory=$1
said=$(awk -f "$source_directory/scripts/count_tests.awk" <<'END'
1/5 Testing: forks_each
[==========] 1 test from 1 test suite ran. (1 ms total)
[==========] 1 test from 1 test suite ran. (1 ms total)
tests: skipped Suite.NotHere
tests: 3 run, 1 skipped, 0 failed
Test Passed.
2/5 Testing: one_process
[==========] 20 tests from 2 test suites ran. (9 ms total)
[  SKIPPED ] 1 test, listed below:
[  SKIPPED ] Server.IsNotInstalled
Test Passed.
3/5 Testing: python
Ran 12 tests in 3.2s
OK (skipped=2)
4/5 Testing: Check.Alone
Test Passed.
5/5 Testing: Check.Other
END
)
[ "$said" = "tests: skipped Suite.NotHere
tests: skipped Server.IsNotInstalled
tests: 37 run, 4 of them skipped" ] || { echo "$said"; exit 1; }
! awk -f "$source_directory/scripts/count_tests.awk" </dev/null || { echo "nothing is no success"; exit 1; }
