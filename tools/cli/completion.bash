# Completion of orvelctl and orvel-sim in bash, from what the programs say themselves.
# shellcheck shell=bash

_orvel_complete() {
  local program=$1
  [[ $program != "~"/* ]] || program=$HOME/${program:2}
  mapfile -t COMPREPLY < <("$program" --complete "${COMP_LINE:0:COMP_POINT}" "$COMP_WORDBREAKS" 2>/dev/null)
  wait $!
  # The names of files are welcome too.
  (($? != 1)) || compopt -o default
  # More of the word is to follow.
  [[ ${#COMPREPLY[@]} -ne 1 || ${COMPREPLY[0]} != *[:=] ]] || compopt -o nospace
}
complete -F _orvel_complete orvelctl orvel-sim
