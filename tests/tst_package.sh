#!/usr/bin/env bash
# Builds the Debian package from the build tree given and checks it: the files
# it installs, the packages it depends on, that the polkit action names the
# helper where the package puts it and where the program looks for it, and that
# the desktop entry, the metainfo, the man page and the bash completion it ships
# are valid. Exit status 77 (skipped) when a packaging tool is missing.
set -euo pipefail
build=$(cd "$1" && pwd)

for tool in cpack dpkg-deb dpkg-shlibdeps desktop-file-validate appstreamcli man; do
  if ! command -v "$tool" >/dev/null; then
    echo "SKIP: $tool is not installed"
    exit 77
  fi
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# What `cmake --build build --target package` runs, into a folder of our own.
if ! (cd "$build" && cpack -G DEB -B "$work/out") >"$work/cpack.log" 2>&1; then
  cat "$work/cpack.log" >&2
  echo "FAIL: cpack could not build the package" >&2
  exit 1
fi
shopt -s nullglob
debs=("$work"/out/brenta_*.deb)
if [ ${#debs[@]} -ne 1 ]; then
  echo "FAIL: expected one brenta_*.deb, found ${#debs[@]}" >&2
  exit 1
fi
deb=${debs[0]}
prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
prefix=${prefix%/}

# The files, as the package lists them.
dpkg-deb -c "$deb" | awk '{print $NF}' | sed 's|^\./|/|' >"$work/files"
for file in \
  bin/brenta \
  libexec/brenta/brenta-usb-helper \
  libexec/brenta/brenta-isoread \
  share/applications/brenta.desktop \
  share/icons/hicolor/scalable/apps/brenta.svg \
  share/brenta/help/index.html \
  share/polkit-1/actions/org.brenta.usb-helper.policy \
  share/metainfo/org.brenta.brenta.metainfo.xml \
  share/man/man1/brenta.1 \
  share/bash-completion/completions/brenta; do
  grep -qx "$prefix/$file" "$work/files" || fail "the package lacks $prefix/$file"
done

# The dependencies: the shared libraries found by dpkg-shlibdeps and the
# programs Brenta and its helper run.
dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed 's/^ *//; s/ .*//' >"$work/depends"
for package in libc6 libstdc++6 libqt6core6 libqt6gui6 libqt6widgets6 libqt6svg6 libudev1 libssl3 \
  libisofs6 qt6-qpa-plugins xdg-utils p7zip-full genisoimage wodim xorriso wimtools pkexec polkitd \
  udev mount dosfstools exfatprogs ntfs-3g fusefat exfat-fuse grub-pc-bin; do
  grep -qx "$package" "$work/depends" || fail "Depends lacks $package: $(dpkg-deb -f "$deb" Depends)"
done
[ "$(dpkg-deb -f "$deb" Package)" = brenta ] || fail "the package is not named brenta"

# On a system with nothing installed, apt finds every dependency in the
# archive's lists (when this machine has them).
if apt-cache show p7zip-full >/dev/null 2>&1; then
  : >"$work/status"
  if ! apt-get install -s -o Dir::State::status="$work/status" "$deb" >"$work/apt.log" 2>&1 ||
    ! grep -q '^Inst brenta ' "$work/apt.log"; then
    fail "apt cannot install the package on a bare system: $(tail -5 "$work/apt.log")"
  fi
fi

dpkg-deb -x "$deb" "$work/root"
root=$work/root

# The action pkexec checks must name the helper the package installs, and the
# program must look for it there.
helper=$prefix/libexec/brenta/brenta-usb-helper
named=$(sed -n 's|.*<annotate key="org.freedesktop.policykit.exec.path">\(.*\)</annotate>.*|\1|p' \
  "$root$prefix/share/polkit-1/actions/org.brenta.usb-helper.policy")
[ "$named" = "$helper" ] || fail "the polkit action names '$named', the package installs $helper"
[ -x "$root$helper" ] || fail "$helper is not executable"
grep -qaF "$helper" "$root$prefix/bin/brenta" || fail "brenta does not look for the helper at $helper"
grep -qaF "$prefix/libexec/brenta/brenta-isoread" "$root$prefix/bin/brenta" ||
  fail "brenta does not look for brenta-isoread where the package puts it"

desktop-file-validate "$root$prefix/share/applications/brenta.desktop" >"$work/desktop.log" 2>&1 ||
  fail "desktop-file-validate: $(cat "$work/desktop.log")"
appstreamcli validate --no-net "$root$prefix/share/metainfo/org.brenta.brenta.metainfo.xml" \
  >"$work/metainfo.log" 2>&1 || fail "appstreamcli validate: $(cat "$work/metainfo.log")"

# The man page formats without warnings and shows every form the usage names.
man_page=$root$prefix/share/man/man1/brenta.1
if ! LC_ALL=C.UTF-8 MANWIDTH=200 man --warnings -E UTF-8 -l "$man_page" >"$work/man.txt" 2>"$work/man.log" ||
  [ -s "$work/man.log" ]; then
  fail "man: $(cat "$work/man.log")"
fi
"$build/brenta" --help | sed -n 's/^\(Usage: \| \{7\}\)brenta \([a-z][a-z-]*\).*/\2/p' >"$work/commands"
[ -s "$work/commands" ] || fail "brenta --help names no commands"
while read -r command; do
  grep -q "^ *brenta $command\b" "$work/man.txt" || fail "the man page's synopsis lacks $command"
  grep -q "^ *$command\b" "$work/man.txt" || fail "the man page does not describe $command"
  "$build/brenta" "$command" --help >/dev/null || fail "brenta $command --help failed"
done <"$work/commands"
for variable in BRENTA_TOOLS_DIR; do
  grep -q "^ *$variable" "$work/man.txt" || fail "the man page does not name $variable"
done

# The completion offers the commands and an option's values.
if [ -r /usr/share/bash-completion/bash_completion ]; then
  completions=$(bash -c '
    source /usr/share/bash-completion/bash_completion
    source "$1"
    complete_words() {
      COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
      COMPREPLY=(); _brenta; echo "${COMPREPLY[*]}"
    }
    complete_words brenta bu
    complete_words brenta restore-usb /dev/sdz --fs ""
    complete_words brenta create --t' _ "$root$prefix/share/bash-completion/completions/brenta")
  expected=$'burn-disc burn-usb\nfat32 exfat ntfs\n--type'
  [ "$completions" = "$expected" ] || fail "completion offered: $completions"
fi

if [ "$failures" -ne 0 ]; then
  exit 1
fi
echo "PASS: $(basename "$deb")"
