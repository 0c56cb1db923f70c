# How many tests a run of ctest was, from its log. One of ctest's tests is a program that runs many and says
# how many in its last line, a program of GoogleTest's or Python's, or a single check.
function finish() {
    if (!open) return
    run += told ? told_run : google ? google : python ? python : 1
    skipped += told ? told_skipped : listed + python_skipped
    if (!told) for (at = 1; at <= listed; at++) print "tests: skipped " names[at]
    open = told = google = python = python_skipped = listed = listing = 0
}
/^[0-9]+\/[0-9]+ Testing: / { finish(); open = 1; next }
/^tests: skipped / { print }
/^tests: [0-9]+ run, [0-9]+ skipped, / { told = 1; told_run = $2; told_skipped = $4 }
/^\[==========\] [0-9]+ tests? from .* ran\. / { google += $2 }
/^\[  SKIPPED \] [0-9]+ tests?, listed below:$/ { listing = 1; next }
listing && /^\[  SKIPPED \] / { names[++listed] = $4 }
/^Ran [0-9]+ tests? in / { python += $2 }
/^OK \(skipped=[0-9]+\)$/ { gsub(/[^0-9]/, ""); python_skipped += $0 }
END {
    finish()
    if (run == 0) exit 1
    printf "tests: %d run, %d of them skipped\n", run, skipped
}
