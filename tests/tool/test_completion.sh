#!/usr/bin/env bash
# The bash completion of hxf, driven as bash drives it: COMP_WORDS and COMP_CWORD set, the
# completion function called, COMPREPLY compared.
# Usage: test_completion.sh <completion file> <hxf binary>
set -euo pipefail
# shellcheck source=/dev/null
source "$1"
hxf_binary=$2

complete_line() {  # the words of a command line; the last one is being completed
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  COMPREPLY=()
  _hxf
  echo "${COMPREPLY[*]}"
}
expect() {  # expected, then the words
  local want=$1
  shift
  local got
  got=$(complete_line "$@")
  if [ "$got" != "$want" ]; then
    echo "completing '$*': got '$got', want '$want'" >&2
    exit 1
  fi
}

expect "search" hxf se
expect "devices demo" hxf de
expect "--plugin --bus --json --log-level --help --version" hxf --
expect "debug" hxf --log-level d
expect "--plugin --bus --json --log-level --help --version --timeout" hxf search lights --
expect "--plugin --bus --json --log-level --help --version --for" hxf --json watch lights --
expect "--plugin --bus --json --log-level --help --version --all" hxf plugins --
expect "get set" hxf request lights ""
expect "monitor" hxf mo
expect "--plugin --bus --json --log-level --help --version --service --type --for" hxf --bus monitor --
expect "--plugin --bus --json --log-level --help --version --for" hxf --bus unix:path=/run/bus watch lights --
expect "request result" hxf --bus monitor --type re
expect "session system" hxf --bus s
expect "" hxf request lights get ""
expect "sim" "$hxf_binary" --plugin si
echo "completion ok"
