#!/bin/sh
# Installs a build, moves the installed tree, and looks at it as its users do.
# Usage: check-install.sh BUILD_DIR SOURCE_DIR LIBDIR CC CXX TOOLCHAIN_FILE [EMULATOR...]
set -eu

build=$1 source=$2
shift

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/first" >"$work/log"
mv "$work/first" "$work/moved"
"$source/tests/package/check-consumers.sh" "$work/moved" "$@"
