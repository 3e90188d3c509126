"""What a core says of itself: how the process ended, what it ran, what it had mapped. Needs no gdb.

A core is an ELF file of 64 bits, of Linux: notes, and the memory that was dumped.
"""

import os
import struct

ELF_MAGIC = b"\x7fELF"
ELF_CLASS_OFFSET = 4
ELF_CLASS_64 = 2
ELF_DATA_OFFSET = 5
ELF_LITTLE_ENDIAN = 1
ELF_TYPE_OFFSET = 16
ELF_TYPE_CORE = 4
ELF_HEADER_SIZE = 64
PROGRAM_HEADER_SIZE = 56
MANY_HEADERS = 0xFFFF  # the real number is in the first section's header
LOAD, NOTE = 1, 4

PRSTATUS, PRPSINFO, AUXV = 1, 3, 6
BUILD_ID = 3
SIGINFO, FILES = 0x53494749, 0x46494C45
AUXV_ENTRY = 9
MOST_NOTES = 64 << 20  # bytes; what is longer is damaged
DELETED = " (deleted)"


class Damaged(Exception):
    """The file is no core that can be read."""


class Mapping:
    """A part of a file in memory."""

    def __init__(self, start, end, offset, path):
        self.start = start
        self.end = end
        self.offset = offset
        self.path = path


class Core:
    """The notes of a core."""

    def __init__(self, path):
        self._file = open(path, "rb")
        try:
            self._read()
        except (struct.error, IndexError, ValueError) as error:
            raise Damaged(str(error)) from None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._file.close()

    def _read(self):
        header = self._at(0, ELF_HEADER_SIZE)
        if not is_core(header):
            raise ValueError("no core")
        if header[ELF_CLASS_OFFSET] != ELF_CLASS_64:
            raise ValueError("not of 64 bits")
        self._order = "<" if header[ELF_DATA_OFFSET] == ELF_LITTLE_ENDIAN else ">"
        self.pid = None
        self.threads = []  # kernel ids, that of the one that died first
        self.cpu_seconds = {}  # by kernel id
        self.signal = 0
        self.siginfo = None
        self.mappings = []
        self._entry = None
        self._loads = []  # (address, size in the file, offset)
        for kind, offset, address, size in self._program_headers(header):
            if kind == LOAD:
                self._loads.append((address, size, offset))
            elif kind == NOTE:
                for note, data in notes(self._at(offset, min(size, MOST_NOTES)), self._order):
                    self._take(note, data)

    def _at(self, offset, size):
        self._file.seek(offset)
        return self._file.read(size)

    def _unpack(self, layout, data, offset=0):
        return struct.unpack_from(self._order + layout, data, offset)

    def _program_headers(self, header):
        start, sections = self._unpack("QQ", header, 32)
        count = self._unpack("H", header, 56)[0]
        if count == MANY_HEADERS:
            count = self._unpack("I", self._at(sections, 64), 44)[0]
        table = self._at(start, count * PROGRAM_HEADER_SIZE)
        for at in range(0, len(table) - PROGRAM_HEADER_SIZE + 1, PROGRAM_HEADER_SIZE):
            kind, _, offset, address, _, size = self._unpack("IIQQQQ", table, at)
            yield kind, offset, address, size

    def _take(self, note, data):
        if note == PRSTATUS:
            if not self.threads:
                self.signal = self._unpack("H", data, 12)[0]
            thread = self._unpack("i", data, 32)[0]
            self.threads.append(thread)
            seconds = self._unpack("qqqq", data, 48)
            self.cpu_seconds[thread] = seconds[0] + seconds[2] + (seconds[1] + seconds[3]) / 1e6
        elif note == PRPSINFO:
            self.pid = self._unpack("i", data, 24)[0]
        elif note == SIGINFO and self.siginfo is None and len(self.threads) <= 1:
            self.siginfo = data
        elif note == AUXV:
            for at in range(0, len(data) - 15, 16):
                key, value = self._unpack("QQ", data, at)
                if key == AUXV_ENTRY:
                    self._entry = value
        elif note == FILES:
            self._take_files(data)

    def _take_files(self, data):
        count, page = self._unpack("QQ", data)
        names = data[16 + count * 24 :].split(b"\0")
        for i in range(count):
            start, end, offset = self._unpack("QQQ", data, 16 + i * 24)
            self.mappings.append(Mapping(start, end, offset * page, os.fsdecode(names[i])))

    # What follows from the notes

    def program(self):
        """The path of the program, where the process had it; None if the core does not say."""
        for mapping in self.mappings:
            if self._entry is not None and mapping.start <= self._entry < mapping.end:
                return mapping.path
        return None

    def signal_details(self):
        """Code, fault address and sender of the signal: (code, address or pid); None without."""
        if self.siginfo is None or len(self.siginfo) < 24:
            return None
        number, _, code = self._unpack("iii", self.siginfo)
        if number != self.signal:
            return None
        return code, self._unpack("Q", self.siginfo, 16)[0], self._unpack("i", self.siginfo, 16)[0]

    def memory(self, address, size):
        """Memory that the core has; shorter, or empty, if it has not."""
        for start, length, offset in self._loads:
            if start <= address < start + length:
                return self._at(offset + address - start, min(size, start + length - address))
        return b""

    def build_ids(self):
        """The build ids that the mapped files had, by path, as far as the core has their heads."""
        found = {}
        for mapping in self.mappings:
            if mapping.offset == 0 and mapping.path not in found:
                head = self.memory(mapping.start, ELF_HEADER_SIZE)
                if head.startswith(ELF_MAGIC):
                    read = lambda offset, size, at=mapping.start: self.memory(at + offset, size)
                    found[mapping.path] = _build_id(head, read, self._order)
        return {path: build for path, build in found.items() if build}


