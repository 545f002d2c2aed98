"""Calls into libvswitchctl: arguments in, outputs out, failing statuses as exceptions."""

import ctypes
from dataclasses import dataclass
from functools import cache
from operator import index
from typing import Any, Callable, Sequence

from ._status import Status


class StatusError(Exception):
    """An operation failed: `status` is its code, `operation` its name, `arguments` the names that the caller gave."""

    def __init__(self, status: int, operation: str, arguments: dict[str, str] | None = None):
        self.operation = operation
        self.arguments = arguments or {}
        self.status: Status | int = Status(status) if status in Status._value2member_map_ else status
        name = self.status.name if isinstance(self.status, Status) else "a status of the store"
        given = ", ".join(f"{argument}={value!r}" for argument, value in self.arguments.items())
        super().__init__(f"{operation}({given}): {name} (0x{status:08X})")

    def __reduce__(self) -> tuple[Any, ...]:
        return type(self), (int(self.status), self.operation, self.arguments)


class NotFound(StatusError, LookupError):
    """STATUS_NOT_FOUND."""


class Exists(StatusError):
    """STATUS_EXISTS."""


class BadParam(StatusError, ValueError):
    """STATUS_BAD_PARAM."""


class NoMemory(StatusError, MemoryError):
    """STATUS_NO_MEMORY."""


ADDRESS_SIZES = {0: 6, 2: 4, 3: 16}  # by kind: Ethernet, IPv4, IPv6
_ERRORS = {Status.NOT_FOUND: NotFound, Status.EXISTS: Exists, Status.BAD_PARAM: BadParam, Status.NO_MEMORY: NoMemory}


class Record(ctypes.Structure):
    """A packed record of the library, compared by its bytes and printed by its fields."""

    _pack_ = 1

    def __eq__(self, other: object) -> bool:
        return type(self) is type(other) and bytes(self) == bytes(other)  # type: ignore[call-overload]

    def __repr__(self) -> str:
        values = ((name, getattr(self, name)) for name, *_ in self._fields_)
        texts = (f"{name}={bytes(v) if isinstance(v, ctypes.Array) else v!r}" for name, v in values)
        return f"{type(self).__name__}({', '.join(texts)})"


class DriverList(list[bytes]):
    """Entries of a driver's list, with the second word of its header."""

    aux: int = 0


@cache
def library() -> ctypes.CDLL:
    return ctypes.CDLL("libvswitchctl.so.1")


@dataclass
class Output:
    """An argument that the library writes, and the function that makes its value."""

    holder: Any
    value: Callable[[Any], Any]


def call(operation: str, *arguments: Any) -> Any:
    """Calls an operation and returns the values of its outputs, alone or in a tuple."""
    function = getattr(library(), operation)
    function.restype = ctypes.c_uint32
    result = function(*(ctypes.byref(a.holder) if isinstance(a, Output) else a for a in arguments))
    if result:
        given = {a.name: as_text(a.value) for a in arguments if isinstance(a, Text) and a.value is not None}
        raise _ERRORS.get(result, StatusError)(result, operation, given)
    values = [argument.value(argument.holder) for argument in arguments if isinstance(argument, Output)]
    return values[0] if len(values) == 1 else tuple(values) or None


def call_plain(operation: str, *arguments: Any, returns: Any = None) -> Any:
    """Calls an operation that has no status."""
    function = getattr(library(), operation)
    function.restype = returns
    return function(*arguments)


# Input arguments. Each error names its argument.


class Text(ctypes.c_char_p):
    """A text with the name of its argument."""

    name: str


def wrong_type(name: str, expected: str, value: object) -> TypeError:
    return TypeError(f"{name} must be {expected}, not {type(value).__name__}")


def encoded(name: str, value: str) -> bytes:
    if not isinstance(value, str):
        raise wrong_type(name, "str", value)
    if "\0" in value:
        raise ValueError(f"{name} can't hold a NUL")
    return value.encode("utf-8", "surrogateescape")


def text(name: str, value: str) -> Text:
    argument = Text(encoded(name, value))
    argument.name = name
    return argument


def optional_text(name: str, value: str | None) -> Text:
    return Text(None) if value is None else text(name, value)


def number(name: str, kind: Any, value: int) -> Any:
    try:
        converted = kind(index(value))
    except TypeError:
        raise wrong_type(name, "int", value) from None
    if converted.value != value:
        sign = "signed" if kind(-1).value < 0 else "unsigned"
        raise OverflowError(f"{name}: {value} does not fit {sign} {8 * ctypes.sizeof(kind)} bits")
    return converted


def numbers(name: str, kind: Any, values: Sequence[int]) -> Any:
    given = [number(name, kind, value).value for value in sequence(name, values)]
    return (kind * len(given))(*given)


def flag(name: str, value: bool) -> ctypes.c_uint8:
    if not isinstance(value, int):
        raise wrong_type(name, "bool", value)
    return ctypes.c_uint8(bool(value))


def contents(name: str, value: bytes | Record) -> bytes:
    if not isinstance(value, (bytes, bytearray, memoryview, Record)):
        raise wrong_type(name, "bytes or a record", value)
    return bytes(value)


def block(name: str, value: bytes | Record, size: int = 0) -> Any:
    """Bytes of a record that the library reads; with `size`, exactly that many."""
    data = contents(name, value)
    if size and len(data) != size:
        raise ValueError(f"{name}: {size} bytes are needed, not {len(data)}")
    return ctypes.create_string_buffer(data, len(data)) if data else None


def sequence(name: str, values: Sequence[Any]) -> Sequence[Any]:
    if isinstance(values, (str, bytes, Record)) or not isinstance(values, (Sequence, ctypes.Array)):
        raise wrong_type(name, "a sequence", values)
    return values


