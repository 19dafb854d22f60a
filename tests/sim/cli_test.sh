#!/usr/bin/env bash
# kvn-sim's command line end to end: help and version, usage errors that name
# the bad word, status --json, logcat and journal filters and following, and
# the bound on what `efs put` reads from standard input.
# usage: cli_test.sh KVN_SIM KVN
set -uo pipefail
sim=$1 kvn=$2
dir=$(mktemp -d /tmp/kvn-sim-cli-test.XXXXXX)
sock=$dir/s.sock
export KVN_SIM_SOCKET=$sock
fails=0
fail() { echo "FAIL: $*"; fails=$((fails + 1)); }
cleanup() { "$sim" stop >/dev/null 2>&1; kill "${bg[@]}" 2>/dev/null; rm -rf "$dir"; }
bg=()
trap cleanup EXIT

# expect CODE PATTERN CMD...: CMD exits CODE and its stdout+stderr match PATTERN.
expect() {
  local code=$1 pat=$2 out rc; shift 2
  out=$("$@" 2>&1); rc=$?
  [ "$rc" -eq "$code" ] || fail "$* exited $rc, not $code: $out"
  grep -Eq -- "$pat" <<<"$out" || fail "$* printed no /$pat/: $out"
}
# wait_for FILE PATTERN: FILE comes to hold PATTERN within 5 s.
wait_for() {
  for _ in $(seq 50); do grep -q -- "$2" "$1" && return 0; sleep 0.1; done
  fail "$1 never showed /$2/: $(cat "$1")"
}

expect 0 '^kvn-sim [0-9]' "$sim" --version
expect 0 '^kvn-sim [0-9]' "$sim" -V
for cmd in "" start run stop status load ssr service fault "fault clear" journal prop "prop get" "prop set" \
  "prop list" indicate logcat nv "nv get" "nv set" "nv rm" efs "efs ls" "efs get" "efs put" "efs rm"; do
  # shellcheck disable=SC2086
  expect 0 "Usage: kvn-sim ${cmd:+$cmd }" "$sim" $cmd --help
done
expect 0 'Example' "$sim" efs put -h
expect 2 "unknown command 'bogus'; accepted: start, run" "$sim" bogus
expect 2 "unknown command 'frob'; accepted: ls, get, put, rm" "$sim" efs frob 0 /x
expect 2 "unknown service 'modem'; accepted: extend, uim" "$sim" fault modem 2 drop
expect 2 "unknown fault kind 'explode'; accepted: no-reply, delay=MS" "$sim" fault extend 2 explode
expect 2 "count 0 is below 1" "$sim" fault extend 2 drop --count 0
expect 2 "unknown state 'sideways'; accepted: up, down" "$sim" service uim sideways
expect 1 "no kvn-sim answers on $sock" "$sim" status

expect 0 started "$sim" start --state "$dir/state"
"$sim" status --json | python3 -c '
import json, sys
s = json.load(sys.stdin)
missing = {"pid", "socket", "state", "clients", "journal", "faults", "services", "devices", "restarts",
           "full_dumps", "nv_syncs", "refused", "evicted", "backlog_drops", "output_bytes"} - s.keys()
assert not missing and s["services"][0]["up"] is True, missing' || fail "status --json"

# Following: lines that come after the start are printed as they come.
"$sim" logcat -f -s kvn-sim >"$dir/log.out" & bg+=($!)
"$sim" journal --follow >"$dir/journal.out" & bg+=($!)
"$kvn" 8 ATZ >/dev/null
"$kvn" 4 1 0 550 >/dev/null
wait_for "$dir/log.out" "I kvn-sim: AT line received: ATZ"
wait_for "$dir/journal.out" '"msg_id":2,'
kill -INT "${bg[@]}"
for p in "${bg[@]}"; do wait "$p" || fail "a follower ended with status $?"; done
bg=()

expect 0 "AT line received: ATZ" "$sim" logcat -s kvn-sim
[ -z "$("$sim" logcat -s nobody)" ] || fail "logcat -s nobody printed lines"
[ "$("$sim" journal | wc -l)" -ge 2 ] || fail "journal holds fewer than 2 lines"
[ "$("$sim" journal --last 1)" = "$("$sim" journal | tail -n 1)" ] || fail "journal --last 1 is not the last line"
expect 0 '' "$sim" logcat -c
"$sim" logcat | grep -q 'AT line received' && fail "logcat -c left old lines"

# efs put reads standard input up to the largest EFS file and stops there.
head -c 102410 /dev/zero | "$sim" efs put 0 /big || fail "efs put of 102410 bytes"
expect 0 '^102410 /big$' "$sim" efs ls 0
expect 1 'standard input is larger than 102410 bytes' timeout 20 "$sim" efs put 0 /big2 < /dev/zero

printf '{"dir":"req"}\n[1]\n' >"$dir/rec.jsonl"
expect 1 "rec.jsonl:2: not a JSON object" "$sim" load --replay "$dir/rec.jsonl"
expect 2 'either FILE or --replay' "$sim" load

[ "$fails" -eq 0 ] && echo "all passed"
exit $((fails > 0))
