#!/bin/sh
# extender explain: its page is what it prints, and the lines that it explains are in the sources.
# usage: explain.sh SOURCE BUILD
set -eu
source=$1 build=$2
fail() {
    echo "$*" >&2
    exit 1
}
printed=$("$build/extender" explain --tables)
sed -n '/^| code/,$p' "$source/docs/codes.md" >"$build/tests/codes.md"
echo "$printed" | diff "$build/tests/codes.md" - || fail "docs/codes.md is not what extender explain --tables prints"
cat "$source"/src/*/*.cpp "$source"/cloud-mod/*.cpp "$source"/cloud-mod/*/*.cpp >"$build/tests/sources"
# Adjacent literals are one text.
tr -d '\n' <"$build/tests/sources" | sed 's/" *"//g' >"$build/tests/joined"
echo "$printed" | sed -n 's/^| `\([^`]*\)` |.*/\1/p' | while IFS= read -r line; do
    grep -qF -e "$line" "$build/tests/joined" "$build/tests/sources" || ls "$source"/*/*/"$line"* >/dev/null 2>&1 ||
        ls "$source"/*/"$line"* >/dev/null || fail "no source has the line: $line"
done
explains() { # TEXT PART-OF-ANSWER
    "$build/extender" explain "$1" | grep -qF -e "$2" || fail "explain $1 does not say: $2"
}
explains -3002 'no answer of the cloud in time'
explains 20001 'the platform refused the image'
explains 'open /tmp/cloud_up_img.bin failed.' 'download'
explains '[src/cloud_fwVersion.cpp:cloud_x:7]anything' 'comparing versions'
explains 'getDownloadFileLen filelen = 4000176' 'download: the transfer'
explains 'user call check firmware update service...' 'the command itself'
# Whatever the program logs is of some step.
sed 's/", "[a-zA-Z_]*"},$//; s/^PrintedLine{"//' "$build/emulator/printed_lines.inc" >"$build/tests/printed"
test -s "$build/tests/printed" || fail "no printed lines"
sort -u "$build/tests/printed" | while IFS= read -r line; do
    "$build/extender" explain -- "$line" | grep -q '^  step: *[a-z]' || fail "no step is told of: $line"
done
! "$build/extender" explain -- -99999 || fail "an unknown number is known"
