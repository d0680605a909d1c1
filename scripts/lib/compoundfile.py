"""Compound files, the container of installer packages: reads one, and writes one whose bytes depend on nothing but the
streams. Knows what a package needs: one storage (the root) with streams in it, sectors of 512 bytes, up to 7 MB."""
import struct

SECTOR = 512
MINI_SECTOR = 64
MINI_LIMIT = 4096  # a stream shorter than this lies in small sectors
DIRECTORY_ENTRY = 128
END_OF_CHAIN = 0xFFFFFFFE
FREE = 0xFFFFFFFF
FAT_SECTOR = 0xFFFFFFFD
NO_ENTRY = 0xFFFFFFFF
SIGNATURE = bytes.fromhex("D0CF11E0A1B11AE1")
HEADER_FAT_ENTRIES = 109

HEADER = struct.Struct("<8s16sHHHHH6s9I")
ENTRY = struct.Struct("<64sHBBIII16sI8s8sIQ")


class CompoundFileError(Exception):
    pass


def read(content: bytes) -> tuple[bytes, dict[str, bytes]]:
    """The root's class identifier, and the streams by name."""
    header = HEADER.unpack_from(content)
    if header[0] != SIGNATURE or header[5] != 9:
        raise CompoundFileError("this is not a compound file with sectors of 512 bytes")
    first_directory, first_mini_fat, fat_more = header[10], header[13], header[15]
    if fat_more != END_OF_CHAIN:
        raise CompoundFileError("the file is larger than this reader expects")

    def sector(number: int) -> bytes:
        return content[(number + 1) * SECTOR:(number + 2) * SECTOR]

    fat: list[int] = []
    for number in struct.unpack_from(f"<{HEADER_FAT_ENTRIES}I", content, HEADER.size):
        if number != FREE:
            fat += struct.unpack(f"<{SECTOR // 4}I", sector(number))

    def chain(table: list[int], first: int) -> list[int]:
        numbers = []
        while first != END_OF_CHAIN:
            numbers.append(first)
            first = table[first]
        return numbers

    directory = b"".join(sector(number) for number in chain(fat, first_directory))
    mini_fat_bytes = b"".join(sector(number) for number in chain(fat, first_mini_fat))
    mini_fat = list(struct.unpack(f"<{len(mini_fat_bytes) // 4}I", mini_fat_bytes))
    root = ENTRY.unpack_from(directory)
    mini_stream = b"".join(sector(number) for number in chain(fat, root[11]))
    streams = {}
    for position in range(DIRECTORY_ENTRY, len(directory), DIRECTORY_ENTRY):
        entry = ENTRY.unpack_from(directory, position)
        name, kind, first, size = entry[0][:max(entry[1], 2) - 2].decode("utf-16-le"), entry[2], entry[11], entry[12]
        if kind == 0:
            continue
        if kind != 2:
            raise CompoundFileError(f"'{name}' is not a stream")
        size &= 0xFFFFFFFF
        if size >= MINI_LIMIT:
            data = b"".join(sector(number) for number in chain(fat, first))
        else:
            data = b"".join(mini_stream[number * MINI_SECTOR:(number + 1) * MINI_SECTOR]
                            for number in (chain(mini_fat, first) if size else []))
        streams[name] = data[:size]
    return root[7], streams


def padded(data: bytes, unit: int, filler: bytes = b"\0") -> bytes:
    return data + filler * (-len(data) % unit)


class Sectors:
    """Data in whole sectors, and the table that chains them."""

    def __init__(self, unit: int):
        self.unit = unit
        self.data = b""
        self.table: list[int] = []

    def add(self, data: bytes) -> int:
        """The first sector's number."""
        if not data:
            return END_OF_CHAIN
        first = len(self.table)
        count = -(-len(data) // self.unit)
        self.data += padded(data, self.unit)
        self.table += list(range(first + 1, first + count)) + [END_OF_CHAIN]
        return first


def sort_key(name: str) -> tuple[int, str]:
    return len(name.encode("utf-16-le")), name.upper()


def tree(names: list[str], numbers: dict[str, int], depth: int, links: dict[str, tuple[int, int, int]]) -> tuple[int, int]:
    """Links sorted names into a balanced tree; the root's number and the greatest depth."""
    if not names:
        return NO_ENTRY, depth - 1
    middle = len(names) // 2
    left, left_depth = tree(names[:middle], numbers, depth + 1, links)
    right, right_depth = tree(names[middle + 1:], numbers, depth + 1, links)
    links[names[middle]] = left, right, depth
    return numbers[names[middle]], max(left_depth, right_depth)


def write(class_id: bytes, streams: dict[str, bytes]) -> bytes:
    names = sorted(streams, key=sort_key)
    numbers = {name: number for number, name in enumerate(names, start=1)}
    links: dict[str, tuple[int, int, int]] = {}
    top, deepest = tree(names, numbers, 0, links)
    sectors, mini = Sectors(SECTOR), Sectors(MINI_SECTOR)
    starts = {name: (sectors if len(streams[name]) >= MINI_LIMIT else mini).add(streams[name]) for name in names}

    def entry(name: str, kind: int, red: bool, left: int, right: int, child: int, class_id: bytes, first: int, size: int) -> bytes:
        encoded = name.encode("utf-16-le") + b"\0\0"
        return ENTRY.pack(encoded, len(encoded), kind, 0 if red else 1, left, right, child, class_id, 0, bytes(8), bytes(8),
                          first, size)

    directory = entry("Root Entry", 5, False, NO_ENTRY, NO_ENTRY, top, class_id, sectors.add(mini.data), len(mini.data))
    for name in names:
        left, right, depth = links[name]
        # Every way down has the same number of black entries: only the last, unfilled row is red.
        directory += entry(name, 2, depth == deepest and depth > 0, left, right, NO_ENTRY, bytes(16), starts[name], len(streams[name]))
    unused = ENTRY.pack(b"", 0, 0, 0, NO_ENTRY, NO_ENTRY, NO_ENTRY, bytes(16), 0, bytes(8), bytes(8), 0, 0)
    while len(directory) % SECTOR:
        directory += unused
    first_directory = sectors.add(directory)
    mini_fat = padded(struct.pack(f"<{len(mini.table)}I", *mini.table), SECTOR, b"\xff")
    first_mini_fat = sectors.add(mini_fat)
    # The table has to describe its own sectors as well.
    fat_count = 1
    while fat_count * (SECTOR // 4) < len(sectors.table) + fat_count:
        fat_count += 1
    if fat_count > HEADER_FAT_ENTRIES:
        raise CompoundFileError("the package is larger than this writer can make it")
    fat_first = len(sectors.table)
    fat = sectors.table + [FAT_SECTOR] * fat_count
    header = HEADER.pack(SIGNATURE, bytes(16), 0x3E, 3, 0xFFFE, 9, 6, bytes(6), 0, fat_count, first_directory, 0, MINI_LIMIT,
                         first_mini_fat, len(mini_fat) // SECTOR, END_OF_CHAIN, 0)
    places = [fat_first + number if number < fat_count else FREE for number in range(HEADER_FAT_ENTRIES)]
    return (padded(header + struct.pack(f"<{HEADER_FAT_ENTRIES}I", *places), SECTOR) + sectors.data +
            padded(struct.pack(f"<{len(fat)}I", *fat), SECTOR, b"\xff"))
