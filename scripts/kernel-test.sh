#!/usr/bin/env bash
# Runs the configurator against the reference driver (driver/) in a virtual
# machine with Debian's own kernel, and checks the outcome on the host:
#
#   scripts/kernel-test.sh x86_64|arm64
#
# 1. the kernel: the version Debian's linux-image-<arch> points at today
#    (looked up at run time: the archives retire old versions), its image
#    taken with apt-get download and unpacked here (never installed), and
#    the matching headers (amd64: the package installed by
#    scripts/install-deps.sh; arm64: unpacked here and built with the host's
#    kbuild tools and the aarch64 cross compiler);
# 2. the module built against them (from a copy in build-kernel/);
# 3. the reference runs: each case's program run on the host under the
#    simulated driver (korva-driver-sim), its log, requests and cache kept;
# 4. an initramfs: busybox, the module, the configurator builds with their
#    shared libraries (the host's from build/, the arm64 and armhf ones from
#    build-cross/<arch> and build-cross/sysroot-<arch>, as
#    scripts/cross-test.sh leaves them), the example set as /vendor/etc/qvr,
#    users system and audio, and a small uevent handler that creates the node
#    with the owner and mode of android/ueventd.rc, as ueventd does;
# 5. one boot under qemu (TCG; x86_64, or aarch64 on -M virt -cpu cortex-a57)
#    that runs every case in turn, the configurator as user audio, the module
#    reloaded with each case's parameters; results come back on the serial
#    console;
# 6. each case checked against its reference run.
#
# Cases (x86_64: the first four with the x86-64 build; arm64: the arm64 build,
# then the armhf build through the driver's compat_ioctl):
#   load      the example set loads; log equal to the simulator's line for
#             line (but for times, pids and the handle); the cache equal to the
#             simulator's block for block; the request codes as received
#   late      the node registered 2.5 s after the module loads: the open loop
#             waits (errno 2), then everything loads as in 'load'
#   denied    the node is root's, mode 0600: errno 13 on the first pass (the
#             run is stopped after a second; the whole loop is covered on the
#             host under faketime)
#   refused   the third upload (slot 2) refused by the driver: that slot logs
#             -2, the others load, the cache holds the other five
#   nocompat  (armhf only) the module without compat_ioctl: the kernel refuses
#             every request of the 32-bit program with ENOTTY before the driver
#             sees it; the log is the simulator's with each request answered
#             ENOTTY
#
# Downloads and builds are cached in build-kernel/. Needs the packages of
# scripts/install-deps.sh; as root (a device node in the initramfs, the
# headers package when the kernel moved on).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

arch=${1:-}
case "$arch" in
  x86_64) deb_arch=amd64 ;;
  arm64) deb_arch=arm64 ;;
  *) echo "usage: $0 x86_64|arm64" >&2; exit 2 ;;
esac
say() { echo "kernel-test[$arch]: $*"; }
fail() { echo "kernel-test[$arch]: FAIL: $*" >&2; exit 1; }
started=$SECONDS

work=$root/build-kernel/$arch
mkdir -p "$work"

# ---- 1. Kernel image and headers -----------------------------------------------
# amd64 packages come through the host's own apt; arm64 ones through a private
# apt state of this machine's sources for that architecture (the host's dpkg
# is left as it is).
apt_opts=()
if [ "$deb_arch" != "$(dpkg --print-architecture)" ]; then
  state=$root/build-kernel/apt-$deb_arch
  mkdir -p "$state/lists/partial" "$state/cache/archives/partial"
  touch "$state/status"
  apt_opts=(-o "Dir::State::Lists=$state/lists" -o "Dir::Cache=$state/cache"
    -o "Dir::State::status=$state/status" -o "APT::Architecture=$deb_arch"
    -o "APT::Architectures::=$deb_arch" -o "Acquire::Languages=none")
  apt-get "${apt_opts[@]}" update -qq
