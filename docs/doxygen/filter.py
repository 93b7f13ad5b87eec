#!/usr/bin/env python3
"""Turns the plain comments of a public header into Doxygen comments, on standard output.

The headers carry `//` comments only. Doxygen reads them through this filter (INPUT_FILTER):

- a block of comment lines right above a declaration documents it;
- a comment behind a declaration documents that one, its continuation lines included;
- the comment at the top of a header documents the file, or the class that it names in front of a
  colon, if that has no comment of its own;
- a block above several declarations in a row documents all of them, and one above fields that have
  comments of their own is their heading;
- within a comment, lines indented by two more columns are a table (a term, two blanks or more, a
  text) or a list (`- ` in front), and lines indented by four after an empty one are code.

Comments in function bodies, and blocks with an empty line behind them, stay as they are.
"""
import re
import sys
from dataclasses import dataclass, field

COMMENT = re.compile(r'^(\s*)//(?!/) ?(.*)$')
TRAILING = re.compile(r'^(\s*(?![\s#}/]).*?\S)(\s*)//(?!/) ?(.*)$')
SCOPE = re.compile(r'\b(class|struct|union|enum|namespace)\b|extern\s+"C"')
ROW = re.compile(r'^(\s+)(\S(?:.*?\S)?)(  +)(\S.*)$')
ITEM = re.compile(r'^  - (.*)$')
# Functions and result codes, which Doxygen links where they are marked.
LINKED = re.compile(r'(?<![\w#:"])(C[A-Z]\w*[a-z]\w*_[A-Z]\w+|VT_[a-z]\w+|GCL_[A-Z_]+)\b(?!\.\w)')
SENTENCE_END = re.compile(r'[.:](?=\s+[A-Z])|\.$')


def escaped(text: str) -> str:
    """The text with nothing in it that Doxygen would take for a command or a tag."""
    pieces = text.split('"')
    # Between quotation marks Doxygen takes every character as it is.
    for index in range(0, len(pieces), 2):
        piece = re.sub(r'([\\@#%&<>])', r'\\\1', pieces[index])
        piece = LINKED.sub(r'#\1', piece)
        pieces[index] = re.sub(r'`([^`]+)`', r'<code>\1</code>', piece)
    return '"'.join(pieces)


def term(text: str) -> str:
    """The first column of a table: a code, an argument, a value."""
    return f'<code>{escaped(text)}</code>'


@dataclass
class Table:
    """The rows of a table; a row's text grows line by line."""
    rows: list[list[str]] = field(default_factory=list)
    column: int = 0  # where the texts begin
    indent: int = 0  # of the first row

    def take(self, line: str) -> bool:
        """Takes a line of the comment; False if it is not of this table."""
        found = ROW.match(line)
        indent = len(line) - len(line.lstrip())
        if self.rows and indent >= self.column:
            self.rows[-1][1] += ' ' + line.strip()
            return True
        if found is None or indent not in (2, 4) or (not self.rows and indent != 2):
            return False
        if not self.rows:
            self.indent = indent
        self.column = found.end(3)
        kind = 'sub' if indent > self.indent else ''
        self.rows.append([found.group(2), found.group(4), kind])
        return True

    def text(self) -> list[str]:
        lines = ['<table class="results">']
        for name, meaning, kind in self.rows:
            style = f' class="{kind}"' if kind else ''
            lines.append(f'<tr><td{style}>{term(name)}</td><td>{escaped(meaning)}</td></tr>')
        return lines + ['</table>']


def markup(lines: list[str]) -> list[str]:
    """The text of a comment as Doxygen wants it."""
    result: list[str] = []
    position = 0
    while position < len(lines):
        line = lines[position]
        after_empty = position > 0 and not lines[position - 1].strip()
        if line.startswith('    ') and after_empty:
            result.append('\\code{.unparsed}')
            while position < len(lines) and (lines[position].startswith('    ') or (
                    not lines[position].strip() and position + 1 < len(lines)
                    and lines[position + 1].startswith('    '))):
                result.append(lines[position][4:])
                position += 1
            result.append('\\endcode')
            continue
        table = Table()
        while position < len(lines) and table.take(lines[position]):
            position += 1
        if table.rows:
            result += table.text()
            continue
        item = ITEM.match(line)
        if item:
            result.append('- ' + escaped(item.group(1)))
            position += 1
            while position < len(lines) and lines[position].startswith('    '):
                result.append('  ' + escaped(lines[position].strip()))
                position += 1
            if position == len(lines) or not ITEM.match(lines[position]):
                result.append('')
            continue
        if line.startswith('  '):
            # Neither: it is shown as it is.
            result.append('\\code{.unparsed}')
            while position < len(lines) and lines[position].startswith('  '):
                result.append(lines[position][2:])
                position += 1
            result.append('\\endcode')
            continue
        paragraph = []
        while position < len(lines) and lines[position].strip() and lines[position][:2] != '  ':
            paragraph.append(lines[position])
            position += 1
        result.append(escaped(' '.join(paragraph)))
        position += not paragraph
    return result


def documented(lines: list[str]) -> list[str]:
    """A comment with its first sentence as the brief description."""
    paragraph: list[str] = []
    for line in lines:
        if not line.strip() or line.startswith('  '):
            break
        paragraph.append(line)
    text = ' '.join(paragraph)
    end = SENTENCE_END.search(text)
    cut = end.end() if end else len(text)
    brief, rest = text[:cut], text[cut:].strip()
    result = ['\\brief ' + escaped(re.sub(r':$', '.', brief)), '']
    if rest:
        result.append(escaped(rest))
    return result + markup(lines[len(paragraph):])


