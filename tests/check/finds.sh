#!/bin/sh
# The conformance kit against a part with one fault: the check that is meant finds it.
# usage: finds.sh BUILD PYTHON PART CHECK FAULT
set -eu
build=$1 python=$2 part=$3 check=$4
export CLOUD_FAULT="$5" CLOUD_REAL_WRAPPER="$build/libwrapper.so" CLOUD_REAL_RSA="$build/librsa.so"
if [ "$part" = platform ]; then
    set -- --library "$build/libwrong_platform.so" --rsa "$build/libwrong_platform.so" --image "$build/check_image.bin" --install
else
    set -- -- "$python" "${0%/*}/parts.py" "$part"
fi
status=0
said=$("$build/extender" check "$part" --only "$check" "$@") || status=$?
echo "$said"
[ "$status" = 1 ] && echo "$said" | grep -q "^not ok [0-9]* - $check: "
