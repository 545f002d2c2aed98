#!/usr/bin/env python3
"""Writes _status.py and _operations.py from the header's documentation.

usage: python_module.py XML_DIRECTORY HEADER OUTPUT_DIRECTORY
"""

import re
import sys
from pathlib import Path

import header

NOTICE = '"""{} Made from include/vswitchctl.h by tools/python_module.py."""\n\n'
SIZES = {"char": 1, "uint8_t": 1, "uint16_t": 2, "uint32_t": 4, "int32_t": 4, "uint64_t": 8, "void *": 8}
DEFAULTS = {"dvsId": " = None", "useAlias": " = True"}
# Lists of a count and entries, and records with entries behind them.
COUNTED = {"UplinkNameList": "UplinkName", "UplinkPortIdList": "UplinkPortId",
           "LSTeamingPolicyTable": "LSTeamingPolicyEntry"}
HEADED = {"MirrorSessionList": {"sessionCount": "MirrorSessionRecord", "portEntryCount": "MirrorPortEntry"},
          "PortVLANRecord": {"rangeCount": "VLANRange"}}
# Bytes of an entry of a driver's list.
ENTRIES = {"VSZOR_GetSwitches": "128 if kind == 1 else 81", "VSZOR_GetUplinks": "36", "VSZOR_GetPortMACTable": "18",
           "VSZOR_GetTeamMACTable": "18", "VSZOR_GetDVMirrorSessionIDs": "32", "VSZOR_GetPromiscSessionActiveDsts": "4",
           "VSZOR_GetMcastFilters": "lib.ADDRESS_SIZES[kind]"}
# Bytes that the library reads of a record whose length it can't know.
READ = {"VSZOR_SetRuntimeOptions": 'lib.leading("record", record)',
        "VSZOR_RTMOp": '9 + 128 * lib.leading("record", record)',
        "VSZOR_GetMcastFilterStats": "lib.ADDRESS_SIZES.get(kind, 0)"}
# Exceptions from the rules: (arguments, result, call).
WRITTEN = {
    "VSDVS_GetPrivateVLANMap": ("alias: str", "list[bytes]",
                                'lib.read_counted("VSDVS_GetPrivateVLANMap", lib.text("alias", alias), size=8)'),
    "ZORIoctl": ("path: str, request: int, data: bytes, outLength: int", "bytes",
                 'lib.ioctl(lib.text("path", path), lib.number("request", c_int32, request), '
                 'lib.contents("data", data), lib.number("outLength", c_uint32, outLength).value)'),
    "DVPortExist": ("switchId: str, dvPortId: str", "bool",
                    'bool(lib.call_plain("DVPortExist", lib.text("switchId", switchId), '
                    'lib.text("dvPortId", dvPortId), returns=c_uint8))'),
}


def ctype(name):
    return "c_" + name.removesuffix("_t") if name != "void *" else "c_void_p"


