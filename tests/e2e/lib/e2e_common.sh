# Shared helpers of the end-to-end tests: checks that count failures, waiting
# with a bound, and the daemon's environment in a work directory.

E2E_FAILURES=0
E2E_FAILED_CHECKS=()

# check DESCRIPTION COMMAND...: runs the command, reports ok or FAIL.
check() {
    local what="$1"
    shift
    if "$@"; then
        echo "ok: $what"
    else
        echo "FAIL: $what"
        E2E_FAILURES=$((E2E_FAILURES + 1))
        E2E_FAILED_CHECKS+=("$what")
    fi
}

# wait_for SECONDS COMMAND...: retries the command every 0.2 s until it succeeds.
wait_for() {
    local seconds="$1"
    shift
    local attempt
    for attempt in $(seq 1 $((seconds * 5))); do
        if "$@" >/dev/null 2>&1; then
            return 0
        fi
        sleep 0.2
    done
    return 1
}

# e2e_environment WORKDIR: mailboxes, operator log (both streams configured),
# restart log and software timestamps inside the work directory.
e2e_environment() {
    local work="$1"
    export ITC_RUNDIR="$work/itc"
    export SA_LOG_DIR="$work/saflog"
    export QRN_NG_RESTART_LOG="$work/restart.log"
    export TWAMP_TIMESTAMPING=software
    export LTTNG_UST_REGISTER_TIMEOUT=10000
    mkdir -p "$SA_LOG_DIR"
    : >"$SA_LOG_DIR/TnApplicationLog.log"
    : >"$SA_LOG_DIR/TnNetworkLog.log"
}

# e2e_finish: the summary line and the exit status.
e2e_finish() {
    if [ "$E2E_FAILURES" -ne 0 ]; then
        # Repeated at the end, where a log cut short still shows them.
        local failed
        for failed in "${E2E_FAILED_CHECKS[@]}"; do
            echo "failed: $failed"
        done
        echo "$E2E_FAILURES check(s) failed"
        exit 1
    fi
    echo "all checks passed"
    exit 0
}

# Deletes the work directory at the end of a test, or says where it is kept
# when KEEP_WORK is not 0 (TWAMP_E2E_KEEP, or a failed check).
discard_work() {
    local work="$1"
    if [ "${KEEP_WORK:-0}" -eq 0 ]; then
        rm -rf "$work"
    else
        echo "work directory kept: $work"
    fi
}
