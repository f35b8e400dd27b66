#!/usr/bin/env bash
# The corpus benchmark: real photographs and screenshots from Debian's packages, compressed to
# every format at quality 75 by quillane-cli and by Debian's matching codec tool in the same run.
#
#   bench/corpus.sh BUILD_DIR [FORMAT...]        (formats: jpeg webp avif heic jxl png; default all)
#
# Pictures: the photographs and the large illustrations of mate-backgrounds and the figures of
# gnome-user-docs, fetched once with `apt-get download` into $QUILLANE_BENCH_CORPUS (default
# ~/.cache/quillane-bench); the tools come from bench/install-bench-tools. For each format it
# prints wall time, CPU time (user + system of every process), output bytes and peak resident
# memory of the largest process, for Quillane and for the tool, and Quillane's ratios. Both
# sides keep as many files in flight as there are cores (quillane-cli by itself, the tools
# through xargs -P), each decoding its own input. Read the ratios: on a loaded machine the
# absolute times wander, the ratios of one run much less.
set -euo pipefail

# The tool that Quillane's format is compared with, on one file (called through xargs below).
if [ "${1:-}" = --one ]; then
  format=$2 dir=$3 in=$4
  name=$(basename "${in%.*}")
  case $format in
    jpeg) vips copy "$in" "$dir/$name.jpg[Q=75,optimize_coding,strip]" ;;
    webp) cwebp -quiet -q 75 -m 4 "$in" -o "$dir/$name.webp" ;;
    avif) avifenc -j 1 -s 6 --min 4 --max 17 "$in" "$dir/$name.avif" >/dev/null ;;
    heic) heif-enc -q 44 "$in" -o "$dir/$name.heic" >/dev/null ;;
    jxl) cjxl -q 75 -e 7 --lossless_jpeg=0 "$in" "$dir/$name.jxl" >/dev/null 2>&1 ;;
    png) pngquant --speed 3 --quality 0-75 --force --output "$dir/$name.png" "$in" ;;
  esac
  exit 0
fi

build=$(cd "${1:?usage: bench/corpus.sh BUILD_DIR [FORMAT...]}" && pwd); shift
formats=("$@")
[ ${#formats[@]} -gt 0 ] || formats=(jpeg webp avif heic jxl png)
here=$(cd "$(dirname "$0")" && pwd)
cli=$build/bin/quillane-cli
[ -x "$cli" ] || { echo "no $cli: build the quillane-cli target first" >&2; exit 2; }
"$here/install-bench-tools"

corpus=${QUILLANE_BENCH_CORPUS:-$HOME/.cache/quillane-bench}
mkdir -p "$corpus"
if [ ! -d "$corpus/pictures" ]; then
  (cd "$corpus" && apt-get download mate-backgrounds gnome-user-docs)
  mkdir -p "$corpus/extract" "$corpus/pictures.new"
  for deb in "$corpus"/*.deb; do dpkg-deb -x "$deb" "$corpus/extract"; done
  bg=$corpus/extract/usr/share/backgrounds/mate
  cp "$bg"/nature/*.jpg "$bg"/abstract/Elephants_5640x3172.jpg "$bg"/abstract/Gulp.png \
     "$bg"/abstract/Arc-Colors-Transparent-Wallpaper.png "$bg"/desktop/Ubuntu-Mate-Cold-no-logo.png \
     "$corpus/pictures.new/"
  # The figures of the help, at least 600 pixels wide: screenshots of a desktop.
  for png in "$corpus"/extract/usr/share/help/C/gnome-help/figures/*.png; do
    w=$(python3 -c 'import struct,sys; d=open(sys.argv[1],"rb").read(24); print(struct.unpack(">I", d[16:20])[0])' "$png")
    [ "$w" -ge 600 ] && cp "$png" "$corpus/pictures.new/screen-$(basename "$png")"
  done
  rm -rf "$corpus/extract"
  mv "$corpus/pictures.new" "$corpus/pictures"
fi
pictures=("$corpus"/pictures/*)
# pngquant reads PNG only: the photographs are handed to it as PNG, converted here, untimed.
if [ ! -d "$corpus/png" ]; then
  mkdir -p "$corpus/png.new"
  for p in "${pictures[@]}"; do vips copy "$p" "$corpus/png.new/$(basename "${p%.*}").png"; done
  mv "$corpus/png.new" "$corpus/png"
fi

jobs=$(nproc)
out=$(mktemp -d); trap 'rm -rf "$out"' EXIT
megapixels=$(for p in "${pictures[@]}"; do vipsheader -f width "$p"; vipsheader -f height "$p"; done |
             paste - - | awk '{s += $1 * $2} END {printf "%.0f", s / 1e6}')
echo "corpus: ${#pictures[@]} pictures, $megapixels MP; $jobs files in flight; load before: $(cut -d' ' -f1-3 /proc/loadavg)"

declare -A tools=([jpeg]=vips [webp]=cwebp [avif]=avifenc [heic]=heif-enc [jxl]=cjxl [png]=pngquant)

# "wall cpu peakKB" of a command line, through GNU time.
measure() {
  /usr/bin/time -f "%e %U %S %M" -o "$out/time" "$@" >/dev/null
  awk '{printf "%s %.2f %s\n", $1, $2 + $3, $4}' "$out/time"
}

printf '\n| Format | Quillane wall / CPU / bytes / peak | Tool | Tool wall / CPU / bytes / peak | Ratio wall / CPU / bytes |\n|---|---|---|---|---|\n'
for format in "${formats[@]}"; do
  rm -rf "$out/q" "$out/t"; mkdir -p "$out/q" "$out/t"
  read -r qw qc qm < <(measure "$cli" compress --format "$format" --quality 75 --to "$out/q" "${pictures[@]}")
  inputs=("${pictures[@]}")
  [ "$format" = png ] && inputs=("$corpus"/png/*)
  read -r tw tc tm < <(measure bash -c 'printf "%s\0" "${@:4}" | xargs -0 -n 1 -P "$1" "$2" --one "$3" "$0"' \
                         "$out/t" "$jobs" "$here/corpus.sh" "$format" "${inputs[@]}")
  qb=$(du -cb "$out"/q/* | tail -1 | cut -f1); tb=$(du -cb "$out"/t/* | tail -1 | cut -f1)
  qn=$(ls "$out/q" | wc -l); tn=$(ls "$out/t" | wc -l)
  name=${tools[$format]}
  awk -v f="$format" -v n="$name" -v qw="$qw" -v qc="$qc" -v qb="$qb" -v qm="$qm" -v tw="$tw" -v tc="$tc" -v tb="$tb" \
      -v tm="$tm" -v qn="$qn" -v tn="$tn" -v all="${#pictures[@]}" 'BEGIN {
    printf "| %s | %.1f s / %.1f s / %.2f MB / %d MB | %s | %.1f s / %.1f s / %.2f MB / %d MB | %.2f / %.2f / %.2f |%s\n",
      f, qw, qc, qb / 1e6, qm / 1024, n, tw, tc, tb / 1e6, tm / 1024, qw / tw, qc / tc, qb / tb,
      (qn < all || tn < all) ? sprintf(" (files: Quillane %d, tool %d of %d)", qn, tn, all) : "" }'
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
