"""The manual pages, as far as the checks read them."""
import re
import shlex
from dataclasses import dataclass
from pathlib import Path

ESCAPES = {'\\-': '-', '\\e': '\\', '\\(aq': "'", '\\(dq': '"', '\\(ti': '~', '\\(ha': '^',
           '\\(ga': '`', '\\&': ''}
ESCAPE = re.compile('|'.join(re.escape(escape) for escape in ESCAPES))


def plain(text: str) -> str:
    """The text as a reader sees it."""
    return ESCAPE.sub(lambda found: ESCAPES[found.group()], text)


@dataclass
class Example:
    """A program of the section EXAMPLES and what it prints."""
    code: str
    standard: str
    output: str
    ends: bool  # only the ends of the lines are given


class Page:
    """A page: docs/man/NAME.SECTION."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self.stem, self.section = path.name.rsplit('.', 1)
        self.lines = path.read_text(encoding='utf-8').splitlines()

    def part(self, title: str) -> list[str]:
        """The lines of a section."""
        heading = f'.Sh {title}'
        if heading not in self.lines:
            return []
        begin = self.lines.index(heading) + 1
        end = begin
        while end < len(self.lines) and not self.lines[end].startswith('.Sh '):
            end += 1
        return self.lines[begin:end]

    def names(self) -> list[str]:
        """What the page answers to."""
        return [line.split()[1] for line in self.part('NAME') if line.startswith('.Nm ')]

    def synopsis(self) -> str:
        """The section SYNOPSIS as code."""
        code: list[str] = []
        literal = False
        result = ''
        arguments: list[str] = []
        function = ''
        for line in self.part('SYNOPSIS'):
            if literal:
                if line == '.Ed':
                    literal = False
                else:
                    code.append(plain(line))
                continue
            words = shlex.split(plain(line).replace("'", ''))
            if line.startswith('.Bd -literal'):
                literal = True
            elif line.startswith('.Fd '):
                code.append(plain(line)[4:])
            elif words[0] == '.Ft':
                result = ' '.join(words[1:])
            elif words[0] == '.Fn':
                code.append(f'{result} {words[1]}({", ".join(words[2:])});')
            elif words[0] == '.Fo':
                function, arguments = words[1], []
            elif words[0] == '.Fa':
                arguments.append(words[1])
            elif words[0] == '.Fc':
                code.append(f'{result} {function}({", ".join(arguments)});')
            elif words[0] == '.Vt':
                code.append(' '.join(words[1:]))
            elif words[0] != '.Pp':
                raise ValueError(f'{self.path.name}: SYNOPSIS: unexpected line: {line}')
        return '\n'.join(code) + '\n'

    def results(self) -> dict[str, list[tuple[str, str]]]:
        """For each function the rows of its results, as (term, text)."""
        rows: dict[str, list[tuple[str, str]]] = {}
        current: list[tuple[str, str]] = []
        in_item = False
        for line in self.part('RETURN VALUES'):
            if line.startswith('.Ss '):
                current = rows.setdefault(line[4:], [])
                in_item = False
            elif line.startswith('.It '):
                current.append((without_macro(line[4:], callable_first=True), ''))
                in_item = True
            elif line.startswith(('.El', '.Bl')):
                in_item = False
            elif in_item:
                term, text = current[-1]
                piece = without_macro(line[1:], True) if line.startswith('.') else plain(line)
                current[-1] = (term, f'{text} {piece}'.strip())
        return rows

    def diagnostics(self) -> list[str]:
        """The texts of the section DIAGNOSTICS."""
        return [plain(line[4:]) for line in self.part('DIAGNOSTICS') if line.startswith('.It ')]

    def examples(self) -> list[Example]:
        """The programs of the section EXAMPLES."""
        found: list[Example] = []
        lines = self.part('EXAMPLES')
        for position, line in enumerate(lines):
            if line.startswith('.\\" compile: '):
                found.append(Example(literal_block(self, lines, position + 1),
                                     line.split(': ')[1], '', False))
            elif line.startswith('.\\" output'):
                found[-1].output = literal_block(self, lines, position + 1)
                found[-1].ends = line.endswith(': ends')
        return found


def literal_block(page: Page, lines: list[str], begin: int) -> str:
    """The text between .Bd -literal, which is line number `begin`, and .Ed."""
    if not lines[begin].startswith('.Bd -literal'):
        raise ValueError(f'{page.path.name}: EXAMPLES: no display behind "{lines[begin - 1]}"')
    end = lines.index('.Ed', begin)
    block = lines[begin + 1:end]
    for line in block:
        # What a formatter would replace by a typographic character cannot be copied from the page.
        raw = ESCAPE.sub('', line)
        if re.search(r"[-'`^~\\]", raw):
            raise ValueError(f'{page.path.name}: EXAMPLES: a character to escape in: {line}')
    return ''.join(plain(line) + '\n' for line in block)


def without_macro(text: str, callable_first: bool) -> str:
    """The arguments of a macro line; `text` begins with a macro's name where that is so."""
    words = plain(text).split()
    if callable_first:
        words = [word for word in words if word not in ('Dv', 'Fa', 'Fn', 'Va', 'Vt', 'Li', 'Qq')]
        if words and words[0] == 'Xr':
            words = [f'{words[1]}({words[2]})'] + words[3:]
    return ' '.join(words)


def all_pages(folder: Path) -> list[Page]:
    """The pages of docs/man, in the order of their names."""
    return [Page(path) for path in sorted(folder.glob('*.[137]'))]