fi
image_pkg=$(apt-cache "${apt_opts[@]}" depends "linux-image-$deb_arch" | sed -n 's/^ *Depends: \(linux-image-[0-9].*\)$/\1/p' | head -n1)
[ -n "$image_pkg" ] || fail "apt knows no linux-image-$deb_arch (apt-get update?)"
kversion=$(apt-cache "${apt_opts[@]}" policy "linux-image-$deb_arch" | sed -n 's/^ *Candidate: //p')
release=${image_pkg#linux-image-}                      # 6.1.0-56-amd64
say "kernel $release ($kversion)"

download() {  # package... -> their .deb files in $work/debs (kept)
  mkdir -p "$work/debs"
  local missing=()
  for p in "$@"; do
    compgen -G "$work/debs/${p}_*.deb" > /dev/null || missing+=("$p")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    (cd "$work/debs" && apt-get "${apt_opts[@]}" download "${missing[@]}" 2>&1 | grep -v unsandboxed || true)
  fi
  for p in "$@"; do
    compgen -G "$work/debs/${p}_*.deb" > /dev/null || fail "could not download $p"
  done
}

kernel=$work/vmlinuz-$release
if [ ! -f "$kernel" ]; then
  download "$image_pkg"
  rm -rf "$work/image" && mkdir -p "$work/image"
  dpkg-deb --fsys-tarfile "$work"/debs/"$image_pkg"_*.deb | tar -C "$work/image" -x --wildcards './boot/vmlinuz-*'
  mv "$work/image/boot/vmlinuz-$release" "$kernel"
  rm -rf "$work/image"
fi

kbuild_pkg=linux-kbuild-${release%%.*}.$(echo "$release" | cut -d. -f2)   # linux-kbuild-6.1
if [ "$deb_arch" = "$(dpkg --print-architecture)" ]; then
  kdir=/usr/src/linux-headers-$release
  if [ ! -f "$kdir/Makefile" ]; then
    say "installing linux-headers-$release"
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "linux-headers-$release" > /dev/null
  fi
  make_opts=()
else
  # The target's headers with the host's kbuild tools (the same kernel
  # version): their Makefile and links point at /usr/src and /usr/lib, which
  # are redirected to the copies here and to the host's linux-kbuild.
  common=${release%-*}-common
  headers=$work/headers
  kdir=$headers/usr/src/linux-headers-$release
  [ -d "/usr/lib/$kbuild_pkg/scripts" ] || fail "$kbuild_pkg is not installed (scripts/install-deps.sh)"
  host_kbuild=$(dpkg-query -W -f '${Version}' "$kbuild_pkg")
  [ "$host_kbuild" = "$kversion" ] ||
    fail "the host's $kbuild_pkg is $host_kbuild, the $arch kernel $kversion: run scripts/install-deps.sh"
  if [ ! -f "$kdir/.config" ]; then
    download "linux-headers-$release" "linux-headers-$common"
    rm -rf "$headers" && mkdir -p "$headers"
    for p in "linux-headers-$release" "linux-headers-$common"; do
      dpkg-deb -x "$work"/debs/"$p"_*.deb "$headers"
    done
    for d in "$kdir" "$headers/usr/src/linux-headers-$common"; do
      ln -sfn "/usr/lib/$kbuild_pkg/scripts" "$d/scripts"
      ln -sfn "/usr/lib/$kbuild_pkg/tools" "$d/tools"
    done
    echo "include $headers/usr/src/linux-headers-$common/Makefile" > "$kdir/Makefile"
  fi
  make_opts=(ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu-)
fi

# ---- 2. The module -----------------------------------------------------------------
# Built from a copy (kbuild writes beside the sources), laid out as in the
# tree so that driver/Kbuild finds the interface header.
src=$work/module
rm -rf "$src" && mkdir -p "$src/driver" "$src/configurator"
cp driver/qvr_korva.c driver/Kbuild driver/Makefile "$src/driver/"
cp -r configurator/uapi "$src/configurator/"
make -s -C "$kdir" M="$src/driver" "${make_opts[@]}" modules 2>&1 | grep -v 'Skipping BTF' || true
module=$src/driver/qvr_korva.ko
[ -f "$module" ] || fail "the module did not build"
say "module built against $kdir"

# ---- 3. Programs and reference runs ----------------------------------------------
host=$root/build
[ -f "$host/CMakeCache.txt" ] || cmake -S . -B "$host" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$host" -j"$(nproc)" --target qvr_configurator korva-driver-sim examples > /dev/null
sim=$host/tools/korva-driver-sim/korva-driver-sim
tuning=$host/examples/tuning

# Programs in the machine: name, build dir, sysroot, target triple.
case "$arch" in
  x86_64) programs=("x86_64 $host / x86_64-linux-gnu") ;;
  arm64)
    programs=()
    for p in "arm64 aarch64-linux-gnu" "armhf arm-linux-gnueabihf"; do
      read -r name triple <<< "$p"
      [ -x "$root/build-cross/$name/configurator/qvr_configurator" ] && [ -d "$root/build-cross/sysroot-$name" ] ||
        fail "no $name build: run scripts/cross-test.sh $name first"
      programs+=("$name $root/build-cross/$name $root/build-cross/sysroot-$name $triple")
    done ;;
