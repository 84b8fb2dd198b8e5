# Completion of wlcctl for fish. Verbs and options come from the program's own help, reason codes from "wlcctl why", event
# kinds from a running agent, so this file does not age with them.

# The words before the cursor that are no options: the verb, and what follows it.
function __wlcctl_words
    set -l words (commandline -opc)
    set -l skip 0
    for word in $words[2..]
        if test $skip = 1
            set skip 0
        else if test $word = --socket
            set skip 1
        else if not string match -q -- '-*' $word
            echo $word
        end
    end
end

function __wlcctl_at --description 'true when exactly these words stand before the cursor'
    test "$(string join " " (__wlcctl_words))" = "$argv"
end

function __wlcctl_verbs
    wlcctl --help 2>/dev/null | awk '
        /^[A-Za-z]/ { in_verbs = ($1 == "Subcommands:"); next }
        in_verbs && /^  [a-z]/ { name = $1; $1 = ""; sub(/^ +/, ""); print name "\t" $0 }'
end

# The options of the verb that stands there, with what they are for.
function __wlcctl_options
    set -l words (__wlcctl_words)
    set -l place
    test (count $words) -ge 1; and set place $words[1]
    test (count $words) -ge 2; and test $words[1] = conf; and set place $words[1..2]
    begin
        wlcctl $place --help
        wlcctl --help
    end 2>/dev/null | awk '
        /^  -/ {
            count = split($1, name, ",")
            text = $0
            sub(/^  [^ ]+ .*   */, "", text)
            for (i = 1; i <= count; i++) if (name[i] !~ /_/ && !seen[name[i]]++) print name[i] "\t" text
        }'
end

function __wlcctl_kinds
    string split ' ' 'agent_started hello tun_in_prog tun_up tun_down inner_ip dns stats process name_query sent send_failed daemon_appeared daemon_gone daemon_began tunnel hook_started hook_ended'
    wlcctl --json events 2>/dev/null | grep -oE '"(event|kind)":"[a-z_]+"' | cut -d'"' -f4
end

function __wlcctl_codes
    wlcctl why 2>/dev/null | grep -xE '[a-z]+(-[a-z]+)*'
end

function __wlcctl_after
    contains -- (commandline -opc)[-1] $argv
end

# The words that the option before the cursor takes, as the help names them: --level LEVEL:{errors,warnings}.
function __wlcctl_choices
    set -l words (__wlcctl_words)
    set -l last (commandline -opc)[-1]
    string match -q -- '-*' $last; or return
    wlcctl $words[1] --help 2>/dev/null | awk -v name=$last '
        /^  -/ && $2 ~ /\{/ {
            count = split($1, names, ",")
            for (i = 1; i <= count; i++) if (names[i] == name) {
                sub(/^[^{]*\{/, "", $2); sub(/\}.*/, "", $2); gsub(/,/, "\n", $2); print $2
            }
        }'
end

# What takes a file, and everything else: no file.
complete -c wlcctl -n '__wlcctl_after --socket --conf --file --psk-key-file --from-daemon --to-daemon --run --out -o' -F
complete -c wlcctl -n '__wlcctl_at lint; or __wlcctl_at decode' -F
complete -c wlcctl -n 'not __wlcctl_after --socket --conf --file --psk-key-file --from-daemon --to-daemon --run --out -o; and not __wlcctl_at lint; and not __wlcctl_at decode' -f

complete -c wlcctl -n '__wlcctl_at' -a '(__wlcctl_verbs)'
complete -c wlcctl -n 'string match -q -- "-*" (commandline -ct)' -a '(__wlcctl_options)'
complete -c wlcctl -n '__wlcctl_at conf' -a 'init show'
complete -c wlcctl -n '__wlcctl_at wait' -a 'up down'
complete -c wlcctl -n '__wlcctl_at why' -a '(__wlcctl_codes)'
complete -c wlcctl -n '__wlcctl_at help' -a '(__wlcctl_verbs)'
complete -c wlcctl -n '__wlcctl_at debug' -a 'level destination'
complete -c wlcctl -n '__wlcctl_at debug level' -a 'errors warnings info debug ssl-dbg buf-print'
complete -c wlcctl -n '__wlcctl_at debug destination; or __wlcctl_at debug dest' -a 'file console both'
complete -c wlcctl -n 'test (count (__wlcctl_words)) -ge 1' -a '(__wlcctl_choices)'
complete -c wlcctl -n '__wlcctl_after --kind --event' -a '(__wlcctl_kinds)'
