#!/usr/bin/python3
"""Tries the Wireshark dissector of the framed message stream with tshark.

Usage: run.py --tshark=TSHARK [--capture=DUMPCAP --node=PROGRAM --client=PROGRAM --keep=FOLDER]
              [--build=FOLDER --libdir=FOLDER] CASE

Captures are made by the script, but for one of the library's own traffic. Each is dissected in one
pass, as tshark does, and in two, as Wireshark does; both must show the same.
"""

import argparse
import itertools
import os
import random
import re
import shlex
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Dict, Iterable, List, NamedTuple, Optional, Sequence, Tuple

from scapy.layers.inet import IP, TCP
from scapy.layers.l2 import Ether
from scapy.packet import Raw
from scapy.utils import PcapReader, wrpcap

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
DISSECTOR = ROOT / 'tools/wireshark/kivgcl.lua'
SKIPPED = 77

CLIENT = 0x434C4E54
SERVER = 0x4E4F4445
PORT = 4680
FIELDS = ('frame.number', 'tcp.stream', 'kivgcl.sender', 'kivgcl.sequence', 'kivgcl.length',
          'kivgcl.payload', 'kivgcl.garbage', 'kivgcl.missing', '_ws.expert.message',
          '_ws.col.Info')


class Failure(Exception):
    pass


def equal(what: str, found: object, wanted: object) -> None:
    if found != wanted:
        if isinstance(found, list) and isinstance(wanted, list):
            both = range(max(len(found), len(wanted)))
            lines = [f'{i}: expected {wanted[i:i + 1]}\n   found    {found[i:i + 1]}'
                     for i in both if found[i:i + 1] != wanted[i:i + 1]]
            raise Failure(f'{what}:\n' + '\n'.join(lines[:10]))
        raise Failure(f'{what}: expected {wanted!r}, found {found!r}')


def frame(sync: int, sequence: int, payload: bytes = b'', size: Optional[int] = None) -> bytes:
    length = len(payload) if size is None else size
    return struct.pack('>III', sync, sequence, length) + payload


class Capture:
    """Segments of connections to a server, in the order of their capture."""

    def __init__(self, port: int = PORT) -> None:
        self.port = port
        self.packets: List[Ether] = []

    def segment(self, at: int, data: bytes, client: int = 40000, to_server: bool = True) -> None:
        """A segment whose first byte is byte `at` of its direction's stream."""
        ports = (client, self.port) if to_server else (self.port, client)
        hosts = ('192.0.2.1', '192.0.2.2') if to_server else ('192.0.2.2', '192.0.2.1')
        packet = (Ether(src='02:00:00:00:00:01', dst='02:00:00:00:00:02')
                  / IP(src=hosts[0], dst=hosts[1])
                  / TCP(sport=ports[0], dport=ports[1], seq=1000 + at, ack=1000, flags='PA')
                  / Raw(data))
        packet.time = 1e9 + len(self.packets) / 1000
        self.packets.append(packet)

    def stream(self, pieces: Iterable[bytes], client: int = 40000, to_server: bool = True) -> None:
        at = 0
        for piece in pieces:
            self.segment(at, piece, client, to_server)
            at += len(piece)


class Row(NamedTuple):
    """What is shown of one packet."""
    stream: int
    senders: List[str]
    sequences: List[int]
    lengths: List[int]
    payloads: List[str]
    garbage: List[str]
    missing: List[int]
    remarks: List[str]
    info: str