esac

# The cases: name, program, how the node is handled, module parameters.
cases=()
case "$arch" in
  x86_64) cases=("load x86_64 ready" "late x86_64 late register_delay_ms=2500" "denied x86_64 denied"
            "refused x86_64 ready refuse_request=SET_PARAM refuse_occurrence=3") ;;
  arm64) cases=("load arm64 ready" "load armhf ready" "late armhf late register_delay_ms=2500"
            "denied armhf denied" "refused arm64 ready refuse_request=SET_PARAM refuse_occurrence=3"
            "nocompat armhf ready no_compat=1") ;;
esac

# What the module answers to the queries: the defaults in its source.
param_default() { sed -n "s/^static char \*$1 = \"\(.*\)\";$/\1/p" driver/qvr_korva.c; }
dsp_version=$(param_default dsp_version)
dsp_description=$(param_default dsp_description)
[ -n "$dsp_version" ] && [ -n "$dsp_description" ] || fail "no default version or description in driver/qvr_korva.c"

# The simulator's run of each kind of case, with only the software node as in
# the machine: log, requests and the final cache.
ref=$work/reference
rm -rf "$ref" && mkdir -p "$ref"
# The log file holds the configurator's log only: a run that sets up no cache
# (nocompat) is given no --dump-cache, which would say so in it.
reference_run() {  # kind, simulator options...
  local kind=$1; shift
  "$sim" --nodes sw --dsp-version "$dsp_version" --dsp-description "$dsp_description" \
    --capture "$ref/$kind.capture" "$@" -- \
    "$host/configurator/qvr_configurator" "$tuning" 2> "$ref/$kind.log" || true
}
reference_run load --dump-cache "$ref/load.cache"
reference_run refused --dump-cache "$ref/refused.cache" --answer 'SET_PARAM#3=-5'
reference_run nocompat --answer SET_CACHE_SIZE=-25 --answer GET_PARAM=-25 --answer SET_VOLUME_CONTROLS=-25
grep -q 'Success setting parameters\.' "$ref/load.log" || fail "the example set does not load under the simulator"
slots=$(grep -c 'load_one_qvrcs_set() : ' "$ref/load.log")
block_size=$(( $(stat -c %s "$ref/load.cache") / slots ))

# ---- 4. initramfs --------------------------------------------------------------------
stage=$work/initramfs
rm -rf "$stage" && mkdir -p "$stage"/{bin,dev,etc,lib,proc,sys,tmp,vendor/bin,vendor/etc}
chmod 1777 "$stage/tmp"
if [ "$arch" = x86_64 ]; then
  cp /bin/busybox "$stage/bin/busybox"
