#!/bin/sh
# Fetches one pinned version of Pure Data's source from Debian (the puredata
# source package ships upstream libpd) into the git-ignored folder .deps/ and
# builds the static libpd there with every core. Nothing of Pure Data is ever
# committed to this repository.
#
# The machine's apt configuration is left alone: apt reads a sources list, a
# package index and a cache of its own under .deps/apt/. The source package's
# description file is checked against the checksum below, and apt checks the
# tarballs against it.
#
# Runs once: when .deps/puredata holds the pinned version with libpd.a built,
# it returns at once.
set -eu

PD_VERSION="0.53.1+ds-2+deb12u1"
PD_DSC_SHA256="e9cb4d52165310ece1375a99137bed3d7a8ea1894ccc0fab1c105e05d481ae19"
PD_ARCHIVE="http://deb.debian.org/debian"
PD_SUITE="bookworm"
PD_KEYRING="/usr/share/keyrings/debian-archive-keyring.gpg"

top=$(cd "$(dirname "$0")/.." && pwd)
deps="$top/.deps"
tree="$deps/puredata"
lib="$tree/libpd/libpd.a"

tree_version() {
    sed -n '1s/^puredata (\([^)]*\)).*/\1/p' "$tree/debian/changelog" 2>/dev/null || true
}

# Pd 0.53.1's [expr] copies the name of every function it parses ("pow",
# "sin", ...) and drops the copy when it swaps in the function's pointer, so
# each call site leaks a small block for good. One voice patch has some 80
# calls per voice and 128 voices, which is about 150 KB lost on every patch
# change: a night of patch changes grows the program by megabytes. The name is
# not read again once the function is found, so it is freed right there. The
# mark below tells a mended tree from one built before this mend.
EXPR_MEND_MARK="/* freed: the name is not needed once the function is found */"
mend_expr_leak() {
    vexp="$tree/src/x_vexp.c"
    grep -qF "$EXPR_MEND_MARK" "$vexp" && return 0
    sed -i "s|^\([[:space:]]*\)eptr->ex_ptr = (char \*) fun;|\1fts_free((void *)eptr->ex_ptr); $EXPR_MEND_MARK\n&|" "$vexp"
    grep -qF "$EXPR_MEND_MARK" "$vexp" || {
        echo "build-libpd.sh: could not mend [expr]'s leak in $vexp: its code is not the pinned one" >&2
        exit 1
    }
    rm -f "$lib"
}

if [ -f "$lib" ] && [ "$(tree_version)" = "$PD_VERSION" ]; then
    grep -qF "$EXPR_MEND_MARK" "$tree/src/x_vexp.c" && exit 0
    mend_expr_leak
    make -C "$tree/libpd" -j"$(nproc)" libpd.a
    echo "libpd rebuilt with [expr] mended: $lib"
    exit 0
fi

# An earlier version of this script added a deb-src entry to the machine's own
# apt sources; it is not needed any more.
old_entry=/etc/apt/sources.list.d/merrow-tuning-arbo-src.sources
if [ -f "$old_entry" ]; then
    if [ "$(id -u)" -eq 0 ]; then SUDO=""; else SUDO="sudo"; fi
    echo "Removing $old_entry, which an earlier build of libpd added"
    $SUDO rm -f "$old_entry"
fi

[ -f "$PD_KEYRING" ] || {
    echo "build-libpd.sh: $PD_KEYRING is missing: install the Debian package debian-archive-keyring" >&2
    exit 1
}

apt_dir="$deps/apt"
rm -rf "$apt_dir"
mkdir -p "$apt_dir/sources" "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial"
cat >"$apt_dir/sources/puredata.sources" <<SOURCES
Types: deb-src
URIs: $PD_ARCHIVE
Suites: $PD_SUITE
Components: main
Signed-By: $PD_KEYRING
SOURCES
private_apt() {
    apt-get -q \
        -o Dir::Etc::SourceList=/dev/null \
        -o Dir::Etc::SourceParts="$apt_dir/sources" \
        -o Dir::State::Lists="$apt_dir/lists" \
        -o Dir::Cache="$apt_dir/cache" \
        -o APT::Sandbox::User="$(id -un)" \
        "$@"
}

cannot_have() {
    echo "build-libpd.sh: Pure Data $PD_VERSION cannot be had from $PD_ARCHIVE $PD_SUITE: $1" >&2
    echo "  (the pinned version may have left the archive; pin the version it serves now," >&2
    echo "   with its .dsc checksum, at the top of scripts/build-libpd.sh)" >&2
    exit 1
}

echo "Fetching Pure Data $PD_VERSION from $PD_ARCHIVE $PD_SUITE"
private_apt update >"$apt_dir/update.log" 2>&1 || { cat "$apt_dir/update.log" >&2; cannot_have "apt could not read the index"; }
uris=$(private_apt source --print-uris "puredata=$PD_VERSION" 2>"$apt_dir/source.log") ||
    { cat "$apt_dir/source.log" >&2; cannot_have "the archive does not list it"; }
echo "$uris" | grep -q "SHA256:$PD_DSC_SHA256" ||
    cannot_have "its .dsc does not have the pinned checksum $PD_DSC_SHA256"

rm -rf "$deps/fetch" "$tree"
mkdir -p "$deps/fetch"
(cd "$deps/fetch" && private_apt source "puredata=$PD_VERSION" >"$apt_dir/fetch.log" 2>&1) ||
    { cat "$apt_dir/fetch.log" >&2; cannot_have "the download or its checksums failed"; }
dsc=$(find "$deps/fetch" -maxdepth 1 -name 'puredata_*.dsc' | head -n 1)
[ -n "$dsc" ] && echo "$PD_DSC_SHA256  $dsc" | sha256sum -c --quiet - ||
    cannot_have "the downloaded .dsc does not have the pinned checksum"
src=$(find "$deps/fetch" -maxdepth 1 -type d -name 'puredata-*' | head -n 1)
[ -n "$src" ] || cannot_have "apt-get source produced no source tree"
mv "$src" "$tree"
rm -rf "$deps/fetch" "$apt_dir"
mend_expr_leak

# libpd's own makefile, static library only, with every core.
make -C "$tree/libpd" -j"$(nproc)" libpd.a
echo "libpd built: $lib"
