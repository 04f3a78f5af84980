# Helpers for end-to-end tests that record traces with a private LTTng
# session daemon. Source this file, then:
#   private_lttng_enter "$@"    re-runs the calling script in its own mount
#                               namespace, where /run/lttng and /dev/shm are
#                               private, so no other session daemon is seen
#   private_lttng_start DIR     starts lttng-sessiond (pid in LTTNG_SESSIOND_PID)
#   private_lttng_stop          stops it by its pid
#   private_lttng_session NAME OUTDIR EVENT...   creates and starts a session
#   private_lttng_finish NAME   stops and destroys the session (flushes it)
#   private_lttng_read DIR OUT  the events, printed by babeltrace2, in OUT

private_lttng_enter() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "FAIL: this test needs root (private mount namespace, root session daemon)" >&2
        exit 1
    fi
    if [ -z "${TWAMP_PRIVATE_LTTNG:-}" ]; then
        export TWAMP_PRIVATE_LTTNG=1
        exec unshare --mount --propagation private bash "$0" "$@"
    fi
    mkdir -p /run/lttng
    mount -t tmpfs -o mode=0755 tmpfs /run/lttng
    mount -t tmpfs -o mode=1777 tmpfs /dev/shm
}

private_lttng_start() {
    local workdir="$1"
    export LTTNG_HOME="$workdir/lttng-home"
    mkdir -p "$LTTNG_HOME"
    lttng-sessiond --no-kernel --quiet >"$workdir/sessiond.log" 2>&1 &
    LTTNG_SESSIOND_PID=$!
    local attempt
    for attempt in $(seq 1 100); do
        if lttng --no-sessiond list >/dev/null 2>&1; then
            return 0
        fi
        if ! kill -0 "$LTTNG_SESSIOND_PID" 2>/dev/null; then
            echo "FAIL: lttng-sessiond ended at start-up:" >&2
            cat "$workdir/sessiond.log" >&2
            return 1
        fi
        sleep 0.1
    done
    echo "FAIL: lttng-sessiond not ready after 10 s" >&2
    return 1
}

private_lttng_stop() {
    if [ -n "${LTTNG_SESSIOND_PID:-}" ] && kill -0 "$LTTNG_SESSIOND_PID" 2>/dev/null; then
        kill -TERM "$LTTNG_SESSIOND_PID"
        wait "$LTTNG_SESSIOND_PID" 2>/dev/null || true
    fi
    LTTNG_SESSIOND_PID=""
}

private_lttng_session() {
    local name="$1" output="$2"
    shift 2
    lttng --no-sessiond create "$name" --output="$output" >/dev/null
    local event
    for event in "$@"; do
        lttng --no-sessiond enable-event --userspace "$event" >/dev/null
    done
    lttng --no-sessiond start "$name" >/dev/null
}

private_lttng_finish() {
    local name="$1"
    lttng --no-sessiond stop "$name" >/dev/null
    lttng --no-sessiond destroy "$name" >/dev/null
}

# private_lttng_read TRACEDIR OUT: the events as babeltrace2 prints them, in
# OUT. A tracer that discarded events (its buffers full on a busy host) is
# said plainly: checks of the events that follow may then miss some.
private_lttng_read() {
    local trace="$1" out="$2"
    babeltrace2 "$trace" >"$out" 2>"$out.stderr" || true
    if grep -qi "discarded" "$out.stderr"; then
        echo "note: the tracer discarded events:"
        grep -i "discarded" "$out.stderr" | head -5
    fi
}