else
  download busybox-static
  dpkg-deb --fsys-tarfile "$work"/debs/busybox-static_*.deb | tar -xO ./bin/busybox > "$stage/bin/busybox"
  chmod 755 "$stage/bin/busybox"
fi
ln -s busybox "$stage/bin/sh"
mknod -m 600 "$stage/dev/console" c 5 1
cp "$module" "$stage/lib/"
cp -r "$tuning" "$stage/vendor/etc/qvr"
# Android's ids: system 1000, audio 1005.
cat > "$stage/etc/passwd" <<'EOF'
root:x:0:0:root:/:/bin/sh
system:x:1000:1000:system:/:/bin/sh
audio:x:1005:1005:audio:/:/bin/sh
EOF
printf 'root:x:0:\nsystem:x:1000:\naudio:x:1005:\n' > "$stage/etc/group"
grep -v '^#' android/ueventd.rc | grep . > "$stage/etc/ueventd.rc"

# A file inside a sysroot, symbolic links followed within it.
in_root() {  # root, path
  local r=$1 p=$2 t n=0
  while [ -L "$r$p" ] && [ $n -lt 20 ]; do
    t=$(readlink "$r$p")
    case "$t" in /*) p=$t ;; *) p=$(dirname "$p")/$t ;; esac
    n=$((n + 1))
  done
  echo "$r$p"
}
# The program and every library it needs, from its sysroot: the loader at its
# own path, the libraries in /usr/lib/<triple> (the loader's default).
install_program() {  # name, build dir, sysroot, triple
  local name=$1 build=$2 sysroot=${3%/} triple=$4
  mkdir -p "$stage/vendor/bin/$name" "$stage/usr/lib/$triple"
  cp "$build/configurator/qvr_configurator" "$stage/vendor/bin/$name/"
  local cc=$triple-gcc
  [ "$triple" = "$(gcc -dumpmachine)" ] && cc=gcc
  $cc -std=c11 -Wall -Wextra -Werror -O2 -static -Iconfigurator/uapi driver/qvr_korva_probe.c \
    -o "$stage/vendor/bin/$name/qvr_korva_probe"
  local interp
  interp=$(readelf -l "$build/configurator/qvr_configurator" | sed -n 's/.*interpreter: \(.*\)]/\1/p')
  mkdir -p "$stage$(dirname "$interp")"
  cp "$(in_root "$sysroot" "$interp")" "$stage$interp"
  local todo=("$build/configurator/qvr_configurator") done=" " file lib dir found
  while [ ${#todo[@]} -gt 0 ]; do
    file=${todo[0]}; todo=("${todo[@]:1}")
    for lib in $(readelf -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
      case "$done" in *" $lib "*) continue ;; esac
      done+="$lib "
      found=
      for dir in "/usr/lib/$triple" "/lib/$triple" "/usr/lib/$triple/android" /usr/lib /lib; do
        if [ -e "$sysroot$dir/$lib" ]; then found=$(in_root "$sysroot" "$dir/$lib"); break; fi
      done
      [ -n "$found" ] || fail "$name: $lib not found in $sysroot"
      cp "$found" "$stage/usr/lib/$triple/$lib"
      todo+=("$found")
    done
  done
}
for p in "${programs[@]}"; do install_program $p; done

# The uevent handler: the node made aside with the owner and mode of the
# ueventd.rc line, then moved into place, so that it never exists with other
# permissions (ueventd creates it with them from the start).
cat > "$stage/bin/ueventd" <<'EOF'
#!/bin/sh
[ "$DEVNAME" ] || exit 0
line=$(grep "^/dev/$DEVNAME " /etc/ueventd.rc) || exit 0
set -- $line
uid=$(grep "^$3:" /etc/passwd | cut -d: -f3)
gid=$(grep "^$4:" /etc/group | cut -d: -f3)
case "$ACTION" in
  add) mknod "/dev/.$DEVNAME" c "$MAJOR" "$MINOR" && chown "$uid:$gid" "/dev/.$DEVNAME" &&
         chmod "$2" "/dev/.$DEVNAME" && mv "/dev/.$DEVNAME" "/dev/$DEVNAME" ;;
  remove) rm -f "/dev/$DEVNAME" ;;
esac
EOF
printf '%s\n' "${cases[@]}" > "$stage/etc/cases"
cat > "$stage/init" <<EOF
#!/bin/sh
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t debugfs debugfs /sys/kernel/debug
mknod -m 666 /dev/null c 1 3
uevent /bin/ueventd &
usleep 200000
echo "@@@ boot \$(cut -d' ' -f1 /proc/uptime)"
node=/dev/qvr_korva
debug=/sys/kernel/debug/qvr_korva
wait_for() {  # test expression: up to 10 s
  n=0; while ! test "\$@" && [ \$n -lt 200 ]; do usleep 50000; n=\$((n + 1)); done
}
while read -r name program mode params; do
  echo "@@@ case \$name \$program"
  dmesg -c > /dev/null
  insmod /lib/qvr_korva.ko \$params || echo "@@@ insmod failed"
  [ "\$mode" = late ] || wait_for -e \$node
  run="/vendor/bin/\$program/qvr_configurator /vendor/etc/qvr"
  if [ "\$mode" = denied ]; then
    chown 0:0 \$node; chmod 0600 \$node
    run="timeout 1 \$run"
  fi
  t0=\$(cut -d' ' -f1 /proc/uptime)
  su audio -s /bin/sh -c "\$run" > /tmp/log 2>&1
  echo "@@@ status \$?"
  echo "@@@ seconds \$t0 \$(cut -d' ' -f1 /proc/uptime)"
  sed 's/^/@@@ log /' /tmp/log
  echo "@@@ node \$(stat -c '%a %U:%G' \$node)"
  echo "@@@ volume \$(cat \$debug/volume)"
  echo "@@@ requests \$(cat \$debug/requests)"
  echo "@@@ cache \$(wc -c < \$debug/cache) \$(sha256sum < \$debug/cache | cut -d' ' -f1)"
  i=0; while [ \$i -lt $slots ]; do
    echo "@@@ block \$i \$(dd if=\$debug/cache bs=$block_size skip=\$i count=1 2>/dev/null | sha256sum | cut -d' ' -f1)"
    i=\$((i + 1))
  done
  dmesg | grep 'qvr_korva: ' | sed 's/^[^]]*] /@@@ kmsg /'
  echo "@@@ probe \$(su audio -s /bin/sh -c /vendor/bin/\$program/qvr_korva_probe)"
  rmmod qvr_korva
  wait_for ! -e \$node
done < /etc/cases
echo "@@@ done \$(cut -d' ' -f1 /proc/uptime)"
poweroff -f
EOF
chmod 755 "$stage/init" "$stage/bin/ueventd"
(cd "$stage" && find . | LC_ALL=C sort | cpio -o -H newc --quiet) > "$work/initramfs.cpio"

# ---- 5. Boot ----------------------------------------------------------------------
case "$arch" in
  x86_64) qemu=(qemu-system-x86_64 -M q35 -cpu max -append "console=ttyS0 loglevel=1 panic=-1") ;;
  arm64) qemu=(qemu-system-aarch64 -M virt -cpu cortex-a57 -append "console=ttyAMA0 loglevel=1 panic=-1") ;;
esac
console=$work/console.log
say "booting (${#cases[@]} cases)"
boot_start=$SECONDS
timeout 300 "${qemu[@]}" -accel tcg -smp 1 -m 768 -nographic -no-reboot -monitor none \
  -kernel "$kernel" -initrd "$work/initramfs.cpio" -serial "file:$console" > /dev/null 2>&1 || true
vm_seconds=$((SECONDS - boot_start))
tr -d '\r' < "$console" > "$console.txt"
grep -q '^@@@ done' "$console.txt" || { tail -n 40 "$console.txt" >&2; fail "the machine did not finish its cases (console: $console)"; }
boot_at=$(sed -n 's/.*@@@ boot //p' "$console.txt")
say "machine: ${vm_seconds} s on the host, cases began ${boot_at} s after the kernel started"

# ---- 6. Checks ----------------------------------------------------------------------
# A log without times, pids and the driver handle, with the host's path of the
# example set written as the machine's.
normalise() {
  sed -E -e 's/^(QVR_KORVA \(qvr_configurator\) [A-Z]) [0-9]{2}-[0-9]{2} [0-9:]{8} +[0-9]+ +[0-9]+ /\1 /' \
    -e 's/(Korva driver handle |g_fd = )[0-9]+/\1H/' -e "s#$tuning#/vendor/etc/qvr#g"
}
section() {  # case number (from 1) -> its lines, without the "@@@ " mark
  awk -v n="$1" '/^@@@ case /{c++} c==n && /^@@@ /{sub(/^@@@ /, ""); print}' "$console.txt"
}
failures=0
check() {  # condition text, then the test
  local what=$1; shift
  if "$@"; then return 0; fi
  echo "kernel-test[$arch]: $label: FAIL: $what" >&2
  failures=$((failures + 1))
}
same_log() {  # expected file, actual file
  if ! diff -u "$1" "$2" > "$work/diff.txt"; then head -n 30 "$work/diff.txt" >&2; return 1; fi
}
same_cache() {  # reference kind, case lines file
  local cache=$ref/$1.cache want got i
  want="cache $(stat -c %s "$cache") $(sha256sum < "$cache" | cut -d' ' -f1)"
  got=$(grep '^cache ' "$2")
  [ "$want" = "$got" ] && return 0
  for ((i = 0; i < slots; i++)); do
    want=$(dd if="$cache" bs="$block_size" skip="$i" count=1 2>/dev/null | sha256sum | cut -d' ' -f1)
    grep -qx "block $i $want" "$2" || echo "  block $i differs from the simulator's" >&2
  done
  return 1
}
# The codes the module logged against the simulator's requests: the same
# requests in the same order; a 32-bit program's pointer requests with a
# 4-byte size field, each through compat_ioctl.
same_codes() {  # reference kind, case lines file, pointer bytes
  local want got
  want=$(sed -E 's/.*"code":([0-9]+).*/\1/' "$ref/$1.capture/requests.jsonl" | while read -r c; do
    if [ "$c" -ne $((0x4004F201)) ]; then c=$(( (c & ~(0x3FFF << 16) & 0xFFFFFFFF) | ($3 << 16) )); fi
    printf '0x%08X\n' "$c"; done)
  got=$(sed -n 's/^kmsg qvr_korva: request \(0x[0-9A-F]*\) .*/\1/p' "$2")
  [ "$want" = "$got" ] || { diff <(echo "$want") <(echo "$got") | head >&2; return 1; }
  if [ "$3" = 4 ]; then
    [ "$(grep -c '^kmsg qvr_korva: compat request' "$2")" -eq "$(echo "$want" | wc -l)" ] || return 1
  fi
}

