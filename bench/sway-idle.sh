#!/bin/sh
# How often Quillvane wakes up at rest while it follows sway's focus: tests/sway-focus.sh sets up
# the real compositor and its windows, then this counts the context switches of all of
# Quillvane's threads over SECONDS (default 20). Usage: bench/sway-idle.sh BUILD WINDOW [SECONDS]
# (WINDOW: the tests' focus_window, e.g. build/test/tests/focus_window).
set -eu
export SWAY_FOCUS_THEN="
    switches() { cat /proc/\$1/task/*/status | awk '/ctxt_switches/ { n += \$2 } END { print n }'; }
    sleep 4 && before=\$(switches \$1) && sleep ${3:-20}
    echo \"Quillvane woke \$((\$(switches \$1) - before)) times in ${3:-20} s at rest, following sway's focus\""
exec "$(dirname "$0")/../tests/sway-focus.sh" "$1" "$2"
