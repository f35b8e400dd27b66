#!/usr/bin/env bash
# Size and start-up figures of the Debian package, measured on its installed files (extracted
# into a temporary folder, so the system is left alone):
#   the .deb's size and its installed size; the time of `quillane-cli --version` and of
#   `quillane` until its window is shown offscreen (QUILLANE_QUIT_WHEN_SHOWN), each cold (the
#   program and its libraries dropped from the page cache first) and warm (median of RUNS);
#   the CPU time of a warm run (perf stat's task-clock, when perf is installed); and the number
#   of shared objects each loads.
#
#   bench/startup.sh build-package/quillane_VERSION_amd64.deb [RUNS]
set -euo pipefail
deb=${1:?usage: startup.sh PACKAGE.deb [RUNS]}
runs=${2:-15}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
dpkg-deb -x "$deb" "$work/root"
bin=$work/root/usr/bin
export HOME=$work/home XDG_CONFIG_HOME=$work/home/config XDG_DATA_HOME=$work/home/data
export XDG_RUNTIME_DIR=$work/runtime QT_QPA_PLATFORM=offscreen QUILLANE_QUIT_WHEN_SHOWN=1
export XDG_DATA_DIRS=$work/root/usr/share:/usr/share
unset DBUS_SESSION_BUS_ADDRESS  # no running instance can take the launch over
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"

# Every shared object the program maps while doing its job, plugins included.
objects() { LD_DEBUG=files "$@" 2>&1 >/dev/null | grep -o 'calling init: [^ ]*' | sort -u; }
# posix_fadvise(DONTNEED) on each file: evicts it from the page cache unless another process
# has it mapped (Qt, used by other programs, may stay warm).
evict() { for f in "$@"; do dd if="$f" iflag=nocache count=0 status=none 2>/dev/null || true; done; }
elapsed_ms() {
  local start end
  start=$(date +%s%N)
  "$@" >/dev/null 2>&1
  end=$(date +%s%N)
  echo $(((end - start) / 1000000))
}
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR + 1) / 2)]}'; }

measure() {
  local name=$1
  shift
  local files
  mapfile -t files < <(objects "$@" | sed 's/calling init: //')
  evict "$1" "${files[@]}"
  local cold
  cold=$(elapsed_ms "$@")
  local warm
  warm=$(for _ in $(seq "$runs"); do elapsed_ms "$@"; done | median)
  # CPU time (task-clock) says more than wall time on a loaded machine.
  local cpu="?"
  if command -v perf >/dev/null 2>&1; then
    cpu=$(perf stat -x, -e task-clock -r "$runs" "$@" 2>&1 >/dev/null | awk -F, '/task-clock/ {printf "%.1f", $1}')
  fi
  printf '%-24s cold %4d ms   warm %4d ms (median of %d)   CPU %s ms   %3d shared objects\n' \
    "$name" "$cold" "$warm" "$runs" "$cpu" "${#files[@]}"
}

printf '.deb size: %d bytes; installed size: %d KiB\n' "$(stat -c %s "$deb")" \
  "$(dpkg-deb -f "$deb" Installed-Size)"
measure "quillane-cli --version" "$bin/quillane-cli" --version
measure "quillane, window shown" "$bin/quillane"
