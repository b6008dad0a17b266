#!/bin/bash
# Messages queued by one build are read back by the other, both ways.
set -euo pipefail
# own may run through an emulator (emu, "" when native); peer is the
# native build's tool.
peer=$1 emu=$2 own=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir "$tmp/a" "$tmp/b"
"$peer" write "$tmp/a"
$emu "$own" read "$tmp/a"
$emu "$own" write "$tmp/b"
"$peer" read "$tmp/b"
echo "files_cross_build: both directions ok"
