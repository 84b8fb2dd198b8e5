# Tidies what scdoc writes, so that mandoc finds nothing to say: one paragraph break where a break is wanted (none behind a
# heading, none in front of the end of a block), lines of at most 80 bytes, the title in capitals.

function flush_break() {
    if (break_waits && !after_heading) print ".P"
    break_waits = 0
}

# Prints text in lines of at most 78 bytes, broken at blanks; no line begins with a control character.
function fold(text,    at, head) {
    while (length(text) > 78) {
        at = 78
        while (at > 15 && (substr(text, at, 1) != " " || substr(text, at + 1, 1) ~ /[.' ]/ || substr(text, at - 1, 1) ~ /[\\ ]/)) at--
        if (at <= 15) break
        print substr(text, 1, at - 1)
        text = substr(text, at + 1)
    }
    print text
}

/^\.P$/                     { break_waits = 1; next }
/^\.RE$/                    { print; next }
/^\.TH /                    { $2 = toupper($2) }
/^\.(SH|SS|TH) /            { break_waits = 0; print; after_heading = 1; next }
                            { flush_break(); after_heading = 0 }
/^\.nf$/                    { literal = 1 }
/^\.fi$/                    { literal = 0 }
/^\.TS$/                    { literal = 1 }
/^\.TE$/                    { literal = 0 }
/^[.']/ || literal          { print; next }
                            { fold($0) }