def is_core(header):
    """Whether the first bytes of a file are those of a core."""
    if len(header) < ELF_TYPE_OFFSET + 2 or not header.startswith(ELF_MAGIC):
        return False
    order = "little" if header[ELF_DATA_OFFSET] == ELF_LITTLE_ENDIAN else "big"
    kind = int.from_bytes(header[ELF_TYPE_OFFSET : ELF_TYPE_OFFSET + 2], order)
    return kind == ELF_TYPE_CORE


def notes(data, order):
    """The (type, data) of a segment of notes."""
    at = 0
    while at + 12 <= len(data):
        name, size, note = struct.unpack_from(order + "III", data, at)
        at += 12 + (name + 3) // 4 * 4
        if at + size > len(data):
            return
        yield note, data[at : at + size]
        at += (size + 3) // 4 * 4


def _build_id(head, read, order):
    """The build id of an ELF file of which read(offset, size) reads; None if it has none."""
    start = struct.unpack_from(order + "Q", head, 32)[0]
    count = struct.unpack_from(order + "H", head, 56)[0]
    table = read(start, count * PROGRAM_HEADER_SIZE)
    for at in range(0, len(table) - PROGRAM_HEADER_SIZE + 1, PROGRAM_HEADER_SIZE):
        kind, _, offset, _, _, size = struct.unpack_from(order + "IIQQQQ", table, at)
        if kind == NOTE:
            for note, data in notes(read(offset, min(size, 1 << 16)), order):
                if note == BUILD_ID and 4 <= len(data) <= 64:
                    return data.hex()
    return None


def build_id_of_file(path):
    """The build id of a program or library; None if it has none, or cannot be read."""
    try:
        with open(path, "rb") as file:
            head = file.read(ELF_HEADER_SIZE)
            if len(head) < ELF_HEADER_SIZE or not head.startswith(ELF_MAGIC):
                return None

            def read(offset, size):
                file.seek(offset)
                return file.read(size)

            return _build_id(head, read, "<" if head[ELF_DATA_OFFSET] == 1 else ">")
    except (OSError, struct.error):
        return None
