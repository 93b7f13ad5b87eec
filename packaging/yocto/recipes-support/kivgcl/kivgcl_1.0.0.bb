SUMMARY = "Shared utility library of the radio unit's embedded software"
DESCRIPTION = "Containers, memory, TCP connections and framed message links, timers and \
diagnostics. The library takes its trace framework from the process that loads it; libvortrace \
holds one for programs without the unit's platform."
SECTION = "libs"
LICENSE = "CLOSED"

SRC_URI = "file://run-ptest"

inherit cmake externalsrc ptest

# The sources are the tree that this recipe belongs to.
EXTERNALSRC = "${@os.path.normpath(os.path.join(d.getVar('THISDIR'), '../../../..'))}"

# GoogleTest is in meta-oe. The test programs are listed on the target, where they can run, and find
# the libraries there.
PACKAGECONFIG ??= "${@bb.utils.contains('PTEST_ENABLED', '1', 'tests', '', d)}"
PACKAGECONFIG[tests] = "\
    -DKIVGCL_BUILD_TESTS=ON -DKIVGCL_GOOGLETEST_DIR= -DCMAKE_SKIP_BUILD_RPATH=ON \
    -DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST, \
    -DKIVGCL_BUILD_TESTS=OFF, \
    googletest"
EXTRA_OECMAKE = "-DKIVGCL_BUILD_EXAMPLES=OFF"

# pkg-config puts the sysroot in front of a fixed prefix; before one that is found from the place of
# the file, it would stand twice.
do_install:append() {
    sed -i 's|^prefix=.*|prefix=${prefix}|' ${D}${libdir}/pkgconfig/*.pc
}

# VorTraceSinkTest starts a second program, at its place in the build folder.
do_install_ptest() {
    for program in ${B}/tests/*Test; do
        case $program in
        */VorTraceSinkTest) ;;
        *) install -D -m 0755 $program ${D}${PTEST_PATH}/${program##*/} ;;
        esac
    done
}

PACKAGES =+ "libvortrace ${PN}-tools"
FILES:libvortrace = "${libdir}/libVorTrace.so.*"
FILES:${PN}-tools = "${bindir} ${datadir}/wireshark ${libdir}/wireshark"
FILES:${PN}-dev += "${datadir}/gdb ${libdir}/kivgcl"
# The preload library of the test support is for development machines, though it is a shared object.
INSANE_SKIP:${PN}-dev += "dev-elf"
