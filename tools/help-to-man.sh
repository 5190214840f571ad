#!/bin/sh
# help-to-man.sh TOOL OUTPUT: writes the manual page of lumora-fuse (roff,
# man macros) from the tool's own --help and --version, so that the two
# never disagree. The help's layout is what it reads: the usage lines, a
# one-line summary, paragraphs, "Heading:" lines over options whose texts
# start in column 30 (an option's named values indented by eight), an
# "Examples:" block and an "Exit status:" paragraph.
set -eu
tool=$1
output=$2
version=$("$tool" --version | sed -n '1s/.* //p')

"$tool" --help | awk -v version="$version" '
function esc(s) {
    gsub(/\\/, "\\e", s)
    gsub(/-/, "\\-", s)
    return s
}
function line(s) {  # a text line; one starting with a control character is kept as text
    if (s ~ /^[.\047]/) s = "\\&" s
    print s
}
function trim(s) { sub(/^ +/, "", s); sub(/ +$/, "", s); return s }
# "-o, --output=FILE": the option names in bold, their arguments in italics.
function tag(s,    n, parts, i, out, eq) {
    n = split(s, parts, /, /)
    out = ""
    for (i = 1; i <= n; i++) {
        eq = index(parts[i], "=")
        if (eq) out = out (i > 1 ? ", " : "") "\\fB" esc(substr(parts[i], 1, eq - 1)) "\\fR=\\fI" esc(substr(parts[i], eq + 1)) "\\fR"
        else out = out (i > 1 ? ", " : "") "\\fB" esc(parts[i]) "\\fR"
    }
    return out
}
NR == 1 {
    sub(/^Usage: lumora-fuse /, "")
    print ".TH LUMORA-FUSE 1 \"\" \"lumora-fuse " version "\" \"User Commands\""
    print ".SH NAME"
    name_pending = 1
    synopsis = esc($0)
    next
}
name_pending && /^  or:  lumora-fuse / {
    sub(/^  or:  lumora-fuse /, "")
    synopsis_more = synopsis_more "\n.br\n.B lumora-fuse\n" esc($0)
    next
}
name_pending {
    name_pending = 0
    summary = $0
    sub(/\.$/, "", summary)
    print "lumora-fuse \\- " esc(tolower(substr(summary, 1, 1)) substr(summary, 2))
    print ".SH SYNOPSIS"
    print ".B lumora-fuse"
    line(synopsis)
    if (synopsis_more != "") print substr(synopsis_more, 2)
    print ".SH DESCRIPTION"
    line(esc($0))
    mode = "text"
    next
}
/^$/ { if (mode == "examples") { print ".fi"; print ".RE"; mode = "text" } blank = 1; next }
/^Examples:$/ { print ".SH EXAMPLES"; print ".RS"; print ".nf"; mode = "examples"; blank = 0; next }
/^Exit status: / { sub(/^Exit status: /, ""); print ".SH \"EXIT STATUS\""; line(esc($0)); mode = "text"; blank = 0; next }
/^[A-Z][^:]*:$/ { sub(/:$/, ""); print ".SS \"" esc($0) "\""; mode = "options"; blank = 0; next }
mode == "examples" { line(esc(trim($0))); next }
# "        NAME   text": a named value of the option above (the looks), on a line of its own.
mode == "options" && /^        [a-z]+  +[^ ]/ { print ".br"; line("\\fB" esc($1) "\\fR: " esc(trim(substr($0, 30)))); next }
/^ +-/ && match($0, /-/) <= 7 {
    if (length($0) > 29 && substr($0, 28, 2) == "  ") { name = substr($0, 1, 29); text = substr($0, 30) }
    else { name = $0; text = "" }
    print ".TP"
    line(tag(trim(name)))
    if (text != "") line(esc(trim(text)))
    mode = "options"; blank = 0
    next
}
{
    if (blank) print ".PP"
    blank = 0
    line(esc(trim($0)))
}
END { if (mode == "examples") { print ".fi"; print ".RE" } }
' > "$output.tmp"
mv "$output.tmp" "$output"
