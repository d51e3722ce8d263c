#!/usr/bin/env bash
# pkgd's footprint on disk: the stripped size of pkgd and of every shared library it loads, for
# x86-64 (build/) and armhf (build-armhf/, when it has been built). Its private memory at run
# time is measured by bench_registry, which runs it in a sandbox gateway.
#   bench/footprint.sh [TOP]        TOP: the checkout (default: the one holding this script)
set -euo pipefail
top=${1:-$(cd "$(dirname "$0")/.." && pwd)}
goal_kib=300

# Bytes of FILE once stripped with STRIP (the file itself is left alone).
stripped_bytes() {
  local strip=$1 file=$2 tmp
  tmp=$(mktemp)
  if "$strip" -o "$tmp" "$file" 2>/dev/null; then stat -c %s "$tmp"; else stat -L -c %s "$file"; fi
  rm -f "$tmp"
}

kib() { echo $((($1 + 1023) / 1024)); }

# The shared libraries FILE needs, directly or through another, resolved in the directories
# given: one path per line, each once, in the order first needed.
needed_closure() {
  local file=$1; shift
  local -a queue=("$file") seen=()
  while ((${#queue[@]})); do
    local current=${queue[0]}
    queue=("${queue[@]:1}")
    local name
    while read -r name; do
      local dir path=""
      for dir in "$@"; do [[ -e $dir/$name ]] && { path=$(readlink -f "$dir/$name"); break; }; done
      [[ -z $path ]] && { echo "?$name"; continue; }
      [[ " ${seen[*]-} " == *" $path "* ]] && continue
      seen+=("$path")
      queue+=("$path")
      echo "$path"
    done < <(readelf -d "$current" 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  done
}

# ARCH STRIP PKGD LIBDIRS...
report() {
  local arch=$1 strip=$2 pkgd=$3; shift 3
  local own total=0 count=0 lib bytes
  own=$(stripped_bytes "$strip" "$pkgd")
  printf '%-58s %8d KiB (goal at most %d KiB)\n' "$arch: pkgd stripped" "$(kib "$own")" "$goal_kib"
  while read -r lib; do
    if [[ $lib == \?* ]]; then
      printf '  %-56s %s\n' "${lib#\?}" "not found"
      continue
    fi
    bytes=$(stripped_bytes "$strip" "$lib")
    total=$((total + bytes)); count=$((count + 1))
    printf '  %-56s %8d KiB\n' "$(basename "$lib")" "$(kib "$bytes")"
  done < <(needed_closure "$pkgd" "$@")
  printf '%-58s %8d KiB (%d libraries)\n' "$arch: libraries pkgd loads, stripped" "$(kib "$total")" "$count"
}

x86_dirs=(/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu /lib64 /usr/lib64)
if [[ -x $top/build/daemon/pkgd ]]; then
  report x86-64 strip "$top/build/daemon/pkgd" "${x86_dirs[@]}"
else
  echo "x86-64: not built"
fi

arm_pkgd=$top/build-armhf/daemon/pkgd
if [[ -x $arm_pkgd ]] && command -v arm-linux-gnueabihf-strip >/dev/null; then
  # The cross build's own sysroot first (its armhf libraries), then the toolchain's and the host's.
  sysroot=$top/build-armhf/sysroot
  report armhf arm-linux-gnueabihf-strip "$arm_pkgd" "$sysroot/lib/arm-linux-gnueabihf" \
    "$sysroot/usr/lib/arm-linux-gnueabihf" /usr/arm-linux-gnueabihf/lib /lib/arm-linux-gnueabihf \
    /usr/lib/arm-linux-gnueabihf
  echo "armhf: private memory is not measured: under qemu-user the emulator's own pages are the process's"
else
  echo "armhf: not built"
fi
