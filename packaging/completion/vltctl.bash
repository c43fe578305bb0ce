# Completion of vltctl for bash. vltctl itself knows what may stand where.
_vltctl() {
  local -a words
  local line=${COMP_LINE:0:COMP_POINT} current start candidate
  read -ra words <<<"$line"
  [[ $line != *[[:space:]] ]] || words+=("")
  current=${words[-1]}
  # Readline replaces only what follows the last of these characters.
  start=${current%"${current##*[:=]}"}
  [[ $COMP_WORDBREAKS == *[:=]* ]] || start=
  COMPREPLY=()
  while IFS=$'\t' read -r candidate _; do
    if [[ $candidate == :files ]]; then
      compopt -o default
    elif [[ $candidate == *= ]]; then
      compopt -o nospace
      COMPREPLY+=("${candidate#"$start"}")
    else
      candidate=${candidate#"$start"}
      COMPREPLY+=("$(printf %q "$candidate")")
    fi
  done < <("${words[0]}" __complete "${words[@]:1}" 2>/dev/null)
}
complete -F _vltctl vltctl