def joined(name: str, entries: Sequence[Any], size: int) -> bytes:
    """The entries of a list; a text is padded to its field and ends within it."""
    parts = []
    for entry in sequence(name, entries):
        part = encoded(name, entry) + b"\0" if isinstance(entry, str) else contents(f"an entry of {name}", entry)
        parts.append(part.ljust(size, b"\0") if isinstance(entry, str) else part)
        if len(parts[-1]) != size:
            raise ValueError(f"{name}: {size} bytes are needed for each entry, not {len(part)}")
    return b"".join(parts)


def leading(name: str, record: bytes) -> int:
    """The first 32 bits of a record, which give its length."""
    return int.from_bytes(contents(name, record)[:4], "little")


def behind(name: str, value: tuple[Any, ...], counts: Sequence[str]) -> Any:
    """A record and the lists behind it, whose lengths the record must give correctly."""
    if not isinstance(value, tuple) or len(value) != 1 + len(counts):
        raise TypeError(f"{name} must be a tuple of a record and {len(counts)} lists")
    record, *lists = value
    parts = [contents(name, record)]
    for count, entries_in in zip(counts, lists):
        parts += [contents(f"an entry of {name}", entry) for entry in sequence(name, entries_in)]
        if getattr(record, count) != len(entries_in):
            raise ValueError(f"{name}: {count} is {getattr(record, count)}, but there are {len(entries_in)}")
    return block(name, b"".join(parts))


def counted(name: str, entries: Sequence[Any], size: int) -> Any:
    """A list that begins with the count of its entries."""
    data = joined(name, entries, size)
    return block(name, len(entries).to_bytes(4, "little") + data)


# Outputs.


def number_out(kind: Any) -> Output:
    return Output(kind(), lambda holder: holder.value)


def flag_out() -> Output:
    return Output(ctypes.c_uint8(), lambda holder: bool(holder.value))


def text_out(size: int) -> Output:
    return Output(ctypes.create_string_buffer(size), lambda holder: as_text(holder.raw))


def bytes_out(size: int) -> Output:
    return Output(ctypes.create_string_buffer(size), lambda holder: holder.raw)


def record_out(kind: type[Record]) -> Output:
    return Output(kind(), lambda holder: holder)


def buffer_out(release: str, read: Callable[[int], Any]) -> Output:
    """A buffer of the library's, released whether or not reading it succeeds."""
    def value(holder: ctypes.c_void_p) -> Any:
        try:
            return read(holder.value or 0)
        finally:
            call_plain(release, holder)
    return Output(ctypes.c_void_p(), value)


def word(address: int) -> int:
    return ctypes.c_uint32.from_address(address).value


def as_text(data: bytes) -> str:
    return data.split(b"\0", 1)[0].decode("utf-8", "surrogateescape")


def entries(address: int, count: int, size: int, kind: Any = bytes) -> list[Any]:
    found = (ctypes.string_at(address + index * size, size) for index in range(count))
    return list(found) if kind is bytes else [kind.from_buffer_copy(data) for data in found]


def driver_list(address: int, size: int) -> DriverList:
    found = DriverList(entries(address + ctypes.sizeof(ctypes.c_uint64), word(address), size))
    found.aux = word(address + 4)
    return found


def headed(address: int, header: type[Record], counts: dict[str, Any]) -> tuple[Any, ...]:
    """A record and the lists behind it: `counts` gives for each count field its entries' class or size."""
    record = header.from_buffer_copy(ctypes.string_at(address, ctypes.sizeof(header)))
    lists, offset = [], address + ctypes.sizeof(header)
    for name, kind in counts.items():
        size = kind if isinstance(kind, int) else ctypes.sizeof(kind)
        lists.append(entries(offset, getattr(record, name), size, bytes if isinstance(kind, int) else kind))
        offset += len(lists[-1]) * size
    return (record, *lists)


def read_value(operation: str, *arguments: Any) -> bytes:
    """A property's value of any length; None stands where its buffer goes."""
    class Buffer(ctypes.Structure):
        _pack_ = 1
        _fields_ = [("length", ctypes.c_int32), ("data", ctypes.c_void_p)]
    for _ in range(8):  # asks again when the value grows between the two calls
        buffer = Buffer()
        filled = [ctypes.byref(buffer) if argument is None else argument for argument in arguments]
        call(operation, *filled)
        size = buffer.length
        data = ctypes.create_string_buffer(size or 1)
        buffer.data = ctypes.addressof(data)
        try:
            call(operation, *filled)
            return data.raw[:size]
        except NoMemory as error:
            last = error
    raise last


def read_counted(operation: str, *arguments: Any, size: int) -> list[bytes]:
    """A list whose count is a separate output."""
    count = ctypes.c_uint32()
    read = buffer_out("VSDVS_FreeMemory", lambda address: entries(address, count.value, size))
    found: list[bytes] = call(operation, *arguments, read, ctypes.byref(count))
    return found


def ioctl(path: Text, request: ctypes.c_int32, data: bytes, out_length: int) -> bytes:
    class Header(ctypes.Structure):
        _fields_ = [("inLength", ctypes.c_uint32), ("outLength", ctypes.c_uint32),
                    ("inPtr", ctypes.c_void_p), ("outPtr", ctypes.c_void_p)]
    given, taken = ctypes.create_string_buffer(data, len(data) or 1), ctypes.create_string_buffer(out_length or 1)
    header = Header(len(data), out_length, ctypes.addressof(given), ctypes.addressof(taken))
    call("ZORIoctl", path, request, ctypes.byref(header))
    return taken.raw[:out_length]
