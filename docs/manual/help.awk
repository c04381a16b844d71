# Prints a page in Markdown with what a program says of its options and commands in place of the line
# @HELP@. `help` is the file that has it.
function end() {
    sub(/^ +/, "", text)
    if (text != "") print "**" term "**\n:   " text "\n"
    text = ""
}
function entry(line, at) {
    end()
    sub(/^ +/, "", line)
    at = match(line, /  +/)
    term = at ? substr(line, 1, at - 1) : line
    text = at ? substr(line, at + RLENGTH) : " "
    gsub(/ (Excludes|Needs):.*| REQUIRED| x [0-9]+| in \[.*\]| \[TIME\]|:[A-Z]+|=[^ ]*/, "", term)
    gsub(/,-/, ", -", term)
}
/^@HELP@$/ {
    while ((getline line < help) > 0) {
        if (line ~ /^Options:/) print "# OPTIONS\n"
        else if (line ~ /^Subcommands:/) { end(); print "# COMMANDS\n" }
        else if (line ~ /^ *(Options|Positionals):/ || line ~ /^(Usage:|$)/) continue
        else if (line ~ /^[a-z]/) { end(); print "## " line "\n" }
        else if (line ~ /^  [A-Z]/) print substr(line, 3) "\n"
        else if (line ~ /^          +/) { sub(/^ +/, "", line); text = text " " line }
        else if (line ~ /^ /) entry(line)
    }
    end()
    next
}
{ print }
