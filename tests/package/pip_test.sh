#!/bin/sh -e
# `pip install .` without a network gives the module that the build makes. Usage: pip_test.sh SOURCE_DIRECTORY MODULE
site=$(mktemp -d)
trap 'rm -rf "$site"' EXIT
PIP_NO_INDEX=1 PIP_DISABLE_PIP_VERSION_CHECK=1 PIP_ROOT_USER_ACTION=ignore python3 -m pip install --quiet --target "$site" "$1"
diff -r -x __pycache__ -x made "$2/vswitchctl" "$site/vswitchctl"
cd "$site"
python3 -c 'import importlib.metadata, vswitchctl; assert importlib.metadata.version("vswitchctl") == vswitchctl.__version__'
