"""Pretty-printers of libKivGCL for gdb: its structures as what they hold.

gdb loads this file by itself together with an installed libKivGCL.so; elsewhere:

    (gdb) source kivgcl.py

After that, print, display, info locals, backtraces and the variable views of IDEs show

    CList        its items from the head on; a ring once around
    CHashTable   its pairs as a map
    CStack       its entries from the top
    CMemoryPool  the numbers of its free blocks, the next one first, and of those in use
    CFifoBuffer  its elements from the oldest on, as hexadecimal words, and its semaphores and mutex
    CTcpSocket, TraceChannel, CTimer, Util::HijackApi
                 in a line; the last two with their fields

`print list` shows a structure, `print *list` what a pointer names, `print/x` hexadecimal items and
`print/r` the structure as it is. At most `set print elements` elements are shown, and no more are
read. What is not as it should be is said in the place where it shows: "damaged" is what the library
never does, anything else can come about by its contract. The printers only read memory: they call
nothing in the program, take no lock, and work on core files and on ARM targets alike. While other
threads run, a structure may be shown in the middle of a change.

A CTimer needs the library's debug information (and so does Util::HijackApi in a program that clang
has compiled); without it gdb calls the class an incomplete type, and $kivgcl_timer tells what can
be known. All else needs the debug information of the program, which knows the structures.

    $kivgcl_item(CONTAINER, N)   item N of a list, entry N of a stack from its top, the address of
                                 element N of a FIFO from its oldest or of block N of a pool, or the
                                 value under the key N of a hash table. CONTAINER may be a pointer:
                                 print *(struct Sample *)$kivgcl_item(queue, 0)
    $kivgcl_timer(POINTER)       what is known of a CTimer
    $kivgcl_code(CODE)           the name of a result code: print $kivgcl_code($eax)
    info kivgcl-channels [TEXT]  the threshold of every trace channel whose name contains TEXT;
                                 needs no debug information

`info pretty-printer` lists the printers, `disable pretty-printer global KivGCL;CList` (or the
library's file name instead of `global`) switches one off.
"""

import functools
import itertools
import sys
from typing import Dict, Iterator, List, Optional, Tuple

import gdb
import gdb.printing
import gdb.types

CODES = {
    0x0000: 'GCL_OK',
    0x0100: 'GCL_DRAIN_FAILED',
    0x0840: 'GCL_DRAIN_PROGRESS',
    0x1000: 'GCL_MUTEX_INIT_FAILED',
    0x1002: 'GCL_LAST_ITEM',
    0x8000: 'GCL_FAILURE',
    0x8002: 'GCL_STACK_FULL',
    0x8003: 'GCL_STACK_EMPTY',
    0x8004: 'GCL_LIST_EMPTY',
    0x8005: 'GCL_ITEM_NOT_FOUND',
    0x8007: 'GCL_POOL_EXHAUSTED',
    0x8008: 'GCL_INVALID_ARGUMENT',
    0x8009: 'GCL_INDEX_OUT_OF_RANGE',
    0x800A: 'GCL_SOCKET_FAILED',
    0x800B: 'GCL_CONNECT_FAILED',
    0x800C: 'GCL_INCONSISTENT',
    0x800D: 'GCL_PEER_CLOSED',
    0x8010: 'GCL_INVALID_HASH_TABLE',
    0x8011: 'GCL_INVALID_HASH_KEY',
    0x8013: 'GCL_PAIR_NOT_FOUND',
    0x8015: 'GCL_TIMED_OUT',
    0x8016: 'GCL_FIFO_FULL',
    0x8017: 'GCL_FIFO_EMPTY',
    0x8018: 'GCL_FIFO_NOT_INITIALIZED',
    0x8019: 'GCL_SEMAPHORE_FAILED',
    0x801A: 'GCL_MUTEX_FAILED',
}

CHANNELS = '''
    CAPH RCCH RAUH STATE DPDH BIH I2CIDT CPRIH CPRI KIH DSP BCM DSPC ATPC INTH TEST TS TH RSSI OPH
    LH IH HCCDH HCC HCH FH FPGA CH AP AH AIRIF XMLRPC IM GNM GCL AF DRIVER PD FL DS DMU DM SPC OPC
    DC FSC FC DPD CHANNEL BC TI CCDP RXPC RXPH XPICH XPICC XPIC PT
'''.split()

