#!/usr/bin/env bash
# Checks the bash completion of quire in a bash of its own: sources the completion script, fills
# COMP_WORDS as bash does for a line typed up to the cursor, calls the completion function and
# compares COMPREPLY. Once as the script stands alone and once under the bash-completion package
# (when it is installed).
#   completion_check.sh COMPLETION_SCRIPT QUIRE_PROGRAM
# With QUIRE_COMPLETION_SERVER, QUIRE_COMPLETION_CACERT and QUIRE_TOKEN set (an emulator that
# holds documents titled "Quarterly report", "Quarterly plan" and "notes"), document titles are
# checked too.
set -euo pipefail
script=$(realpath "$1")
program=$(realpath "$2")

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch/bin" "$scratch/config/quire" "$scratch/files/sub"
ln -s "$program" "$scratch/bin/quire"
touch "$scratch/files/alpha.pem" "$scratch/files/alpine.txt" "$scratch/files/beta"
cat >"$scratch/config/quire/config" <<'INI'
# profiles for the completion check
[work]
timeout = 10

[ staging ]
retries = 2
INI

run_checks() {
  local with_package=$1
  env -i PATH="$scratch/bin:/usr/bin:/bin" HOME="$scratch/home" \
    XDG_CONFIG_HOME="$scratch/config" ${QUIRE_TOKEN:+QUIRE_TOKEN=$QUIRE_TOKEN} \
    ${QUIRE_COMPLETION_SERVER:+QUIRE_COMPLETION_SERVER=$QUIRE_COMPLETION_SERVER} \
    ${QUIRE_COMPLETION_CACERT:+QUIRE_COMPLETION_CACERT=$QUIRE_COMPLETION_CACERT} \
    WITH_PACKAGE="$with_package" SCRIPT="$script" FILES="$scratch/files" \
    LD_LIBRARY_PATH="${LD_LIBRARY_PATH:-}" bash --norc --noprofile <<'CHECKS'
set -uo pipefail
if [ "$WITH_PACKAGE" = yes ]; then source /usr/share/bash-completion/bash_completion; fi
source "$SCRIPT"
failures=0

# Completes the line (the cursor at its end) and prints the candidates, sorted, one per line.
complete_line() {
  local line=$1
  # Words at unescaped blanks, quoting kept, as bash gives them.
  COMP_WORDS=()
  local rest=$line word=""
  while [[ -n $rest ]]; do
    if [[ $rest == '\ '* ]]; then
      word+='\ '
      rest=${rest:2}
    elif [[ $rest == ' '* ]]; then
      COMP_WORDS+=("$word")
      word=""
      rest=${rest:1}
    else
      word+=${rest:0:1}
      rest=${rest:1}
    fi
  done
  COMP_WORDS+=("$word")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMP_LINE=$line
  COMP_POINT=${#line}
  COMPREPLY=()
  # In this shell, not a subshell, as bash calls it: what the script caches stays.
  _quire quire "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sort)
}

expect() {  # expect LINE CANDIDATE... : exactly these candidates
  local line=$1
  shift
  local want
  complete_line "$line"
  want=$(printf '%s\n' "$@" | sort)
  if [ "$got" != "$want" ]; then
    echo "FAILED ($WITH_PACKAGE): '$line' completed to [${got//$'\n'/, }], expected [${want//$'\n'/, }]"
    failures=$((failures + 1))
  fi
}

expect_has() {  # expect_has LINE CANDIDATE... : at least these candidates
  local line=$1
  shift
  local want
  complete_line "$line"
  for want in "$@"; do
    if ! grep -qxF -- "$want" <<<"$got"; then
      echo "FAILED ($WITH_PACKAGE): '$line' did not offer '$want' (got [${got//$'\n'/, }])"
      failures=$((failures + 1))
    fi
  done
}

complete -p quire | grep -q -- '-F _quire quire$' || { echo "FAILED: no completion for quire"; failures=$((failures + 1)); }
expect_has "quire " whoami ls get put replace rm upload demo config
expect "quire up" upload
expect "quire re" replace
expect_has "quire --" --server --cacert --token-file --timeout --profile --verbose --insecure --help
expect "quire --se" --server
expect "quire --prof" --profile
expect "quire upload --ch" --chunk-size
expect_has "quire get -" -o --output --server
expect "quire ls --js" --json
expect "quire --profile " staging work
expect "quire --profile st" staging

cd "$FILES"
expect "quire --cacert al" alpha.pem alpine.txt
expect "quire --server https://127.0.0.1:1 --token-file be" beta
expect "quire put al" alpha.pem alpine.txt
expect "quire upload --title T b" beta
expect "quire get -o al" alpha.pem alpine.txt
expect "quire replace notes al" alpha.pem alpine.txt
# No file, no document where none is expected.
expect "quire whoami " 
expect "quire rm notes " 
expect "quire --timeout " 

# Document titles: not asked for without a token.
QUIRE_TOKEN_SAVED=${QUIRE_TOKEN:-}
unset QUIRE_TOKEN
mv "$XDG_CONFIG_HOME/quire/config" "$XDG_CONFIG_HOME/quire/config.off"
expect "quire --server https://127.0.0.1:1 get " 
mv "$XDG_CONFIG_HOME/quire/config.off" "$XDG_CONFIG_HOME/quire/config"
if [ -n "${QUIRE_COMPLETION_SERVER:-}" ]; then
  export QUIRE_TOKEN=$QUIRE_TOKEN_SAVED
  server=(--server "$QUIRE_COMPLETION_SERVER" --cacert "$QUIRE_COMPLETION_CACERT")
  expect "quire ${server[*]} get Q" 'Quarterly\ plan' 'Quarterly\ report'
  expect "quire ${server[*]} rm n" notes
  expect "quire ${server[*]} --timeout 30 replace Quarterly\ r" 'Quarterly\ report'
  expect "quire ${server[*]} upload --to n" notes
  # A wrong token: the service refuses, nothing is offered and nothing is printed.
  out=$(QUIRE_TOKEN=wrong-token-4f3e2d complete_line "quire ${server[*]} get " 2>&1; printf '%s' "$got")
  [ -z "$out" ] || { echo "FAILED: a refused listing printed [$out]"; failures=$((failures + 1)); }
fi
exit $((failures > 0))
CHECKS
}

run_checks no
if [ -f /usr/share/bash-completion/bash_completion ]; then run_checks yes; fi
echo "completion: commands, options, files, profiles${QUIRE_COMPLETION_SERVER:+ and document titles} complete as expected"
