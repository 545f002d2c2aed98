#!/bin/sh
# examples_test.sh SOURCE BUILD: the example of every operation compiles, in C99 and in C++.
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python3 "$1/tools/example.py" "$2/reference/xml" "$1/include/vswitchctl.h" >"$work/examples.c"
flags="-I$1/include -fsyntax-only -Wall -Wextra -pedantic -Werror -Wno-unused"
gcc -std=c99 $flags -Wno-unused-parameter -Wno-unused-but-set-variable "$work/examples.c"
g++ -std=c++20 -x c++ $flags -Wno-unused-parameter -Wno-unused-but-set-variable "$work/examples.c"
