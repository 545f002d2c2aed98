#!/bin/sh
# command_files.sh SOURCE PYTHON VERSION VSHOST VSCTL OUTPUT: files that the commands themselves write: manual
# pages, shell completions, the JSON schemas of a plan and of the output.
set -eu
tools=$1/tools python=$2 version=$3 vshost=$4 vsctl=$5 output=$6 vshostd=${7:-}
completions=$output/vsctl/share
mkdir -p "$output/host/man/man1" "$output/host/man/man5" "$output/vsctl/man/man1" "$output/vsctl/man/man5" \
    "$completions/vswitchctl" "$completions/bash-completion/completions" "$completions/zsh/vendor-completions" \
    "$completions/fish/vendor_completions.d"

"$vsctl" completion bash >"$completions/bash-completion/completions/vsctl"
"$vsctl" completion zsh >"$completions/zsh/vendor-completions/_vsctl"
"$vsctl" completion fish >"$completions/fish/vendor_completions.d/vsctl.fish"
"$vsctl" schema >"$completions/vswitchctl/vsctl-plan.schema.json"
"$vsctl" schema --output >"$completions/vswitchctl/vsctl-output.schema.json"

"$python" "$tools/command_page.py" "$vshost" "$version" "$tools/vshost.roff" "$output/host/man/man1/vshost.1"
"$python" "$tools/vsctl_pages.py" "$vsctl" "$version" "$tools/vsctl.roff" "$output/vsctl/man/man1"
"$python" "$tools/schema_page.py" "$1/platform/scenario/scenario.schema.json" "$version" \
    "$output/host/man/man5/vshost-scenario.5"
"$python" "$tools/schema_page.py" "$completions/vswitchctl/vsctl-plan.schema.json" "$version" \
    "$output/vsctl/man/man5/vsctl-plan.5"
[ -z "$vshostd" ] || {
    mkdir -p "$output/live/man/man8"
    "$python" "$tools/command_page.py" "$vshostd" "$version" "$tools/vshostd.roff" "$output/live/man/man8/vshostd.8"
}
