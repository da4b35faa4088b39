#!/usr/bin/env bash
# Assembles the armhf sysroot that the target build links against and that qemu-arm runs the
# target tests in: Debian's armhf packages of every library the layer, its tests and its
# benchmarks link, with their whole run-time dependency closure, unpacked with dpkg -x.
#
# Usage: scripts/armhf-sysroot.sh [SYSROOT]     (default: build/armhf-sysroot; printed at the end)
#
# Nothing is installed on the host. apt runs with a private state (armhf package lists, an empty
# status file, its own cache) under SYSROOT.apt, so the host's dpkg architectures and apt lists
# are left alone and no root rights are needed. The C and C++ run time (libc, libstdc++,
# libgcc_s, ...) is not taken from the archive: the cross toolchain's own copies are linked in,
# so that the programs run against the very libraries they were linked with.
#
# Idempotent: a sysroot stamped by this same script is left as it is (no network, no work).
# Fails loudly when a package cannot be had or a library in the sysroot needs one that is not
# there.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
sysroot=${1:-$here/build/armhf-sysroot}
mkdir -p "$sysroot"
sysroot=$(cd "$sysroot" && pwd)
[ "$sysroot" != / ] || { echo "armhf-sysroot: refusing / as sysroot" >&2; exit 1; }
state=$sysroot.apt
stamp=$sysroot/.vesk-sysroot
triplet=arm-linux-gnueabihf
cross_lib=/usr/$triplet/lib

# What the layer, the tests and the benchmarks link; everything else follows from Depends.
roots=(libsqlite3-dev libcurl4-openssl-dev libtinyxml-dev libgtest-dev libgmock-dev libbenchmark-dev)
# Byte codecs: MD5 and triple DES.
roots+=(nettle-dev)
# Spreadsheets: FreeXL reads .xls workbooks.
roots+=(libfreexl-dev)
# Pictures: TurboJPEG, libyuv and libqrcodegen in the library; GEOS for the geometry tests only.
roots+=(libturbojpeg0-dev libyuv-dev libqrcodegen-dev libgeos-dev)

die() {
    echo "armhf-sysroot: error: $*" >&2
    exit 1
}

want_stamp=$(sha256sum "$0" | cut -d' ' -f1)
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want_stamp" ]; then
    echo "armhf-sysroot: up to date: $sysroot"
    exit 0
fi

command -v "$triplet-readelf" >/dev/null || die "$triplet-readelf missing (scripts/setup-deps.sh)"
[ -e "$cross_lib/libc.so.6" ] || die "cross C library missing in $cross_lib (scripts/setup-deps.sh)"

# ---- A private apt for armhf ---------------------------------------------------------------
mkdir -p "$state/lists/partial" "$state/cache/archives/partial" "$state/debs"
touch "$state/status"
apt_opts=(
    -o APT::Architecture=armhf -o APT::Architectures=armhf
    -o Dir::State::Lists="$state/lists" -o Dir::State::Status="$state/status"
    -o Dir::Cache="$state/cache"
    -o Dir::Cache::pkgcache="$state/cache/pkgcache.bin"
    -o Dir::Cache::srcpkgcache="$state/cache/srcpkgcache.bin"
    -o Debug::NoLocking=1
)
if [ "$(id -u)" -eq 0 ]; then
    # The private directories belong to root; apt's _apt download user could not write them.
    apt_opts+=(-o APT::Sandbox::User=root)
fi

echo "armhf-sysroot: fetching the armhf package lists into $state"
if ! apt-get "${apt_opts[@]}" -qq update; then
    # A single stale mirror index (often the security suite) must not stop the build when the
    # main suite is there: packages come from whichever suite has them, and a package that no
    # index lists fails below.
    ls "$state/lists/"*_dists_*_main_binary-armhf_Packages* >/dev/null 2>&1 ||
        die "no armhf package list could be fetched"
    echo "armhf-sysroot: WARNING: some armhf package lists failed to download (see above)" >&2
fi

# ---- The dependency closure -----------------------------------------------------------------
# Packages that the cross toolchain already provides (libc6-armhf-cross -> libc6, ...), and the
# virtual packages they stand for.
declare -A skip=([libc-dev]=1)
while read -r p; do
    skip[${p%-armhf-cross}]=1
done < <(dpkg-query -W -f='${Package}\n' '*-armhf-cross' 2>/dev/null)
[ -n "${skip[libc6]:-}" ] || die "libc6-armhf-cross is not installed (scripts/setup-deps.sh)"

