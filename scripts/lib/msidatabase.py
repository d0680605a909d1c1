"""The tables of an installer package, to be read, changed and written again. What is written depends on the rows alone,
not on the order in which they came: wixl's order changes from run to run."""
import struct

import compoundfile

ALPHABET = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz._"
TABLE_MARK = 0x4840
PAIR, SINGLE = 0x3800, 0x4800  # two letters in one, one letter in one

# A column's type.
NULLABLE, KEY, STRING, VALID, SIZE = 0x1000, 0x2000, 0x0800, 0x0100, 0xFF

SUMMARY = "\x05SummaryInformation"
REVISION, CREATED, SAVED = 9, 12, 13  # of the summary's properties: the package code and two times

Value = str | int | None


def stream_name(name: str, is_table: bool) -> str:
    codes = [ALPHABET.find(letter) for letter in name]
    out = chr(TABLE_MARK) if is_table else ""
    position = 0
    while position < len(name):
        first = codes[position]
        second = codes[position + 1] if position + 1 < len(name) else -1
        if first < 0:
            out += name[position]
        elif second < 0:
            out += chr(SINGLE + first)
        else:
            out += chr(PAIR + first + (second << 6))
            position += 1
        position += 1
    return out


class Column:
    def __init__(self, name: str, kind: int):
        self.name, self.kind = name, kind
        self.is_key = bool(kind & KEY)
        self.is_stream = kind & ~NULLABLE == STRING | VALID
        self.is_text = bool(kind & STRING) and not self.is_stream
        self.width = 4 if not kind & STRING and kind & SIZE == 4 else 2


class Table:
    def __init__(self, columns: list[Column]):
        self.columns = columns
        self.rows: list[dict[str, Value]] = []

    def set(self, *, where: dict[str, Value], **values: Value) -> None:
        """Changes the one row that has these values."""
        found = [row for row in self.rows if all(row[name] == value for name, value in where.items())]
        if len(found) != 1:
            raise KeyError(f"{len(found)} rows have {where}")
        found[0].update(values)

    def add(self, **values: Value) -> None:
        names = {column.name for column in self.columns}
        if not values.keys() <= names:
            raise KeyError(f"no such columns: {values.keys() - names}")
        self.rows.append({name: values.get(name) for name in names})


def column_major(columns: list[Column], content: bytes, texts: list[str]) -> list[dict[str, Value]]:
    count = len(content) // sum(column.width for column in columns)
    rows: list[dict[str, Value]] = [{} for _ in range(count)]
    position = 0
    for column in columns:
        for row in rows:
            (raw,) = struct.unpack_from("<I" if column.width == 4 else "<H", content, position)
            position += column.width
            if column.is_text:
                row[column.name] = texts[raw] if raw else None
            else:
                row[column.name] = raw - (1 << 8 * column.width - 1) if raw else None
    return rows


def in_columns(columns: list[Column], rows: list[list[int]]) -> bytes:
    return b"".join(struct.pack("<I" if column.width == 4 else "<H", row[index])
                    for index, column in enumerate(columns) for row in rows)


TABLES_COLUMNS = [Column("Name", VALID | STRING | KEY | 64)]
COLUMNS_COLUMNS = [Column("Table", VALID | STRING | KEY | 64), Column("Number", VALID | KEY | 2),
                   Column("Name", VALID | STRING | 64), Column("Type", VALID | 2)]

CUSTOM_ACTION_COLUMNS = [Column("Action", 0x2D48), Column("Type", 0x502), Column("Source", 0x1D48),
                         Column("Target", 0x1DFF), Column("ExtendedType", 0x1104)]


