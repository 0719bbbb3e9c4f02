#!/bin/sh
# The conformance kit itself: each check has a wrong part that fails it and quotes its page, a part that is not there
# fails, and the reports have their form.
# usage: kit.sh SOURCE BUILD
set -eu
source=$1 build=$2
work=$build/tests/kit-work
mkdir -p "$work"
fail() {
    echo "$*" >&2
    exit 1
}
extender() {
    "$build/extender" check "$@"
}

for page in platform protocol kmpd; do
    tr -s '[:space:]' ' ' <"$source/docs/$page.md" >"$work/$page.md"
done
for part in platform broker kmpd service; do
    # shellcheck disable=SC2046
    extender $part --list $([ $part != service ] || echo true) >"$work/$part"
    [ "$(wc -l <"$work/$part")" -gt 10 ] || fail "$part has few checks"
    while IFS="$(printf '\t')" read -r name page sentence; do
        grep -qF -e "$sentence" "$work/${page#docs/}" || fail "$name: not in $page: $sentence"
        case $name in *exports) continue ;; esac
        grep -q "^$part $name " "$source/tests/check/faults" || fail "no wrong part fails $name"
    done <"$work/$part"
done

! extender platform --only exports --library "$build/librsa.so" --rsa "$build/libwrapper.so" >"$work/out" ||
    fail "libraries without the functions pass"
grep -q '^# wrpOpGrpDo is missing' "$work/out" && grep -q '^not ok 2 - rsa/exports' "$work/out" || fail "$(cat "$work/out")"
! extender kmpd --only kick-off -- /bin/false >"$work/out" || fail "a daemon that does not start passes"

extender kmpd --only kick-off --junit "$work/junit.xml" >"$work/out"
printf 'TAP version 13\n1..1\nok 1 - kmpd/kick-off: "%s" (docs/kmpd.md)\n' \
    'The daemon answers each datagram once, to the address that it came from.' | diff - "$work/out"
grep -q '<testsuite name="extender check kmpd" tests="1" failures="0" skipped="0"' "$work/junit.xml"
grep -q '<testcase classname="kmpd" name="kmpd/kick-off"' "$work/junit.xml"
