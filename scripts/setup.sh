#!/usr/bin/env bash
# Installs what building and testing need on a fresh Debian machine: the
# compiler with 32-bit support, CMake, GoogleTest sources, pkg-config, inih
# (both architectures), qemu-user (runs the i386 tests where the kernel
# cannot), the JetStream server and C client for the cross-host bridge,
# CLI11 and nlohmann-json for wmctl, help2man for its manual page,
# dpkg-dev and lintian for the Debian packages, the Prometheus client's parser
# (Python) for the metrics test, Google Benchmark, SQLite and strace
# for the benchmarks, and clang with its runtime (libFuzzer, sanitizers) for fuzzing.
# Does nothing when all is there already. Needs root (or sudo) only when
# something is missing.
set -euo pipefail

pkgs=(g++ g++-multilib cmake make pkg-config googletest libinih-dev libinih-dev:i386 qemu-user
      nats-server libnats-dev
      libcli11-dev nlohmann-json3-dev help2man dpkg-dev lintian python3-prometheus-client
      libbenchmark-dev libsqlite3-dev strace clang libclang-rt-14-dev)

missing=()
for p in "${pkgs[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}" >&2
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: run as root to install: ${missing[*]}" >&2; exit 1; }
  SUDO=sudo
fi
export DEBIAN_FRONTEND=noninteractive
dpkg --print-foreign-architectures | grep -qx i386 || $SUDO dpkg --add-architecture i386
# A mirror in mid-sync can fail one index; the packages above come from the
# main archive, so go on and let the install say whether anything is missing.
$SUDO apt-get update -qq || echo "setup: apt-get update reported errors; trying the install anyway" >&2
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
