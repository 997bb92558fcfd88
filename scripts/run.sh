#!/usr/bin/env bash
# The main job: builds the hxf tool and the device simulator (nothing else) and runs the
# guided tour of the simulator through the tool. Installs what is missing first.
# Arguments go to `hxf demo` (try --json).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
log=$(mktemp)
trap 'rm -f "$log"' EXIT

echo "run.sh: configuring (build/demo)..." >&2
cmake --preset demo >"$log" 2>&1 || { cat "$log" >&2; echo "run.sh: configuring failed" >&2; exit 1; }

# Ninja's "[n/total] ..." lines as progress: one line redrawn on a terminal, else as they come.
progress() {
  local line
  while IFS= read -r line; do
    [[ "$line" =~ ^\[([0-9]+)/([0-9]+)\] ]] || continue
    if [ -t 2 ]; then
      printf '\r\033[Krun.sh: building %s/%s' "${BASH_REMATCH[1]}" "${BASH_REMATCH[2]}" >&2
    else
      echo "run.sh: building ${BASH_REMATCH[1]}/${BASH_REMATCH[2]}" >&2
    fi
  done
  [ -t 2 ] && printf '\r\033[K' >&2
  return 0
}
echo "run.sh: building the tool and the simulator..." >&2
if ! cmake --build --preset demo 2>&1 | tee "$log" | progress; then
  echo "run.sh: the build failed:" >&2
  grep -v '^\[[0-9]*/[0-9]*\]' "$log" >&2 || true
  exit 1
fi
echo "run.sh: built; starting the tour" >&2
exec build/demo/tools/hxf/hxf demo "$@"
