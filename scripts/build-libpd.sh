#!/bin/sh
# Fetches Pure Data's source from Debian (the puredata source package ships
# upstream libpd) into the git-ignored folder .deps/ and builds the static
# libpd there. Nothing of Pure Data is ever committed to this repository.
#
# Runs once: when .deps/puredata/libpd/libpd.a exists it returns at once.
set -eu

top=$(cd "$(dirname "$0")/.." && pwd)
deps="$top/.deps"
lib="$deps/puredata/libpd/libpd.a"

[ -f "$lib" ] && exit 0

if [ "$(id -u)" -eq 0 ]; then SUDO=""; else SUDO="sudo"; fi

# apt-get source needs a deb-src entry. Mirror the machine's own Debian entry
# (same archive, same suite, same key) rather than guessing a mirror.
ensure_deb_src() {
    codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
    [ -n "$codename" ] || { echo "Cannot tell the Debian suite of this machine" >&2; exit 1; }
    if apt-get source --print-uris -q puredata >/dev/null 2>&1 \
        && [ -n "$(apt-get source --print-uris -q puredata 2>/dev/null | grep "\.dsc")" ]; then
        return 0
    fi
    uri=""; keyring=""
    for f in /etc/apt/sources.list.d/*.sources; do
        [ -f "$f" ] || continue
        # deb822 stanzas: take the first "deb" stanza that serves our suite.
        found=$(awk -v suite="$codename" '
            BEGIN { RS=""; FS="\n" }
            {
                types=""; uris=""; suites=""; signed="";
                for (i = 1; i <= NF; i++) {
                    if ($i ~ /^Types:/)     { types=$i;  sub(/^Types:[ \t]*/, "", types) }
                    if ($i ~ /^URIs:/)      { uris=$i;   sub(/^URIs:[ \t]*/, "", uris) }
                    if ($i ~ /^Suites:/)    { suites=$i; sub(/^Suites:[ \t]*/, "", suites) }
                    if ($i ~ /^Signed-By:/) { signed=$i; sub(/^Signed-By:[ \t]*/, "", signed) }
                }
                n = split(types, t, /[ \t]+/); isdeb = 0
                for (k = 1; k <= n; k++) if (t[k] == "deb") isdeb = 1
                n = split(suites, s, /[ \t]+/); hassuite = 0
                for (k = 1; k <= n; k++) if (s[k] == suite) hassuite = 1
                if (isdeb && hassuite) { split(uris, u, /[ \t]+/); print u[1] "|" signed; exit }
            }' "$f")
        if [ -n "$found" ]; then
            uri=${found%%|*}; keyring=${found#*|}
            break
        fi
    done
    if [ -z "$uri" ] && [ -f /etc/apt/sources.list ]; then
        # One-line format: deb [options] URI suite components...
        line=$(grep -E "^deb[[:space:]]" /etc/apt/sources.list | grep -E "[[:space:]]$codename[[:space:]]" | head -n 1 || true)
        if [ -n "$line" ]; then
            uri=$(echo "$line" | sed -E 's/^deb[[:space:]]+(\[[^]]*\][[:space:]]+)?//' | awk '{print $1}')
            keyring=$(echo "$line" | sed -nE 's/.*signed-by=([^] ]+).*/\1/p')
        fi
    fi
    [ -n "$uri" ] || { echo "Found no Debian '$codename' entry in the apt sources" >&2; exit 1; }
    echo "Adding deb-src entry for $uri $codename"
    {
        echo "Types: deb-src"
        echo "URIs: $uri"
        echo "Suites: $codename"
        echo "Components: main"
        [ -n "$keyring" ] && echo "Signed-By: $keyring"
    } | $SUDO tee /etc/apt/sources.list.d/merrow-tuning-arbo-src.sources >/dev/null
    $SUDO apt-get update -q
}

ensure_deb_src

mkdir -p "$deps"
cd "$deps"
if [ ! -d puredata ]; then
    rm -rf fetch && mkdir fetch && cd fetch
    apt-get source -q puredata
    src=$(find . -maxdepth 1 -type d -name 'puredata-*' | head -n 1)
    [ -n "$src" ] || { echo "apt-get source puredata produced no source tree" >&2; exit 1; }
    mv "$src" ../puredata
    cd .. && rm -rf fetch
fi

# libpd's own makefile, static library only, with every core.
make -C puredata/libpd -j"$(nproc)" libpd.a
echo "libpd built: $lib"