MODES = ('eTaskingModeSemaphore', 'eTaskingModeNone', 'eTaskingModeMutex')
SEMAPHORE_MODE, _, MUTEX_MODE = range(3)

Child = Tuple[str, object]


# --- Reading ------------------------------------------------------------------------------------

def element_limit() -> int:
    """How many elements the user wants to see at most."""
    limit = gdb.parameter('print elements')
    return sys.maxsize if limit is None else limit


def read(address: int, count: int) -> bytes:
    """Memory of the program; gdb.MemoryError where it cannot be read."""
    return bytes(gdb.selected_inferior().read_memory(address, count))


def byte_order(word_type: gdb.Type) -> str:
    """The target's, told by any type of two bytes or more."""
    one = b'\1' + bytes(word_type.sizeof - 1)
    return 'little' if int(gdb.Value(one, word_type)) == 1 else 'big'


def records(address: int, size: int, count: int) -> Iterator[bytes]:
    """`count` records of `size` bytes each, read in pieces: a damaged count costs no memory."""
    in_a_piece = max(1, 65536 // size)
    for first in range(0, count, in_a_piece):
        number = min(in_a_piece, count - first)
        piece = read(address + first * size, number * size)
        for i in range(number):
            yield piece[i * size:(i + 1) * size]


def text_at(address: int, limit: int = 64) -> str:
    """The NUL-terminated text at an address, in quotes."""
    text = b''
    try:
        while b'\0' not in text and len(text) < limit:
            # Up to the end of a page: the text may end where readable memory does.
            end = address + len(text)
            text += read(end, min(limit - len(text), 64 - end % 64))
    except gdb.MemoryError:
        return f'<the text at {address:#x} cannot be read>'
    ended = b'\0' in text
    shown = text.split(b'\0')[0].decode('ascii', 'backslashreplace')
    return f'"{shown}"' + ('' if ended else '...')


def number_of(count: int, noun: str) -> str:
    return f'{count} {noun}' + ('' if count == 1 else 's')


def sentence(subject: str, remarks: List[str]) -> str:
    return '; '.join([subject] + remarks)


class Printer:
    """What the printers share. A structure that cannot be read is told, not thrown."""

    noun = ''
    fields: Tuple[str, ...] = ()

    def __init__(self, value: gdb.Value) -> None:
        self.value = value

    def number(self, field: str) -> int:
        return int(self.value[field])

    def title(self) -> str:
        raise NotImplementedError

    def to_string(self) -> str:
        try:
            return self.title()
        except gdb.error as error:
            return f'{self.noun}; {error}'


class Container(Printer):
    """A printer with children."""

    def elements(self) -> Iterator[Child]:
        raise NotImplementedError

    def children(self) -> Iterator[Child]:
        try:
            yield from self.elements()
        except gdb.error as error:
            yield '<error>', f'<{error}>'

    def item(self, which: gdb.Value) -> gdb.Value:
        """What $kivgcl_item yields."""
        raise NotImplementedError

    def nth(self, which: gdb.Value, count: int) -> int:
        index = int(which)
        if not 0 <= index < count:
            raise gdb.GdbError(f'There is no [{index}]: {self.to_string()}')
        return index


# --- The containers -----------------------------------------------------------------------------

class Chain:
    """Nodes linked by pNext, read as far as they are asked for, each once."""

    def __init__(self, first: gdb.Value) -> None:
        self.next = first
        self.nodes: List[gdb.Value] = []
        self.index_of: Dict[int, int] = {}
        self.fault = ''  # why it ends, if not by NULL
        self.ended = False

    def has(self, index: int) -> bool:
        while len(self.nodes) <= index and not self.ended:
            self.step()
        return index < len(self.nodes)

    def step(self) -> None:
        address = int(self.next)
        known = self.index_of.get(address)
        if address == 0:
            self.ended = True
        elif known is not None:
            self.fault = f'a ring: [{len(self.nodes) - 1}] leads back to [{known}]'
            self.ended = True
        else:
            node = self.next.dereference()
            try:
                node.fetch_lazy()
            except gdb.MemoryError:
                self.fault = f'damaged: the node at {address:#x} cannot be read'
                self.ended = True
                return
            self.index_of[address] = len(self.nodes)
            self.nodes.append(node)
            self.next = node['pNext']


class ListPrinter(Container):
    noun = 'list'
    fields = ('pHead', 'pTail', 'uiSize')

    def __init__(self, value: gdb.Value) -> None:
        super().__init__(value)
        self.chain = Chain(value['pHead'])

    def title(self) -> str:
        size = self.number('uiSize')
        tail = self.number('pTail')
        chain = self.chain
        if chain.has(element_limit()) or not chain.ended:
            return f'list of {number_of(size, "item")}'
        found = len(chain.nodes)
        remarks = [chain.fault] if chain.fault else []
        if size != found:
            remarks.append(f'uiSize is {size}')
        last = int(chain.nodes[-1].address) if chain.nodes else 0
        if tail != last and not chain.fault:
            index = chain.index_of.get(tail)
            remarks.append('pTail names ' + ('no node of it' if index is None else f'[{index}]'))
        return sentence(f'list of {number_of(found, "item")}', remarks)

    def elements(self) -> Iterator[Child]:
        for i in itertools.count():
            if not self.chain.has(i):
                break
            yield f'[{i}]', self.chain.nodes[i]['ulItem']
        if self.chain.fault:
            yield f'[{i}]', f'<{self.chain.fault}>'

    def item(self, which: gdb.Value) -> gdb.Value:
        index = int(which)
        if index < 0 or not self.chain.has(index):
            raise gdb.GdbError(f'There is no [{index}]: {self.to_string()}')
        return self.chain.nodes[index]['ulItem']

    def display_hint(self) -> str:
        return 'array'


class HashTablePrinter(Container):
    noun = 'hash table'
    fields = ('uiBucketCount', 'uiCount', 'pBuckets')

    def title(self) -> str:
        buckets = self.number('uiBucketCount')
        count = self.number('uiCount')
        if buckets == 0:
            return sentence('hash table without buckets', [f'uiCount is {count}'] if count else [])
        return f'hash table of {number_of(count, "pair")} in {number_of(buckets, "bucket")}'

    def chains(self) -> Iterator[Tuple[int, int, Chain]]:
        """The buckets that are not all zeros: index, uiCount and chain."""
        first = self.value['pBuckets']
        bucket_type = first.dereference().type
        size = bucket_type.sizeof
        for i, raw in enumerate(records(int(first), size, self.number('uiBucketCount'))):
            if any(raw):
                bucket = gdb.Value(raw, bucket_type)
                yield i, int(bucket['uiCount']), Chain(bucket['pFirst'])

    def pairs(self) -> Iterator[Tuple[object, object]]:
        for i, count, chain in self.chains():
            for n in itertools.count():
                if not chain.has(n):
                    break
                yield key_of(chain.nodes[n]), chain.nodes[n]['ulValue']
            remarks = [chain.fault] if chain.fault else []
            if count != n:
                remarks.append(f'uiCount is {count}')
            if remarks:
                yield f'<bucket {i}>', '<' + sentence(number_of(n, 'pair'), remarks) + '>'

    def elements(self) -> Iterator[Child]:
        i = 0
        try:
            for i, (key, value) in enumerate(self.pairs(), 1):
                yield f'key {i - 1}', key
                yield f'value {i - 1}', value
        except gdb.MemoryError as error:
            yield f'key {i}', '<damaged>'
            yield f'value {i}', f'<{error}>'

    def item(self, which: gdb.Value) -> gdb.Value:
        wanted = which.string('iso-8859-1').encode('iso-8859-1')
        for _, _, chain in self.chains():
            for n in itertools.count():
                if not chain.has(n):
                    break
                if key_bytes(chain.nodes[n]) == wanted:
                    return chain.nodes[n]['ulValue']
        raise gdb.GdbError(f'There is no such key: {self.to_string()}')

    def display_hint(self) -> str:
        return 'map'


def key_bytes(pair: gdb.Value) -> bytes:
    key = pair['szKey']
    return read(int(key.address), key.type.sizeof).split(b'\0')[0]


def key_of(pair: gdb.Value) -> object:
    """A pair's key, to be printed up to its end and no further than the user wants."""
    key = key_bytes(pair)
    first = pair['szKey'][0].address
    if len(key) == pair['szKey'].type.sizeof:
        return first.lazy_string(length=len(key))  # it has lost its end
    return first.lazy_string()


class StackPrinter(Container):
    noun = 'stack'
    fields = ('pEntries', 'iTop', 'uiCapacity', 'uiStatus')

    def fault(self) -> str:
        top = self.number('iTop')
        if not -1 <= top < self.number('uiCapacity'):
            return f'damaged: iTop is {top}'
        if self.number('pEntries') == 0:
            return 'destructed, or never given memory'
        return ''

    def held(self) -> int:
        """The number of entries that can be looked at."""
        return 0 if self.fault() else self.number('iTop') + 1

    def title(self) -> str:
        capacity = self.number('uiCapacity')
        status = self.number('uiStatus')
        remarks = [self.fault()] if self.fault() else []
        if 0x8000 <= status < 0x80000000:
            remarks.append(f'refuses every call with {code_name(status)}')
        elif status:
            remarks.append(f'uiStatus is {status:#x}')
        return sentence(f'stack with {self.held()} of {number_of(capacity, "pointer")}', remarks)

    def elements(self) -> Iterator[Child]:
        entries = self.value['pEntries']
        for i in range(self.held()):
            entry = entries[self.held() - 1 - i]
            try:
                entry.fetch_lazy()
            except gdb.MemoryError:
                yield f'[{i}]', f'<damaged: the entry at {int(entry.address):#x} cannot be read>'
                break
            yield f'[{i}]', entry

    def item(self, which: gdb.Value) -> gdb.Value:
        held = self.held()
        return self.value['pEntries'][held - 1 - self.nth(which, held)]

    def display_hint(self) -> str:
        return 'array'


class FreeBlocks:
    """What a pool's stack of free blocks says about its blocks."""

    def __init__(self, pool: gdb.Value) -> None:
        self.count = int(pool['uiNrOfBlocks'])
        self.stride = (int(pool['uiBlockSize']) + 3) & 0xFFFFFFFC
        self.area = int(pool['pBlockArea'])
        self.order: List[int] = []  # the free blocks, the next one last
        self.times: Dict[int, int] = {}  # for each of them, how often it is on the stack
        self.foreign: List[int] = []  # addresses of no block
        self.fault = self.look(pool['freeBlocks'])

    def look(self, stack: gdb.Value) -> str:
        """Reads the stack and returns what is wrong with it."""
        top = int(stack['iTop'])
        if not -1 <= top < self.count:
            return f'damaged: freeBlocks.iTop is {top}'
        if self.area == 0 and self.count:
            return 'destructed, or never given memory'
        entry = stack['pEntries'].dereference().type
        order = byte_order(entry)
        try:
            for raw in records(int(stack['pEntries']), entry.sizeof, top + 1):
                self.take(int.from_bytes(raw, order))
        except gdb.MemoryError as error:
            return f'damaged: freeBlocks: {error}'
        return ''

    def take(self, address: int) -> None:
        index, rest = divmod(address - self.area, self.stride or 1)
        if rest == 0 and 0 <= index < self.count:
            self.order.append(index)
            self.times[index] = self.times.get(index, 0) + 1
        else:
            self.foreign.append(address)


class PoolPrinter(Container):
    noun = 'memory pool'
    fields = ('uiBlockSize', 'uiNrOfBlocks', 'pBlockArea', 'freeBlocks')
    most_remarks = 8

    @functools.cached_property
    def blocks(self) -> FreeBlocks:
        return FreeBlocks(self.value)

    def title(self) -> str:
        blocks = self.blocks
        size = self.number('uiBlockSize')
        subject = f'memory pool of {number_of(blocks.count, "block")} of {number_of(size, "byte")}'
        if blocks.stride != size:
            subject += f' (stride {blocks.stride})'
        if blocks.fault:
            return sentence(subject, [blocks.fault])
        free = len(blocks.times)
        subject += f': {free} free, {blocks.count - free} used'
        remarks = [f'block {i} is free {times} times'
                   for i, times in sorted(blocks.times.items()) if times > 1]
        remarks += [f'{address:#x} was freed and is no block' for address in blocks.foreign]
        if len(remarks) > self.most_remarks:
            remarks[self.most_remarks:] = [f'and {len(remarks) - self.most_remarks} more']
        return sentence(subject, remarks)

    def elements(self) -> Iterator[Child]:
        blocks = self.blocks
        if blocks.fault:
            return
        used = [i for i in range(blocks.count) if i not in blocks.times]
        word = self.value['uiNrOfBlocks'].type.unqualified()
        # The last one put on the stack is handed out first.
        for name, numbers in (('free', list(reversed(blocks.order))), ('used', used)):
            if numbers:
                order = byte_order(word)
                raw = b''.join(number.to_bytes(word.sizeof, order) for number in numbers)
                yield name, gdb.Value(raw, word.array(len(numbers) - 1))

    def item(self, which: gdb.Value) -> gdb.Value:
        index = self.nth(which, 0 if self.blocks.area == 0 else self.blocks.count)
        return self.value['pBlockArea'] + index * self.blocks.stride


class FifoPrinter(Container):
    noun = 'FIFO'
    fields = ('pBuffer', 'uiCurrentSize', 'uiElementSize', 'uiCapacity', 'uiWriteIndex',
              'uiReadIndex', 'eMode', 'bInitialized')

    def held(self) -> int:
        """The number of elements that can be looked at."""
        size = self.number('uiCurrentSize')
        capacity = self.number('uiCapacity')
        sound = (self.number('bInitialized') != 0 and self.number('pBuffer') != 0
                 and size <= capacity and self.number('uiReadIndex') < capacity)
        return size if sound else 0

    def title(self) -> str:
        if self.number('bInitialized') == 0:
            return 'FIFO, not initialised'
        mode = self.number('eMode')
        size = self.number('uiCurrentSize')
        capacity = self.number('uiCapacity')
        width = self.number('uiElementSize')
        name = MODES[mode] if mode < len(MODES) else f'mode {mode}, which Put and Get refuse'
        subject = f'FIFO ({name}) with {size} of {number_of(capacity, "element")}'
        subject += f' of {number_of(width, "byte")}'
        remarks = []
        if self.number('pBuffer') == 0:
            remarks.append('destructed')
        elif size == 0xFFFFFFFF and mode == MUTEX_MODE:
            remarks.append('read while empty')
        elif size > capacity:
            remarks.append('damaged: holds more than it can')
        for index in ('uiReadIndex', 'uiWriteIndex'):
            if self.number(index) >= capacity > 0:
                remarks.append(f'damaged: {index} is {self.number(index)}')
        if mode == SEMAPHORE_MODE:
            remarks += [semaphore_text(field, self.value[field])
                        for field in ('getSemaphore', 'putSemaphore', 'cpyMutex')]
        elif mode == MUTEX_MODE:
            remarks.append(mutex_text('fifoMutex', self.value['fifoMutex']))
        return sentence(subject, remarks)

    def slot(self, index: int) -> int:
        """The address of element `index` from the oldest."""
        place = (self.number('uiReadIndex') + index) % self.number('uiCapacity')
        return self.number('pBuffer') + place * self.number('uiElementSize')

    def elements(self) -> Iterator[Child]:
        width = self.number('uiElementSize')
        order = byte_order(self.value['uiElementSize'].type)
        shown = min(width, 4 * element_limit())
        for i in range(self.held()):
            try:
                raw = read(self.slot(i), shown)
            except gdb.MemoryError:
                yield f'[{i}]', f'<damaged: the element at {self.slot(i):#x} cannot be read>'
                break
            if shown == width and width in (1, 2, 4, 8):
                yield f'[{i}]', hex_number(raw, order)
            else:
                yield f'[{i}]', hex_words(raw, order) + ('' if shown == width else '...')

    def item(self, which: gdb.Value) -> gdb.Value:
        index = self.nth(which, self.held())
        return gdb.Value(self.slot(index)).cast(self.value['pBuffer'].type)

    def display_hint(self) -> str:
        return 'array'


def hex_number(raw: bytes, order: str) -> object:
    """A number of the target that gdb and IDEs show as hexadecimal: a pointer, where it fits."""
    pointer = gdb.lookup_type('void').pointer()
    if len(raw) > pointer.sizeof:
        return f'{int.from_bytes(raw, order):#x}'
    return gdb.Value(int.from_bytes(raw, order).to_bytes(pointer.sizeof, order), pointer)


def hex_words(raw: bytes, order: str) -> str:
    """Words of 32 bits, and the bytes left over."""
    whole = len(raw) - len(raw) % 4
    words = [f'0x{int.from_bytes(raw[i:i + 4], order):08x}' for i in range(0, whole, 4)]
    words += [f'0x{byte:02x}' for byte in raw[whole:]]
    return ' '.join(words) or '<no bytes>'


def semaphore_text(name: str, semaphore: gdb.Value) -> str:
    """The value of a sem_t, and how many wait for it where the C library keeps count."""
    fields = [field.name for field in semaphore.type.strip_typedefs().fields()]
    if '__size' in fields:  # glibc
        raw = bytes(int(semaphore['__size'][i]) & 0xFF for i in range(16))
        order = byte_order(semaphore['__align'].type)
        first, second, last = (int.from_bytes(raw[i:i + 4], order) for i in (0, 4, 12))
        if semaphore['__align'].type.sizeof == 8:
            # One word of 64 bits; the number of those who wait is its upper half.
            value, waiting = (first, second) if order == 'little' else (second, first)
        else:
            value, waiting = first >> 1, last
    elif '__val' in fields:  # musl
        value, waiting = int(semaphore['__val'][0]) & 0x7FFFFFFF, 0
    else:
        return f'{name} unknown'
    return f'{name} {value}' + (f' ({waiting} waiting)' if waiting else '')


def mutex_text(name: str, mutex: gdb.Value) -> str:
    try:
        data = mutex['__data']  # glibc
        held, owner = int(data['__lock']) != 0, int(data['__owner'])
    except gdb.error:
        return f'{name} unknown'
    return f'{name} ' + (f'held by LWP {owner}' if held else 'free')


# --- The others ---------------------------------------------------------------------------------

class SocketPrinter(Printer):
    noun = 'socket'
    fields = ('iSocketHandle', 'iPort', 'uiMaxMsgSize', 'uiTimeout')

    def title(self) -> str:
        handle = self.number('iSocketHandle')
        limit = self.number('uiTimeout')
        parts = ['socket, closed' if handle == -1
                 else f'socket, descriptor {handle}, port {self.number("iPort")}']
        parts.append(f'time-out {limit} s' if limit else 'no time-out')
        parts.append(f'reads up to {number_of(self.number("uiMaxMsgSize"), "byte")}')
        return ', '.join(parts)


class ChannelPrinter(Printer):
    noun = 'trace channel'
    fields = ('threshold', 'name')

    def title(self) -> str:
        threshold = self.number('threshold')
        return (f'trace channel {text_at(self.number("name"))}, threshold {threshold}: '
                f'{admitted(threshold)}')


def admitted(threshold: int) -> str:
    if threshold <= 0:
        return 'silent'
    if threshold >= 7:
        return 'every level'
    return 'level 1' if threshold == 1 else f'levels 1 to {threshold}'


class ClientPrinter(Container):
    noun = 'framed client'
    fields = ('txSyncId', 'rxSyncId', 'txSequenceNumber', 'rxSequenceNumber', 'socketFd',
              'serverAddress')

    def title(self) -> str:
        address = self.value['serverAddress']
        octets = '.'.join(str(byte) for byte in read(int(address['sin_addr'].address), 4))
        port = int.from_bytes(read(int(address['sin_port'].address), 2), 'big')
        descriptor = self.number('socketFd')
        state = {0: 'never connected (descriptor 0)', -1: 'not connected'}.get(
            descriptor, f'descriptor {descriptor}')
        return f'framed client of {octets}:{port}, {state}'

    def elements(self) -> Iterator[Child]:
        order = byte_order(self.value['txSyncId'].type)
        for field in ('txSyncId', 'rxSyncId'):
            yield field, hex_number(self.number(field).to_bytes(4, order), order)
        for field in ('txSequenceNumber', 'rxSequenceNumber', 'socketFd', 'maxSyncWaitMs', 'port'):
            yield field, self.value[field]


class TimerPrinter(Container):
    noun = 'timer'
    fields = ('impl',)

    @functools.cached_property
    def impl(self) -> Optional[gdb.Value]:
        """The private part, None where its debug information is missing or it is none."""
        try:
            pointer = self.value['impl'].cast(gdb.lookup_type('CTimer::Impl').pointer())
            found = pointer.dynamic_type
        except gdb.error:
            return None
        return None if found == pointer.type else pointer.cast(found).dereference()

    def title(self) -> str:
        address = self.number('impl')
        if self.impl is None:
            if address and has_debug_info():
                read(address, 1)
                return f'timer; damaged: there is no timer at {address:#x}'
            return unknown_timer(address)
        parts = [kind_of(str(self.impl.type)), state_of(self.impl)]
        if self.impl['started']:
            parts += due(self.impl)
        parts.append(worker_of(self.impl))
        name = text_at(int(self.impl['name']['_M_dataplus']['_M_p']))
        return f'timer {name}: ' + ', '.join(parts)

    def elements(self) -> Iterator[Child]:
        if self.impl is not None:
            for field in ('started', 'stopRequested', 'terminating', 'hasWorker', 'waitingStarts',
                          'userArg'):
                yield field, self.impl[field]


def has_debug_info() -> bool:
    """Whether the private part of timers is known; elsewhere it is but declared."""
    try:
        return len(gdb.lookup_type('CTimer::Impl').fields()) > 0
    except (gdb.error, TypeError):
        return False


def state_of(impl: gdb.Value) -> str:
    if impl['terminating']:
        return 'being destroyed'
    if not impl['started']:
        return 'not running'
    return 'stopping' if impl['stopRequested'] else 'running'


def due(impl: gdb.Value) -> List[str]:
    """The duration of a run; before the first one it need not have been set."""
    fields = gdb.types.get_basic_type(impl.type).keys()
    if 'period' in fields:
        return [f'period {int(impl["period"])} ms']
    if 'deadline' in fields:
        seconds, ns = divmod(int(impl['deadline']), 10**9)
        return [f'due at {seconds}.{ns:09d} s of the monotonic clock']
    return []


def worker_of(impl: gdb.Value) -> str:
    handle = impl['thread']['_M_id']['_M_thread']
    if int(handle) == 0 or not impl['hasWorker']:
        return 'no worker thread'
    thread = None
    try:
        thread = gdb.selected_inferior().thread_from_handle(handle)
    except (gdb.error, NotImplementedError):
        pass  # a target that cannot tell
    return f'thread {thread.num}' if thread else f'thread handle {int(handle):#x}'


def unknown_timer(impl: int) -> str:
    """What can be said of a timer without debug information: the symbol of its virtual functions
    tells its kind, where the library has its symbols."""
    if impl == 0:
        return 'timer, refused or moved from'
    pointer = gdb.lookup_type('void').pointer()
    vtable = int(gdb.Value(read(impl, pointer.sizeof), pointer))
    symbol = gdb.execute(f'info symbol {vtable:#x}', to_string=True)
    return f'timer, {kind_of(symbol)}; more is known with the debug information of libKivGCL'


def kind_of(text: str) -> str:
    if 'NonCyclicTimerImpl' in text:
        return 'one-shot'
    return 'cyclic' if 'CyclicTimerImpl' in text else 'of unknown kind'


def code_name(code: int) -> str:
    name = CODES.get(code)
    return f'{name} ({code:#06x})' if name else f'{code:#06x}'


# --- Registration -------------------------------------------------------------------------------

PRINTERS = {
    'CList': ListPrinter,
    'CHashTable': HashTablePrinter,
    'CStack': StackPrinter,
    'CMemoryPool': PoolPrinter,
    'CFifoBuffer': FifoPrinter,
    'CTcpSocket': SocketPrinter,
    'TraceChannel': ChannelPrinter,
    'CTimer': TimerPrinter,
    'Util::HijackApi': ClientPrinter,
}


def maker(printer: type):
    def make(value: gdb.Value) -> Optional[Printer]:
        """A printer, or None for a structure that only happens to have the name."""
        names = {field.name for field in gdb.types.get_basic_type(value.type).fields()}
        return printer(value) if names.issuperset(printer.fields) else None
    return make


def build() -> gdb.printing.PrettyPrinter:
    collection = gdb.printing.RegexpCollectionPrettyPrinter('KivGCL')
    for name, printer in PRINTERS.items():
        collection.add_printer(name, f'^{name}$', maker(printer))
    return collection


class ItemFunction(gdb.Function):
    """$kivgcl_item(CONTAINER, N): one item of a container of libKivGCL, or a pointer to one."""

    def __init__(self) -> None:
        super().__init__('kivgcl_item')

    def invoke(self, container: gdb.Value, which: gdb.Value) -> gdb.Value:
        if container.type.strip_typedefs().code == gdb.TYPE_CODE_PTR:
            container = container.dereference()
        printer = PRINTERS.get(str(gdb.types.get_basic_type(container.type).name))
        made = maker(printer)(container) if printer else None
        if not isinstance(made, Container) or type(made).item is Container.item:
            raise gdb.GdbError('$kivgcl_item takes a list, hash table, stack, memory pool or FIFO.')
        return made.item(which)


class TimerFunction(gdb.Function):
    """$kivgcl_timer(POINTER): what is known of a CTimer of libKivGCL."""

    def __init__(self) -> None:
        super().__init__('kivgcl_timer')

    def invoke(self, timer: gdb.Value) -> str:
        if has_debug_info():
            return TimerPrinter(timer.cast(gdb.lookup_type('CTimer').pointer())
                                .dereference()).to_string()
        # A CTimer is the pointer to its virtual functions and the one to its private part.
        pointer = gdb.lookup_type('void').pointer()
        try:
            impl = read(int(timer) + pointer.sizeof, pointer.sizeof)
            return unknown_timer(int(gdb.Value(impl, pointer)))
        except gdb.MemoryError as error:
            return f'timer; {error}'


class CodeFunction(gdb.Function):
    """$kivgcl_code(CODE): the name of a result code of libKivGCL."""

    def __init__(self) -> None:
        super().__init__('kivgcl_code')

    def invoke(self, code: gdb.Value) -> str:
        return code_name(int(code) & 0xFFFFFFFF)


class ChannelsCommand(gdb.Command):
    """List the trace channels of libKivGCL with their thresholds.
Usage: info kivgcl-channels [TEXT]
With TEXT, only the channels whose names contain it."""

    def __init__(self) -> None:
        super().__init__('info kivgcl-channels', gdb.COMMAND_STATUS)

    def invoke(self, argument: str, from_tty: bool) -> None:
        found = 0
        for name in CHANNELS:
            try:
                address = int(gdb.parse_and_eval(f'(unsigned long)&{name}_trace'))
                found += 1
            except gdb.error:
                continue
            word = gdb.lookup_type('int')
            pointer = gdb.lookup_type('void').pointer()
            threshold = int(gdb.Value(read(address, word.sizeof), word))
            title = gdb.Value(read(address + pointer.sizeof, pointer.sizeof), pointer)
            text = text_at(int(title)).strip('"')
            if argument in text:
                print(f'{text:14} {threshold:6}  {admitted(threshold)}')
        if found == 0:
            raise gdb.GdbError('No trace channels: libKivGCL.so is not loaded.')


gdb.printing.register_pretty_printer(gdb.current_objfile(), build(), replace=True)
ItemFunction()
TimerFunction()
CodeFunction()
ChannelsCommand()
