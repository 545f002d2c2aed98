"""The library's binary interface: what it needs, and a header that compiles as C99 and as C++ without a warning."""
import re
import subprocess
import sys

library, header = sys.argv[1:]
NEEDED = {'liborkPublic.so', 'libc.so.6'}
# Only sanitizer builds need a sanitizer's libraries.
SANITIZER = re.compile(r'lib(asan|ubsan|tsan|gcc_s|stdc\+\+|m)\.so')

dynamic = subprocess.run(['readelf', '-dW', library], check=True, capture_output=True, text=True).stdout
needed = set(re.findall(r'\(NEEDED\).*\[(.*)\]', dynamic))
if any(SANITIZER.match(name) and ('asan' in name or 'tsan' in name) for name in needed):
    needed = {name for name in needed if not SANITIZER.match(name)}
if needed != NEEDED:
    sys.exit(f'{library} needs {sorted(needed)} instead of {sorted(NEEDED)}')
if '[libvswitchctl.so.1]' not in dynamic:
    sys.exit(f'{library} has a SONAME other than libvswitchctl.so.1')

for compiler in (['cc', '-std=c99', '-xc'], ['c++', '-std=c++11', '-xc++'], ['c++', '-std=c++20', '-xc++']):
    subprocess.run(compiler + ['-Wall', '-Wextra', '-pedantic', '-Werror', '-fsyntax-only', header], check=True)
