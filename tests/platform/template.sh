#!/bin/sh
# The template of a platform as its users meet it: the headers installed, both builds, and what the kit says of it.
# usage: template.sh SOURCE BUILD; CC as the build has it
set -eu
source=$1
build=$2
work=$build/tests/template-work
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/stage" --component cloud-platform >"$work/install.log"
pc=$(find "$work/stage" -name cloud-platform.pc)
export PKG_CONFIG_PATH="${pc%/*}" PATH="$build:$PATH"
cp -r "$source/platform/template" "$work/make"
make -s -C "$work/make" CC="$CC" CFLAGS="-O1 -Wall -Wextra -Werror"
cmake -S "$source/platform/template" -B "$work/cmake" -DCMAKE_C_COMPILER="$CC" >"$work/cmake.log"
cmake --build "$work/cmake" >>"$work/cmake.log"
for folder in make cmake; do
    for part in store account firmware; do
        extender check platform --only $part/ --library "$work/$folder/libwrapper.so" --rsa "$work/$folder/librsa.so"
    done
done
