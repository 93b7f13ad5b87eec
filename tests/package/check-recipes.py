#!/usr/bin/python3
"""Checks the Yocto recipe and the Buildroot package as far as that goes without either.

Looked at are their syntax and version, and whether the project knows the options and components
that they name.

Usage: check-recipes.py SOURCE_DIR
"""

import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

import kconfiglib

# What Buildroot itself defines, as far as the package refers to it.
KCONFIG = """
config BR2_TOOLCHAIN_USES_GLIBC
    def_bool y
config BR2_TOOLCHAIN_GCC_AT_LEAST_8
    def_bool y
config BR2_INSTALL_LIBSTDCPP
    def_bool y
source "$BR2_EXTERNAL_KIVGCL_PATH/Config.in"
"""
MAKEFILE = """
cmake-package =
define sep


endef
TARGET_DIR = /target
BR2_CMAKE = cmake
KIVGCL_BUILDDIR = /build
include $(BR2_EXTERNAL_KIVGCL_PATH)/external.mk
options: ; @echo '$(KIVGCL_CONF_OPTS)'
version: ; @echo '$(KIVGCL_VERSION)'
install: ; $(KIVGCL_INSTALL_TARGET_CMDS)
"""
SHELL_FUNCTION = re.compile(r"^(do_\w+)(?::\w+)?\(\) \{\n(.*?)^\}\n", re.MULTILINE | re.DOTALL)
STATEMENT = re.compile(
    r"""(?:\#.*|inherit[ ][\w ]+
         |[A-Z]\w*(?::[-\w${}]+|\[\w+\])?[ ](?:\?{1,2}=|=\+|\+=|:=|=|\.=)[ ]"[^"]*")?$""",
    re.VERBOSE,
)
OPTION = re.compile(r"-D(\w+)=([^\s,\"]*)")


def run(*command: str) -> str:
    """Runs a command and returns all of its output; ends the check where it fails."""
    done = subprocess.run(command, text=True, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)}:\n{done.stdout}")
    return done.stdout


def configure(source: Path, what: str, options: list[tuple[str, str]]) -> set[str]:
    """Configures the project with the options and returns the names of its components."""
    if not options:
        sys.exit(f"{what} names no option")
    with tempfile.TemporaryDirectory() as build:
        output = run("cmake", "-G", "Ninja", "-S", str(source), "-B", build,
                     *(f"-D{name}={value}" for name, value in options))
        if "Manually-specified variables were not used" in output:
            sys.exit(f"{what} names options that the project does not know:\n{output}")
        scripts = "".join(file.read_text(encoding="utf-8")
                          for file in Path(build).rglob("cmake_install.cmake"))
    return set(re.findall(r'CMAKE_INSTALL_COMPONENT STREQUAL "(\w+)"', scripts))


def check_yocto(source: Path, version: str) -> None:
    folder = source / "packaging/yocto"
    recipe = folder / f"recipes-support/kivgcl/kivgcl_{version}.bb"
    if list(recipe.parent.glob("*.bb")) != [recipe]:
        sys.exit(f"{recipe.parent} does not hold {recipe.name} alone")
    text = recipe.read_text(encoding="utf-8")
    for name, body in SHELL_FUNCTION.findall(text):
        run("sh", "-n", "-c", body)
        print(f"{recipe.name}: {name} is shell")
    text = SHELL_FUNCTION.sub("", text)
    layer = (folder / "conf/layer.conf").read_text(encoding="utf-8")
    for line in (text + layer).replace("\\\n", " ").splitlines():
        if not STATEMENT.match(line):
            sys.exit(f"{folder}: no statement: {line}")
    for place in re.findall(r"file://([-\w]+)", text):
        if not (recipe.parent / "files" / place).is_file():
            sys.exit(f"{recipe.name}: there is no file {place}")
    if (recipe.parent / "../../../..").resolve() != source:
        sys.exit(f"{recipe.name}: the project's folder is not four above that of the recipe")
    # Without the tests: with them, a GoogleTest that is built for the target is needed.
    options = dict(OPTION.findall(text))
    options["KIVGCL_BUILD_TESTS"] = "OFF"
    known = (source / "tests/CMakeLists.txt").read_text(encoding="utf-8")
    if "KIVGCL_GOOGLETEST_DIR" not in known or options.pop("KIVGCL_GOOGLETEST_DIR") != "":
        sys.exit(f"{recipe.name}: the tests cannot be told to take a GoogleTest that is built")
    del options["CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE"]  # read by the tests only
    configure(source, recipe.name, sorted(options.items()))
    print(f"{recipe.name}: the project knows its options")


def check_buildroot(source: Path, version: str) -> None:
    os.environ["BR2_EXTERNAL_KIVGCL_PATH"] = str(source / "packaging/buildroot")
    with tempfile.TemporaryDirectory() as work:
        kconfig_file, makefile = Path(work, "Kconfig"), Path(work, "Makefile")
        kconfig_file.write_text(KCONFIG, encoding="utf-8")
        makefile.write_text(MAKEFILE, encoding="utf-8")
        kconfig = kconfiglib.Kconfig(str(kconfig_file))
        symbols = [name for name in kconfig.syms if name.startswith("BR2_PACKAGE_KIVGCL")]
        for name in symbols:
            if not kconfig.syms[name].set_value("y") or kconfig.syms[name].str_value != "y":
                sys.exit(f"Config.in: {name} cannot be chosen")
        package = Path(os.environ["BR2_EXTERNAL_KIVGCL_PATH"], "kivgcl/kivgcl.mk")
        for name in re.findall(r"BR2_PACKAGE_\w+", package.read_text(encoding="utf-8")):
            if name not in symbols:
                sys.exit(f"kivgcl.mk: Config.in has no {name}")

        def make(option: str, target: str, chosen: str) -> str:
            return run("make", option, "-f", str(makefile), target,
                       *(f"{name}={chosen}" for name in symbols))

        if make("-s", "version", "y").strip() != version:
            sys.exit(f"kivgcl.mk is not of version {version}")
        for chosen in ("y", ""):
            options = OPTION.findall(make("-s", "options", chosen))
            components = configure(source, "kivgcl.mk", options)
            wanted = set(re.findall(r"--component (\w+)", make("-n", "install", chosen)))
            if "Runtime" not in wanted or not wanted <= components:
                sys.exit(f"kivgcl.mk installs {sorted(wanted)} of {sorted(components)}")
            print(f"kivgcl.mk: the project knows its options; it installs {sorted(wanted)}")


def main() -> None:
    source = Path(sys.argv[1]).resolve()
    found = re.search(r"^project\(KivGCL VERSION ([0-9.]+)",
                      (source / "CMakeLists.txt").read_text(encoding="utf-8"), re.MULTILINE)
    if not found:
        sys.exit("CMakeLists.txt does not tell the version")
    check_yocto(source, found.group(1))
    check_buildroot(source, found.group(1))


if __name__ == "__main__":
    main()
