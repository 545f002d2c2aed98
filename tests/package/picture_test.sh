#!/bin/sh
# picture_test.sh SOURCE: the picture of the architecture is what its text draws.
dot -Tsvg "$1/docs/architecture.dot" | diff -q - "$1/docs/architecture.svg"
