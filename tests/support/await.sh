# Bounded waits for the process tests, sourced by them. The sourcing script defines
# fail MESSAGE (reports and exits).
now_ms() { echo $(($(date +%s%N) / 1000000)); }
# Waits (at most $2 s) until file $1 has a line matching the extended regex $3.
await_line() {
  local deadline=$(($(now_ms) + $2 * 1000))
  until grep -Eq -- "$3" "$1" 2>/dev/null; do
    [ "$(now_ms)" -lt "$deadline" ] || fail "no line matching '$3' in $1 within $2 s"
    sleep 0.05
  done
}
