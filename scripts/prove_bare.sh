#!/usr/bin/env bash
# Proves the project in a bare Debian tree, where nothing is installed that this machine happens to
# have: debootstrap, a clone of the last commit, chroot.
#
#   scripts/prove_bare.sh [RELEASE] [COMMAND...]     (as root)
#
# RELEASE is bookworm (the default) or a later one. Without COMMAND all of these are run: ./quickstart,
# ./check, scripts/prove_wheel.sh, and `package`, which makes the Debian package and then installs and
# tries it in a second tree that has nothing but Debian's base system.
#
# The trees lie in FOLDER (default /var/tmp/vk_rund_bare) and are kept, so that a second run starts
# from them. The mirror is MIRROR, or the first one in this machine's apt sources; proxies,
# certificates and pip's settings are taken over as this machine has them.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
release=${1:-bookworm}
shift || true
folder=${FOLDER:-/var/tmp/vk_rund_bare}
commands=("$@")
[ $# -gt 0 ] || commands=(./quickstart ./check scripts/prove_wheel.sh package)

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

base=$folder/$release.tar
if [ ! -e "$base" ]; then
  printf 'Making a bare %s in %s\n' "$release" "$folder"
  mkdir -p "$folder"
  debootstrap --variant=minbase --include=ca-certificates,git "$release" "$folder/base" "$mirror" \
    >"$folder/$release.log" 2>&1 || fail "debootstrap failed; its output is in $folder/$release.log"
  tar -C "$folder/base" -cf "$base~" .
  mv "$base~" "$base"
  rm -rf "$folder/base"
fi

# tree NAME: makes the bare tree NAME if it isn't there, with what this machine needs to reach mirrors.
tree() {
  local tree=$folder/$1 path
  if [ ! -e "$tree" ]; then
    mkdir "$tree~"
    tar -C "$tree~" -xf "$base"
    mv "$tree~" "$tree"
  fi
  for path in /etc/resolv.conf /etc/hosts /etc/pip.conf /etc/ssl/certs/ca-certificates.crt \
    /etc/apt/apt.conf /etc/apt/apt.conf.d/*proxy* /etc/apt/apt.conf.d/*ssl*; do
    [ -f "$path" ] || continue
    mkdir -p "$tree$(dirname "$path")"
    cp --remove-destination -L "$path" "$tree$path"
  done
}
settings=$(env | grep -iE '^(https?_proxy|no_proxy|PIP_(INDEX_URL|EXTRA_INDEX_URL|TRUSTED_HOST|CERT|DEFAULT_TIMEOUT)|SSL_CERT_FILE|REQUESTS_CA_BUNDLE|JOBS|VK_MATH)=' || true)

unmount() {
  local place
  for place in "$folder"/*/dev/shm "$folder"/*/dev "$folder"/*/proc; do
    mountpoint -q "$place" && umount -l "$place"
  done
  return 0
}
trap unmount EXIT

# inside NAME COMMAND: runs it in the tree, with nothing of this machine's environment but `settings`.
inside() {
  local tree=$folder/$1 lines
  mountpoint -q "$tree/proc" || mount -t proc proc "$tree/proc"
  mountpoint -q "$tree/dev" || mount --bind /dev "$tree/dev"
  mountpoint -q "$tree/dev/shm" || mount -t tmpfs tmpfs "$tree/dev/shm"
  mapfile -t lines < <(printf '%s' "$settings")
  env -i HOME=/root LANG=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    "${lines[@]}" chroot "$tree" /bin/bash -c "$2"
}

# The package, made in one tree, installed and tried in another that has the base system alone.
prove_package() {
  local try="vkctl --version && vk_rund --version && rm -rf /tmp/demo && vkctl demo /tmp/demo"
  inside "$release" "cd /root/vk_rund && scripts/package.sh"
  rm -rf "${folder:?}/$release-empty"
  tree "$release-empty"
  cp "$folder/$release/root/vk_rund/build/package"/vk-rund_*.deb "$folder/$release-empty/tmp/"
  inside "$release-empty" "apt-get -q update && apt-get -q -y install /tmp/vk-rund_*.deb" \
    >"$folder/$release-install.log" 2>&1 || {
    tail -n 20 "$folder/$release-install.log"
    fail "the package can't be installed"
  }
  grep -h -E '^(Need to get|After this)' "$folder/$release-install.log" || true
  inside "$release-empty" "$try" | tee "$folder/$release-demo.log"
  grep -q '^results of load case 2, ' "$folder/$release-demo.log" || fail "the demo was not solved"
  grep -q '^picture in /tmp/demo/deformed.png' "$folder/$release-demo.log" || fail "no picture was drawn"
  inside "$release-empty" "apt-get -q -y remove vk-rund" >>"$folder/$release-install.log" 2>&1 ||
    fail "the package can't be removed"
  [ ! -e "$folder/$release-empty/usr/lib/python3/dist-packages/vkctl" ] ||
    fail "the package leaves something behind"
}

tree "$release"
rm -rf "$folder/$release/root/vk_rund"
git clone -q --no-hardlinks "$root" "$folder/$release/root/vk_rund"
for command in "${commands[@]}"; do
  printf '== %s in a bare %s\n' "$command" "$release"
  case $command in
    package) prove_package ;;
    *) inside "$release" "cd /root/vk_rund && $command" ;;
  esac
done
