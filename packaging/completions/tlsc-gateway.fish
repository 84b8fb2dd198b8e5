# Completion of tlsc-gateway for fish. Options, verbs and their words come from the program's own help; connections, kinds
# of events and faults from a running gateway, so this file does not age with them.

# The words before the cursor that are no options, the value of --socket apart: ctl, its verb, and what follows.
function __tlsc_gateway_words
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

# Where the line stands: nothing, "ctl", or "ctl" and its verb. An option's value in front of ctl is no verb.
function __tlsc_gateway_place
    set -l line (commandline -opc)
    test (count $line) -ge 2; and test "$line[2]" = ctl; or return
    set -l words (__tlsc_gateway_words)
    echo ctl
    test (count $words) -ge 2; and echo $words[2]
end

function __tlsc_gateway_at --description 'true when exactly these words stand before the cursor'
    set -l words (__tlsc_gateway_place)
    test "$words" = "$argv"; and test (count (__tlsc_gateway_words)) -le (count $argv)
end

# Asks the running gateway that the line names.
function __tlsc_gateway_ask
    set -l line (commandline -opc)
    set -l socket
    set -l at (contains -i -- --socket $line); and set socket --socket $line[(math $at + 1)]
    tlsc-gateway ctl $socket $argv 2>&1 </dev/null
end

# The words that it names when it refuses one that there is not.
function __tlsc_gateway_refused
    __tlsc_gateway_ask $argv '?' | sed -n 's/.*there are: //p' | string split ', '
end

function __tlsc_gateway_verbs
    tlsc-gateway ctl --help 2>/dev/null | awk '
        /^[A-Za-z]/ { in_verbs = ($1 == "Subcommands:"); next }
        in_verbs && /^  [a-z]/ { name = $1; $1 = ""; sub(/^ +/, ""); print name "\t" $0 }'
end

# NAME, TYPE, DESCRIPTION with tabs between them, for each option that may stand there; one without a value has the type -.
function __tlsc_gateway_known
    set -l place (__tlsc_gateway_place)
    begin
        tlsc-gateway $place --help
        test (count $place) = 2; and tlsc-gateway ctl --help
    end 2>/dev/null | awk '
        /^  -/ {
            rest = substr($0, 3)
            text = ""
            if (match(rest, /  +/)) { text = substr(rest, RSTART + RLENGTH); rest = substr(rest, 1, RSTART - 1) }
            split(rest, part, " ")
            type = part[2] == "" || part[2] ~ /^\[/ ? "-" : part[2]
            count = split(part[1], name, ",")
            for (i = 1; i <= count; i++) if (!seen[name[i]]++) print name[i] "\t" type "\t" text
        }'
end

function __tlsc_gateway_options
    __tlsc_gateway_known | awk -F '\t' '{ print $1 "\t" $3 }'
end

# The type of the value that the option before the cursor takes; nothing when it takes none.
function __tlsc_gateway_type
    __tlsc_gateway_known | awk -F '\t' -v name=(commandline -opc)[-1] '$1 == name && $2 != "-" { print $2; exit }'
end

function __tlsc_gateway_takes_file
    string match -qr 'FILE|PATH' -- (__tlsc_gateway_type); or __tlsc_gateway_at ctl run
end

# The words that the option before the cursor takes.
function __tlsc_gateway_values
    set -l type (__tlsc_gateway_type)
    switch "$type"
        case ''
        case EVENT
            __tlsc_gateway_refused events --kind
        case '*|*'
            string split '|' -- $type | grep -xE '[a-z]+|-'
        case '*'
            __tlsc_gateway_known | awk -F '\t' -v name=(commandline -opc)[-1] '
                $1 == name && $3 ~ /^[a-z_]+(, [a-z_]+)+$/ { gsub(/, /, "\n", $3); print $3; exit }'
    end
end

function __tlsc_gateway_is_value
    test -n "$(__tlsc_gateway_type)"
end

complete -c tlsc-gateway -n __tlsc_gateway_takes_file -F
complete -c tlsc-gateway -n 'not __tlsc_gateway_takes_file' -f
complete -c tlsc-gateway -n __tlsc_gateway_is_value -a '(__tlsc_gateway_values)'
complete -c tlsc-gateway -n 'not __tlsc_gateway_is_value; and test (count (commandline -opc)) = 1' -a ctl
complete -c tlsc-gateway -n 'not __tlsc_gateway_is_value; and string match -q -- "-*" (commandline -ct)' -a '(__tlsc_gateway_options)'
complete -c tlsc-gateway -n 'not __tlsc_gateway_is_value; and __tlsc_gateway_at ctl' -a '(__tlsc_gateway_verbs)'
complete -c tlsc-gateway -n 'not __tlsc_gateway_is_value; and __tlsc_gateway_at ctl kick' -a 'all (__tlsc_gateway_ask --json clients | grep -oE \'"client":[0-9]+\' | cut -d: -f2)'
complete -c tlsc-gateway -n 'not __tlsc_gateway_is_value; and __tlsc_gateway_at ctl fault' -a '(__tlsc_gateway_refused fault)'
