# Bash completion for ihproxyd and ihproxyctl. Commands and options are those that --help tells;
# interfaces and groups, those of the running agent, if it answers soon.

_ihproxy() {
    local program=$1 current=$2 previous=$3 command='' control=() words='' i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
        --control) control=(--control "${COMP_WORDS[++i]}") ;;
        -*) ;;
        *) [ -n "$command" ] || command=${COMP_WORDS[i]} ;;
        esac
    done
    if [[ $current == -* ]]; then
        # shellcheck disable=SC2086 # there may be no command
        words=$("$program" $command --help 2>/dev/null | grep -o -- '--[a-z][a-z-]*')
    elif [[ $previous == --control || $program != *ctl ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    elif [ -z "$command" ]; then
        words=$("$program" --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z]*\) .*/\1/p')
    else
        case $command,$previous in
        *,-i | *,--interface | why,why | wait,--group) words=$(_ihproxy_ask interfaces name) ;;
        groups,* | why,* | wait,*) words=$(_ihproxy_ask groups group) ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

# The values of a member of the running agent's answer.
_ihproxy_ask() {
    timeout 1 "$program" "${control[@]}" "$1" --json 2>/dev/null |
        sed -n "s/^ *\"$2\": \"\\(.*\\)\",\\{0,1\\}$/\\1/p" | sort -u
}

complete -F _ihproxy ihproxyd ihproxyctl