class Tester:
    def __init__(self, options: argparse.Namespace, folder: Path) -> None:
        self.options = options
        self.folder = folder

    def tshark(self, *arguments: str, **environment: str) -> str:
        done = subprocess.run(
            [self.options.tshark, *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, encoding='utf-8', timeout=100, check=False,
            env=dict(os.environ, HOME=str(self.folder), LC_ALL='C.UTF-8', **environment))
        if done.returncode != 0 or 'Lua: Error' in done.stderr or 'Lua Error' in done.stdout:
            raise Failure(f'tshark failed:\n{done.stdout}{done.stderr}')
        return done.stdout

    def rows(self, capture: 'Capture | Path', *options: str, port: object = PORT) -> List[Row]:
        """What is shown of the packets, the same in one pass and in two."""
        if isinstance(capture, Capture):
            file = self.folder / 'capture.pcap'
            wrpcap(str(file), capture.packets)
        else:
            file = capture
        call = ['-X', f'lua_script:{DISSECTOR}', '-r', str(file), '-T', 'fields',
                '-E', 'separator=|', '-E', 'aggregator=~']
        if '-d' not in options:
            call += ['-o', f'kivgcl.ports:{port}']
        for field in FIELDS:
            call += ['-e', field]
        call += options
        once = self.tshark(*call)
        equal('two passes', self.tshark('-2', *call).splitlines(), once.splitlines())
        return [row_of(line) for line in once.splitlines()]


def row_of(line: str) -> Row:
    _, stream, *cells, info = line.split('|')
    texts = [cell.split('~') if cell else [] for cell in cells]
    senders, sequences, lengths, payloads, garbage, missing, remarks = texts
    if '\u2192' in info:  # TCP's own words, on a segment that ends no frame
        info = ''
    return Row(int(stream), senders, [int(text) for text in sequences],
               [int(text) for text in lengths], payloads, garbage,
               [int(text) for text in missing], remarks, info)


Frames = List[Tuple[int, bytes]]


def frames_and_garbage(rows: Sequence[Row]) -> Dict[int, Tuple[Frames, bytes]]:
    """By stream: sequence number and payload of each frame, and all bytes of no frame."""
    result: Dict[int, Tuple[Frames, bytes]] = {}
    for row in rows:
        frames, garbage = result.get(row.stream, ([], b''))
        payloads = iter(row.payloads)
        for sequence, length in zip(row.sequences, row.lengths):
            oversized = any(remark.startswith(f'{length} bytes are more') for remark in row.remarks)
            frames.append((sequence, bytes.fromhex(next(payloads))
                           if length and not oversized else b''))
        garbage += b''.join(bytes.fromhex(text) for text in row.garbage)
        result[row.stream] = (frames, garbage)
    return result


def cut(data: bytes, *places: int) -> List[bytes]:
    edges = [0, *places, len(data)]
    return [data[a:b] for a, b in zip(edges, edges[1:])]


def segments(tester: Tester) -> None:
    """Frames and segments need not coincide."""
    capture = Capture()
    data = frame(CLIENT, 0, b'hello') + frame(CLIENT, 1) + frame(CLIENT, 2, bytes(range(100)))
    capture.stream(cut(data, 17 + 12 + 7, 17 + 12 + 50))
    capture.stream([frame(SERVER, 1, b'hello')], to_server=False)
    equal('rows', tester.rows(capture), [
        Row(0, ['Client', 'Client'], [0, 1], [5, 0], [b'hello'.hex()], [], [], [],
            'Client frame 0, 5 bytes; Client frame 1, 0 bytes'),
        Row(0, [], [], [], [], [], [], [], ''),
        Row(0, ['Client'], [2], [100], [bytes(range(100)).hex()], [], [], [],
            'Client frame 2, 100 bytes'),
        Row(0, ['Server'], [1], [5], [b'hello'.hex()], [], [], [], 'Server frame 1, 5 bytes'),
    ])
    # A long frame, in as many segments as a network makes of it, and one behind it.
    payload = bytes(i * 7 % 256 for i in range(100000))
    data = frame(CLIENT, 3, payload) + frame(CLIENT, 4)
    capture = Capture()
    capture.stream(cut(data, *range(1448, len(data), 1448)))
    shown = frames_and_garbage(tester.rows(capture))
    equal('a long frame', shown[0], ([(3, payload), (4, b'')], b''))


def splits(tester: Tester) -> None:
    """Segments end at every byte of headers and sync ids, at every two, and behind each byte."""
    data = frame(CLIENT, 5, b'abc') + frame(CLIENT, 6) + frame(CLIENT, 7, b'd')
    pieces = [cut(data, i) for i in range(1, len(data))]
    pieces += [cut(data, i, j) for i in range(1, 28) for j in range(i + 1, 29)]
    pieces.append(cut(data, *range(1, len(data))))
    capture = Capture()
    for number, parts in enumerate(pieces):
        capture.stream(parts, client=10000 + number)
    shown = frames_and_garbage(tester.rows(capture))
    wanted = ([(5, b'abc'), (6, b''), (7, b'd')], b'')
    equal('streams', len(shown), len(pieces))
    for number, parts in enumerate(pieces):
        equal(f'split into {[len(part) for part in parts]}', shown[number], wanted)


def garbage_between(tester: Tester) -> None:
    """Garbage is shown as such, and the next frame is found."""
    nearly = struct.pack('>I', CLIENT ^ 0xFF) * 3
    capture = Capture()
    capture.stream([frame(CLIENT, 0), b'junk' + frame(CLIENT, 1),
                    nearly + frame(CLIENT, 2) + b'CLN', b'CLCL' + frame(CLIENT, 3)])
    remark = 'Garbage: %s skipped in search of a sync id'
    equal('rows', tester.rows(capture), [
        Row(0, ['Client'], [0], [0], [], [], [], [], 'Client frame 0, 0 bytes'),
        Row(0, ['Client'], [1], [0], [], [b'junk'.hex()], [], [remark % '4 bytes'],
            '4 bytes of no frame; Client frame 1, 0 bytes'),
        Row(0, ['Client'], [2], [0], [], [nearly.hex()], [], [remark % '12 bytes'],
            '12 bytes of no frame; Client frame 2, 0 bytes'),
        Row(0, ['Client'], [3], [0], [], [b'CLNCLCL'.hex()], [], [remark % '7 bytes'],
            '7 bytes of no frame; Client frame 3, 0 bytes'),
    ])
    # Wherever segments end, the frames and the bytes between them are the same.
    data = frame(CLIENT, 0, b'a') + nearly + b'CLNCL' + frame(CLIENT, 1, b'b') + b'CL'
    capture = Capture()
    for i in range(1, len(data)):
        capture.stream([*cut(data, i), frame(CLIENT, 2)], client=10000 + i)
    shown = frames_and_garbage(tester.rows(capture))
    for i in range(1, len(data)):
        equal(f'cut at {i}', shown[i - 1],
              ([(0, b'a'), (1, b'b'), (2, b'')], nearly + b'CLNCL' + b'CL'))


def numbering(tester: Tester) -> None:
    """Gaps, repeats and steps back are told, in each direction by itself."""
    capture = Capture()
    to_server, to_client = 0, 0
    for sequence in (7, 8, 10, 14, 14, 3, 0xFFFFFFFF, 0, 2):
        capture.segment(to_server, frame(CLIENT, sequence))
        to_server += 12
    for sequence in (1, 2, 4):
        capture.segment(to_client, frame(SERVER, sequence), to_server=False)
        to_client += 12
    equal('remarks', [(row.missing, row.remarks) for row in tester.rows(capture)], [
        ([], []), ([], []),
        ([1], ['1 frame missing between 8 and 10']),
        ([3], ['3 frames missing between 10 and 14']),
        ([], ['Sequence number 14 repeated']),
        ([], ['Sequence number goes back from 14 to 3']),
        ([], ['Sequence number goes back from 3 to 4294967295']),
        ([], []),  # the number wraps
        ([1], ['1 frame missing between 0 and 2']),
        ([], []), ([], []),
        ([1], ['1 frame missing between 2 and 4']),
    ])


def oversized(tester: Tester) -> None:
    """A reader gives a frame up that is too long for it, and hunts on behind the header."""
    capture = Capture()
    capture.stream([frame(CLIENT, 0, b'lost', 0xFFFFFFFF) + frame(CLIENT, 1, b'found'),
                    frame(CLIENT, 2, b'x' * 17), frame(CLIENT, 3, b'x' * 16)])
    rows = tester.rows(capture, '-o', 'kivgcl.max_payload:16')
    remark = '%u bytes are more than the 16 that a reader accepts'
    garbage = 'Garbage: %u bytes skipped in search of a sync id'
    equal('rows', [(row.sequences, row.lengths, row.payloads, row.garbage, row.remarks)
                   for row in rows], [
        ([0, 1], [0xFFFFFFFF, 5], [b'found'.hex()], [b'lost'.hex()],
         [remark % 0xFFFFFFFF, garbage % 4]),
        ([2], [17], [], [(b'x' * 17).hex()], [remark % 17, garbage % 17]),
        ([3], [16], [(b'x' * 16).hex()], [], []),
    ])
    equal('info', rows[0].info, 'Client frame 0, 4294967295 bytes, oversized; 4 bytes of no frame; '
                                'Client frame 1, 5 bytes')


def mid_stream(tester: Tester) -> None:
    """A capture may begin anywhere."""
    data = frame(CLIENT, 5, b'payload') + frame(CLIENT, 6, b'whole') + frame(CLIENT, 7)
    capture = Capture()
    for begin in range(1, 19):
        capture.stream([data[begin:30], data[30:]], client=10000 + begin)
    rows = tester.rows(capture)
    shown = frames_and_garbage(rows)
    for begin in range(1, 19):
        equal(f'from byte {begin} on', shown[begin - 1],
              ([(6, b'whole'), (7, b'')], data[begin:19]))
        count = 19 - begin
        equal('remarks', [remark for row in rows if row.stream == begin - 1
                          for remark in row.remarks],
              [f'{count} byte{"" if count == 1 else "s"} before the first sync id'])


def disorder(tester: Tester) -> None:
    """Segments out of order, repeated and lost."""
    parts = cut(frame(CLIENT, 0, b'abc') + frame(CLIENT, 1, b'defg') + frame(CLIENT, 2), 20, 25, 31)
    at = [0, 20, 25, 31]
    swapped = Capture()
    for i in (0, 2, 1, 3):
        swapped.segment(at[i], parts[i])
    wanted = ([(0, b'abc'), (1, b'defg'), (2, b'')], b'')
    rows = tester.rows(swapped, '-o', 'tcp.reassemble_out_of_order:TRUE')
    equal('out of order', frames_and_garbage(rows)[0], wanted)
    repeated = Capture()
    for i in (0, 0, 1, 2, 1, 2, 3):
        repeated.segment(at[i], parts[i])
    rows = tester.rows(repeated)
    equal('repeated', frames_and_garbage(rows)[0], wanted)
    equal('repeated', [row.remarks for row in rows if 'repeated' in ''.join(row.remarks)], [])
    # What is missing in the capture costs the frames that it cuts, and no more.
    lost = Capture()
    data = [frame(CLIENT, i, b'payload') for i in range(6)]
    places = [0, 19, 38 + 5, 57, 76, 95]
    pieces = [data[0], data[1] + data[2][:5], data[2][5:], data[3], data[4], data[5]]
    for i in (0, 1, 3, 4, 5):
        lost.segment(places[i], pieces[i])
    shown = frames_and_garbage(tester.rows(lost))[0][0]
    equal('lost: the last frames', shown[-2:], [(4, b'payload'), (5, b'payload')])
    equal('lost: the first frames', shown[:2], [(0, b'payload'), (1, b'payload')])


def sides(tester: Tester) -> None:
    """Who sends is told by the port, or else by the sync id."""
    def both(port: int) -> Capture:
        capture = Capture(port)
        capture.stream([frame(CLIENT, 0) + frame(SERVER, 9) + frame(CLIENT, 1)])
        capture.stream([frame(SERVER, 1)], to_server=False)
        return capture

    rows = tester.rows(both(PORT))
    equal('by the port', [(row.senders, row.sequences, row.garbage) for row in rows],
          [(['Client', 'Client'], [0, 1], [frame(SERVER, 9).hex()]), (['Server'], [1], [])])
    rows = tester.rows(both(5555), '-d', 'tcp.port==5555,kivgcl')
    equal('by the sync id', [(row.senders, row.sequences) for row in rows],
          [(['Client', 'Client'], [0, 1]), (['Server'], [1])])
    rows = tester.rows(both(5002), port='4680,5000-5010')
    equal('in a range', [row.senders for row in rows], [['Client', 'Client'], ['Server']])
    capture = Capture()
    capture.stream([frame(0xABCD, 0)])
    capture.stream([frame(0xABCD, 1)], to_server=False)
    same = ('-o', 'kivgcl.client_sync:0xabcd', '-o', 'kivgcl.server_sync:ABCD')
    equal('the same ids', [row.senders for row in tester.rows(capture, *same)],
          [['Client'], ['Server']])
    rows = tester.rows(capture, *same, '-d', f'tcp.port=={PORT},kivgcl')
    equal('the same ids, no port', [row.senders for row in rows], [['Peer'], ['Peer']])
    for bad in ('', '123456789'):
        rows = tester.rows(capture, '-o', f'kivgcl.client_sync:{bad}')
        equal(f'preference {bad!r}', [row.remarks for row in rows],
              [['A sync id of the preferences is no hexadecimal word']] * 2)


def incomplete(tester: Tester) -> None:
    """Without reassembly, and where packets were cut by the capture, what there is is shown."""
    capture = Capture()
    capture.stream(cut(frame(CLIENT, 3, b'abcdef') + frame(CLIENT, 4), 14))
    rows = tester.rows(capture, '-o', 'tcp.desegment_tcp_streams:FALSE')
    equal('not reassembled', [(row.sequences, row.payloads, row.garbage, row.remarks, row.info)
                              for row in rows], [
        ([3], [b'ab'.hex()], [], ['Frame not whole in the capture'],
         'Client frame 3, 6 bytes, cut'),
        ([4], [], [b'cdef'.hex()], ['Garbage: 4 bytes skipped in search of a sync id'],
         '4 bytes of no frame; Client frame 4, 0 bytes'),
    ])
    for count, info in ((4, 'Client frame, cut'), (8, 'Client frame 3, cut'),
                        (13, 'Client frame 3, 6 bytes, cut')):
        whole, short = tester.folder / 'whole.pcap', tester.folder / 'short.pcap'
        wrpcap(str(whole), capture.packets[:1])
        subprocess.run(['editcap', '-s', str(54 + count), whole, short], check=True)
        equal(f'{count} bytes captured', [row.info for row in tester.rows(short)], [info])


# The reader of the library, written down a second time: what it makes of a stream.
def read_stream(data: bytes, sync: int, limit: int) -> Tuple[Frames, bytes]:
    frames: Frames = []
    garbage = b''
    at = 0
    while True:
        begin, register = at, 0
        while True:
            if at == len(data):
                return frames, garbage + data[begin:]
            register = (register << 8 | data[at]) & 0xFFFFFFFF
            at += 1
            if register == sync:
                break
        garbage += data[begin:max(begin, at - 4)]
        if at + 8 > len(data):
            return frames, garbage
        sequence, size = struct.unpack_from('>II', data, at)
        at += 8
        if size > limit:
            frames.append((sequence, b''))
        elif at + size > len(data):
            return frames, garbage
        else:
            frames.append((sequence, data[at:at + size]))
            at += size


def reader(tester: Tester) -> None:
    """Streams of all kinds, cut at random, are read as the library reads them."""
    seed = int(os.environ.get('KIVGCL_SEED', '20261121'))
    print(f'seed {seed}')
    dice = random.Random(seed)
    for sync in (CLIENT, 0x00000001, 0x00004142, 0x41414142, 0x00000000):
        word = struct.pack('>I', sync)
        capture = Capture()
        wanted = []
        for number in range(150):
            data = b''
            for sequence in range(dice.randrange(1, 6)):
                kind = dice.randrange(4)
                if kind == 0:
                    data += bytes(dice.choice(word + b'\0x') for _ in range(dice.randrange(1, 9)))
                if kind == 1:
                    data += frame(sync, sequence, size=dice.randrange(65, 1 << 32))
                payload = bytes(dice.choice(word + b'\0x') for _ in range(dice.randrange(0, 20)))
                data += frame(sync, sequence, payload)
            # A frame that all readers find at the end, so that nothing is left waiting.
            data += b'\xff' * 80 + frame(sync, 99)
            places = sorted(dice.sample(range(1, len(data)), dice.randrange(0, 12)))
            capture.stream(cut(data, *places), client=10000 + number)
            wanted.append(read_stream(data, sync, 64))
        shown = frames_and_garbage(tester.rows(
            capture, '-o', f'kivgcl.client_sync:0x{sync:x}', '-o', 'kivgcl.max_payload:64'))
        for number, (frames, garbage) in enumerate(wanted):
            equal(f'sync id {sync:#010x}, stream {number}: frames', shown[number][0], frames)
            if sync != 0:  # what is left waiting at the end of such a stream is not shown
                equal(f'sync id {sync:#010x}, stream {number}: garbage', shown[number][1], garbage)


def install(tester: Tester) -> Path:
    """The folder with the dissector in an installed tree."""
    tree = tester.folder / 'tree'
    subprocess.run(['cmake', '--install', tester.options.build, '--prefix', str(tree),
                    '--component', 'Tools'], check=True, stdout=subprocess.DEVNULL)
    plugins = tree / tester.options.libdir / 'wireshark/plugins'
    equal('installed', list(tree.rglob('*.lua')), [plugins / 'kivgcl.lua'])
    return plugins


def dissects(tester: Tester, wrapper: Sequence[str] = ()) -> None:
    """tshark takes the dissector by itself."""
    file = tester.folder / 'capture.pcap'
    capture = Capture()
    capture.stream([frame(CLIENT, 7)])
    wrpcap(str(file), capture.packets)
    done = subprocess.run([*wrapper, tester.options.tshark, '-r', str(file), '-T', 'fields', '-e',
                           'kivgcl.sequence', '-o', f'kivgcl.ports:{PORT}'], check=False,
                          env=dict(os.environ, HOME=str(tester.folder)), encoding='utf-8',
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    equal(done.stderr, done.stdout.strip(), '7')


def installed(tester: Tester) -> None:
    """The installed dissector works by a link from the user's folder."""
    plugins = install(tester)
    folders = tester.tshark('-G', 'folders')
    found = re.search(r'^Personal Lua Plugins:\s+(\S+)$', folders, re.M)
    assert found
    Path(found[1]).mkdir(parents=True)
    (Path(found[1]) / 'kivgcl.lua').symlink_to(plugins / 'kivgcl.lua')
    dissects(tester)


def installed_in_usr(tester: Tester) -> None:
    """It works by itself where its folder is Wireshark's own."""
    plugins = install(tester)
    folders = tester.tshark('-G', 'folders')
    found = re.search(r'^Global Lua Plugins:\s+(\S+)$', folders, re.M)
    assert found
    equal('the folder below the library folder', found[1].split('/')[-2:],
          list(plugins.parts[-2:]))
    # The installed folder is laid over Wireshark's, for this test alone.
    wrapper = ['unshare', '-m', 'sh', '-euc', f'mount --bind {plugins} {found[1]}; exec "$@"', 'sh']
    allowed = subprocess.run([*wrapper, 'true'], stdout=subprocess.PIPE, check=False,
                             stderr=subprocess.STDOUT, encoding='utf-8')
    if allowed.returncode != 0:
        print('skipped: this machine lets nobody lay files over /usr:', allowed.stdout)
        sys.exit(SKIPPED)
    dissects(tester, wrapper)


def live(tester: Tester) -> None:
    """The library's client and the peer node, captured on this machine."""
    options = tester.options
    kept = Path(options.keep) / 'live.pcapng'
    kept.unlink(missing_ok=True)
    node = subprocess.Popen([options.node, '--once', '--garbage-every=3', '--skip-every=4',
                             '--repeat-every=5'], stdout=subprocess.PIPE, encoding='utf-8')
    try:
        assert node.stdout
        port = int(node.stdout.readline().rsplit(':', 1)[1])
        capture = start_capture(options.capture, port, kept)
        try:
            subprocess.run([options.client, str(port)], check=True, timeout=30)
            equal('the node', node.stdout.read().strip(), '10 frames received, 10 sent')
            wait_for_end(kept)
        finally:
            capture.send_signal(signal.SIGINT)
            capture.wait(10)
    finally:
        node.kill()
        node.wait()
    rows = tester.rows(kept, port=port)
    payloads = [bytes((i + k) % 256 for k in range(i * i * 100)) for i in range(10)]
    # The node's numbers: the fourth frame leaves one out, every fifth repeats the last one.
    numbers = {'Client': list(range(10)), 'Server': [1, 2, 3, 5, 5, 6, 7, 9, 10, 10]}
    shown: Dict[str, Frames] = {'Client': [], 'Server': []}
    for row in rows:
        texts = iter(row.payloads)
        for sender, sequence, length in zip(row.senders, row.sequences, row.lengths):
            shown[sender].append((sequence, bytes.fromhex(next(texts)) if length else b''))
    for sender, sequences in numbers.items():
        equal(sender, shown[sender], list(zip(sequences, payloads)))
    remarks = [remark for row in rows for remark in row.remarks if 'onnection' not in remark]
    garbage = 'Garbage: 12 bytes skipped in search of a sync id'
    equal('remarks', remarks, [garbage, '1 frame missing between 3 and 5',
                               'Sequence number 5 repeated', garbage,
                               '1 frame missing between 7 and 9', garbage,
                               'Sequence number 10 repeated'])
    check_page(tester, kept, port)
    print(f'{sum(map(len, shown.values()))} frames, captured in {kept}')


def check_page(tester: Tester, capture: Path, port: int) -> None:
    """What docs/debugging.md shows of such a capture is what tshark prints."""
    lines = iter((ROOT / 'docs/debugging.md').read_text('utf-8').splitlines())
    command = next(line for line in lines if line.startswith('    $ tshark '))
    words = shlex.split(command)[2:]
    words[words.index('live.pcapng')] = str(capture)
    words[words.index('kivgcl.ports:4680')] = f'kivgcl.ports:{port}'
    wanted = [line[4:] for line in itertools.takewhile(lambda line: line.startswith('    '), lines)]
    found = tester.tshark('-X', f'lua_script:{DISSECTOR}', *words).expandtabs(8).splitlines()
    equal('docs/debugging.md', wanted, [line.rstrip() for line in found])


def start_capture(dumpcap: str, port: int, file: Path) -> 'subprocess.Popen[str]':
    """dumpcap on the loopback interface, once it captures."""
    capture = subprocess.Popen([dumpcap, '-q', '-i', 'lo', '-f', f'tcp port {port}', '-w', file],
                               stderr=subprocess.PIPE, encoding='utf-8')
    assert capture.stderr
    said = ''
    for line in capture.stderr:
        said += line
        if line.startswith('File:'):
            return capture
    capture.wait()
    print(f'skipped: this machine does not allow to capture:\n{said}')
    sys.exit(SKIPPED)


def wait_for_end(file: Path) -> None:
    """Waits until the ends of both directions have been captured."""
    for _ in range(200):
        ends = 0
        try:
            with PcapReader(str(file)) as packets:
                ends = sum('F' in str(packet[TCP].flags) for packet in packets if TCP in packet)
        except (EOFError, struct.error):
            pass  # still being written
        if ends >= 2:
            return
        time.sleep(0.1)
    raise Failure('the end of the connection was not captured')


CASES = {
    'Segments': segments, 'Splits': splits, 'Garbage': garbage_between, 'Numbering': numbering,
    'Oversized': oversized, 'MidStream': mid_stream, 'Disorder': disorder, 'Sides': sides,
    'Incomplete': incomplete, 'Reader': reader, 'Installed': installed,
    'InstalledInUsr': installed_in_usr, 'Live': live,
}


def main() -> int:
    parser = argparse.ArgumentParser()
    for name in ('tshark', 'capture', 'node', 'client', 'keep', 'build', 'libdir'):
        parser.add_argument('--' + name, default='')
    parser.add_argument('case', choices=CASES)
    options = parser.parse_args()
    folder = Path(tempfile.mkdtemp())
    try:
        CASES[options.case](Tester(options, folder))
    except Failure as failure:
        print(failure)
        return 1
    finally:
        shutil.rmtree(folder)
    return 0


if __name__ == '__main__':
    sys.exit(main())
