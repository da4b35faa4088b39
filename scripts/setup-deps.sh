#!/usr/bin/env bash
# Installs everything the build, tests, benchmarks and target build need, from Debian packages.
# Idempotent: packages already present are skipped, so a second run costs one dpkg query.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libsqlite3-dev libcurl4-openssl-dev libtinyxml-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libturbojpeg0-dev libyuv-dev libqrcodegen-dev libgeos-dev zbar-tools zxing-cpp-tools python3-pil
  ffmpeg iproute2 e2fsprogs xfsprogs xfslibs-dev libcjson-dev rapidjson-dev
  clang libclang-rt-14-dev
  g++-arm-linux-gnueabihf qemu-user
  python3 python3-pyftpdlib openssl  # the URL tests' HTTP(S) and FTP peers, their certificate
)
# Byte codecs: nettle (MD5, triple DES); the codec tests' oracles.
packages+=(nettle-dev openssl coreutils)
# Spreadsheets and audio: FreeXL reads .xls; the oracles of the WAV, G.711 and .xls tests.
packages+=(libfreexl-dev python3-xlrd python3-xlwt catdoc sox)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup-deps: all packages present"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "setup-deps: missing packages (${missing[*]}); run as root" >&2
  exit 1
fi

echo "setup-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
