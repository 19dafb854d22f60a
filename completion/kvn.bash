# bash completion for kvn (group and sub-command numbers) and kvn-sim
# (commands, their sub-commands and options). Installed once under each
# program's name.

_kvn_sim() {
  local cur prev cmd sub i
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD-1]}
  cmd= sub=
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      --socket|--state|--scenario|--group|--replay|--last|--count|--after|-s) ((i++)) ;;
      -*) ;;
      *) if [ -z "$cmd" ]; then cmd=${COMP_WORDS[i]}; elif [ -z "$sub" ]; then sub=${COMP_WORDS[i]}; fi ;;
    esac
  done
  case $prev in
    --socket|--state|--scenario|--replay)
      [ "$prev" = --state ] && COMPREPLY=($(compgen -d -- "$cur")) || COMPREPLY=($(compgen -f -- "$cur"))
      return ;;
    --last|--count|--after|-s) return ;;
  esac
  local words
  case $cmd in
    "") words="start run stop status load ssr service fault journal prop indicate logcat nv efs -h --help -V --version" ;;
    start|run) words="--state --scenario --group" ;;
    status) words="--json" ;;
    load) words="--replay"; COMPREPLY=($(compgen -f -- "$cur")) ;;
    service) [ -z "$sub" ] && words="extend uim vs sar nas all at diag" || words="up down" ;;
    fault)
      if [ -z "$sub" ]; then words="clear extend uim vs sar nas diag"
      else words="no-reply delay= qmi-error= drop truncate --count --after"; fi ;;
    journal) words="--last --follow --clear" ;;
    logcat) words="-f --follow -c --clear -s" ;;
    prop) [ -z "$sub" ] && words="get set list" ;;
    nv) [ -z "$sub" ] && words="get set rm" ;;
    efs) [ -z "$sub" ] && words="ls get put rm" || COMPREPLY=($(compgen -f -- "$cur")) ;;
    indicate) [ -z "$sub" ] && words="extend uim vs sar nas" ;;
  esac
  [ -n "$cmd" ] && words+=" --socket --help"
  COMPREPLY+=($(compgen -W "$words" -- "$cur"))
}

# kvn GROUP SUB ...: the group numbers, then each group's sub-commands.
_kvn() {
  local cur=${COMP_WORDS[COMP_CWORD]} words=
  case $COMP_CWORD in
    1) words="1 2 3 4 5 6 7 8 9 10 11" ;;
    2)
      case ${COMP_WORDS[1]} in
        1) words="1 2 3 4" ;;
        2) words="0 1" ;;
        3) words="0 1 2 3 4 5" ;;
        4) words="1 2 3 4 5 6" ;;
        5) words="0 1 2 3 4 5 6 10" ;;
        7) words="0 1" ;;
        9) words="0 1 2 3 4 5 6 7 8 9 10 11 12 20 21 30" ;;
        11) words="0 1 2 3 4 5 6" ;;
      esac ;;
    3) [ "${COMP_WORDS[1]}" = 4 ] && words="0 1" ;;
  esac
  COMPREPLY=($(compgen -W "$words" -- "$cur"))
}

complete -F _kvn_sim kvn-sim
complete -F _kvn kvn
