#!/bin/sh
# Writes wmctl's manual page (gzipped, as installed) from the tool's own help:
# help2man turns `wmctl --help` and `--version` into the page, and the help
# of every command listed there becomes its COMMANDS section, so the page
# never falls behind the command line. The hand-written sections (files,
# environment, exit codes) come from wmctl.h2m.
# Usage: manpage.sh WMCTL H2M OUT.1.gz [EMULATOR]
# EMULATOR runs the tool where this machine cannot (an i386 build under
# qemu-i386); help2man then runs it through a wrapper of the same name.
set -eu
h2m=$2 out=$3 emu=${4:-}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
wmctl=$1
if [ -n "$emu" ]; then
  printf '#!/bin/sh\nexec %s %s "$@"\n' "$emu" "$1" >"$tmp/wmctl"
  chmod +x "$tmp/wmctl"
  wmctl=$tmp/wmctl
fi

cp "$h2m" "$tmp/include.h2m"
{
  echo "[COMMANDS]"
  for cmd in $("$wmctl" --help | sed -n '/^Subcommands:/,/^$/p' | awk 'NR > 1 && NF { print $1 }'); do
    echo ".SS $cmd"
    echo ".nf"
    # Backslashes and leading dots are roff syntax: quote them.
    "$wmctl" "$cmd" --help | sed -e 's/\\/\\e/g' -e 's/^\./\\\&./'
    echo ".fi"
  done
} >>"$tmp/include.h2m"

help2man --no-info --section=1 --name="operate the work-message queues of this host" \
  --include="$tmp/include.h2m" --output="$tmp/wmctl.1" "$wmctl"
gzip -9n <"$tmp/wmctl.1" >"$out.tmp"
mv "$out.tmp" "$out"
