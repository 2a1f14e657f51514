# bash completion for quire: commands, options, files where a file is expected, profile names
# after --profile, and document titles where a DOC is expected.
#
# The commands and options are read from quire's own help (once per shell and command), so the
# completion follows the program it sits beside. Document titles come from `quire ls --titles`,
# asked only when a token and a server are configured (by options, QUIRE_TOKEN or a profile), with
# a time-out of a few seconds; its error output is discarded and nothing of the token is shown.

# Sets _quire_reply to the options of `quire [command] --help`, one per line, a trailing "=" on
# those that take a value. Kept for the rest of the shell's life (not called in a subshell).
_quire_options() {
  local cmd=$1 key=_quire_opts_${1:-global}
  key=${key//[!a-zA-Z0-9_]/_}
  if [[ -z ${!key+set} ]]; then
    local help
    if [[ -n $cmd ]]; then
      help=$("${_quire_program:-quire}" "$cmd" --help 2>/dev/null)
    else
      help=$("${_quire_program:-quire}" --help 2>/dev/null)
    fi
    printf -v "$key" '%s' "$(printf '%s\n' "$help" | sed -n -E \
      -e 's/^ +(-[^ ]+) +[A-Z][A-Z_]*([:= ].*)?$/\1=/p' \
      -e 's/^ +(-[^ ]+)( .*)?$/\1/p' | while IFS= read -r spec; do
        value=""
        [[ $spec == *= ]] && value="=" && spec=${spec%=}
        IFS=, read -ra names <<<"$spec"
        for name in "${names[@]}"; do
          [[ $name == -* ]] && printf '%s%s\n' "$name" "$value"
        done
      done)"
  fi
  _quire_reply=${!key}
}

# Sets _quire_reply to the commands of `quire --help`, one per line (kept like the options).
_quire_commands() {
  if [[ -z ${_quire_cmds+set} ]]; then
    _quire_cmds=$("${_quire_program:-quire}" --help 2>/dev/null | sed -n -E \
      -e '/^SUBCOMMANDS:/I,/^$/s/^ +([a-z][a-z0-9-]*)( .*)?$/\1/p')
  fi
  _quire_reply=$_quire_cmds
}

# The names of the profiles in the configuration file.
_quire_profiles() {
  local file=${XDG_CONFIG_HOME:-$HOME/.config}/quire/config
  [[ -r $file ]] || return 0
  sed -n -E 's/^[[:space:]]*\[[[:space:]]*([^]]*[^][:space:]])[[:space:]]*\][[:space:]]*$/\1/p' \
    "$file"
}

# The titles of the documents, one per line, or nothing when no token or no server is configured.
# `quire config` (which asks nothing of the service and masks the token) says whether they are,
# by the same rules as every command. $@: the global options given on the line so far (without
# --timeout).
_quire_titles() {
  local settings
  settings=$("${_quire_program:-quire}" "$@" config 2>/dev/null) || return 0
  grep -q "^server  *(the service's own hosts)" <<<"$settings" && return 0
  grep -q '^token  *(none)' <<<"$settings" && return 0
  local limit=${QUIRE_COMPLETION_TIMEOUT:-3}
  if type -P timeout >/dev/null; then
    timeout "$limit" "${_quire_program:-quire}" "$@" --timeout "$limit" ls --titles 2>/dev/null
  else
    "${_quire_program:-quire}" "$@" --timeout "$limit" ls --titles 2>/dev/null
  fi
}

