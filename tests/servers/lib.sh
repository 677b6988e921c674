# Shared by the scripts that run a throw-away server: SCRIPT start|stop|status WORKDIR.
# Everything a server writes lies in WORKDIR, but for its socket, which wants a short path, and the
# empty files that its ports are locked by. Servers run under accounts of their own: the folders above
# WORKDIR must let them pass.
# "start" returns when the server answers and prints key=value lines; "status" prints them again.
# shellcheck shell=bash
set -euo pipefail
PATH=$PATH:/usr/sbin:/sbin

die() { echo "$0: $*" >&2; exit 1; }

# need TOOL: ends with 77 ("skipped" for test runners) when a program is missing.
need() { command -v "$1" >/dev/null 2>&1 || { echo "$0: $1 is missing" >&2; exit 77; }; }

# alive PID: true while it runs; a dead one that nobody has collected does not count.
alive() {
  local state
  state=$(sed 's/.*) //; s/ .*//' "/proc/$1/stat" 2>/dev/null) && [ -n "$state" ] && [ "$state" != Z ]
}

# wait_until PID SECONDS LOG COMMAND...: until the command succeeds; fails when the server dies.
wait_until() {
  local pid=$1 tries=$(($2 * 10)) log=$3
  shift 3
  while ((tries-- > 0)); do
    "$@" >/dev/null 2>&1 && return 0
    alive "$pid" || { tail -20 "$log" >&2; die "the server died while starting"; }
    sleep 0.1
  done
  tail -20 "$log" >&2
  stop_server
  die "the server does not answer"
}

# end_process PID: TERM, then KILL after 20 s; returns when it has ended.
end_process() {
  local try
  kill -TERM "$1" 2>/dev/null || return 0
  for try in $(seq 800); do
    alive "$1" || return 0
    [ "$try" != 400 ] || kill -KILL "$1" 2>/dev/null || true
    sleep 0.05
  done
}

# The server's own id, started in the background by this script.
stop_server() {
  [ -s "$WORK/pid" ] || return 0
  end_process "$(cat "$WORK/pid")"
  [ ! -s "$WORK/socket_dir" ] || rm -rf "$(cat "$WORK/socket_dir")"
  rm -f "$WORK/pid" "$WORK/socket_dir"
}

# take_ports: PORT becomes the first of 50 ports in a row, below the ephemeral ones, on which nobody
# listens and which no other of these servers takes: a lock on them is inherited by what is started
# here, and ends with it.
take_ports() {
  local locks=/run/lock slot
  [ -w "$locks" ] || locks=/tmp
  locks=$locks/backup2-test-ports
  [ -d "$locks" ] || mkdir -m 1777 "$locks" 2>/dev/null || [ -d "$locks" ] || die "cannot make $locks"
  for _ in $(seq 400); do
    slot=$((RANDOM % 420)) PORT=$((10000 + 50 * slot))
    [ -e "$locks/$slot" ] || : >"$locks/$slot"
    exec {PORT_LOCK}<"$locks/$slot"
    if flock -n "$PORT_LOCK" &&
      ! ss -Hltn "sport >= :$PORT and sport <= :$((PORT + 49))" | grep -q .; then return; fi
    exec {PORT_LOCK}<&-
  done
  die "no free ports"
}

# run_as USER COMMAND...: as that account when the caller is root, else as the caller.
run_as() {
  local user=$1 become=
  shift
  # In the background the process is to be the command itself: its id is what "stop" ends.
  [ "$BASHPID" = "$$" ] || become=exec
  if [ "$(id -u)" = 0 ]; then
    $become setpriv --reuid="$user" --regid="$(id -gn "$user")" --init-groups -- "$@"
  else
    $become "$@"
  fi
}

# dispatch "$@": calls start_server with WORK set, in a folder that the server's account OWNER owns.
dispatch() {
  [ $# = 2 ] || die "usage: $0 start|stop|status WORKDIR"
  mkdir -p "$2"
  WORK=$(cd "$2" && pwd)
  case $1 in
    start)
      if [ -s "$WORK/pid" ] && alive "$(head -1 "$WORK/pid")"; then die "already running in $WORK"; fi
      rm -rf "$WORK/data"
      SOCKETS=$(mktemp -d /tmp/b2s.XXXXXX)
      echo "$SOCKETS" >"$WORK/socket_dir"
      mkdir "$WORK/data"
      chmod 755 "$WORK" "$SOCKETS"
      chmod 700 "$WORK/data"
      [ "$(id -u)" != 0 ] || chown "$OWNER" "$WORK/data" "$SOCKETS"
      run_as "$OWNER" test -w "$WORK/data" || die "the account $OWNER cannot reach $WORK"
      # shellcheck disable=SC2034  # the scripts read it
      PASSWORD=$(head -c 18 /dev/urandom | base64 | tr '+/' '-_')
      start_server
      cat "$WORK/settings"
      ;;
    stop) stop_server ;;
    status)
      [ -s "$WORK/pid" ] && alive "$(head -1 "$WORK/pid")" || die "not running in $WORK"
      cat "$WORK/settings"
      ;;
    *) die "usage: $0 start|stop|status WORKDIR" ;;
  esac
}

# settings: key=value lines from standard input, readable by the owner only.
settings() { (umask 077 && cat >"$WORK/settings"); }
