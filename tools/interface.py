#!/usr/bin/env python3
"""Prints the interface as a C file with debug information worth keeping: operations, records, constants.

usage: interface.py XML_DIRECTORY HEADER
"""

import sys

import header


def main():
    reference = header.read(*sys.argv[1:])
    print("#include <vswitchctl.h>")
    for name in reference.records:
        print(f"__attribute__((used)) static {name} the{name};")
    for name, (value, _) in reference.constants.items():
        if value[:1].isdigit():
            print(f"__attribute__((used)) static enum {name}_ {{ VALUE_{name} = {name} }} the{name};")
    for operation in reference.operations:
        arguments = ", ".join(p.name if p.name == "..." else f"{p.type} {p.name}" for p in operation.parameters)
        body = "" if operation.returns == "void" else "return 0;"
        print(f"{operation.returns} {operation.name}({arguments or 'void'}) {{ {body} }}")


if __name__ == "__main__":
    main()
