#!/bin/sh
# Makes the manual page of a program of what it says for itself.
#   man-page.sh HELP2MAN OUTPUT PROGRAM VERSION SUMMARY HELP_COMMAND...
# The command prints the program's help. help2man wants it a little tidier: a usage in one line, and
# examples that it does not run together.
set -eu
help2man=$1 output=$2 program=$3 version=$4 summary=$5
shift 5

folder=$output.d
mkdir -p "$folder"
trap 'rm -rf "$folder"' EXIT
"$@" >"$folder/help"
awk '
    # What Python prints.
    /^usage: / { sub(/^usage/, "Usage"); usage = 1; printf "%s", $0; next }
    usage && /^ / { sub(/^ +/, " "); printf "%s", $0; next }
    usage { usage = 0; print "" }
    $0 == "positional arguments:" { $0 = "Arguments:" }
    $0 == "options:" { $0 = "Options:" }
    # Each line a paragraph.
    /^[A-Z][A-Za-z ]*:$/ { apart = $0 == "Examples:" }
    { print }
    apart && NF { print "" }
' "$folder/help" >"$folder/tidy"
printf '#!/bin/sh\ncat "%s"\n' "$folder/tidy" >"$folder/$program"
chmod +x "$folder/$program"
"$help2man" --no-info --name="$summary" --version-string="$program $version" --output="$folder/page" \
    "$folder/$program"
gzip -9nc "$folder/page" >"$output"