n=0
for c in "${cases[@]}"; do
  n=$((n + 1))
  read -r kind program _ <<< "$c"
  label="$kind/$program"
  lines=$work/case-$n.txt
  section "$n" > "$lines"
  sed -n 's/^log //p' "$lines" | normalise > "$work/case-$n.log"
  log=$work/case-$n.log
  bits=64; [ "$program" = armhf ] && bits=32
  # The reference log as this program's word size prints it.
  expect() { normalise < "$ref/$1.log" | sed "s/(64 bit)/($bits bit)/"; }
  status=$(sed -n 's/^status //p' "$lines")
  read -r t0 t1 <<< "$(sed -n 's/^seconds //p' "$lines")"
  if [ "$kind" = denied ]; then node='600 root:root'; else node='660 system:audio'; fi
  check "node $node" grep -qx "node $node" "$lines"
  case "$kind" in
    load | refused)
      ref_kind=$kind
      expect "$ref_kind" > "$work/expect-$n.log"
      check "log equal to the simulator's" same_log "$work/expect-$n.log" "$log"
      check "cache equal to the simulator's" same_cache "$ref_kind" "$lines"
      check "request codes as the simulator received them" same_codes "$ref_kind" "$lines" $((bits / 8))
      check "volume controls 0" grep -qx 'volume 0x00000000' "$lines"
      check "the probe reads the version" grep -q "^probe GET_PARAM .*: 0, errno 0 (none), version '$dsp_version'" "$lines"
      if [ "$kind" = refused ]; then
        check "slot 2 returns -2" grep -q 'load_one_qvrcs_set() returns -2' "$log"
        check "five slots return 0" test "$(grep -c 'load_one_qvrcs_set() returns 0' "$log")" -eq $((slots - 1))
      fi ;;
    late)
      # The passes before the node appeared, then what a ready node gives.
      loop=$(grep -c 'Error opening korva SOFTWARE driver (errno 2, No such file or directory). Sleeping for 100 ms' "$log" || true)
      check "the open loop waited (errno 2 passes)" test "$loop" -ge 1
      check "no open failed but with errno 2" test "$(grep 'Error opening' "$log" | grep -vc 'errno 2,')" -eq 0
      grep -v 'Error opening korva' "$log" > "$work/late-rest.log"
      expect load | grep -v 'Error opening korva' > "$work/expect-$n.log"
      check "after the wait, the log of a ready node" same_log "$work/expect-$n.log" "$work/late-rest.log"
      check "cache equal to the simulator's" same_cache load "$lines"
      say "$label: $loop passes of the open loop before the node appeared" ;;
    denied)
      check "first pass: hardware node errno 2" \
        test "$(grep -m1 'Error opening' "$log")" = 'QVR_KORVA (qvr_configurator) I Error opening korva DSP driver (errno 2, No such file or directory). Attempting to open SOFTWARE driver.'
      check "first pass: software node errno 13, then a sleep" \
        test "$(grep -m1 'Error opening korva SOFTWARE' "$log")" = 'QVR_KORVA (qvr_configurator) I Error opening korva SOFTWARE driver (errno 13, Permission denied). Sleeping for 100 ms and trying again...'
      check "every pass errno 13 on the software node" \
        test "$(grep 'Error opening korva SOFTWARE' "$log" | grep -vc 'errno 13,')" -eq 0
      check "stopped while retrying (status 143)" test "$status" = 143
      check "no request reached the driver" grep -qx 'requests 0' "$lines"
      say "$label: $(grep -c 'Error opening korva SOFTWARE' "$log") passes in the second before the run was stopped" ;;
    nocompat)
      expect nocompat > "$work/expect-$n.log"
      check "log equal to the simulator's with every request answered ENOTTY" same_log "$work/expect-$n.log" "$log"
      check "no request reached the driver" grep -qx 'requests 0' "$lines"
      check "no cache" grep -q '^cache 0 ' "$lines"
      check "the probe's query refused with ENOTTY" grep -q '^probe GET_PARAM 0x8004F202 (32-bit): -1, errno 25 ' "$lines"
      say "$label: $(sed -n 's/^probe /probe: /p' "$lines")" ;;
  esac
  [ "$kind" = denied ] || check "exit status 0" test "$status" = 0
  say "$label: $(grep -c . "$log") log lines, $(awk -v a="$t0" -v b="$t1" 'BEGIN{printf "%.1f", b - a}') s in the machine"
  if [ "$program" = armhf ] && [ "$kind" = load ]; then
    say "$label: request codes as the module received them:"
    sed -n 's/^kmsg qvr_korva: compat request/  compat request/p' "$lines" | sort | uniq -c
  fi
done
[ "$failures" -eq 0 ] || fail "$failures check(s) failed (console: $console.txt)"
say "all ${#cases[@]} cases passed in $((SECONDS - started)) s (machine ${vm_seconds} s)"
