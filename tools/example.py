#!/usr/bin/env python3
"""The example of an operation: the header's own, or its call with every argument declared.

usage: example.py XML_DIRECTORY HEADER: prints all of them as one C file, which must compile
"""

import re
import sys

import header

INTEGER = re.compile(r"(const )?u?int\d+_t$")


def size_of(parameter):
    match = re.search(r"\b([A-Z_]+_SIZE)\b", "".join(parameter.text.itertext()))
    return match.group(1) if match else ""


def declare(parameter):
    """(declaration, argument) of one argument; texts are taken to be at hand under their own names."""
    kind, name = parameter.type, parameter.name
    inner = re.sub(r"^const | ?\*+$", "", kind)
    if kind == "const char *" or name == "...":
        return "", "" if name == "..." else name
    if INTEGER.match(kind):
        return f"{inner} {name} = 0;", name
    if kind.endswith("**"):
        return f"{inner} *{name} = NULL;", f"&{name}"
    if inner in ("void", "char"):
        return f"{'char' if inner == 'char' else 'uint8_t'} {name}[{size_of(parameter) or 256}] = {{0}};", name
    return f"{inner} {name}{' = 0' if INTEGER.match(inner) else ''};", f"&{name}"


def of(operation):
    if operation.example:
        return operation.example
    pairs = [declare(parameter) for parameter in operation.parameters]
    lines = [declaration for declaration, _ in pairs if declaration]
    lines += [f"memset({argument}, 0, sizeof({argument[1:]}));" for declaration, argument in pairs
              if argument.startswith("&") and declaration.endswith(argument[1:] + ";")]
    call = f"{operation.name}({', '.join(argument for _, argument in pairs if argument)});"
    lines.append(call if operation.returns == "void" else f"{operation.returns} status = {call}")
    owned = [p.name for p in operation.parameters if p.type.endswith("**")]
    release = "VSZOR_FreeMemory" if operation.name.startswith("VSZOR") else "VSDVS_FreeMemory"
    if owned:
        lines.append("if (status == STATUS_OK) {")
        lines += [f"    {release}({name});" for name in owned] + ["}"]
    return "\n".join(lines)


def main():
    reference = header.read(*sys.argv[1:])
    names = dict.fromkeys(p.name for o in reference.operations for p in o.parameters if p.type == "const char *")
    texts = ", ".join(f"const char *{name}" for name in names)
    print("#include <stdio.h>\n#include <stdlib.h>\n#include <string.h>\n#include <vswitchctl.h>\n")
    for operation in reference.operations:
        function = f"void Example{operation.name}({texts})"
        print(f"{function};\n{function}\n{{{{\n{of(operation)}\n}}}}\n")


if __name__ == "__main__":
    main()
