#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the tools need.
# Idempotent; runs apt-get as root (through sudo when not root).
set -euo pipefail
packages=(
  build-essential cmake pkg-config git
  libprotobuf-dev protobuf-compiler
  android-liblog-dev
  libumockdev-dev umockdev
  faketime
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  help2man
  clang libclang-rt-14-dev
  valgrind
  g++-aarch64-linux-gnu g++-arm-linux-gnueabihf qemu-user-static mmdebstrap
  qemu-system-x86 qemu-system-arm busybox-static cpio linux-headers-amd64
  blueprint-tools
  libkissfft-dev libplplot-dev plplot-driver-cairo fonts-dejavu-core
  chromium libpng-dev
)
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${packages[@]}" >/dev/null
