#!/usr/bin/env bash
# Proves ./quickstart and ./check in a bare Debian 12 tree, where nothing is installed that this
# machine happens to have: debootstrap, a clone of the last commit, chroot.
#
#   scripts/prove_bare.sh [FOLDER] [COMMAND...]     (as root)
#
# FOLDER (default /var/tmp/vk_rund_bare) is kept, so that a second run starts from the same tree;
# without COMMAND both are run. The mirror is MIRROR, or the first one in this machine's apt sources;
# proxies, certificates and pip's settings are taken over as this machine has them.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
tree=${1:-/var/tmp/vk_rund_bare}
shift || true
commands=("${@:-}")
[ -n "${commands[0]}" ] || commands=(./quickstart ./check)

fail() {
  printf 'error: %s\n' "$*" >&2
  exit 1
}

[ "$(id -u)" = 0 ] || fail "chroot needs root"
command -v debootstrap >/dev/null || fail "debootstrap is missing: apt-get install debootstrap"

host_mirror() {
  { cat /etc/apt/sources.list /etc/apt/sources.list.d/*.{sources,list} || true; } 2>/dev/null |
    grep -v '^#' | grep -oE 'https?://[^ ]+/debian/?( |$)' | head -n 1 | tr -d ' ' || true
}
mirror=${MIRROR:-$(host_mirror)}
mirror=${mirror:-http://deb.debian.org/debian}

if [ ! -e "$tree/.bare_ready" ]; then
  printf 'Making a bare Debian 12 in %s\n' "$tree"
  debootstrap --variant=minbase --include=ca-certificates,git bookworm "$tree" "$mirror" \
    >"$tree.log" 2>&1 || fail "debootstrap failed; its output is in $tree.log"
  touch "$tree/.bare_ready"
fi

# What this machine needs to reach mirrors holds in the tree as well.
for path in /etc/resolv.conf /etc/hosts /etc/pip.conf /etc/ssl/certs/ca-certificates.crt \
  /etc/apt/apt.conf /etc/apt/apt.conf.d/*proxy* /etc/apt/apt.conf.d/*ssl* \
  /etc/apt/sources.list.d/debian.sources; do
  [ -f "$path" ] || continue
  mkdir -p "$tree$(dirname "$path")"
  cp --remove-destination -L "$path" "$tree$path"
done
settings=$(env | grep -iE '^(https?_proxy|no_proxy|PIP_(INDEX_URL|EXTRA_INDEX_URL|TRUSTED_HOST|CERT|DEFAULT_TIMEOUT)|SSL_CERT_FILE|REQUESTS_CA_BUNDLE)=' || true)

unmount() {
  for place in dev/shm dev proc; do
    mountpoint -q "$tree/$place" && umount -l "$tree/$place"
  done
  return 0
}
trap unmount EXIT
mountpoint -q "$tree/proc" || mount -t proc proc "$tree/proc"
mountpoint -q "$tree/dev" || mount --bind /dev "$tree/dev"
mountpoint -q "$tree/dev/shm" || mount -t tmpfs tmpfs "$tree/dev/shm"

rm -rf "$tree/root/vk_rund"
git clone -q --no-hardlinks "$root" "$tree/root/vk_rund"
for command in "${commands[@]}"; do
  printf '== %s in the bare tree\n' "$command"
  printf '%s\n' "$settings" | tr '\n' '\0' | {
    mapfile -d '' -t lines
    [ -n "${lines[0]%$'\n'}" ] || lines=()
    env -i HOME=/root LANG=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
      "${lines[@]}" chroot "$tree" /bin/bash -c "cd /root/vk_rund && $command"
  }
done
