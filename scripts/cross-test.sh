#!/usr/bin/env bash
# Builds the configurator, its tools and the test suite for a device
# architecture and runs the suite under user-mode emulation:
#
#   scripts/cross-test.sh arm64|armhf
#
# 1. a target sysroot of Debian packages (mmdebstrap, extract only, cached in
#    build-cross/sysroot-<arch>; rebuilt when the package list changes);
# 2. binfmt_misc mounted and qemu's static interpreters registered, so that a
#    target program can start another (the simulated driver starts the
#    configurator, which may start under faketime);
# 3. one cross build (cmake/<triple>.cmake, tests only) and ctest, each target
#    program run through qemu;
# 4. the example tuning set run under the simulated driver on the target and
#    on the host: the request bytes must be equal, and the request codes equal
#    but for the size of a pointer argument;
# 5. the configurator and conversion sources compiled by clang for the target
#    with the platform's module flags (no exceptions, no RTTI).
#
# Needs root for mmdebstrap's device nodes and for binfmt_misc; the packages
# come from scripts/install-deps.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

arch=${1:-}
case "$arch" in
  arm64) triple=aarch64-linux-gnu qemu_arch=aarch64 ;;
  armhf) triple=arm-linux-gnueabihf qemu_arch=arm ;;
  *) echo "usage: $0 arm64|armhf" >&2; exit 2 ;;
esac
jobs=$(nproc)
say() { echo "cross-test[$arch]: $*"; }
fail() { echo "cross-test[$arch]: $*" >&2; exit 1; }

# ---- 1. Sysroot -------------------------------------------------------------------
# What the build links against and what the tests run on the target.
sysroot_packages=(
  libc6-dev libstdc++-12-dev
  libprotobuf-dev android-liblog-dev
  libumockdev-dev umockdev libglib2.0-dev
  libgtest-dev libgmock-dev
  libcli11-dev nlohmann-json3-dev
  faketime
  libkissfft-dev libplplot-dev plplot-driver-cairo libpng-dev fonts-dejavu-core
)
# The main archive of this machine's own apt sources, for the machine's
# release and its updates suite. Only that archive: a mirror of another
# archive (the security one) may not carry the target's indexes.
. /etc/os-release
main_archive=$(apt-get indextargets --format '$(REPO_URI)' "Release: $VERSION_CODENAME" \
  'Identifier: Packages' | head -n1)
[ -n "$main_archive" ] || fail "no apt source serves '$VERSION_CODENAME' (run apt-get update first)"
sources=()
while read -r suite; do
  sources+=("deb ${main_archive%/} $suite main")
done < <(apt-get indextargets --format '$(RELEASE)' "Repo-URI: $main_archive" 'Identifier: Packages' | sort -u)

sysroot=$root/build-cross/sysroot-$arch
stamp="${sysroot_packages[*]} | ${sources[*]}"
if [ "$(cat "$sysroot.stamp" 2>/dev/null)" != "$stamp" ]; then
  say "building the $arch sysroot from ${sources[*]}"
  rm -rf "$sysroot" "$sysroot.stamp"
  mkdir -p "$(dirname "$sysroot")"
  include=$(IFS=,; echo "${sysroot_packages[*]}")
  mmdebstrap --quiet --variant=extract --architectures="$arch" --include="$include" \
    "$VERSION_CODENAME" "$sysroot" "${sources[@]}"
  # qemu looks up a target program's absolute paths in the sysroot first: its
  # /dev (a ptmx with no devpts beside it) would hide the host's.
  rm -rf "$sysroot/dev"
  echo "$stamp" > "$sysroot.stamp"
fi
export QVR_SYSROOT=$sysroot
# A target program started by another one (through binfmt_misc) finds its
# loader and libraries in the sysroot through this.
export QEMU_LD_PREFIX=$sysroot

# ---- 2. binfmt_misc ---------------------------------------------------------------
binfmt=/proc/sys/fs/binfmt_misc
interpreter_conf=/usr/lib/binfmt.d/qemu-$qemu_arch.conf
binfmt_ready() {
  grep -qx enabled "$binfmt/qemu-$qemu_arch" 2>/dev/null &&
    grep -q -- "-static$\|-binfmt-P$" <(grep '^interpreter' "$binfmt/qemu-$qemu_arch")
}
if ! binfmt_ready; then
  if [ ! -e "$binfmt/register" ]; then
    mount -t binfmt_misc binfmt_misc "$binfmt" 2>/dev/null || true
  fi
  if [ -w "$binfmt/register" ] && [ -r "$interpreter_conf" ]; then
    [ -e "$binfmt/qemu-$qemu_arch" ] && echo -1 > "$binfmt/qemu-$qemu_arch"
    cat "$interpreter_conf" > "$binfmt/register" || true
  fi
fi
ctest_filter=()
if binfmt_ready; then
  say "binfmt_misc: $qemu_arch programs start through $(grep '^interpreter' "$binfmt/qemu-$qemu_arch")"
else
  say "binfmt_misc cannot be mounted or registered here: a target program cannot start"
  say "another one, so the tests labelled target_programs and the capture comparison"
  say "are NOT run; every other test is."
  ctest_filter=(-LE target_programs)
fi

# ---- 3. Cross build and test suite -------------------------------------------------
build=$root/build-cross/$arch
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/$triple.cmake" -DQVR_SYSROOT="$sysroot" \
  -DCMAKE_BUILD_TYPE=Release -DQVR_BUILD_BENCHMARKS=OFF -DQVR_BUILD_FUZZERS=OFF
