#!/usr/bin/python3
"""Runs gdb with the library's printers and compares what it shows with a transcript.

Usage: run.py --gdb=GDB --probe=PROGRAM --library=FILE --build=FOLDER --strip=STRIP
              [--emulator=COMMAND] CASE

A transcript holds commands, in lines that begin with "(gdb) ", each followed by what gdb answers.
@NAME@ in an answer stands for a value of the case at hand, @/PATTERN/@ for a regular expression.
The numbers of gdb's value history are left out of the comparison.
"""

import argparse
import difflib
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Dict, List, Optional, Tuple

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
PRINTERS = ROOT / 'tools/gdb/kivgcl.py'
SKIPPED = 77
PROMPT = '(gdb) '

# Executes the commands of a transcript and writes the answers to a file, errors in their places.
DRIVER = '''
import gdb
with open({output!r}, 'w') as output:
    for command in {commands!r}:
        output.write({prompt!r} + command + '\\n')
        try:
            output.write(gdb.execute(command, to_string=True))
        except gdb.error as error:
            output.write(str(error) + '\\n')
'''

Values = Dict[str, str]


class Failure(Exception):
    pass


class Session:
    """gdb on the probe, stopped at its check point."""

    def __init__(self, options: argparse.Namespace, folder: Path) -> None:
        self.options = options
        self.folder = folder
        self.environment = dict(os.environ, LC_ALL='C.UTF-8', DEBUGINFOD_URLS='')
        self.automatic: List[str] = []  # arguments that come before the program is known

    def gdb(self, commands: List[str], arguments: Optional[List[str]] = None) -> str:
        """All that gdb prints."""
        call = [self.options.gdb, '-nx', '-batch', '-iex', 'set width 0', '-iex',
                'set charset UTF-8']
        for command in self.automatic:
            call += ['-iex', command]
        for command in commands:
            call += ['-ex', command]
        done = subprocess.run(call + (arguments or [self.options.probe]), env=self.environment,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=100, check=False,
                              encoding='utf-8', errors='backslashreplace')
        return done.stdout

    def answers(self, transcript: Path, before: List[str],
                arguments: Optional[List[str]] = None, printers: bool = True) -> str:
        """What gdb answers to the transcript's commands."""
        commands = [line[len(PROMPT):] for line in transcript.read_text('utf-8').splitlines()
                    if line.startswith(PROMPT)]
        output = self.folder / 'answers'
        driver = self.folder / 'driver.py'
        driver.write_text(DRIVER.format(output=str(output), commands=commands, prompt=PROMPT))
        load = [f'source {PRINTERS}'] if printers else []
        printed = self.gdb(before + load + [f'source {driver}'], arguments)
        if not output.exists() or 'Python Exception' in printed or 'Traceback' in printed:
            raise Failure(f'gdb said:\n{printed}')
        return output.read_text('utf-8')

    live = ['break checkpoint', 'run']

    def compare(self, name: str, values: Values, before: List[str],
                arguments: Optional[List[str]] = None, printers: bool = True) -> None:
        transcript = HERE / name
        wanted = [line for line in transcript.read_text('utf-8').splitlines()
                  if not line.startswith('#')]
        found = self.answers(transcript, before, arguments, printers).splitlines()
        compare_lines(wanted, found, values)
        print(f'{name}: {sum(line.startswith(PROMPT) for line in wanted)} answers as expected')


def compare_lines(wanted: List[str], found: List[str], values: Values) -> None:
    # A line that matches is shown as it was found, so that only the others differ.
    shown = [found[i] if i < len(found) and matches(line, found[i], values) else line
             for i, line in enumerate(wanted)]
    if shown != found:
        raise Failure('\n'.join(difflib.unified_diff(shown, found, 'expected', 'found',
                                                     lineterm='', n=1)))


