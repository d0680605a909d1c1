"""What a Windows program file says of itself, read by nothing but its published layout."""

import struct

DYNAMIC_BASE, NX_COMPAT, NO_SEH, HIGH_ENTROPY = 0x40, 0x100, 0x400, 0x20
RELOCS_STRIPPED = 0x1
EXECUTE, WRITE = 0x20000000, 0x80000000
ICON, GROUP_ICON, VERSION, MANIFEST = 3, 14, 16, 24
IMPORTS, RESOURCES, CERTIFICATES, RELOCATIONS, DEBUG = 1, 2, 4, 5, 6


class Image:
    def __init__(self, data):
        self.data = bytearray(data)
        self.header = self.u32(0x3C)
        assert self.data[:2] == b"MZ" and self.data[self.header:self.header + 4] == b"PE\0\0"
        self.optional = self.header + 24
        self.machine = self.u16(self.header + 4)
        self.timestamp = self.u32(self.header + 8)
        self.symbols, self.symbol_count = self.u32(self.header + 12), self.u32(self.header + 16)
        self.characteristics = self.u16(self.header + 22)
        self.entry = self.u32(self.optional + 16)
        self.base = self.u32(self.optional + 28)
        self.checksum = self.u32(self.optional + 64)
        self.system = (self.u16(self.optional + 40), self.u16(self.optional + 42))
        self.subsystem_version = (self.u16(self.optional + 48), self.u16(self.optional + 50))
        self.subsystem = self.u16(self.optional + 68)
        self.dll_characteristics = self.u16(self.optional + 70)
        self.sections = {}
        table = self.optional + self.u16(self.header + 20)
        for at in range(table, table + 40 * self.u16(self.header + 6), 40):
            name = bytes(self.data[at:at + 8]).rstrip(b"\0").decode()
            if name.startswith("/"):  # the name's place in the table behind the symbols
                name = self.text(self.symbols + 18 * self.symbol_count + int(name[1:]))
            size, address, raw_size, raw = struct.unpack_from("<IIII", self.data, at + 8)
            self.sections[name] = (address, size, raw, raw_size, self.u32(at + 36))

    def u16(self, at):
        return struct.unpack_from("<H", self.data, at)[0]

    def u32(self, at):
        return struct.unpack_from("<I", self.data, at)[0]

    def directory(self, index):
        """Address and size of one of the image's tables."""
        return struct.unpack_from("<II", self.data, self.optional + 96 + 8 * index)

    def offset(self, address):
        """Where in the file lies what will lie at this address (counted from the image's base)."""
        for start, size, raw, raw_size, _ in self.sections.values():
            if start <= address < start + min(size, raw_size):
                return raw + address - start
        raise ValueError(f"{address:#x} lies in no section's data")

    def section(self, name):
        _, size, raw, raw_size, _ = self.sections[name]
        return bytes(self.data[raw:raw + min(size, raw_size)])

    def text(self, offset):
        return bytes(self.data[offset:self.data.index(0, offset)]).decode()

    def computed_checksum(self):
        data = self.data + b"\0" * (len(self.data) % 2)
        struct.pack_into("<I", data, self.optional + 64, 0)
        total = sum(struct.unpack(f"<{len(data) // 2}H", data))
        while total > 0xFFFF:
            total = (total & 0xFFFF) + (total >> 16)
        return total + len(self.data)

    def imports(self):
        """The names of the DLLs that have to be there for the program to start."""
        at = self.offset(self.directory(IMPORTS)[0])
        while name := self.u32(at + 12):
            yield self.text(self.offset(name))
            at += 20

    def relocations(self):
        """The addresses of every 32-bit address in the image."""
        address, size = self.directory(RELOCATIONS)
        at = self.offset(address)
        end = at + size
        while at < end:
            page, block = struct.unpack_from("<II", self.data, at)
            for entry in range(at + 8, at + block, 2):
                kind, low = self.u16(entry) >> 12, self.u16(entry) & 0xFFF
                assert kind in (0, 3), f"relocation of kind {kind}"
                if kind == 3:
                    yield page + low
            at += block

    def moved(self, base):
        """The file as it were if it had been linked for another base."""
        data = bytearray(self.data)
        for address in self.relocations():
            at = self.offset(address)
            struct.pack_into("<I", data, at, (self.u32(at) + base - self.base) & 0xFFFFFFFF)
        struct.pack_into("<I", data, self.optional + 28, base)
        return bytes(data)

    def resources(self, kind):
        """Number and content of every resource of a kind, whatever its language."""
        root = self.offset(self.directory(RESOURCES)[0])

        def entries(at):
            for entry in range(at + 16, at + 16 + 8 * (self.u16(at + 12) + self.u16(at + 14)), 8):
                yield self.u32(entry), root + (self.u32(entry + 4) & 0x7FFFFFFF)

        return {number: bytes(self.data[self.offset(self.u32(leaf)):][:self.u32(leaf + 4)])
                for found, names in entries(root) if found == kind
                for number, languages in entries(names)
                for _, leaf in entries(languages)}

    def version(self):
        """The four file numbers, the four product numbers and the texts by their names."""
        (block,) = self.resources(VERSION).values()
        texts = {}

        def walk(at, end):
            while at < end:
                length, value_length, is_text = struct.unpack_from("<HHH", block, at)
                if length == 0:
                    return
                name_end = at + 6
                while block[name_end:name_end + 2] != b"\0\0":
                    name_end += 2
                name = block[at + 6:name_end].decode("utf-16-le")
                value = (name_end + 2 + 3) & ~3
                value_end = value + value_length * (2 if is_text else 1)
                texts[name] = block[value:value_end]
                if is_text:
                    texts[name] = texts[name].decode("utf-16-le").rstrip("\0")
                walk((value_end + 3) & ~3, at + length)
                at = (at + length + 3) & ~3

        walk(0, len(block))
        signature, _, *numbers = struct.unpack_from("<6I", texts["VS_VERSION_INFO"])
        assert signature == 0xFEEF04BD
        file_high, file_low, product_high, product_low = numbers
        parts = lambda high, low: (high >> 16, high & 0xFFFF, low >> 16, low & 0xFFFF)
        return parts(file_high, file_low), parts(product_high, product_low), texts

    def debug_file(self):
        """Name, GUID (its bytes) and age of the symbols that belong to the program."""
        entry = self.offset(self.directory(DEBUG)[0])
        address, raw = self.u32(entry + 20), self.u32(entry + 24)
        assert self.u32(entry + 12) == 2 and self.offset(address) == raw
        assert self.data[raw:raw + 4] == b"RSDS"
        return self.text(raw + 24), bytes(self.data[raw + 4:raw + 20]), self.u32(raw + 20)