class Database:
    def __init__(self, content: bytes):
        self.class_id, streams = compoundfile.read(content)
        pool, data = (streams.pop(stream_name(name, True)) for name in ("_StringPool", "_StringData"))
        self.code_page, flags = struct.unpack_from("<HH", pool)
        if flags & 0x8000:
            raise compoundfile.CompoundFileError("the package has more texts than this reader expects")
        texts, position = [""], 0
        for length, _ in struct.iter_unpack("<HH", pool[4:]):
            texts.append(data[position:position + length].decode("cp1252"))
            position += length
        streams.pop(stream_name("_Tables", True))
        described = column_major(COLUMNS_COLUMNS, streams.pop(stream_name("_Columns", True)), texts)
        self.tables: dict[str, Table] = {}
        for row in sorted(described, key=lambda row: (row["Table"], row["Number"])):
            table = self.tables.setdefault(str(row["Table"]), Table([]))
            table.columns.append(Column(str(row["Name"]), int(row["Type"]) & 0xFFFF))
        for name, table in self.tables.items():
            table.rows = column_major(table.columns, streams.pop(stream_name(name, True), b""), texts)
        self.streams = streams

    def __getitem__(self, name: str) -> Table:
        return self.tables[name]

    def add_table(self, name: str, columns: list[Column]) -> None:
        self.tables[name] = Table(columns)

    def summary_place(self, wanted: int) -> int:
        """Where in the summary a property's value begins, behind its type."""
        summary = self.streams[SUMMARY]
        (section,) = struct.unpack_from("<I", summary, 44)
        (count,) = struct.unpack_from("<I", summary, section + 4)
        for number in range(count):
            identifier, offset = struct.unpack_from("<II", summary, section + 8 + 8 * number)
            if identifier == wanted:
                return section + offset + 4
        raise KeyError(f"the summary has no property {wanted}")

    def patch_summary(self, place: int, value: bytes) -> None:
        summary = self.streams[SUMMARY]
        self.streams[SUMMARY] = summary[:place] + value + summary[place + len(value):]

    def package_code(self) -> str:
        place = self.summary_place(REVISION) + 4
        return self.streams[SUMMARY][place:place + 38].decode()

    def set_package_code(self, code: str) -> None:
        self.patch_summary(self.summary_place(REVISION) + 4, code.encode())

    def set_times(self, epoch: int) -> None:
        """Seconds since 1970. The summary's times are in units of 100 ns since 1601."""
        filetime = struct.pack("<Q", (epoch + 11644473600) * 10_000_000)
        for wanted in (CREATED, SAVED):
            self.patch_summary(self.summary_place(wanted), filetime)

    def write(self) -> bytes:
        names = sorted(self.tables)
        columns = [{"Table": name, "Number": number, "Name": column.name, "Type": column.kind - (1 << 16) if column.kind >= 1 << 15 else column.kind}
                   for name in names for number, column in enumerate(self.tables[name].columns, start=1)]
        contents = {name: (self.tables[name].columns, self.tables[name].rows) for name in names}
        contents["_Tables"] = TABLES_COLUMNS, [{"Name": name} for name in names]
        contents["_Columns"] = COLUMNS_COLUMNS, columns
        references: dict[str, int] = {}
        for kinds, rows in contents.values():
            for row in rows:
                for column in kinds:
                    if column.is_text and row[column.name]:
                        text = str(row[column.name])
                        references[text] = references.get(text, 0) + 1
        texts = sorted(references)
        numbers = {text: number for number, text in enumerate(texts, start=1)}

        def raw(column: Column, value: Value) -> int:
            if column.is_text:
                return numbers[str(value)] if value else 0
            return 0 if value is None else int(value) + (1 << 8 * column.width - 1)

        pool, data = struct.pack("<HH", self.code_page, 0), b""
        for text in texts:
            encoded = text.encode("cp1252")
            pool += struct.pack("<HH", len(encoded), references[text])
            data += encoded
        streams = dict(self.streams)
        streams[stream_name("_StringPool", True)] = pool
        streams[stream_name("_StringData", True)] = data
        for name, (kinds, rows) in contents.items():
            # Installers look rows up by their keys' numbers.
            lines = [[raw(column, row[column.name]) for column in kinds] for row in rows]
            lines.sort(key=lambda line: [value for column, value in zip(kinds, line) if column.is_key])
            if lines:
                streams[stream_name(name, True)] = in_columns(kinds, lines)
        return compoundfile.write(self.class_id, streams)