class Scopes:
    """Follows the braces, to tell declarations from function bodies."""

    def __init__(self) -> None:
        self.stack: list[str] = []  # for each open brace 'body' or what it belongs to
        self.statement = ''

    def feed(self, line: str) -> None:
        code = re.sub(r'"(?!C")(?:[^"\\]|\\.)*"', '""', line)
        code = re.sub(r'//.*', '', code)
        if code.lstrip().startswith('#'):
            return
        for character in code:
            if character == '{':
                self.stack.append(self.opened())
                self.statement = ''
            elif character == '}':
                if self.stack:
                    self.stack.pop()
                self.statement = ''
            elif character == ';':
                self.statement = ''
            else:
                self.statement += character
        self.statement += ' '

    def opened(self) -> str:
        """What the brace behind the current statement opens."""
        scope = SCOPE.search(self.statement)
        if self.in_body() or scope is None or self.statement.rstrip().endswith(')'):
            return 'body'
        return scope.group(1) or 'extern'

    def in_body(self) -> bool:
        return self.stack[-1:] == ['body']

    def in_class(self) -> bool:
        return self.stack[-1:] in (['class'], ['struct'])

    def depth(self) -> int:
        return len(self.stack)

    def complete(self) -> bool:
        """Whether no declaration is half read."""
        return not self.statement.strip()


def declarations_end(lines: list[str], start: int) -> tuple[int, int]:
    """The line behind the run of declarations from `start` on, and how many they are."""
    scopes = Scopes()
    count = 0
    position = start
    while position < len(lines):
        line = lines[position]
        at_start = scopes.depth() == 0 and scopes.complete()
        if at_start and (not line.strip() or COMMENT.match(line) or TRAILING.match(line)
                         or line.lstrip()[0] in '#}' or re.match(r'\s*\w+:\s*$', line)):
            break
        scopes.feed(line)
        if scopes.stack and not scopes.in_body():
            return start, 1  # a class or an enumeration: it stands alone
        position += 1
        if scopes.depth() == 0 and scopes.complete():
            count += 1
    return position, count


def take_block(lines: list[str], start: int) -> tuple[list[str], int]:
    """The texts of the comment lines from `start` on, and the line behind them."""
    texts: list[str] = []
    position = start
    while position < len(lines):
        found = COMMENT.match(lines[position])
        if not found:
            break
        texts.append(found.group(2))
        position += 1
    return texts, position


def doc_lines(indent: str, texts: list[str]) -> list[str]:
    return [f'{indent}/// {text}'.rstrip() for text in texts]


def described_class(name: str, lines: list[str]) -> int:
    """The line that begins the class of this name, if no comment stands above it; else -1."""
    own_name = re.escape(name.rsplit('::', 1)[-1])
    for position, line in enumerate(lines):
        if re.match(rf'\s*(?:class|struct)\s+(?:\w+_API\s+)?{own_name}\b[^;]*$', line):
            while lines[position - 1].startswith('template'):
                position -= 1
            return -1 if COMMENT.match(lines[position - 1]) else position
    return -1


def run(lines: list[str]) -> list[str]:
    out: list[str] = []
    scopes = Scopes()
    head, position = take_block(lines, 0)
    class_line, class_text = -1, []
    if head:
        name = head[0].split(': ')[0]
        class_line = described_class(name, lines)
        text = documented(head)
        if class_line >= 0:
            start = head[0][len(name) + 2:]
            class_text = documented([start[0].upper() + start[1:]] + head[1:])
            text = [text[0], '', f'The class {name} is described in its own place.']
        out += ['/// \\file'] + doc_lines('', text)

    group_ends = -1
    trailing_column = -1
    while position < len(lines):
        line = lines[position]
        if re.match(r'(struct|class) std::', line):
            # A specialisation for the standard library's use; Doxygen knows nothing of its scope.
            while out[-1].startswith('template'):
                out[-1] = ''
            while position < len(lines) and not lines[position].startswith('}'):
                position += 1
            position += 1
            scopes = Scopes()
            continue
        if position == group_ends:
            out.append('///@}')
        if position == class_line:
            out += doc_lines('', class_text)
        comment = COMMENT.match(line)
        if comment and trailing_column == line.index('//') and not scopes.in_body():
            out.append(f'{comment.group(1)}///< {escaped(comment.group(2))}')
            position += 1
            continue
        trailing_column = -1
        if comment and not scopes.in_body():
            texts, behind = take_block(lines, position)
            following = lines[behind].strip() if behind < len(lines) else ''
            documents = (following != '' and not re.match(r'[}]|\w+:$|#(?!define|if)', following)
                         and not TRAILING.match(lines[behind]))
            if documents:
                out += doc_lines(comment.group(1), documented(texts))
                end, count = declarations_end(lines, behind)
                if count > 1:
                    out.append('///@{')
                    group_ends = end
            elif scopes.in_class() and following and TRAILING.match(lines[behind]):
                # A heading of fields that have comments of their own.
                brief = documented(texts)
                out += doc_lines(comment.group(1), [brief[0].replace('\\brief', '\\name')[:-1]]
                                 + brief[1:])
                out.append('///@{')
                group_ends = behind
                while lines[group_ends].strip() not in ('', '};'):
                    group_ends += 1
            else:
                out += lines[position:behind]
            position = behind
            continue
        trailing = TRAILING.match(line)
        if trailing and not scopes.in_body():
            out.append(f'{trailing.group(1)} ///< {escaped(trailing.group(3))}')
            trailing_column = trailing.end(2)
        else:
            out.append(line)
        scopes.feed(line)
        position += 1
    return out


def main() -> int:
    with open(sys.argv[1], encoding='utf-8') as header:
        print('\n'.join(run(header.read().splitlines())))
    return 0


if __name__ == '__main__':
    sys.exit(main())
