"""The public interface as Doxygen reads it: from its XML output."""
import re
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, field
from pathlib import Path

Signature = tuple[str, ...]


def text_of(element: ElementTree.Element | None) -> str:
    """All text in an element, with single blanks."""
    return '' if element is None else ' '.join(''.join(element.itertext()).split())


def code_of(element: ElementTree.Element | None) -> str:
    """A piece of code, without the blanks that carry no meaning."""
    code = re.sub(r'\s*([*&<>(),=:])\s*', r'\1', text_of(element))
    return re.sub(r'\)(?=[a-z])', ') ', code)


@dataclass
class Interface:
    """What a set of headers offers."""
    declared: set[Signature] = field(default_factory=set)  # all of it, to be compared
    functions: set[str] = field(default_factory=set)  # qualified; no constructors, no operators
    types: set[str] = field(default_factory=set)
    values: set[str] = field(default_factory=set)  # enumerators, macros and variables
    variables: dict[str, str] = field(default_factory=dict)  # and the text of each
    headers: set[str] = field(default_factory=set)  # without folder and extension
    results: dict[str, list[tuple[str, str]]] = field(default_factory=dict)
    untold: list[str] = field(default_factory=list)  # what has no text

    def names(self) -> set[str]:
        """Everything that a page may speak of."""
        return self.functions | self.types | self.values


def has_text(element: ElementTree.Element) -> bool:
    """Whether there is a brief or a detailed description."""
    return bool(text_of(element.find('briefdescription'))
                or text_of(element.find('detaileddescription')))


def rows_of(member: ElementTree.Element) -> list[tuple[str, str]]:
    """The tables in the description of a function."""
    rows = []
    for row in member.iterfind('./detaileddescription//row'):
        entries = [text_of(entry) for entry in row.findall('entry')]
        rows.append((entries[0], entries[1]))
    return rows


def take_enum(found: Interface, member: ElementTree.Element, name: str) -> None:
    """Takes an enumeration and its enumerators."""
    if not name.rsplit('::', 1)[-1].startswith('@'):
        found.types.add(name)
    found.declared.add(('enum', name, code_of(member.find('type'))))
    for value in member.findall('enumvalue'):
        found.values.add(value.findtext('name', ''))
        found.declared.add(('enumerator', name, value.findtext('name', ''),
                            code_of(value.find('initializer'))))
        if not has_text(value):
            found.untold.append(f'{name}: {value.findtext("name")}')


def take_member(found: Interface, scope: str, member: ElementTree.Element) -> None:
    """Takes a function, variable, enumeration or macro."""
    kind = member.get('kind', '')
    own_name = member.findtext('name', '')
    name = f'{scope}::{own_name}' if scope else own_name
    if not has_text(member):
        found.untold.append(f'{kind} {name}{member.findtext("argsstring", "")}')
    if kind == 'enum':
        take_enum(found, member, name)
        return
    if kind == 'define':
        found.values.add(name)
        found.declared.add((kind, name, code_of(member.find('initializer'))))
        return
    flags = ' '.join(f'{flag}={member.get(flag)}' for flag in (
        'prot', 'static', 'const', 'explicit', 'virt', 'noexcept') if member.get(flag))
    found.declared.add((kind, name, code_of(member.find('type')),
                        code_of(member.find('argsstring')), flags))
    if kind == 'variable':
        if not scope:
            found.variables[name] = (text_of(member.find('detaileddescription'))
                                     or text_of(member.find('briefdescription')))
            found.values.add(name)
        return
    if kind == 'function':
        if scope.rsplit('::', 1)[-1] != own_name.lstrip('~') and 'operator' not in own_name:
            found.functions.add(name)
        rows = rows_of(member)
        if rows and name not in found.results:
            found.results[name] = rows


def read(folder: Path, wanted: str) -> Interface:
    """The interface of the headers whose path contains the pattern `wanted`."""
    found = Interface()
    for path in sorted(folder.glob('*.xml')):
        for compound in ElementTree.parse(path).getroot().iter('compounddef'):
            kind = compound.get('kind', '')
            name = compound.findtext('compoundname', '')
            location = compound.find('location')
            where = location.get('file', '') if location is not None else ''
            if kind not in ('file', 'class', 'struct') or not re.search(wanted, where):
                continue
            if compound.get('prot', 'public') == 'private':
                continue
            if not has_text(compound):
                found.untold.append(f'{kind} {name}')
            scope = '' if kind == 'file' else name
            if kind == 'file':
                found.headers.add(name.split('.')[0])
            else:
                found.types.add(name)
                bases = ' '.join(text_of(base) for base in compound.findall('basecompoundref'))
                found.declared.add((kind, name, bases))
            for member in compound.iter('memberdef'):
                if member.get('prot') != 'private':
                    take_member(found, scope, member)
    if not found.declared:
        raise SystemExit(f'no interface found in {folder}')
    return found
