#!/usr/bin/env bash
# Installs the Debian packages Brenta needs to build, run and test.
# Safe to run again: it only calls apt-get when a package is missing.
set -euo pipefail

packages=(
  # build
  cmake ninja-build g++ pkg-config clang-format
  qt6-base-dev qt6-base-dev-tools qt6-svg-dev libgl-dev libudev-dev libssl-dev libxcb1-dev
  # run
  qt6-qpa-plugins libqt6svg6 fonts-noto-core fonts-dejavu-core xdg-utils
  # the disc tools Brenta drives
  p7zip-full genisoimage wodim xorriso
  # Brenta's own reader of Rock Ridge trees
  libisofs-dev
  # test images built the way Linux distributions build theirs
  isolinux syslinux-common grub-efi-amd64-bin mtools
  # the USB helper: partitioning, file systems (with FUSE drivers for kernels
  # without vfat or exfat), BIOS boot code, and pkexec to start it
  fdisk dosfstools exfatprogs ntfs-3g fusefat exfat-fuse grub-pc-bin grub2-common pkexec
  # the test that starts the helper through a real pkexec: a system bus, polkitd
  # and a validator for the policy file
  dbus polkitd libxml2-utils
  # splitting installer images too large for FAT
  wimtools
  # tests and screenshots
  xvfb xauth umockdev libumockdev-dev qemu-system-x86 ovmf
  # the Debian package and the checks of its desktop entry, metainfo and completion
  dpkg-dev desktop-file-utils appstream bash-completion man-db
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
