#!/bin/sh
# Looks at built Debian packages as their users do: what they depend on, the debug symbols, the
# program for users, and programs that are built with the unpacked packages, also after a move.
# Usage: check-packages.sh PACKAGES_DIR ARCHITECTURE SOURCE_DIR LIBDIR CC CXX TOOLCHAIN_FILE GOOGLETEST [EMULATOR...]
set -eu

packages=$1 architecture=$2 source=$3 libdir=$4
shift 2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    printf '%s: %s\n' "$architecture" "$*" >&2
    exit 1
}

# field PACKAGE FIELD: prints a field of a package of this architecture.
field() {
    dpkg-deb -f "$packages/$1"_*_"$architecture.deb" "$2"
}

# What runs needs the C and C++ runtimes, from the packages that a target has, and nothing else:
# whoever loads the library brings the trace framework.
for name in libkivgcl1 libvortrace1 kivgcl-tools; do
    depends=$(field "$name" Depends | sed 's/ ([^)]*)//g')
    [ "$depends" = 'libc6, libgcc-s1, libstdc++6' ] || fail "$name depends on: $depends"
done
version=$(field libkivgcl1 Version)
for name in libkivgcl1 libvortrace1; do
    case ", $(field libkivgcl-dev Depends)," in
    *", $name (= $version),"*) ;;
    *) fail "libkivgcl-dev does not depend on $name (= $version)" ;;
    esac
done
echo "dependencies: as wanted"

mkdir "$work/first"
for name in libkivgcl1 libvortrace1 libkivgcl-dev kivgcl-tools \
    libkivgcl1-dbgsym libvortrace1-dbgsym kivgcl-tools-dbgsym; do
    dpkg-deb -x "$packages/${name}_${version}_$architecture.deb" "$work/first"
done
tree=$work/first/usr

# The debugger finds the symbols by the identity of each file.
for file in "$libdir/libKivGCL.so.1" "$libdir/libVorTrace.so.1" bin/kivgcl-peernode; do
    id=$(readelf -n "$tree/$file" | sed -n 's/^ *Build ID: //p')
    symbols=$tree/lib/debug/.build-id/$(printf %.2s "$id")/${id#??}.debug
    readelf -SW "$symbols" 2>/dev/null | grep -q '\.debug_info' || fail "$file has no debug symbols"
done
echo "debug symbols: there"

# run PROGRAM ARGUMENT SOURCE_DIR LIBDIR CC CXX TOOLCHAIN_FILE GOOGLETEST [EMULATOR...]
run() (
    program=$1 argument=$2
    shift 8
    "$@" "$program" "$argument"
)
output=$(run "$tree/bin/kivgcl-peernode" --version "$@")
[ "$output" = "kivgcl-peernode $version" ] || fail "kivgcl-peernode says that it is: $output"
echo "$output"

echo "unpacked into a root folder:"
PKG_CONFIG_SYSROOT_DIR=$work/first "$source/tests/package/check-consumers.sh" "$tree" "$@"
echo "moved elsewhere:"
mv "$work/first" "$work/moved"
"$source/tests/package/check-consumers.sh" "$work/moved/usr" "$@"