# A word as the shell will pass it: surrounding quotes and backslash escapes removed.
_quire_dequote() {
  local word=$1
  if [[ $word == \'* ]]; then
    word=${word#\'}
    word=${word%\'}
  elif [[ $word == \"* ]]; then
    word=${word#\"}
    word=${word%\"}
  fi
  printf '%s' "$word" | sed -e 's/\\\(.\)/\1/g'
}

# Splits the line up to the cursor into words at unquoted blanks only (bash's own COMP_WORDS also
# breaks at ':' and '=', which would cut addresses apart). Sets words, cword, cur and prev.
_quire_split_line() {
  local line=${COMP_LINE:0:COMP_POINT} word="" c i escaped=no quote=""
  words=()
  for ((i = 0; i < ${#line}; i++)); do
    c=${line:i:1}
    if [[ $escaped == yes ]]; then
      word+=$c
      escaped=no
    elif [[ $c == \\ && $quote != \' ]]; then
      word+=$c
      escaped=yes
    elif [[ -n $quote ]]; then
      word+=$c
      [[ $c == "$quote" ]] && quote=""
    elif [[ $c == [\"\'] ]]; then
      quote=$c
      word+=$c
    elif [[ $c == [[:space:]] ]]; then
      [[ -n $word ]] && words+=("$word")
      word=""
    else
      word+=$c
    fi
  done
  words+=("$word")
  cword=$((${#words[@]} - 1))
  cur=$word
  prev=${words[cword - 1]:-}
}

# Fills COMPREPLY with the lines of $1 that start with $2 (as typed), each quoted for the shell.
_quire_reply_lines() {
  local lines=$1 cur line
  cur=$(_quire_dequote "$2")
  COMPREPLY=()
  while IFS= read -r line; do
    [[ -n $line && $line == "$cur"* ]] && COMPREPLY+=("$(printf '%q' "$line")")
  done <<<"$lines"
}

_quire() {
  local cur prev words cword
  if declare -F _init_completion >/dev/null; then
    _init_completion -n =: || return
  else
    _quire_split_line
  fi
  _quire_program=$(_quire_dequote "${words[0]}")
  [[ $_quire_program == */* || -z $_quire_program ]] || _quire_program=$(type -P "$_quire_program")
  _quire_program=${_quire_program:-quire}

  # Walk the words before the cursor: the command, the global options (for the titles), and the
  # positional arguments of the command.
  local cmd="" i word global=() positionals=0 expects=""
  local commands global_opts _quire_reply
  _quire_commands
  commands=$_quire_reply
  _quire_options ""
  global_opts=$_quire_reply
  for ((i = 1; i < cword; i++)); do
    word=${words[i]}
    if [[ -n $expects ]]; then
      [[ -z $cmd && $expects != --timeout ]] && global+=("$expects" "$(_quire_dequote "$word")")
      expects=""
      continue
    fi
    if [[ $word == -* ]]; then
      local opts
      _quire_options "$cmd"
      opts=$_quire_reply
      [[ -z $cmd ]] || opts+=$'\n'$global_opts
      if [[ $word != *=* ]] && grep -qx -- "$word=" <<<"$opts"; then
        expects=$word
      elif [[ -z $cmd && $word != --timeout=* && $word != -v* && $word != --verbose ]]; then
        global+=("$(_quire_dequote "$word")")
      fi
    elif [[ -z $cmd ]]; then
      cmd=$word
    else
      ((positionals++))
    fi
  done

  # The value of an option.
  if [[ -n $expects ]]; then
    case $expects in
      --cacert | --token-file | -o | --output | --state-file)
        compopt -o filenames 2>/dev/null
        COMPREPLY=($(compgen -f -- "$cur"))
        ;;
      --server-binary)
        compopt -o filenames 2>/dev/null
        COMPREPLY=($(compgen -c -f -- "$cur"))
        ;;
      --profile) _quire_reply_lines "$(_quire_profiles)" "$cur" ;;
      --to) _quire_reply_lines "$(_quire_titles "${global[@]}")" "$cur" ;;
      *) COMPREPLY=() ;;
    esac
    return 0
  fi

  if [[ $cur == -* ]]; then
    local opts
    _quire_options "$cmd"
    opts=$_quire_reply
    [[ -z $cmd ]] || opts+=$'\n'$global_opts
    COMPREPLY=($(compgen -W "$(sed 's/=$//' <<<"$opts" | sort -u)" -- "$cur"))
    return 0
  fi

  if [[ -z $cmd ]]; then
    COMPREPLY=($(compgen -W "$commands" -- "$cur"))
    return 0
  fi

  # A positional argument: a document, a file, or nothing.
  local kind=""
  case $cmd:$positionals in
    get:0 | rm:0 | replace:0) kind=doc ;;
    put:0 | replace:1 | upload:0) kind=file ;;
  esac
  case $kind in
    doc) _quire_reply_lines "$(_quire_titles "${global[@]}")" "$cur" ;;
    file)
      compopt -o filenames 2>/dev/null
      COMPREPLY=($(compgen -f -- "$cur"))
      ;;
    *) COMPREPLY=() ;;
  esac
  return 0
}

complete -F _quire quire