cmake --build "$build" -j"$jobs"
# plplot finds its drawing drivers by listing a folder, which a 32-bit program
# under qemu-arm cannot do on the host's file system (EOVERFLOW from
# getdents): on armhf the plot and report tests list a copy on tmpfs instead.
not_here=()
if [ "$arch" = armhf ]; then
  drivers=$(ls -d "$sysroot"/usr/lib/$triple/plplot*/drivers 2>/dev/null | head -n1)
  if [ -n "$drivers" ] && PLPLOT_DRV_DIR=$(mktemp -d /dev/shm/qvr-plplot.XXXXXX 2>/dev/null); then
    export PLPLOT_DRV_DIR
    trap 'rm -rf "$PLPLOT_DRV_DIR"' EXIT
    cp -r "$drivers"/. "$PLPLOT_DRV_DIR"
  else
    say "plot and report tests (FilterCommandTest, *ReportPage*, OutputTest) NOT run: no tmpfs copy of plplot's drivers"
    not_here=(-E 'FilterCommandTest|ReportPage|OutputTest')
  fi
fi
ctest --test-dir "$build" --output-on-failure -j"$jobs" "${ctest_filter[@]}" "${not_here[@]}"

# ---- 4. The example set on the target and on the host ------------------------------
# The host's build (scripts/test.sh makes it first): only what the run needs
# is brought up to date.
host=$root/build
capture_run() {  # build dir, capture dir, log file
  rm -rf "$2"
  "$1/tools/korva-driver-sim/korva-driver-sim" --capture "$2" -- \
    "$1/configurator/qvr_configurator" "$1/examples/tuning" 2> "$3"
}
if [ ${#ctest_filter[@]} -eq 0 ]; then
  [ -f "$host/CMakeCache.txt" ] || cmake -S . -B "$host" -DCMAKE_BUILD_TYPE=RelWithDebInfo
  cmake --build "$host" -j"$jobs" --target qvr_configurator korva-driver-sim examples
  compare=$build/compare
  mkdir -p "$compare"
  capture_run "$build" "$compare/target" "$compare/target.log"
  capture_run "$host" "$compare/host" "$compare/host.log"

  target_bits=$(sed -n 's/.*running qvr_configurator (\([0-9]*\) bit).*/\1/p' "$compare/target.log")
  expected_bits=$([ "$arch" = armhf ] && echo 32 || echo 64)
  [ "$target_bits" = "$expected_bits" ] || fail "banner says '$target_bits bit', expected $expected_bits"
  grep -q 'Success setting parameters\.' "$compare/target.log" || fail "the example set did not load on $arch"

  # Request by request: same name, same argument bytes; the code differs from
  # the host's only in its size field, which is the target's pointer size for
  # the pointer requests (the cache size request takes an int).
  fields() { sed -E 's/.*"request":"([A-Z_]+)","code":([0-9]+).*"arg":"([^"]+)".*/\1 \2 \3/' "$1/requests.jsonl"; }
  mapfile -t target_requests < <(fields "$compare/target")
  mapfile -t host_requests < <(fields "$compare/host")
  [ ${#target_requests[@]} -gt 0 ] || fail "the target run sent no request"
  [ ${#target_requests[@]} -eq ${#host_requests[@]} ] ||
    fail "${#target_requests[@]} requests on $arch, ${#host_requests[@]} on the host"
  pointer_bytes=$((expected_bits / 8))
  size_field=$((0x3FFF << 16))
  declare -A codes_seen=()
  for i in "${!target_requests[@]}"; do
    read -r t_name t_code t_arg <<< "${target_requests[$i]}"
    read -r h_name h_code h_arg <<< "${host_requests[$i]}"
    [ "$t_name" = "$h_name" ] || fail "request $((i + 1)): $t_name on $arch, $h_name on the host"
    cmp -s "$compare/target/$t_arg" "$compare/host/$h_arg" ||
      fail "request $((i + 1)) ($t_name): argument bytes differ from the host's"
    if [ "$t_name" = SET_CACHE_SIZE ]; then want=$h_code
    else want=$(( (h_code & ~size_field & 0xFFFFFFFF) | (pointer_bytes << 16) )); fi
    [ "$t_code" -eq "$want" ] ||
      fail "request $((i + 1)) ($t_name): code $(printf 0x%08X "$t_code"), expected $(printf 0x%08X "$want")"
    printf -v line '%-19s %s' "$t_name" "$(printf 0x%08X "$t_code")"
    codes_seen["$line"]=1
  done
  say "example set: ${#target_requests[@]} requests, argument bytes equal to the host's; banner ($target_bits bit); codes:"
  printf '  %s\n' "${!codes_seen[@]}" | sort
fi

# ---- 5. Platform module flags -----------------------------------------------------
# The device build compiles these sources with clang, without exceptions or
# RTTI, and with protobuf's no-RTTI switch for modules with .proto sources.
platform_flags=(--target="$triple" --sysroot="$sysroot" -std=c++17 -Wall -Wextra -Werror
  -fno-exceptions -fno-rtti -DGOOGLE_PROTOBUF_NO_RTTI
  -I"$root" -isystem "$build/proto/cpp" -isystem "$sysroot/usr/include/android")
platform_sources=(configurator/*.cpp qvrcs/*.cpp "$build"/proto/cpp/*.pb.cc examples/gen/coefgen.cpp)
say "clang ${platform_flags[*]:3:6} on ${#platform_sources[@]} sources"
printf '%s\n' "${platform_sources[@]}" |
  xargs -P "$jobs" -I{} clang++ "${platform_flags[@]}" -fsyntax-only {}
say "done"
