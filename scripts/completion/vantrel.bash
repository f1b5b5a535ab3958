# SPDX-License-Identifier: Apache-2.0
# Completion of vantrel and vantreld for bash, out of the programs' own help: verbs, flags, and else files.
# shellcheck shell=bash
_vantrel_words() {
  # The verbs, or the flags with two dashes, of a help text.
  if [[ $1 == verbs ]]; then
    awk '/^Subcommands:/ { on = 1; next } /^$/ { on = 0 } on && /^  [a-z]/ { print $1 }'
  else
    grep -oE '^  (-[a-zA-Z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+'
  fi
}
_vantrel() {
  local program=${COMP_WORDS[0]} word=${COMP_WORDS[COMP_CWORD]} candidates=
  COMPREPLY=()
  local -a path=()  # the verb, and its action if it has any
  local at help
  help=$("$program" --help 2>/dev/null)
  for ((at = 1; at < COMP_CWORD && at < 3; ++at)); do
    _vantrel_words verbs <<<"$help" | grep -qx -- "${COMP_WORDS[at]}" || break
    path+=("${COMP_WORDS[at]}")
    help=$("$program" "${path[@]}" --help 2>/dev/null)
  done
  if [[ $word == -* ]]; then
    candidates=$(_vantrel_words flags <<<"$help")
  elif ((COMP_CWORD == ${#path[@]} + 1)); then
    candidates=$(_vantrel_words verbs <<<"$help")
  fi
  if [[ -n $candidates ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$word")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}
complete -o filenames -F _vantrel vantrel vantreld
