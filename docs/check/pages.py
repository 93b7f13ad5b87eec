#!/usr/bin/env python3
"""Compares the manual pages with the headers and the sources, both ways.

Usage: pages.py SOURCE_DIR XML_DIR, XML_DIR being Doxygen's output from the headers.

- Everything public has a text, in all headers.
- Every function and type of the library's own headers has a page that answers to its name, and
  every name in a page exists.
- The SYNOPSIS of the pages, read by Doxygen as well, declares what the headers declare.
- Every function, field and enumerator has an item with a text.
- The RETURN VALUES of a function are those of its header, term by term and word by word.
- The texts in DIAGNOSTICS are those of the reports in the sources.
"""
import re
import subprocess
import sys
import tempfile
from pathlib import Path

import interface
import mdoc

# The headers that the pages describe; others have texts, but no pages.
PAGED = r'Framework/(GCL|VT)/[^/]+\.h$'
WORD = re.compile(r'\b(?:C[A-Z]\w*[a-z]\w*_[A-Z]\w+|VTF?_\w+|GCL_\w+|\w+_trace)\b')
ENVIRONMENT = {'VT_OUTPUT', 'VT_LEVELS'}
REPORT = re.compile(r'GCL_REPORT(?:_AS)?\(\s*(?:\w+,\s*)?(GCL_\w+),\s*((?:"(?:[^"\\]|\\.)*"\s*)+)')
TIMER_TRACE = re.compile(r'TIMER_TRACE(?:_AS)?\(((?:[^;"]|"(?:[^"\\]|\\.)*")*)\);')
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')

DOXYFILE = '''
INPUT = {folder}
OUTPUT_DIRECTORY = {folder}
FILE_PATTERNS = *.h
EXTRACT_ALL = YES
QUIET = YES
WARNINGS = NO
GENERATE_HTML = NO
GENERATE_LATEX = NO
GENERATE_XML = YES
TYPEDEF_HIDES_STRUCT = YES
MACRO_EXPANSION = YES
EXPAND_ONLY_PREDEF = YES
PREDEFINED = __cplusplus=201703L
'''


class Complaints:
    """What is wrong, told line by line."""

    def __init__(self) -> None:
        self.count = 0

    def add(self, text: str) -> None:
        """Tells one more."""
        print(text)
        self.count += 1


def check_texts(found: interface.Interface, complaints: Complaints) -> None:
    """Everything public has a text."""
    for name in found.untold:
        complaints.add(f'no text: {name}')


def check_names(source: Path, found: interface.Interface, pages: list[mdoc.Page],
                complaints: Complaints) -> None:
    """The pages answer to what exists, and speak of nothing else."""
    answered: dict[str, str] = {}
    for page in pages:
        for name in page.names():
            if name in answered:
                complaints.add(f'{page.path.name}: NAME: {name} is in {answered[name]}, too')
            answered[name] = page.path.name
            if page.section == '3' and name not in found.names() | found.headers:
                complaints.add(f'{page.path.name}: NAME: there is no {name}')
        if page.stem not in page.names():
            complaints.add(f'{page.path.name}: NAME: {page.stem} is not among the names')
    for name in sorted((found.functions | found.types) - answered.keys()):
        complaints.add(f'no page answers to {name}')

    known = {name.rsplit('::', 1)[-1] for name in found.names()} | ENVIRONMENT
    for page in pages:
        text = '\n'.join(page.lines)
        path = source / 'Framework/GCL/private' / f'{page.stem}.cpp'
        code = path.read_text(encoding='utf-8') if path.exists() else ''
        # A function that reports under a name of its own, without being public, is quoted.
        inner = {name for name in re.findall(r'"(\w+)"', text) if f' {name}(' in code}
        for word in sorted(set(WORD.findall(text)) - known - inner):
            complaints.add(f'{page.path.name}: there is no {word}')
        for name, section in re.findall(r'^\.(?:It )?Xr (\S+) (\d)', text, re.M):
            own = answered.get(name)
            if own is None and name in found.names() | found.headers:
                complaints.add(f'{page.path.name}: no page {name}({section})')
            if own is not None and not own.endswith(section):
                complaints.add(f'{page.path.name}: {name} is in section {own[-1]}, not {section}')
        items = re.findall(r'^\.It Fn (\S+)', text, re.M)
        for name in items:
            if name not in found.functions and '~' not in name and not is_constructor(name):
                complaints.add(f'{page.path.name}: there is no function {name}')


def is_constructor(name: str) -> bool:
    """Whether a qualified name ends like Class::Class."""
    parts = name.split('::')
    return len(parts) > 1 and parts[-1] == parts[-2]