class Generator:
    def __init__(self, reference):
        self.reference = reference

    def size(self, name):
        return sum(SIZES[kind] * int(count or 1) for kind, _, count, _ in self.reference.records[name].fields)

    def python_type(self, name):
        """The Python type of a record: text, bytes, or a class."""
        fields = self.reference.records[name].fields
        if len(fields) == 1 and fields[0][2]:
            return "str" if fields[0][0] == "char" else "bytes"
        return name

    def entry(self, name):
        """An entry of a list for the runtime: a class or a size."""
        return name if self.python_type(name) == name else str(self.size(name))

    def documented_size(self, parameter):
        text = header.plain(parameter.text)
        constant = re.search(r"\b[A-Z_]+_SIZE\b", text)
        number = re.search(r"\b(\d+) bytes", text)
        return self.reference.constants[constant.group()][0] if constant else number.group(1)

    def record_classes(self):
        for record in self.reference.records.values():
            if self.python_type(
                    record.name) != record.name or record.name in COUNTED or record.name == "PropValueBuffer":
                continue
            fields = ", ".join(f'("{name}", {ctype(kind)}{f" * {count}" if count else ""})' for kind, name, count,
                               _ in record.fields)
            yield f'class {record.name}(lib.Record):\n    """{record.brief}"""\n\n    _fields_ = [{fields}]\n'
            yield from (f"    {name}: {'Any' if count else 'int'}\n" for kind, name, count, _ in record.fields)
            yield "\n\n"

    @staticmethod
    def named(parameter):
        return f'"{parameter.name}", {parameter.name}'

    def array_in(self, parameter):
        inner = re.sub(r"^const | \*$", "", parameter.type)
        if inner == "void":
            return "bytes", f"lib.block({self.named(parameter)})"
        if inner in SIZES:
            return "Sequence[int]", f'lib.numbers("{parameter.name}", {ctype(inner)}, {parameter.name})'
        entries = f"lib.joined({self.named(parameter)}, {self.size(inner)})"
        return f"Sequence[{self.python_type(inner)}]", f'lib.block("{parameter.name}", {entries})'

    def value_in(self, parameter, operation):
        """(annotation, expression) of an argument that the library reads."""
        kind, name, words = parameter.type, parameter.name, header.plain(parameter.text)
        inner = re.sub(r"^const | \*$", "", kind)
        named = self.named(parameter)
        if kind == "const char *":
            optional = "may be null" in words
            return ("str | None", f"lib.optional_text({named})") if optional else ("str", f"lib.text({named})")
        if kind in SIZES:
            number = f'lib.number("{name}", {ctype(kind)}, {name})'
            return ("bool", f"lib.flag({named})") if "Boolean" in words else ("int", number)
        if inner in SIZES:
            return "int", f'byref(lib.number("{name}", {ctype(inner)}, {name}))'
        if inner == "void":
            return "bytes", f"lib.block({named}, {READ[operation.name]})"
        if inner in COUNTED:
            entry = COUNTED[inner]
            return f"Sequence[{self.python_type(entry)}]", f"lib.counted({named}, {self.size(entry)})"
        if inner in HEADED:
            return self.headed_type(inner), f"lib.behind({named}, {list(HEADED[inner])})"
        return self.python_type(inner), f"lib.block({named}, {self.size(inner)})"

    def headed_type(self, record):
        return f"tuple[{', '.join([record, *(f'list[{self.python_type(e)}]' for e in HEADED[record].values())])}]"

    def value_out(self, parameter, operation):
        kind = parameter.type
        inner = kind.rstrip("* ")
        if kind.endswith("**"):
            release = "VSZOR_FreeMemory" if operation.name.startswith("VSZOR") else "VSDVS_FreeMemory"
            annotation, read = self.buffer(parameter, inner, operation)
            return annotation, f'lib.buffer_out("{release}", lambda a: {read})'
        if inner in SIZES and inner != "char":
            return ("bool", "lib.flag_out()") if inner == "uint8_t" else ("int", f"lib.number_out({ctype(inner)})")
        if inner in ("char", "void"):
            return ("str", f"lib.text_out({self.documented_size(parameter)})") if inner == "char" else (
                "bytes", f"lib.bytes_out({self.documented_size(parameter)})")
        if self.python_type(inner) == "bytes":
            return "bytes", f"lib.bytes_out({self.size(inner)})"
        return inner, f"lib.record_out({inner})"

    def buffer(self, parameter, inner, operation):
        if inner in COUNTED:
            entry = COUNTED[inner]
            if self.python_type(entry) == "str":
                return "list[str]", f"[lib.as_text(e) for e in lib.entries(a + 4, lib.word(a), {self.size(entry)})]"
            return "list[bytes]", f"lib.entries(a + 4, lib.word(a), {self.entry(entry)})"
        if inner in HEADED:
            counts = ", ".join(f'"{count}": {self.entry(entry)}' for count, entry in HEADED[inner].items())
            return self.headed_type(inner), f"lib.headed(a, {inner}, {{{counts}}})"
        if operation.name in ENTRIES:
            return "lib.DriverList", f"lib.driver_list(a, {ENTRIES[operation.name]})"
        if operation.name == "VSZOR_GetMcastFilterStats":
            return ("tuple[ZorMcastStatsHeader, list[bytes]]",
                    'lib.headed(a, ZorMcastStatsHeader, {"count": lib.ADDRESS_SIZES[kind]})')
        return "bytes", f"string_at(a, {self.documented_size(parameter)})"

    def operation(self, operation):
        if operation.name in WRITTEN:
            signature, result, call = WRITTEN[operation.name]
        else:
            signature, result, call = self.derive(operation)
        body = call if result == "None" else f"result: {result} = {call}\n    return result"
        return f'def {operation.name}({signature}) -> {result}:\n    """{operation.brief}"""\n    {body}\n\n\n'

    def derive(self, operation):
        arguments, expressions, results, after = [], [], [], iter(operation.parameters[1:] + [None])
        counted = False
        for parameter in operation.parameters:
            following = next(after)
            if counted or parameter.name == "...":  # a count goes with the array before it
                counted = False
                continue
            if parameter.type == "PropValueBuffer *":
                expressions.append("None")
                results.append("bytes")
                continue
            if parameter.type == "void *" and not operation.returns == "VsStatus":
                annotation, expression = "c_void_p", parameter.name
            elif parameter.direction == "out":
                annotation, expression = self.value_out(parameter, operation)
                results.append(annotation)
                expressions.append(expression)
                continue
            elif parameter.type.endswith("*") and following and re.fullmatch("count|length|.*Count", following.name):
                annotation, expression = self.array_in(parameter)
                expressions.append(expression)
                count = f"len({parameter.name})"
                expression, counted = f'lib.number("{parameter.name}", {ctype(following.type)}, {count})', True
            else:
                annotation, expression = self.value_in(parameter, operation)
            arguments.append(f"{parameter.name}: {annotation}{DEFAULTS.get(parameter.name, '')}")
            expressions.append(expression)
        call = "lib.call" if operation.returns == "VsStatus" else "lib.call_plain"
        if "None" in expressions:
            call = "lib.read_value"
        result = "None" if not results else results[0] if len(results) == 1 else f"tuple[{', '.join(results)}]"
        return ", ".join(arguments), result, f"{call}({', '.join([chr(34) + operation.name + chr(34), *expressions])})"

    def write(self, directory):
        statuses = {n.removeprefix("STATUS_"): v for n,
                    v in self.reference.constants.items() if n.startswith("STATUS_")}
        (directory / "_status.py").write_text(
            NOTICE.format("Status codes.") + "from enum import IntEnum\n\n\nclass Status(IntEnum):\n"
            + '    """What an operation returned."""\n\n'
            + "".join(f"    {name} = {value[0].removesuffix('u')}  # {value[1]}\n" for name, value in statuses.items()))
        constants = [f"{n} = {v.removesuffix('u')}\n" for n, (v, _) in self.reference.constants.items()
                     if re.fullmatch(r'-?\d\w*|".*"', v) and not n.startswith("STATUS_")]
        (directory / "_operations.py").write_text(
            NOTICE.format("The library's constants, records and operations.")
            + "from ctypes import byref, c_char, c_int32, c_uint8, c_uint16, c_uint32, c_uint64, c_void_p, string_at\n"
            + "from typing import Any, Sequence\n\nfrom . import _library as lib\n\n" + "".join(constants) + "\n\n"
            + "".join(self.record_classes()) +
            "".join(self.operation(o) for o in self.reference.operations).rstrip() + "\n")


if __name__ == "__main__":
    Generator(header.read(*sys.argv[1:3])).write(Path(sys.argv[3]))
