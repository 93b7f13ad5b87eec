#!/usr/bin/env python3
"""Checks the documentation of an installed tree.

Usage: installed.py SOURCE_DIR PREFIX

- Every name of a page has a page in the tree, which mandoc shows as that page.
- The examples of the pages compile without a warning, run, and print what the pages say.
- Every installed program has a page, every page a program, and both name the same options.
"""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

import mdoc

LANGUAGES = {'c99': ('cc', '.c', ['-std=c99', '-D_POSIX_C_SOURCE=200809L']),
             'c++11': ('c++', '.cpp', ['-std=c++11'])}
WARNINGS = ['-Wall', '-Wextra', '-Wpedantic', '-Wconversion', '-Wshadow', '-Werror']


def run(*command: str, env: dict[str, str] | None = None) -> subprocess.CompletedProcess[str]:
    """Runs a command that must end soon, whatever its result."""
    return subprocess.run(command, text=True, capture_output=True, check=False, timeout=60,
                          env={**os.environ, **(env or {})})


def check_aliases(prefix: Path, pages: list[mdoc.Page]) -> list[str]:
    """Each name leads to its page."""
    wrong = []
    count = 0
    for page in pages:
        own = run('mandoc', '-T', 'ascii', str(page.path)).stdout
        for name in page.names():
            count += 1
            path = prefix / f'share/man/man{page.section}/{name}.{page.section}'
            if run('man', '-M', str(prefix / 'share/man'), '-w', page.section, name).returncode:
                wrong.append(f'man does not find {name}({page.section})')
            # mandoc follows .so from the folder that holds man1 and so on.
            shown = subprocess.run(
                ['mandoc', '-T', 'ascii', str(path.relative_to(prefix / 'share/man'))],
                cwd=prefix / 'share/man', text=True, capture_output=True, check=False)
            if shown.returncode or shown.stdout != own:
                wrong.append(f'{path.name} does not show {page.path.name}')
    installed = sum(1 for path in (prefix / 'share/man').rglob('*') if path.is_file())
    if installed != count:
        wrong.append(f'{installed} pages are installed, not {count}')
    if not wrong:
        print(f'{count} names lead to {len(pages)} pages')
    return wrong


def check_examples(prefix: Path, pages: list[mdoc.Page]) -> list[str]:
    """The examples do what they say."""
    wrong = []
    count = 0
    library = next(prefix.rglob('libKivGCL.so')).parent
    with tempfile.TemporaryDirectory() as folder:
        for page in pages:
            if page.section == '3' and not page.examples():
                wrong.append(f'{page.path.name}: there is no example')
            for example in page.examples():
                count += 1
                compiler, extension, flags = LANGUAGES[example.standard]
                source = Path(folder, page.stem + extension)
                source.write_text(example.code, encoding='utf-8')
                program = Path(folder, page.stem)
                built = run(compiler, *flags, *WARNINGS, '-I', str(prefix / 'include/KivGCL'),
                            '-o', str(program), str(source), '-L', str(library), '-lKivGCL',
                            '-lVorTrace', '-pthread')
                if built.returncode:
                    wrong.append(f'{page.path.name}: the example: {built.stderr}')
                    continue
                ran = run(str(program), env={'LD_LIBRARY_PATH': str(library)})
                printed, told = ran.stdout.splitlines(), example.output.splitlines()
                same = printed == told
                if example.ends:
                    same = len(printed) == len(told) and all(
                        line.endswith(' ' + end) for line, end in zip(printed, told))
                if ran.returncode or not told or not same:
                    wrong.append(f'{page.path.name}: the example ended with {ran.returncode} and '
                                 f'printed {printed}, not {told}; {ran.stderr}')
    if not wrong:
        print(f'{count} examples print what their pages say')
    return wrong


def check_programs(prefix: Path, pages: list[mdoc.Page]) -> list[str]:
    """The programs and their pages name the same options."""
    wrong = []
    programs = {path.name for path in (prefix / 'bin').iterdir()}
    described = {page.stem: page for page in pages if page.section == '1'}
    for name in sorted(programs ^ described.keys()):
        what = 'page' if name in programs else 'program'
        wrong.append(f'there is no {what} {name}')
    library = str(next(prefix.rglob('libKivGCL.so')).parent)
    for name in sorted(programs & described.keys()):
        told = set(re.findall(r'^\.It Fl Fl ([\w-]+)', '\n'.join(described[name].lines), re.M))
        text = run(str(prefix / 'bin' / name), '--help', env={'LD_LIBRARY_PATH': library}).stdout
        have = set(re.findall(r'^ +(?:-\w, )?--([\w-]+)', text, re.M))
        if not have:
            wrong.append(f'{name} --help names no option')
        for option in sorted(told ^ have):
            where = 'page' if option in have else 'program'
            wrong.append(f'{name}: the {where} does not have --{option}')
    if not wrong:
        print(f'{len(described)} programs have the options of their pages')
    return wrong


def main() -> int:
    """Runs all checks."""
    source, prefix = Path(sys.argv[1]), Path(sys.argv[2])
    pages = mdoc.all_pages(source / 'docs/man')
    wrong = (check_aliases(prefix, pages) + check_examples(prefix, pages)
             + check_programs(prefix, pages))
    for text in wrong:
        print(text)
    return 1 if wrong else 0


if __name__ == '__main__':
    sys.exit(main())
