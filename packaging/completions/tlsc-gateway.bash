# Completion of tlsc-gateway for bash. Options, verbs and their words come from the program's own help; connections, kinds
# of events and faults from a running gateway, so this file does not age with them.

# The lines of a help text, as "verb NAME" and "option NAME TYPE WORDS"; an option without a value has the type -, WORDS
# are those that a description consists of.
_tlsc_gateway_help() {
    "${COMP_WORDS[0]}" "$@" --help 2>/dev/null | awk '
        /^[A-Za-z]/ { in_verbs = ($1 == "Subcommands:"); next }
        in_verbs && /^  [a-z]/ { print "verb", $1; next }
        /^  -/ {
            rest = substr($0, 3)
            text = ""
            if (match(rest, /  +/)) { text = substr(rest, RSTART + RLENGTH); rest = substr(rest, 1, RSTART - 1) }
            if (text !~ /^[a-z_]+(, [a-z_]+)+$/) text = ""
            gsub(/ /, "", text)
            split(rest, part, " ")
            type = part[2] == "" || part[2] ~ /^\[/ ? "-" : part[2]
            count = split(part[1], name, ",")
            for (i = 1; i <= count; i++) print "option", name[i], type, text
        }'
}

# Asks the running gateway that the line names.
_tlsc_gateway_ask() { "${COMP_WORDS[0]}" ctl "${place_socket[@]}" "$@" 2>&1 </dev/null; }

# The words that it names when it refuses one that there is not.
_tlsc_gateway_words() { _tlsc_gateway_ask "$@" '?' | sed -n 's/.*there are: //p' | tr -d ','; }

_tlsc_gateway_values() {  # TYPE WORDS
    case $1 in
    *FILE* | PATH) compgen -f -- "$current"; [[ $1 != *'|-'* ]] || compgen -W - -- "$current" ;;
    EVENT) compgen -W "$(_tlsc_gateway_words events --kind)" -- "$current" ;;
    *'|'*) compgen -W "$(tr '|' '\n' <<<"$1" | grep -x '[a-z]*')" -- "$current" ;;
    *) compgen -W "${2//,/ }" -- "$current" ;;
    esac
}

_tlsc_gateway() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} verb='' second='' type words i
    local place=() place_socket=() help
    COMPREPLY=()

    if [ "${COMP_WORDS[1]:-}" = ctl ] && [ "$COMP_CWORD" -gt 1 ]; then
        place=(ctl)
        for ((i = 2; i < COMP_CWORD; i++)); do
            case ${COMP_WORDS[i]} in
            --socket) i=$((i + 1)) place_socket=(--socket "${COMP_WORDS[i]}") ;;
            -*) ;;
            *) if [ -z "$verb" ]; then verb=${COMP_WORDS[i]}; else second=${COMP_WORDS[i]}; fi ;;
            esac
        done
        [ -z "$verb" ] || place+=("$verb")
    fi
    help=$(_tlsc_gateway_help "${place[@]}"; [ -z "$verb" ] || _tlsc_gateway_help ctl)

    if [[ $previous == -* ]]; then
        read -r type words < <(awk -v name="$previous" '$1 == "option" && $2 == name { print $3, $4; exit }' <<<"$help")
        if [ "${type:--}" != - ]; then
            mapfile -t COMPREPLY < <(_tlsc_gateway_values "$type" "$words" | sort -u)
            return
        fi
    fi
    words=''
    if [[ $current == -* ]]; then words=$(awk '$1 == "option" { print $2 }' <<<"$help")
    elif [ ${#place[@]} = 0 ]; then [ "$COMP_CWORD" != 1 ] || words=ctl
    elif [ -z "$second" ]; then
        case $verb in
        '') words=$(awk '$1 == "verb" { print $2 }' <<<"$help") ;;
        kick) words="all $(_tlsc_gateway_ask --json clients | grep -oE '"client":[0-9]+' | cut -d: -f2)" ;;
        fault) words=$(_tlsc_gateway_words fault) ;;
        run) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current" | sort -u)
}

complete -F _tlsc_gateway tlsc-gateway
