# bash completion for vestra-stat, vestra-dump, vestra-set and vestra-key: the programs know what may come next.

_vestra() {
    local current=${COMP_WORDS[COMP_CWORD]} line
    COMPREPLY=()
    while IFS= read -r line; do
        if [[ $line == :files ]]; then
            compopt -o filenames 2>/dev/null
            mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$current")
        else
            COMPREPLY+=("${line%%$'\t'*}")
        fi
    done < <("${COMP_WORDS[0]}" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -F _vestra vestra-stat vestra-dump vestra-set vestra-key
