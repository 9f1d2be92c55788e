# shellcheck shell=bash
# How a script reports its checks: "ok NAME" or "FAIL NAME: reason" a line, which scripts/test.sh
# counts. Source it; do not run it. The counts are in `passed` and `failed`.

passed=0
failed=0

# check NAME COMMAND...: runs a check. It has passed if it says nothing, on either output, and ends
# well; what it says is the reason of the failure. A check that breaks half-way has not passed.
check()
{
    local name=$1 reason
    shift
    if reason=$("$@" 2>&1) && [ -z "$reason" ]; then
        passed=$((passed + 1))
        echo "ok $name"
    else
        failed=$((failed + 1))
        echo "FAIL $name: ${reason:-the check itself broke}"
    fi
}
