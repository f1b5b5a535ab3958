# SPDX-License-Identifier: Apache-2.0
# Completion of vantrel and vantreld for bash, out of the programs' own help: verbs, flags, and else files.
# shellcheck shell=bash
_vantrel_words() {
  # The verbs, or the flags with two dashes, of a help text.
  if [[ $1 == verbs ]]; then
    awk '/^Subcommands:/ { on = 1; next } on && /^  [a-z]/ { print $1 }'
  else
    grep -oE '^  (-[a-zA-Z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+'
  fi
}
_vantrel() {
  local program=${COMP_WORDS[0]} word=${COMP_WORDS[COMP_CWORD]} verb= candidates=
  COMPREPLY=()
  ((COMP_CWORD > 1)) && [[ ${COMP_WORDS[1]} != -* ]] && verb=${COMP_WORDS[1]}
  if [[ $word == -* ]]; then
    candidates=$("$program" ${verb:+"$verb"} --help 2>/dev/null | _vantrel_words flags)
  elif ((COMP_CWORD == 1)); then
    candidates=$("$program" --help 2>/dev/null | _vantrel_words verbs)
  fi
  if [[ -n $candidates ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$word")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}
complete -o filenames -F _vantrel vantrel vantreld
