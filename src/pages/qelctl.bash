# bash completion for qelctl                                -*- shell-script -*-

# What the running daemon knows, one in a line; nothing, if none answers within a second. Its JSON has a key in a line.
_qelctl_codes() {
  "$1" status --json --timeout 1 2>/dev/null | sed -n 's/^ *"code": \([0-9]*\),$/\1/p' | sort -nu
}

_qelctl_components() {
  "$1" status --json --timeout 1 2>/dev/null | sed -n '/^  "components"/,/^  \]/s/^ *"name": "\(.*\)",$/\1/p' | sort -u
}

# The candidates, one in a line, that begin with the word; quoted, where the shell would split them.
_qelctl_offer() {
  local word=$1 candidate
  while IFS= read -r candidate; do
    [[ -n $candidate && $candidate == "$word"* ]] && COMPREPLY+=("$(printf '%q' "$candidate")")
  done
}

# What a value or an argument of this kind may be; the others are not for us to guess.
_qelctl_values() {
  local program=$1 kind=$2 word=$3
  case $kind in
    FILE | PATH | KEY | DIR)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      ;;
    FEATURE | CODE...) _qelctl_offer "$word" < <(_qelctl_codes "$program") ;;
    COMPONENT | NAME) _qelctl_offer "$word" < <(_qelctl_components "$program") ;;
    WHAT) _qelctl_offer "$word" < <(_qelctl_codes "$program"; _qelctl_components "$program") ;;
    COMMAND) _qelctl_offer "$word" < <(tr ' ' '\n' <<<"@COMMANDS@") ;;
    *"|"*) _qelctl_offer "$word" < <(tr '|' '\n' <<<"$kind") ;;
  esac
}

_qelctl() {
  local word=${COMP_WORDS[COMP_CWORD]} options values arguments kind='' place=0 i
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    _qelctl_offer "$word" < <(tr ' ' '\n' <<<"@COMMANDS@ --help --version")
    return
  fi
  case ${COMP_WORDS[1]} in
@CASES@
    *) return ;;
  esac
  # The word is the value of an option, or an option, or an argument, of which some may stand before it.
  for ((i = 2; i <= COMP_CWORD; ++i)); do
    kind=
    if [[ " $values " =~ " ${COMP_WORDS[i - 1]}="([^ ]*) ]]; then
      kind=${BASH_REMATCH[1]}
    elif [[ ${COMP_WORDS[i]} != -* ]]; then
      kind=${arguments[place++]-}
    fi
  done
  if [[ -z $kind && $word == -* ]]; then
    _qelctl_offer "$word" < <(tr ' ' '\n' <<<"$options")
  else
    _qelctl_values "$1" "$kind" "$word"
  fi
}

complete -F _qelctl qelctl
