#!/usr/bin/env bash
# Installs what building, running and testing Orvane Server needs, from Debian's packages.
# Only missing packages are installed; needs root (or sudo) when something is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build clang-format
  libasio-dev libgtest-dev
  qt6-base-dev xvfb xauth
  curl lftp telnet expect tmux socat python3 python3-pyftpdlib wget busybox tnftp
  clang libclang-rt-14-dev
  libcrypt-dev libsystemd-dev libssh-dev libssl-dev pkg-config lintian dpkg-dev systemd
  openssh-client sshpass python3-paramiko ssh-audit
  openssl testssl.sh
)
if [ "${ORVANE_BENCH_PEERS:-0}" = 1 ]; then
  # The FTP peers (ftp_bench.py unpacks its own copies; proftpd's TLS module is for --tls),
  # and OpenSSH's server and client with sshpass for sftp_bench.py.
  packages+=(vsftpd proftpd-core proftpd-mod-crypto pure-ftpd openssh-server openssh-client
             sshpass)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
as_root=()
[ "$(id -u)" -ne 0 ] && as_root=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
