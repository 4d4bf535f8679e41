# The shipped programs on Debian's i386 kernel, in a machine of QEMU. Sourced by tools/run-peers.

# fetch_i386 DIRECTORY PACKAGE...: unpacks Debian's packages for i386 there. The machine's own package lists stay as they
# are.
fetch_i386() {
  local to=$1 state=build/peers/apt package
  shift
  mkdir -p "$state/lists/partial" "$state/cache/archives/partial" "$state/debs" "$to"
  : >>"$state/status"
  local options=(-o APT::Architecture=i386 -o APT::Architectures=i386 -o Dir::State="$PWD/$state"
    -o Dir::State::status="$PWD/$state/status" -o Dir::Cache="$PWD/$state/cache" -o APT::Sandbox::User=root)
  commands apt-get apt-cache dpkg-deb || return 1
  apt-get "${options[@]}" -q update || true  # a source of others may be out of order
  local kernel
  kernel=$(apt-cache "${options[@]}" depends linux-image-686 | sed -n 's/.*Depends: \(linux-image-.*\)/\1/p')
  [ -n "$kernel" ] || return 1
  (cd "$state/debs" && apt-get "${options[@]}" -q download "$kernel" "$@") || return 1
  for package in "$state"/debs/*.deb; do dpkg-deb -x "$package" "$to" || return 1; done
}

# make_root DEBIAN IMAGE: the machine's root file system.
make_root() {
  local debian=$1 image=$2 name
  rm -rf "$image"
  mkdir -p "$image"/{bin,dev,etc,lib,modules,post,proc,sys,tmp,var/lock}
  cp "$debian/bin/busybox" "$debian/sbin/ethtool" build/board/bin/{post,sprom,peer_hold} "$image/bin"
  mv "$image/bin/peer_hold" "$image/bin/hold"
  for name in $("$image/bin/busybox" --list); do [ -e "$image/bin/$name" ] || ln -s busybox "$image/bin/$name"; done
  cp -L "$debian"/lib/i386-linux-gnu/{ld-linux.so.2,libc.so.6,libm.so.6} "$debian"/usr/lib/i386-linux-gnu/libmnl.so.0 \
    build/board/lib/{libutils.so,libpeer_sprom_driver.so} "$image/lib"
  mv "$image/lib/libpeer_sprom_driver.so" "$image/lib/sprom_driver.so"
  for name in e1000 i2c-smbus i2c-piix4 i2c-dev i2c-stub; do
    find "$debian/lib/modules" -name "$name.ko" -exec cp {} "$image/modules" \;
  done
  echo 'nobody:x:65534:65534:nobody:/:/bin/sh' >"$image/etc/passwd"
  chmod 1777 "$image/post" "$image/tmp" "$image/var/lock"
  cp tools/peers/kernel/init "$image/init"
  (cd "$image" && find . | cpio -o -H newc --owner 0:0 2>/dev/null | gzip -1) >"$image.gz"
}

# What differs from run to run: addresses of mappings, durations, how often a sub-test failed, how the kernel counts.
# And from build to build: a compiler's launcher may name sources from the build's folder.
steady() {
  tr -d '\r' | sed -n '/^=== /,$p' | sed -E -e 's/-->0x[0-9a-f]+/-->ADDRESS/' -e 's/\([0-9]+ seconds?\)/(N seconds)/' \
    -e 's/^([A-Z][a-z]+ test.*\t) [1-9][0-9]*$/\1 N/' -e 's,^post: (\.\./)+,post: ,' -e '/^\[ *[0-9]+\.[0-9]+\]/d' -e '/^=== end/q'
}

run_machine() {
  bounded 400 qemu-system-i386 -m 256 -nodefaults -display none -serial stdio -no-reboot -kernel "$debian"/boot/vmlinuz-* \
    -initrd "$image.gz" -append 'console=ttyS0 loglevel=0 panic=-1' -device e1000 -device e1000 \
    -object memory-backend-file,id=windows,size=128M,share=on,mem-path="$memory" \
    -device ivshmem-plain,memdev=windows 2>"$log.qemu"
}

peer_kernel() {
  local debian=build/peers/i386 image=build/peers/image log=build/peers/kernel.log memory=build/peers/memory
  prepare kernel "${build_things[@]}" multilib lab qemu_i386
  build board post sprom_tool utils peer_hold peer_sprom_driver
  mkdir -p build/peers
  if [ ! -e "$debian/complete" ]; then
    step 'kernel: fetch Debian packages for i386' build/peers/fetch.log \
      fetch_i386 "$debian" busybox-static ethtool libmnl0 libc6 || {
      [ -z "$possible" ] || leave_out kernel
      cat build/peers/fetch.log >&2
      note 'kernel: Debian packages for i386 cannot be had here'
      return 1
    }
    : >"$debian/complete"
  fi
  make_root "$debian" "$image"
  # The windows of the flash and of the NVRAMs, with something in them.
  yes 'contents of the memories' | head -c 128M >"$memory"
  step 'kernel: run the machine' "$log" run_machine || true
  steady <"$log" >"$log.steady"
  grep -q '^=== end' "$log.steady" || { note "kernel: the machine did not come to its end: $log"; return 1; }
  diff -u tools/peers/kernel/expected "$log.steady" || { note "kernel: other words than expected: $log"; return 1; }
  cmp -n $((0x30000)) -i $((0x4000000)) "$memory" <(yes 'contents of the memories' | head -c 128M) ||
    { note 'kernel: contents of the NVRAMs were lost'; return 1; }
  rm "$memory"
  echo "kernel: $(grep -c '^=== ' "$log.steady") steps, $(wc -l <"$log.steady") lines, all as expected"
}