def matches(wanted: str, found: str, values: Values) -> bool:
    """Compares a line of a transcript with one of gdb's."""
    pattern = ''
    for part in re.split(r'(@/.*?/@|@\w+@)', wanted):
        if part.startswith('@/'):
            pattern += part[2:-2]
        elif part.startswith('@'):
            pattern += values[part[1:-1]]
        else:
            pattern += re.escape(part)
    return re.fullmatch(pattern, re.sub(r'^\$\d+ = ', '$ = ', found)) is not None


NATIVE = {
    'FREED': '0xdddddddddddddddd', 'FREED_ITEM': '15987178197214944733', 'WORKER2': 'thread 2',
    'WORKER3': 'thread 3', 'WORKER4': 'thread 4', 'WORKER5': 'thread 5',
}
HANDLE = 'thread handle 0x[0-9a-f]+'
ARM = {
    'FREED': '0xdddddddd', 'FREED_ITEM': '3722304989', 'WORKER2': HANDLE, 'WORKER3': HANDLE,
    'WORKER4': HANDLE, 'WORKER5': HANDLE,
}
# With the thread library of the core file gdb can tell the threads; it need not have one.
ARM_CORE = {name: f'(?:{value}|{NATIVE[name]})' if value == HANDLE else value
            for name, value in ARM.items()}


def live(session: Session) -> None:
    """The running program."""
    session.compare('printers.txt', NATIVE, session.live)


def threads(session: Session) -> None:
    """The names of a running program's threads."""
    session.compare('threads.txt', NATIVE, session.live)


def reports(session: Session) -> None:
    """A break point on the reports of the library."""
    session.compare('reports.txt', NATIVE, [
        'set breakpoint pending on',
        'break VT_beginImpl if level == 1 && $_streq(channel->name, "KIV.GCL")', 'run'])


def core(session: Session) -> None:
    """A core file of it."""
    file = session.folder / 'core'
    session.gdb(session.live + [f'gcore {file}'])
    if not file.exists():
        raise Failure('gdb wrote no core file')
    session.compare('printers.txt', NATIVE, [], [session.options.probe, str(file)])


def ide(session: Session) -> None:
    """The views of variables that graphical front ends have."""
    commands = session.live + [f'source {PRINTERS}'] + [
        f'interpreter-exec mi "{command}"' for command in (
            '-enable-pretty-printing',
            '-var-create list @ threeItems', '-var-list-children --all-values list',
            '-var-create table @ table', '-var-list-children --all-values table',
            '-var-create pool @ pool', '-var-list-children --all-values pool',
            '-var-list-children --all-values pool.free',
            '-var-create words @ words', '-var-list-children --all-values words',
            '-var-create long @ longList', '-var-list-children --all-values long 298 300',
            '-var-create broken @ brokenList', '-var-list-children --all-values broken')]
    lines = [line for line in session.gdb(commands).splitlines() if line.startswith('^done')]
    compare_lines((HERE / 'ide.txt').read_text('utf-8').splitlines(), lines, NATIVE)
    print(f'ide.txt: {len(lines)} answers as expected')


def cmake_install(session: Session, *arguments: str, **environment: str) -> None:
    subprocess.run(['cmake', '--install', session.options.build, *arguments], check=True,
                   stdout=subprocess.DEVNULL, env=dict(os.environ, **environment))


def installed_printers(tree: Path) -> Path:
    found = list((tree / 'share/gdb/auto-load').rglob('*-gdb.py'))
    if len(found) != 1:
        raise Failure(f'{len(found)} files for auto-loading in {tree}')
    return found[0]


def auto_load(session: Session) -> None:
    """The printers come with an installed library, in whatever folder it is."""
    tree = session.folder / 'prefix'
    cmake_install(session, '--prefix', str(tree))
    library = tree / installed_printers(tree).parent.relative_to(
        tree / 'share/gdb/auto-load' / tree.relative_to('/'))
    if not (library / Path(session.options.library).name).exists():
        raise Failure(f'the printers are installed for {library}, where no library is')
    session.environment['LD_LIBRARY_PATH'] = str(library)
    session.automatic = [f'add-auto-load-safe-path {tree}',
                         'set auto-load scripts-directory '
                         f'$debugdir:$datadir/auto-load:{tree}/share/gdb/auto-load']
    session.compare('printers.txt', NATIVE, session.live, printers=False)


