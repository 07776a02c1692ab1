# For the scripts that run a command beside servers of its own: a private folder, the servers' end, and signals.
# Sourced, not run.

private=$(mktemp -d)
chmod 700 "$private"
children=()

end_private_session() {
  [ ${#children[@]} -gt 0 ] && kill "${children[@]}" 2>/dev/null
  wait 2>/dev/null
  rm -rf "$private"
}
trap end_private_session EXIT

# run_command COMMAND [ARGUMENT...]: SIGINT, SIGTERM and SIGHUP go to the command, and its exit status is the script's.
run_command() {
  "$@" &
  command=$!
  # A command in the background ignores SIGINT from its start on, and a script cannot change that: it gets SIGTERM.
  trap 'kill -TERM "$command" 2>/dev/null' TERM INT
  trap 'kill -HUP "$command" 2>/dev/null' HUP
  # A trapped signal ends a wait early; the command may still be shutting down.
  while :; do
    wait "$command"
    status=$?
    kill -0 "$command" 2>/dev/null || break
  done
  exit "$status"
}
