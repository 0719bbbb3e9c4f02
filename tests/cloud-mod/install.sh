#!/bin/sh
# The client library as its users meet it: installs it, looks at what came, builds the examples with
# pkg-config alone and with the CMake package, and runs them in the emulated device.
# usage: install.sh SOURCE BUILD; CC, CXX and CFLAGS as the build has them
set -eu
source=$1
build=$2
stage=$build/tests/kxcc-stage
work=$build/tests/kxcc-work
rm -rf "$stage" "$work"
mkdir -p "$work"

fail() {
    echo "$*" >&2
    exit 1
}

for component in libkxcc libkxcc-dev; do
    cmake --install "$build" --prefix "$stage" --component $component >"$work/install.log"
done
pc=$(find "$stage" -name kxcc.pc)
lib=$(dirname "$(dirname "$pc")")
export PKG_CONFIG_PATH="${pc%/*}" LD_LIBRARY_PATH="$lib"

# What the libraries show, and what the shared one needs.
sed -n 's/.*KXCC_API .* \**\(kxcc_[a-z0-9_]*\)(.*/\1/p' "$stage/include/kxcc/kxcc.h" | LC_ALL=C sort >"$work/declared"
[ "$(wc -l <"$work/declared")" -eq 9 ] || fail "the header does not declare 9 calls"
nm -D --defined-only "$lib/libkxcc.so" | awk '$2 == "T" { print $3 }' >"$work/shared"
sed 's/$/@@KXCC_1/' "$work/declared" | cmp "$work/shared" - || fail "the shared library shows other calls"
nm -g --defined-only "$lib/libkxcc.a" | awk 'NF == 3 { print $3 }' | LC_ALL=C sort >"$work/static"
cmp "$work/static" "$work/declared" || fail "the static library shows other calls"
readelf -d "$lib/libkxcc.so" >"$work/dynamic"
grep -q 'SONAME.*\[libkxcc\.so\.1\]' "$work/dynamic" || fail "wrong SONAME"
grep -q 'Flags:.*NODELETE' "$work/dynamic" || fail "it could be unloaded under its handlers"
if grep -E 'libstdc|RPATH|RUNPATH' "$work/dynamic"; then
    fail "the library needs what it must not"
fi

# With thread-local storage of the initial-exec kind, musl refuses to dlopen() it.
if readelf -lW "$lib/libkxcc.so" | grep -q '^ *TLS'; then
    fail "it cannot be loaded by a running program on musl"
fi

# The header alone, strictly.
echo '#include <kxcc.h>' | tee "$work/header.c" >"$work/header.cpp"
cflags=$(pkg-config --cflags kxcc)
$CC -std=c99 -Wall -Wextra -Wpedantic -Werror -fsyntax-only $cflags "$work/header.c"
$CXX -std=c++11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only $cflags "$work/header.cpp"

# Each C example as C and as C++, the C++ example, and one by each line of the documentation.
build_with_pkg_config() {
    # shellcheck disable=SC2046,SC2086  # several words
    $1 $CFLAGS -Wall -Wextra -Werror -o "$work/$3" $2 $(pkg-config --cflags --libs kxcc)
}
for name in synchronous callback service; do
    build_with_pkg_config "$CC" "$source/examples/$name.c" $name
    build_with_pkg_config "$CXX" "-x c++ $source/examples/$name.c -x none" $name-as-cpp
done
build_with_pkg_config "$CXX" "$source/examples/synchronous.cpp" synchronous-cpp
cc() {
    $CC $CFLAGS "$@"
}
cp "$source/examples/synchronous.c" "$work/program.c"
grep '^cc program\.c ' "$source/docs/client-library.md" >"$work/documented"
[ "$(wc -l <"$work/documented")" -eq 2 ] || fail "the documentation does not have two lines"
for kind in shared static; do
    (cd "$work" && eval "$(sed -n 1p documented)" && sed -i 1d documented && mv a.out synchronous-$kind)
    readelf -d "$work/synchronous-$kind" | sed -n 's/.*NEEDED.*\[\(libkxcc.*\)\]/shared/p' >"$work/kind"
    [ "$(cat "$work/kind")" = "$(echo $kind | sed s/static//)" ] || fail "synchronous-$kind is not $kind"
done

# The CMake package.
cat >"$work/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.16)
project(user LANGUAGES C)
find_package(kxcc 1.0 REQUIRED)
foreach(kind kxcc static)
  add_executable(user_\${kind} $source/examples/callback.c)
  target_link_libraries(user_\${kind} PRIVATE kxcc::\${kind})
endforeach()
END
cmake -G Ninja -S "$work" -B "$work/user" "-DCMAKE_PREFIX_PATH=$stage" "-DCMAKE_C_FLAGS=$CFLAGS" "-DCMAKE_C_COMPILER=$CC" >"$work/cmake.log"
cmake --build "$work/user" >>"$work/cmake.log" || fail "$(cat "$work/cmake.log")"

mkdir "$work/empty"
if PKG_CONFIG_LIBDIR="$work/empty" cmake -G Ninja -S "$work" -B "$work/without" "-DCMAKE_PREFIX_PATH=$stage" \
    "-DCMAKE_C_COMPILER=$CC" >"$work/cmake.log" 2>&1; then
    fail "the package was found without cJSON"
fi
grep -q 'kxcc needs cJSON' "$work/cmake.log" || fail "$(cat "$work/cmake.log")"

# On the device.
extender=$build/extender
if [ ! -x "$extender" ]; then
    echo "no emulated device here: the examples were built, not run"
    exit 0
fi
for name in synchronous synchronous-cpp synchronous-shared synchronous-static callback callback-as-cpp user/user_kxcc user/user_static; do
    "$extender" run --journal "$work/journal" -- "$work/$name" '{"method":"myTestConnection"}' >"$work/out"
    grep -q '"error_code":-20103' "$work/out" || fail "$name printed: $(cat "$work/out")"
done

# The service greets, hears the cloud's answer, and answers what is pushed to it.
cat >"$work/scenario" <<'END'
{"rules": [{"on": 32, "do": {"then": ["ask_hello"]}},
           {"on": 129, "do": {"then": ["deliver_hello", {"push": "{\"method\":\"reboot\"}"}]}}]}
END
for name in service service-as-cpp; do
    "$extender" run --scenario "$work/scenario" --journal "$work/journal" -- "$work/$name" 1 >"$work/out"
    printf 'registered\ngreeted: error 0, status 1\nrequest: {"method":"reboot"}\n' | cmp - "$work/out" ||
        fail "$name printed: $(cat "$work/out")"
    grep '"type":113' "$work/journal" | grep -q '{\\"errorcode\\":0,\\"response\\":' || fail "no response: $(cat "$work/journal")"
done