def auto_load_in_usr(session: Session) -> None:
    """They come without any setting where the library is installed in /usr."""
    tree = session.folder / 'root'
    cmake_install(session, '--prefix', '/usr', DESTDIR=str(tree))
    script = installed_printers(tree / 'usr')
    folder = script.parent.relative_to(tree / 'usr/share/gdb/auto-load')
    # The installed files are laid over /usr, for this test alone.
    layers = []
    for place in ('/usr/share/gdb', f'/{folder}'):
        layers.append(f'mkdir -p over{place} && cp -a root{place}/. over{place}/ && '
                      f'mount -t overlay overlay -o lowerdir=over{place}:{place} {place}')
    enter = ['unshare', '-m', 'sh', '-euc', '; '.join([f'cd {session.folder}'] + layers)]
    allowed = subprocess.run(enter, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    if allowed.returncode != 0:
        print('skipped: this machine lets nobody lay files over /usr:', allowed.stdout.decode())
        sys.exit(SKIPPED)
    wrapper = session.folder / 'gdb'
    wrapper.write_text('#!/bin/sh\n' + ' &&\n'.join(
        [f'cd {session.folder}'] + layers + [f'exec {session.options.gdb} "$@"']) + '\n')
    wrapper.chmod(0o755)
    inside = session.folder / 'inside'
    inside.write_text(f'#!/bin/sh\nexec unshare -m {wrapper} "$@"\n')
    inside.chmod(0o755)
    session.options.gdb = str(inside)
    session.environment['LD_LIBRARY_PATH'] = f'/{folder}'
    session.compare('printers.txt', NATIVE, session.live, printers=False)


def stripped(session: Session, option: str, name: str) -> None:
    library = session.folder / 'libKivGCL.so.1'
    subprocess.run([session.options.strip, option, '-o', library, session.options.library],
                   check=True)
    session.environment['LD_LIBRARY_PATH'] = str(session.folder)
    session.compare(name, NATIVE, session.live)


def stripped_of_debug_info(session: Session) -> None:
    """A library that has its symbols, but no debug information."""
    stripped(session, '--strip-debug', 'stripped-of-debug-info.txt')


def stripped_of_symbols(session: Session) -> None:
    """A library and a program as they are shipped."""
    stripped(session, '--strip-all', 'stripped-of-symbols.txt')
    program = session.folder / 'probe'
    subprocess.run([session.options.strip, '--strip-debug', '-o', program, session.options.probe],
                   check=True)
    session.options.probe = str(program)
    session.compare('stripped-program.txt', NATIVE, session.live)


def tables(session: Session) -> None:
    """The printers' tables are those of the headers."""
    header = (ROOT / 'Framework/GCL/ResultCodes.h').read_text()
    codes = [(int(value, 16), name)
             for name, value in re.findall(r'^ +(GCL_\w+) = (0x\w+)', header, re.M)]
    header = (ROOT / 'Framework/GCL/TraceChannels.h').read_text()
    channels = re.findall(r'TraceChannel (\w+)_trace;', header)
    header = (ROOT / 'Framework/GCL/CFifoBuffer.h').read_text()
    modes = re.findall(r'^ +(eTaskingMode\w+) = \d', header, re.M)
    printed = session.gdb([f'source {PRINTERS}', 'python print(list(CODES.items()) == %r)' % codes,
                           'python print(CHANNELS == %r)' % channels,
                           'python print(list(MODES) == %r)' % modes], ['/bin/true'])
    if not (codes and channels and modes) or printed.split() != ['True'] * 3:
        raise Failure(f'the tables differ from the headers:\n{printed}')
    print(f'{len(codes)} codes, {len(channels)} channels, {len(modes)} modes as in the headers')


def page(session: Session) -> None:
    """What docs/debugging.md shows is what the transcripts say."""
    known: Dict[str, List[str]] = {}
    for name in ('printers.txt', 'reports.txt', 'threads.txt'):
        for command, answer in commands_in((HERE / name).read_text('utf-8')):
            known.setdefault(command, answer)
    shown = commands_in(re.sub(r'^    ', '', (ROOT / 'docs/debugging.md').read_text('utf-8'),
                               flags=re.M))
    compared = 0
    for command, answer in shown:
        if answer:
            compare_lines(known.get(command, ['no such command']), answer, NATIVE)
            compared += 1
    if compared == 0:
        raise Failure('the page shows nothing')
    print(f'{compared} answers in docs/debugging.md as in the transcripts')


def commands_in(text: str) -> List[Tuple[str, List[str]]]:
    """The commands of a transcript with their answers, which end at an empty line."""
    found: List[Tuple[str, List[str]]] = []
    inside = False
    for line in text.splitlines():
        if line.startswith(PROMPT):
            found.append((line, []))
            inside = True
        elif not line or line.startswith('#'):
            inside = False
        elif inside:
            found[-1][1].append(line)
    return found


def system_root(session: Session) -> str:
    words = session.options.emulator.split(';')
    return words[words.index('-L') + 1]


def remote_settings(session: Session) -> List[str]:
    return [f'set sysroot {system_root(session)}',
            f'set solib-search-path {Path(session.options.library).parent}']


def remote(session: Session) -> None:
    """A program of the other processor, through gdb's remote protocol."""
    endpoint = session.folder / 'endpoint'
    emulator = session.options.emulator.split(';')
    program = subprocess.Popen(emulator + ['-g', str(endpoint), session.options.probe],
                               stdin=subprocess.DEVNULL)
    try:
        for _ in range(100):
            if endpoint.exists():
                break
            time.sleep(0.1)
        session.automatic = remote_settings(session)
        session.compare('printers.txt', ARM,
                        [f'target remote {endpoint}', 'break checkpoint', 'continue'])
    finally:
        program.kill()
        program.wait()


def remote_core(session: Session) -> None:
    """A core file of the other processor."""
    emulator = session.options.emulator.split(';')
    probe = session.options.probe
    # The emulator writes the file for the program, and then dies of the signal itself.
    subprocess.run(['sh', '-c', 'ulimit -c unlimited; exec "$@"', 'sh', *emulator, probe,
                    'abort'], cwd=session.folder, check=False, stdin=subprocess.DEVNULL)
    files = list(session.folder.glob('qemu_*.core'))
    if len(files) != 1:
        raise Failure(f'the emulator wrote {len(files)} core files')
    session.automatic = remote_settings(session)
    session.compare('core.txt', ARM_CORE, [], [probe, str(files[0])])


CASES = {
    'Live': live, 'Threads': threads, 'Reports': reports, 'Page': page, 'Core': core, 'Ide': ide,
    'AutoLoad': auto_load, 'AutoLoadInUsr': auto_load_in_usr,
    'StrippedOfDebugInfo': stripped_of_debug_info, 'StrippedOfSymbols': stripped_of_symbols,
    'Tables': tables, 'Remote': remote, 'RemoteCore': remote_core,
}


def main() -> int:
    parser = argparse.ArgumentParser()
    for name in ('gdb', 'probe', 'library', 'build', 'strip', 'emulator'):
        parser.add_argument('--' + name, default='')
    parser.add_argument('case', choices=CASES)
    options = parser.parse_args()
    options.probe = os.path.abspath(options.probe)
    folder = Path(tempfile.mkdtemp()).resolve()
    try:
        CASES[options.case](Session(options, folder))
    except Failure as failure:
        print(failure)
        return 1
    finally:
        shutil.rmtree(folder)
    return 0


if __name__ == '__main__':
    sys.exit(main())
