#!/bin/bash
# Messages queued by one build are read back by the other, both ways.
set -euo pipefail
peer=$1 own=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir "$tmp/a" "$tmp/b"
"$peer" write "$tmp/a"
"$own" read "$tmp/a"
"$own" write "$tmp/b"
"$peer" read "$tmp/b"
echo "files_cross_build: both directions ok"
