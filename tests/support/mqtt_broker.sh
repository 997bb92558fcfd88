# shellcheck shell=bash
# A Mosquitto of the test's own on a loopback port, for the MQTT tests and benchmarks. Sourced
# after bus_case.sh (work, pids, fail) and await.sh.
# shellcheck disable=SC2154 # work and pids come from bus_case.sh

# A loopback TCP port nobody listens on now.
free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
# write_broker_conf FILE PORT [LINE...]: a listener on 127.0.0.1:PORT, anonymous clients
# allowed unless a LINE says otherwise, nothing kept across a restart.
write_broker_conf() {
  local file=$1 port=$2
  shift 2
  {
    echo "listener $port 127.0.0.1"
    echo "persistence false"
    # Run as root, Mosquitto would become the user mosquitto, who cannot read the work folder.
    echo "user $(id -un)"
    local line anonymous=true
    for line in "$@"; do
      case "$line" in allow_anonymous*) anonymous= ;; esac
    done
    [ -n "$anonymous" ] && echo "allow_anonymous true"
    for line in "$@"; do echo "$line"; done
  } >"$file"
}
# start_broker CONF NAME: Mosquitto on CONF, its log in $work/NAME.log; returns once it runs,
# with its PID in broker_pid.
start_broker() {
  mosquitto -c "$1" >"$work/$2.log" 2>&1 &
  broker_pid=$!
  pids+=("$broker_pid")
  await_line "$work/$2.log" 10 'mosquitto version .* running'
}
