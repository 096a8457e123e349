#!/usr/bin/env bash
# Makes the Debian package of a built tree into a scratch folder and checks what it holds:
# every installed file, the dependencies dpkg-shlibdeps cannot find, that the programs load
# ONNX Runtime from the package's private folder (and nothing of the build machine), and that
# they are stripped.
#
#   check_deb.sh BUILD_DIR
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"

build=$1

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 || {
  cat "$work/cpack.log" >&2
  echo "FAIL: cpack did not make the package" >&2
  exit 1
}
debs=("$work"/out/vocari_*_amd64.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || { echo "FAIL: no single vocari_*_amd64.deb" >&2; exit 1; }
deb=${debs[0]}

# Files, as dpkg-deb lists them ("./usr/bin/vocari").
dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./||' >"$work/files"
expect_file() {
  grep -qx "$1" "$work/files" || fail "package lacks $1"
}
for f in usr/bin/vocari usr/bin/vocari-transcribe usr/bin/vocari-models \
         usr/lib/vocari/libonnxruntime.so.1 usr/share/applications/vocari.desktop \
         usr/share/icons/hicolor/scalable/apps/vocari.svg; do
  expect_file "$f"
done
for size in 16 22 24 32 48 64 128 256; do
  expect_file "usr/share/icons/hicolor/${size}x${size}/apps/vocari.png"
done
# Nothing outside /usr, and no development files.
grep -v -e '^usr/' -e '^$' "$work/files" | sed 's/^/unexpected: /' >&2 && fail "files outside usr/"
grep -e '\.a$' -e '\.h$' -e '/include/' "$work/files" | sed 's/^/unexpected: /' >&2 &&
  fail "development files in the package"

# Control fields.
[ "$(dpkg-deb -f "$deb" Package)" = vocari ] || fail "package name is not vocari"
[ "$(dpkg-deb -f "$deb" Architecture)" = amd64 ] || fail "architecture is not amd64"
depends=$(dpkg-deb -f "$deb" Depends)
for pkg in pocketsphinx-en-us libqt6core6 libqt6gui6 libqt6widgets6 libqt6svg6 libqt6multimedia6; do
  # A package name is a whole item of the comma-separated list, optionally with a version.
  grep -qE "(^|, )$pkg( \(|,|$)" <<<"$depends" || fail "Depends lacks $pkg: $depends"
done
grep -qi onnxruntime <<<"$depends" && fail "Depends names ONNX Runtime, which the package carries"

# The programs as installed: their RUNPATH, where the loader finds ONNX Runtime, stripping.
dpkg-deb -x "$deb" "$work/root"
for prog in vocari vocari-transcribe vocari-models; do
  bin=$work/root/usr/bin/$prog
  [ -f "$bin" ] || continue
  # (Whole outputs are kept: grep -q closing a pipe early would fail the pipeline.)
  dynamic=$(readelf -d "$bin")
  runpath=$(sed -n 's/.*(RUNPATH).*\[\(.*\)\]$/\1/p' <<<"$dynamic")
  [ "$runpath" = '$ORIGIN/../lib/vocari' ] || fail "$prog RUNPATH is '$runpath'"
  grep -q '(RPATH)' <<<"$dynamic" && fail "$prog carries an RPATH besides its RUNPATH"
  resolved=$(ldd "$bin" | awk '$1 == "libonnxruntime.so.1" {print $3}')
  [ "$resolved" = "$work/root/usr/bin/../lib/vocari/libonnxruntime.so.1" ] ||
    fail "$prog loads ONNX Runtime from '$resolved'"
  ldd "$bin" | grep 'not found' | sed "s/^/$prog: /" >&2 && fail "$prog has unresolved libraries"
  sections=$(readelf -S "$bin")
  grep -q '\.debug_info' <<<"$sections" && fail "$prog is not stripped"
done
lib=$work/root/usr/lib/vocari/libonnxruntime.so.1
[ -L "$lib" ] && fail "libonnxruntime.so.1 is a symbolic link, not the library"
lib_dynamic=$(readelf -d "$lib")
grep -q 'Library soname: \[libonnxruntime.so.1\]' <<<"$lib_dynamic" ||
  fail "the private library's soname is not libonnxruntime.so.1"

# Each PNG has the size of the folder it is in (width and height from its IHDR chunk).
for size in 16 22 24 32 48 64 128 256; do
  png=$work/root/usr/share/icons/hicolor/${size}x${size}/apps/vocari.png
  [ -f "$png" ] || continue
  read -r w h < <(od -An -tu4 --endian=big -j16 -N8 "$png")
  [ "$w $h" = "$size $size" ] || fail "${size}x${size} icon is $w x $h"
done

desktop-file-validate "$work/root/usr/share/applications/vocari.desktop" ||
  fail "the desktop file does not validate"

finish " for $(basename "$deb")" \
  "$(basename "$deb"): $(stat -c %s "$deb") bytes, $(wc -l <"$work/files") entries, all checks passed"
