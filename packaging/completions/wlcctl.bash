# Completion of wlcctl for bash. Verbs and options come from the program's own help, reason codes from "wlcctl why", event
# kinds from a running agent, so this file does not age with them.

# The lines of a help text, as "verb NAME" and "option NAME TYPE"; an option without a value has the type -.
_wlcctl_help() {
    "${COMP_WORDS[0]}" "$@" --help 2>/dev/null | awk '
        /^[A-Za-z]/ { in_verbs = ($1 == "Subcommands:"); next }
        in_verbs && /^  [a-z]/ { print "verb", $1; next }
        /^  -/ {
            names = $1
            type = ($2 ~ /^\[?[A-Z]+/ && $0 !~ ("^  " $1 "   ")) ? $2 : "-"
            sub(/=.*/, "", type)
            gsub(/[][]/, "", type)
            count = split(names, name, ",")
            for (i = 1; i <= count; i++) if (name[i] !~ /_/) print "option", name[i], type
        }'
}

_wlcctl_codes() { "${COMP_WORDS[0]}" why 2>/dev/null | grep -xE '[a-z]+(-[a-z]+)*'; }

_wlcctl_kinds() {
    echo agent_started hello tun_in_prog tun_up tun_down inner_ip dns stats process name_query sent send_failed \
        daemon_appeared daemon_gone daemon_began tunnel hook_started hook_ended
    "${COMP_WORDS[0]}" --json events 2>/dev/null | grep -oE '"(event|kind)":"[a-z_]+"' | cut -d'"' -f4
}

_wlcctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} verb='' second='' type i
    COMPREPLY=()

    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --socket) ((i++)) ;;
        -*) ;;
        *) if [ -z "$verb" ]; then verb=${COMP_WORDS[i]}; else second=${second:-${COMP_WORDS[i]}}; fi ;;
        esac
    done

    local place=()
    [ -z "$verb" ] || place=("$verb")
    [ "$verb" != conf ] || [ -z "$second" ] || place+=("$second")
    local help
    help=$(_wlcctl_help "${place[@]}"; _wlcctl_help)

    # The value of an option.
    if [[ $previous == -* ]]; then
        type=$(awk -v name="$previous" '$1 == "option" && $2 == name { print $3; exit }' <<<"$help")
        case $type in
        PATH | FILE | PROGRAM) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
        KIND) mapfile -t COMPREPLY < <(compgen -W "$(_wlcctl_kinds)" -- "$current" | sort -u); return ;;
        *'{'*)
            type=${type#*\{}
            type=${type%\}*}
            mapfile -t COMPREPLY < <(compgen -W "${type//,/ }" -- "$current")
            return
            ;;
        GROUP) mapfile -t COMPREPLY < <(compgen -g -- "$current"); return ;;
        - | '') ;;
        *) return ;;
        esac
    fi

    local words=''
    if [[ $current == -* ]]; then words=$(awk '$1 == "option" { print $2 }' <<<"$help")
    else
        case $verb in
        '') words=$(awk '$1 == "verb" { print $2 }' <<<"$help") ;;
        help) words=$(_wlcctl_help | awk '$1 == "verb" { print $2 }') ;;
        conf) [ -n "$second" ] || words='init show' ;;
        wait) [ -n "$second" ] || words='up down' ;;
        why) [ -n "$second" ] || words=$(_wlcctl_codes) ;;
        lint | decode) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
        debug)
            case $second in
            '') words='level destination' ;;
            level) words='errors warnings info debug ssl-dbg buf-print' ;;
            *) words='file console both' ;;
            esac
            ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current" | sort -u)
}

complete -F _wlcctl wlcctl
