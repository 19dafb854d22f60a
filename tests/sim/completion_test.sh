#!/usr/bin/env bash
# Loads the bash completion script and checks what it offers for a few
# command lines of kvn-sim and kvn.
# usage: completion_test.sh COMPLETION_SCRIPT
set -u
source "$1"
fails=0
# offers "LINE" WORDS...: completing at the end of LINE offers exactly WORDS.
offers() {
  local line=$1; shift
  read -ra COMP_WORDS <<<"$line"
  [[ $line == *" " ]] && COMP_WORDS+=("")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  "$(complete -p "${COMP_WORDS[0]}" | sed 's/.*-F \([^ ]*\) .*/\1/')"
  local got="${COMPREPLY[*]}" want="$*"
  [ "$got" = "$want" ] || { echo "FAIL: '$line' offers '$got', not '$want'"; fails=$((fails + 1)); }
}
offers "kvn-sim st" start stop status
offers "kvn-sim efs " ls get put rm --socket --help
offers "kvn-sim --socket /tmp/x nv g" get
offers "kvn-sim service uim " up down --socket --help
offers "kvn-sim fault extend 2 d" delay= drop
offers "kvn-sim logcat -" -f --follow -c --clear -s --socket --help
offers "kvn-sim journal --l" --last
offers "kvn 1" 1 10 11
offers "kvn 4 " 1 2 3 4 5 6
offers "kvn 4 1 " 0 1
[ "$fails" -eq 0 ] && echo "all passed"
exit $((fails > 0))
