"""Builds a wheel of the Python module for pip, with what Python itself has and doxygen."""

import base64
import hashlib
import re
import subprocess
import sys
import tempfile
import tomllib
import zipfile
from pathlib import Path

SOURCE = Path(__file__).resolve().parent.parent
WRITTEN = SOURCE / "bindings/python/vswitchctl"
XML_ONLY = "GENERATE_HTML = NO\nWARNINGS = NO\nWARN_AS_ERROR = NO\n"


def version():
    return re.search(r'^__version__ = "(.+)"$', (WRITTEN / "__init__.py").read_text(), re.M)[1]


def generate(directory):
    """Makes the modules that come from the header."""
    settings = (SOURCE / "tools/Doxyfile.in").read_text()
    for name, value in (("PROJECT_VERSION", version()), ("PROJECT_SOURCE_DIR", SOURCE),
                        ("REFERENCE_DIRECTORY", directory)):
        settings = settings.replace(f"@{name}@", str(value))
    subprocess.run(["doxygen", "-"], input=settings + XML_ONLY, text=True, check=True)
    subprocess.run([sys.executable, SOURCE / "tools/python_module.py", directory / "xml",
                    SOURCE / "include/vswitchctl.h", directory], check=True)


def contents(directory):
    """The files of the wheel by their names."""
    about = tomllib.loads((SOURCE / "pyproject.toml").read_text())["project"]
    files = {f"vswitchctl/{path.name}": path.read_bytes()
             for folder in (WRITTEN, directory) for path in sorted([*folder.glob("*.py"), *folder.glob("py.typed")])}
    info = f"vswitchctl-{version()}.dist-info"
    files[f"{info}/METADATA"] = (f"Metadata-Version: 2.1\nName: {about['name']}\nVersion: {version()}\n"
                                 f"Summary: {about['description']}\n"
                                 f"Requires-Python: {about['requires-python']}\n").encode()
    files[f"{info}/WHEEL"] = b"Wheel-Version: 1.0\nGenerator: python_wheel\nRoot-Is-Purelib: true\nTag: py3-none-any\n"
    hashed = lambda data: base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    rows = [f"{name},sha256={hashed(data)},{len(data)}\n" for name, data in files.items()]
    files[f"{info}/RECORD"] = "".join([*rows, f"{info}/RECORD,,\n"]).encode()
    return files


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    name = f"vswitchctl-{version()}-py3-none-any.whl"
    with tempfile.TemporaryDirectory() as directory, zipfile.ZipFile(Path(wheel_directory) / name, "w") as wheel:
        generate(Path(directory))
        for path, data in contents(Path(directory)).items():
            wheel.writestr(path, data)
    return name
