# Sourced by the live trials, after bgp-lab.sh: runs the agent on the lab's BMP port and checks
# what it says.

agent=${AGENT:-build/bin/tarvo-agent}
[ -x "$agent" ] || die "$agent is missing: run script/test or script/run first"

# start_agent ARGUMENT...
start_agent() {
  events=$lab/events
  : >"$events"
  "$agent" --config examples/two-vpns.conf --listen "127.0.0.1:$BMP_PORT" --json "$@" \
    >"$events" 2>"$lab/agent.log" </dev/null &
  agent_pid=$!
  lab_pids+=("$agent_pid")
  wait_for "the agent" bash -c "grep -q :$(printf %04X "$BMP_PORT") /proc/net/tcp"
}

# told N EVENT CLIENT NEXTHOP: the client has been told N times in all.
told() {
  [ "$(grep -c "\"event\":\"$2\",\"client\":$3,.*\"nexthop\":\"$4\"" "$events")" -eq "$1" ]
}

# expect N EVENT CLIENT NEXTHOP
expect() {
  wait_for "client $3 to be told $2 of $4 ($1 in all)" told "$@"
  grep "\"event\":\"$2\",\"client\":$3,.*\"nexthop\":\"$4\"" "$events" | tail -1
}

end_agent() {
  kill "$agent_pid"
  wait "$agent_pid" || die "the agent ended with status $?"
}
