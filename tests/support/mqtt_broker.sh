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
# make_test_ca DIR CLIENT: a CA of the test's own (DIR/ca.crt), a certificate it signs for a broker
# on 127.0.0.1 (DIR/server.crt, .key) and one for the client CLIENT (DIR/client.crt, .key).
make_test_ca() {
  (
    cd "$1" || exit 1
    openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=test-ca -keyout ca.key -out ca.crt
    openssl req -newkey rsa:2048 -nodes -subj /CN=127.0.0.1 -keyout server.key -out server.csr
    printf 'subjectAltName=IP:127.0.0.1\n' >server.ext
    openssl x509 -req -in server.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 1 -extfile server.ext -out server.crt
    openssl req -newkey rsa:2048 -nodes -subj "/CN=$2" -keyout client.key -out client.csr
    openssl x509 -req -in client.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 1 -out client.crt
  ) >"$work/openssl.log" 2>&1 || fail "openssl could not make the certificates"
}