declare -A seen=()
closure=()
todo=("${roots[@]}")
while [ ${#todo[@]} -gt 0 ]; do
    level=()
    for p in "${todo[@]}"; do
        if [ -z "${seen[$p]:-}" ] && [ -z "${skip[$p]:-}" ]; then
            seen[$p]=1
            level+=("$p")
        fi
    done
    todo=()
    [ ${#level[@]} -gt 0 ] || break

    # One apt-cache call per level; each record gives the package and its first alternatives.
    declare -A found=()
    while IFS=' ' read -r pkg deps; do
        found[$pkg]=1
        closure+=("$pkg")
        for d in $deps; do todo+=("$d"); done
    done < <(apt-cache "${apt_opts[@]}" show --no-all-versions "${level[@]}" 2>/dev/null | awk '
        /^Package: / { pkg = $2; deps = "" }
        /^(Depends|Pre-Depends): / {
            sub(/^[A-Za-z-]+: /, "")
            n = split($0, groups, ",")
            for (i = 1; i <= n; i++) {
                alt = groups[i]; sub(/\|.*/, "", alt); sub(/\(.*/, "", alt)
                gsub(/[ \t]/, "", alt); sub(/:any$/, "", alt)
                if (alt != "") deps = deps " " alt
            }
        }
        /^$/ { if (pkg != "") print pkg deps; pkg = "" }
        END { if (pkg != "") print pkg deps }')

    # Names without a record are virtual: satisfied by the toolchain, or by their first provider.
    for p in "${level[@]}"; do
        [ -n "${found[$p]:-}" ] && continue
        providers=$(apt-cache "${apt_opts[@]}" showpkg "$p" 2>/dev/null |
            sed -n '/^Reverse Provides:/,$p' | sed 1d | awk '{print $1}')
        [ -n "$providers" ] || die "no armhf package provides '$p'"
        chosen=
        for q in $providers; do
            if [ -n "${skip[$q]:-}" ]; then chosen=toolchain; break; fi
        done
        [ -n "$chosen" ] || todo+=("$(echo "$providers" | head -1)")
    done
    unset found
done
for r in "${roots[@]}"; do
    [ -n "${seen[$r]:-}" ] && printf '%s\n' "${closure[@]}" | grep -qx "$r" || die "package '$r' not found"
done
echo "armhf-sysroot: ${#closure[@]} packages: ${closure[*]}"

# ---- Download and unpack ------------------------------------------------------------------
(
    cd "$state/debs"
    rm -f ./*.deb
    apt-get "${apt_opts[@]}" -qq download "${closure[@]}" || die "apt-get download failed"
)
for p in "${closure[@]}"; do
    ls "$state/debs/${p}_"*.deb >/dev/null 2>&1 || die "package '$p' was not downloaded"
done

# Start from an empty tree so that a package dropped from the closure leaves nothing behind.
find "$sysroot" -mindepth 1 -maxdepth 1 -exec rm -rf {} +
for deb in "$state/debs/"*.deb; do
    dpkg -x "$deb" "$sysroot"
done
rm -f "$state/debs/"*.deb

# Absolute links inside packages (libfoo.so -> /lib/...) must stay inside the sysroot.
while IFS= read -r link; do
    target=$(readlink "$link")
    ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link"
done < <(find "$sysroot" -type l -lname '/*')

# ---- Character-set converters ---------------------------------------------------------------
# iconv loads its gconv modules at run time from the directory compiled into the C library,
# /usr/lib/arm-linux-gnueabihf/gconv; qemu-arm -L resolves that path inside the sysroot first,
# so no GCONV_PATH is needed. The modules come from Debian's armhf C library, which must be the
# same upstream release as the cross toolchain's (they call its private symbols).
gconv_tmp=$state/gconv
rm -rf "$gconv_tmp" && mkdir -p "$gconv_tmp"
(cd "$gconv_tmp" && apt-get "${apt_opts[@]}" -qq download libc6) || die "apt-get download libc6 failed"
cross_ver=$(dpkg-query -W -f='${Version}' libc6-armhf-cross)
armhf_ver=$(dpkg-deb -f "$gconv_tmp"/libc6_*.deb Version)
[ "${cross_ver%%-*}" = "${armhf_ver%%-*}" ] ||
    die "armhf libc6 $armhf_ver is not the cross toolchain's release ($cross_ver): its gconv modules would not load"
dpkg -x "$gconv_tmp"/libc6_*.deb "$gconv_tmp/root"
[ -f "$gconv_tmp/root/usr/lib/$triplet/gconv/EUC-CN.so" ] || die "armhf libc6 carries no gconv modules"
mkdir -p "$sysroot/usr/lib/$triplet"
cp -a "$gconv_tmp/root/usr/lib/$triplet/gconv" "$sysroot/usr/lib/$triplet/"
rm -rf "$gconv_tmp"

# The toolchain's run time, where the target's dynamic loader looks for it under qemu -L.
mkdir -p "$sysroot/lib/$triplet"
ln -sfn "$cross_lib/ld-linux-armhf.so.3" "$sysroot/lib/ld-linux-armhf.so.3"
for f in "$cross_lib"/*.so.*; do
    name=$(basename "$f")
    [ -e "$sysroot/lib/$triplet/$name" ] || ln -s "$f" "$sysroot/lib/$triplet/$name"
done

# ---- Every library must find what it needs ---------------------------------------------------
missing=0
libdirs=("$sysroot/lib/$triplet" "$sysroot/usr/lib/$triplet")
libdirs+=("$sysroot/usr/lib/$triplet/gconv")  # modules that share tables (libGB.so, ...)
while IFS= read -r so; do
    for need in $("$triplet-readelf" -d "$so" 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
        ok=
        for d in "${libdirs[@]}"; do [ -e "$d/$need" ] && ok=1; done
        if [ -z "$ok" ]; then
            echo "armhf-sysroot: error: $so needs $need, which no package provides" >&2
            missing=1
        fi
    done
done < <(find "$sysroot/lib/$triplet" "$sysroot/usr/lib/$triplet" -name '*.so*' -type f 2>/dev/null)
[ "$missing" -eq 0 ] || die "run-time closure incomplete"

# apt's binary caches (tens of MB) are rebuilt from the lists whenever needed.
rm -f "$state/cache/"*.bin
echo "$want_stamp" >"$stamp"
echo "armhf-sysroot: ready: $sysroot"