def check_synopses(found: interface.Interface, pages: list[mdoc.Page],
                   complaints: Complaints) -> None:
    """The pages declare what the headers declare."""
    with tempfile.TemporaryDirectory() as folder:
        for page in pages:
            if page.section == '3':
                Path(folder, f'{page.stem}.h').write_text(page.synopsis(), encoding='utf-8')
        subprocess.run(['doxygen', '-'], input=DOXYFILE.format(folder=folder), text=True,
                       check=True)
        told = interface.read(Path(folder, 'xml'), r'\.h$')
    for signature in sorted(told.declared - found.declared):
        complaints.add('not in a header, but in a SYNOPSIS: ' + ' '.join(signature))
    for signature in sorted(found.declared - told.declared):
        kind, name = signature[0], signature[1]
        # The channels stand in a table; macros are described in the texts.
        if kind == 'define' or name in found.variables:
            continue
        complaints.add('not in a SYNOPSIS, but in a header: ' + ' '.join(signature))
    table = {name: channel for page in pages if page.stem == 'TraceChannels'
             for line in page.lines if line.startswith('.It Va ')
             for name, channel in re.findall(r'Va (\S+) Ta (\S+)', line)}
    wanted = {name: text.strip('"') for name, text in found.variables.items()
              if name.endswith('_trace')}
    if table != wanted:
        complaints.add(f'TraceChannels.3: the channels differ: '
                       f'{sorted(table.items() ^ wanted.items())}')


def check_items(found: interface.Interface, pages: list[mdoc.Page],
                complaints: Complaints) -> None:
    """Every function, field and enumerator has an item of its own, with a text."""
    items = set()
    for page in pages:
        for line, behind in zip(page.lines, page.lines[1:]):
            if line.startswith('.It ') and not behind.startswith(('.It', '.El')):
                items.add((page.stem, mdoc.plain(line[4:])))
    page_of = {name: page.stem for page in pages for name in page.names()}
    wanted = {(page_of.get(name, '?'), f'Fn {name}') for name in found.functions}
    for kind, name, *rest in found.declared:
        scope, _, field = name.rpartition('::')
        if kind == 'variable' and scope:
            wanted.add((page_of.get(scope, '?'), f'Fa {field}'))
        if kind == 'enumerator':
            value = f'{rest[1].lstrip("=")} ' if name == 'GCL_ResultCode' else ''
            wanted.add((page_of.get(name, '?'), f'{value}Dv {rest[0]}'))
    for stem, item in sorted(wanted - items):
        complaints.add(f'{stem}: no item with a text: {item}')


def words(text: str) -> list[str]:
    """The words of a text, without its markup."""
    return re.findall(r'\w+', text.replace('"', ''))


def check_results(found: interface.Interface, pages: list[mdoc.Page],
                  complaints: Complaints) -> None:
    """The results of each function are those of the header."""
    told: dict[str, list[tuple[str, str]]] = {}
    for page in pages:
        told.update(page.results())
    for name in sorted(told.keys() | found.results.keys()):
        ours = [(words(term), words(text)) for term, text in found.results.get(name, [])]
        theirs = [(words(term), words(text)) for term, text in told.get(name, [])]
        for row in range(max(len(ours), len(theirs))):
            wanted = ours[row] if row < len(ours) else None
            have = theirs[row] if row < len(theirs) else None
            if wanted != have:
                complaints.add(f'RETURN VALUES of {name}, row {row + 1}:\n'
                               f'  header: {wanted}\n  page:   {have}')


def check_reports(source: Path, pages: list[mdoc.Page], complaints: Complaints) -> None:
    """The texts of the reports are those of the sources."""
    for page in pages:
        path = source / 'Framework/GCL/private' / f'{page.stem}.cpp'
        if page.section != '3' or not path.exists():
            continue
        code = path.read_text(encoding='utf-8')
        texts = {''.join(LITERAL.findall(text)).strip() for _, text in REPORT.findall(code)}
        told = page.diagnostics()
        if texts or not TIMER_TRACE.search(code):
            for text in sorted(texts ^ set(told)):
                where = 'the page' if text in texts else 'the source'
                complaints.add(f'{page.path.name}: DIAGNOSTICS: not in {where}: {text}')
        # A message of the timer is made of pieces: each stands in one text of the page, and each
        # text of the page has one message.
        messages = [[piece.strip() for piece in LITERAL.findall(arguments)
                     if re.search(r'\w', piece)]
                    for arguments in TIMER_TRACE.findall(code) if 'quotedName' in arguments
                    or 'quoted(' in arguments or 'Unhandled' in arguments]
        for pieces in messages:
            pieces = [piece for piece in pieces if piece != 'Impl']
            if not any(all(piece in text for piece in pieces) for text in told):
                complaints.add(f'{page.path.name}: DIAGNOSTICS: not in the page: {pieces}')
        if messages and any(not any(all(piece in text for piece in pieces if piece != 'Impl')
                                    for pieces in messages) for text in told):
            complaints.add(f'{page.path.name}: DIAGNOSTICS: a text has no message')


def main() -> int:
    """Runs all checks."""
    source, xml = Path(sys.argv[1]), Path(sys.argv[2])
    pages = mdoc.all_pages(source / 'docs/man')
    found = interface.read(xml, PAGED)
    complaints = Complaints()
    check_texts(interface.read(xml, r'\.h$'), complaints)
    check_names(source, found, pages, complaints)
    check_synopses(found, pages, complaints)
    check_items(found, pages, complaints)
    check_results(found, pages, complaints)
    check_reports(source, pages, complaints)
    if complaints.count > 0:
        print(f'{complaints.count} complaints')
        return 1
    print(f'{len(pages)} pages: {len(found.functions)} functions, {len(found.types)} types, '
          f'results of {len(found.results)} functions as in the headers')
    return 0


if __name__ == '__main__':
    sys.exit(main())
