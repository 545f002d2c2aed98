"""Reads the header's documentation from Doxygen's XML: operations, records, constants, conventions."""

import re
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, field
from pathlib import Path


def plain(node):
    """Text of an element in one line."""
    return " ".join("".join(node.itertext()).split()) if node is not None else ""


@dataclass
class Parameter:
    type: str
    name: str
    direction: str = ""
    text: ElementTree.Element = None


@dataclass
class Operation:
    name: str
    returns: str
    parameters: list
    brief: str
    family: str = ""
    details: list = field(default_factory=list)
    statuses: list = field(default_factory=list)  # (name, element)
    example: str = ""
    mentions: list = field(default_factory=list)


@dataclass
class Record:
    name: str
    brief: str
    fields: list  # (type, name, array size or "", text)


@dataclass
class Header:
    about: list
    families: dict = field(default_factory=dict)  # title -> operations
    records: dict = field(default_factory=dict)
    constants: dict = field(default_factory=dict)  # name -> (value, text)

    @property
    def operations(self):
        return [operation for family in self.families.values() for operation in family]


def listing(node):
    lines = ["".join(t if t else "" for t in code_text(line)) for line in node.iter("codeline")]
    return "\n".join(line.rstrip() for line in lines)


def code_text(node):
    yield node.text or ""
    for child in node:
        yield from ([" "] if child.tag == "sp" else code_text(child))
        yield child.tail or ""


def read_operation(member):
    operation = Operation(member.find("name").text, plain(member.find("type")), [],
                          plain(member.find("briefdescription")))
    for param in member.findall("param"):
        kind = plain(param.find("type"))
        if kind != "void":
            operation.parameters.append(Parameter(kind, plain(param.find("declname")) or "..."))
    details = member.find("detaileddescription")
    operation.mentions = [plain(ref).removesuffix("()") for ref in member.iter("ref") if ref.get("kindref") == "member"]
    for item in details.iter("parameteritem"):
        name, text = item.find(".//parametername"), item.find("parameterdescription")
        for parameter in operation.parameters:
            if parameter.name == plain(name):
                parameter.direction, parameter.text = name.get("direction", ""), text
    for kind in details.findall(".//parameterlist[@kind='retval']/parameteritem"):
        operation.statuses.append((plain(kind.find(".//parametername")), kind.find("parameterdescription")))
    for section in details.iter("simplesect"):
        if section.get("kind") == "return":
            operation.statuses.append(("", section))
        elif plain(section.find("title")) == "Example":
            operation.example = listing(section)
    for para in details.findall("para"):
        for extra in para.findall("parameterlist") + para.findall("simplesect"):
            para.remove(extra)
        if plain(para):
            operation.details.append(para)
    return operation


def read_record(path):
    compound = ElementTree.parse(path).getroot().find("compounddef")
    name = compound.find("compoundname").text
    fields = [(plain(member.find("type")), member.find("name").text, (member.findtext("argsstring") or "").strip("[]"),
               plain(member.find("briefdescription"))) for member in compound.iter("memberdef")]
    return Record(name, plain(compound.find("briefdescription")), fields)


def read(xml_directory, header_path):
    xml, source = Path(xml_directory), Path(header_path).read_text()
    file = ElementTree.parse(xml / "vswitchctl_8h.xml").getroot().find("compounddef")
    about = ElementTree.parse(xml / "indexpage.xml").getroot().find("compounddef")
    header = Header(about.findall("detaileddescription/para"))
    for inner in file.findall("innerclass"):
        record = read_record(xml / (inner.get("refid") + ".xml"))
        header.records[record.name] = record
    members = {member.get("id"): member for path in xml.glob("group__*.xml")
               for member in ElementTree.parse(path).getroot().iter("memberdef")}
    for title in re.findall(r"^/\* ==== (.*?) =+ \*/$", source, re.M):
        group = "group__" + re.sub(r"[^a-z0-9]+", "_", title.lower()).replace("_", "__") + ".xml"
        family = header.families.setdefault(title, [])
        for member in ElementTree.parse(xml / group).getroot().iter("memberdef"):
            if member.get("kind") == "function":
                family.append(read_operation(member))
                family[-1].family = title
            elif member.get("kind") == "define":
                header.constants[member.findtext("name")] = (plain(member.find("initializer")),
                                                             plain(member.find("briefdescription")))
    return header
