#!/bin/bash
# Makes the linker's form of a list of functions (cmake/device_layout.txt): what the common commands run and read
# stands together at the start of the program, first what getLogicStatus needs. The kernel maps file pages by 64 KiB
# around each one touched, so getLogicStatus keeps one such block in memory, not one for each of its pieces among
# libcurl's and TLS's. Names that are not there do no harm; a missing one costs memory only.
# usage: device_layout.sh LIST >SCRIPT
set -euo pipefail

# Section patterns for function names: a C++ name up to its arguments, which differ between processors, a C
# name with what the compiler and the C library add to it.
patterns() { # SECTION-OF-THE-LIST
    awk -v wanted="[$1]" '
        function parts(text, i,   n) { # past the <length><name> pairs of a C++ name
            while (match(substr(text, i), /^[0-9]+/)) {
                n = substr(text, i, RLENGTH)
                i += RLENGTH + n
            }
            return i
        }
        /^\[/ { inside = $0 == wanted; next }
        !inside || /^#/ || $0 == "main" { next }
        {
            if ($0 ~ /^_ZNSt/) print ".text._ZNSt*"
            else if (match($0, /^_ZN[KO]*/)) print ".text." substr($0, 1, parts($0, RLENGTH + 1) - 1) "*"
            else if ($0 ~ /^_Z[0-9]/) { match($0, /[0-9]+/); print ".text." substr($0, 1, RSTART + RLENGTH - 1 + substr($0, RSTART, RLENGTH)) "*" }
            else {
                print ".text." $0 "\n.text." $0 ".*"
                if ($0 !~ /^(_|cJSON)/) print ".text.__" $0 "\n.text.__libc_" $0
            }
        }' "$list" | sort -u | grep -v '^\.text\._ZN\*$' | paste -sd' ' | fold -s -w 100 | sed 's/^/      /; s/ *$//'
}

list=$1
cat <<EOF
SECTIONS
{
  .fini : { KEEP(*(SORT_NONE(.fini))) }
  .rodata.program :
  {
    *.ltrans0.ltrans.o(.rodata .rodata.*)
    *libc.a:*(.rodata .rodata.*)
  }
  .text.program :
  {
    *crt1.o(.text .text.*)
    *crtbegin*.o(.text .text.*)
    *(.text.startup.main .text.startup.main.* .text.startup)
    *(
$(patterns getLogicStatus))
    *libc.a:mem*.lo(.text .text.*)
    *libc.a:syscall_cp.lo(.text)
    *libc.a:*restore.lo(.text .text.*)
    *libc.a:__set_thread_area.lo(.text)
    *(
$(patterns others))
  }
}
INSERT AFTER .init;
EOF
