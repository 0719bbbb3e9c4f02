#!/bin/sh
# The device's client library as a plug-in: a program that knows nothing of it opens it at run time and calls it.
# musl refuses to open a library so whose thread-local storage has to be there at the program's start.
# usage: plugin.sh BUILD SYSROOT QEMU: the device's build, its sysroot, what runs its programs
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat >"$work/host.c" <<'C'
#include <dlfcn.h>
#include <stdio.h>
int main(int count, char **names) {
    void *library = count > 1 ? dlopen(names[1], RTLD_NOW) : 0;
    int (*ask)(void) = library ? (int (*)(void))dlsym(library, "kxcc_get_link_status") : 0;
    if (!ask) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    /* Without a broker: the library's own code for a start that failed. */
    return ask() < 0 ? 0 : 2;
}
C
"$2/bin/cc" -o "$work/host" "$work/host.c"
"$3" -L "$1/image" -E LD_LIBRARY_PATH="$2/shared/lib:$2/lib:$1" "$work/host" "$1/libkxcc.so.1"
echo "libkxcc.so.1 opens as a plug-in"
