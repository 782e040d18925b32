# bash completion of ovani's tools. They know themselves what may come: tools/completion.h.
_ovani() {
    local word
    COMPREPLY=()
    while IFS=$'\t' read -r word _; do
        if [[ $word == :files ]]; then
            compopt -o default
        elif [[ $word == "${COMP_WORDS[COMP_CWORD]}"* ]]; then
            COMPREPLY+=("$word")
        fi
    done < <("$1" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
    [[ ${COMPREPLY[0]-} != *. ]] || compopt -o nospace # a path goes on
}
complete -F _ovani ovanictl ovani-journal ovani-brwatch
