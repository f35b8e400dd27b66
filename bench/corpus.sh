#!/usr/bin/env bash
# The corpus benchmark: real photographs and screenshots from Debian's packages, compressed to
# every format by Quillane and by Debian's matching codec tool in the same run.
#
#   bench/corpus.sh BUILD_DIR [FORMAT...]               quality 75, all files in flight
#   bench/corpus.sh --equal-look BUILD_DIR [FORMAT...]  bytes and CPU at equal butteraugli
#   bench/corpus.sh --spread BUILD_DIR PICTURE           one picture, six formats, 50/75/90
#   bench/corpus.sh --memory BUILD_DIR [FORMAT...]       peak per megapixel at 12 and 48 MP
#
# (formats: jpeg webp avif heic jxl png; default all.)
#
# Pictures: the photographs and the large illustrations of mate-backgrounds and the figures of
# gnome-user-docs, fetched once with `apt-get download` into $QUILLANE_BENCH_CORPUS (default
# ~/.cache/quillane-bench); the tools come from bench/install-bench-tools.
#
# The first form prints wall time, CPU time (user + system of every process), output bytes and
# peak resident memory of the largest process, for Quillane and for the tool, and Quillane's
# ratios. Both sides keep as many files in flight as there are cores through xargs -P, one
# process a file, each decoding its own input (Quillane's is bin/distance_bench encode: what
# the batch writes, without the measure that quillane-cli adds to its records). Read the
# ratios: on a loaded machine the absolute times wander, the ratios of one run much less.
#
# --equal-look sweeps four qualities on both sides, one process a file on one processor
# (taskset -c ${QUILLANE_BENCH_CPU:-1}), Quillane's through bin/distance_bench encode (what the
# batch writes, without the measure the command line adds), and scores every result with the
# program's own butteraugli 3-norm (bin/distance_bench between: the tool's output decoded as
# the program decodes any file). bench/rd_summary.py --equal-look then interpolates bytes and
# CPU at butteraugli 1.0, 1.5 and 2.0 per picture (on the logarithm of the bytes) and sums
# them over the pictures both sides reach, photographs (JPEG sources) and graphics (PNG
# sources) apart. Results go to $QUILLANE_BENCH_RESULTS (default a folder per commit beside
# the corpus) and a rerun only does what is missing; QUILLANE_BENCH_PICTURES (shell patterns
# of names without extension, default *) takes a subset. The load is printed before and after each format.
set -euo pipefail

# The tool that Quillane's format is compared with, on one file (called through xargs below).
if [ "${1:-}" = --one ]; then
  format=$2 dir=$3 in=$4
  name=$(basename "${in%.*}")
  case $format in
    quillane-*) format=${format#quillane-}
                "$QUILLANE_ENCODER" encode "$format" 75 "$in" "$dir/$name.$format" ;;
    jpeg) vips copy "$in" "$dir/$name.jpg[Q=75,optimize_coding,strip]" ;;
    webp) cwebp -quiet -q 75 -m 4 "$in" -o "$dir/$name.webp" ;;
    avif) avifenc -j 1 -s 6 --min 4 --max 17 "$in" "$dir/$name.avif" >/dev/null ;;
    heic) heif-enc -q 44 "$in" -o "$dir/$name.heic" >/dev/null ;;
    jxl) cjxl -q 75 -e 7 --lossless_jpeg=0 "$in" "$dir/$name.jxl" >/dev/null 2>&1 ;;
    png) pngquant --speed 3 --quality 0-75 --force --output "$dir/$name.png" "$in" ;;
  esac
  exit 0
fi

# One sweep point of the tool: format, point (0 to 3, lowest quality first), source, output.
# Each tool's own quality knob, at its defaults otherwise; avifenc in its constant-quality
# mode. The points span about the same butteraugli as Quillane's slider at 35, 55, 75 and 90.
if [ "${1:-}" = --tool-at ]; then
  format=$2 point=$3 in=$4 out=$5
  q=(35 55 75 90)
  q=${q[$point]}
  case $format in
    jpeg) vips copy "$in" "$out[Q=$q,optimize_coding,strip]" ;;
    webp) cwebp -quiet -q "$q" "$in" -o "$out" ;;
    avif) cq=(40 29 18 10)
          avifenc -j 1 --min 0 --max 63 -a end-usage=q -a cq-level="${cq[$point]}" "$in" "$out" >/dev/null ;;
    heic) hq=(15 30 45 60)
          heif-enc -q "${hq[$point]}" "$in" -o "$out" >/dev/null ;;
    jxl) cjxl -q "$q" --lossless_jpeg=0 "$in" "$out" >/dev/null 2>&1 ;;
    png) pngquant --quality "0-$q" --force --output "$out" "$in" ;;
  esac
  exit 0
fi

mode=quality75
case "${1:-}" in
  --equal-look) mode=equal; shift ;;
  --spread) mode=spread; shift ;;
  --memory) mode=memory; shift ;;
esac

build=$(cd "${1:?usage: bench/corpus.sh [--equal-look|--spread|--memory] BUILD_DIR [FORMAT...]}" && pwd); shift
formats=("$@")
[ ${#formats[@]} -gt 0 ] || formats=(jpeg webp avif heic jxl png)
here=$(cd "$(dirname "$0")" && pwd)
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
encoder=$build/bin/distance_bench
[ -x "$encoder" ] || { echo "no $encoder: build the distance_bench target first" >&2; exit 2; }
load() { cut -d' ' -f1-3 /proc/loadavg; }
declare -A tools=([jpeg]=vips [webp]=cwebp [avif]=avifenc [heic]=heif-enc [jxl]=cjxl [png]=pngquant)
declare -A extensions=([jpeg]=jpg [webp]=webp [avif]=avif [heic]=heic [jxl]=jxl [png]=png)

if [ "$mode" = equal ]; then
  cpu=${QUILLANE_BENCH_CPU:-1}
  results=${QUILLANE_BENCH_RESULTS:-$corpus/equal-look-$(git -C "$here" rev-parse --short HEAD)}
  mkdir -p "$results"
  tsv=$results/equal-look.tsv
  touch "$tsv"
  sweep=(35 55 75 90)
  read -ra patterns <<< "${QUILLANE_BENCH_PICTURES:-*}"
  # CPU seconds (user + system, to the microsecond) of one command on processor $cpu.
  timed() {
    python3 -c 'import resource, subprocess, sys
subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, check=True)
r = resource.getrusage(resource.RUSAGE_CHILDREN)
print(f"{r.ru_utime + r.ru_stime:.4f}")' taskset -c "$cpu" "$@"
  }
  echo "equal look: results in $tsv; processor $cpu; load before: $(load)"
  for format in "${formats[@]}"; do
    for source in "${pictures[@]}"; do
      name=$(basename "${source%.*}")
      selected=false
      for pattern in "${patterns[@]}"; do
        # shellcheck disable=SC2053
        [[ $name == $pattern ]] && selected=true
      done
      $selected || continue
      class=graphic; [[ $source == *.jpg ]] && class=photo
      # A JPEG has no alpha: the tools flatten a transparent source their own way.
      [ "$format" = jpeg ] && [ "$(vipsheader -f bands "$source")" = 4 ] && continue
      input=$source; [ "$format" = png ] && input=$corpus/png/$name.png
      for point in 0 1 2 3; do
        for side in quillane tool; do
          grep -q "^$class	$name	$format	$side	$point	" "$tsv" && continue
          result=$out/result.${extensions[$format]}
          rm -f "$result"
          if [ "$side" = quillane ]; then
            seconds=$(timed "$encoder" encode "$format" "${sweep[$point]}" "$source" "$result")
          else
            seconds=$(timed "$here/corpus.sh" --tool-at "$format" "$point" "$input" "$result")
          fi
          [ -s "$result" ] || { echo "no result: $format $side $point $name" >&2; continue; }
          distance=$("$encoder" between "$source" "$result")
          printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$class" "$name" "$format" "$side" "$point" \
            "$(stat -c %s "$result")" "$seconds" "$distance" >> "$tsv"
        done
      done
    done
    echo "$format done; load: $(load)"
  done
  echo "load after: $(load)"
  python3 "$here/rd_summary.py" --equal-look "$tsv" "${formats[@]}"
  exit 0
fi

if [ "$mode" = spread ]; then
  source=${formats[0]:?usage: bench/corpus.sh --spread BUILD_DIR PICTURE}
  echo "spread of $(basename "$source"): load before: $(load)"
  printf '\n| Format | 50: bytes / butteraugli | 75: bytes / butteraugli | 90: bytes / butteraugli |\n|---|---|---|---|\n'
  for format in jpeg webp avif heic jxl png; do
    row="| $format |"
    for q in 50 75 90; do
      result=$out/spread.${extensions[$format]}
      nice "$encoder" encode "$format" "$q" "$source" "$result"
      row+=" $(stat -c %s "$result" | awk '{printf "%\047d", $1}') / $(nice "$encoder" between "$source" "$result" | awk '{printf "%.2f", $1}') |"
    done
    echo "$row"
  done
  echo "load after: $(load)"
  exit 0
fi

if [ "$mode" = memory ]; then
  photos=$corpus/generated
  mkdir -p "$photos"
  [ -f "$photos/photo-48mp.jpg" ] || "$build/bin/encode_peak" sources "$photos" >/dev/null
  echo "peak of one encode (read, decode, analysis, plan, encoding), quality 75; load before: $(load)"
  printf '\n| Format | 12 MP | 48 MP |\n|---|---:|---:|\n'
  for format in "${formats[@]}"; do
    row="| $format |"
    for mp in 12 48; do
      /usr/bin/time -f %M -o "$out/time" nice "$encoder" encode "$format" 75 "$photos/photo-${mp}mp.jpg" "$out/m"
      row+=" $(awk -v mp="$mp" '{printf "%d MB (%.1f B/px)", $1 * 1024 / 1e6, $1 * 1024 / (mp * 1e6)}' "$out/time") |"
    done
    echo "$row"
  done
  echo "load after: $(load)"
  exit 0
fi

megapixels=$(for p in "${pictures[@]}"; do vipsheader -f width "$p"; vipsheader -f height "$p"; done |
             paste - - | awk '{s += $1 * $2} END {printf "%.0f", s / 1e6}')
echo "corpus: ${#pictures[@]} pictures, $megapixels MP; $jobs files in flight; load before: $(cut -d' ' -f1-3 /proc/loadavg)"

# "wall cpu peakKB" of a command line, through GNU time.
measure() {
  /usr/bin/time -f "%e %U %S %M" -o "$out/time" "$@" >/dev/null
  awk '{printf "%s %.2f %s\n", $1, $2 + $3, $4}' "$out/time"
}

printf '\n| Format | Quillane wall / CPU / bytes / peak | Tool | Tool wall / CPU / bytes / peak | Ratio wall / CPU / bytes |\n|---|---|---|---|---|\n'
for format in "${formats[@]}"; do
  rm -rf "$out/q" "$out/t"; mkdir -p "$out/q" "$out/t"
  inputs=("${pictures[@]}")
  read -r qw qc qm < <(QUILLANE_ENCODER=$encoder measure bash -c \
                         'printf "%s\0" "${@:4}" | xargs -0 -n 1 -P "$1" "$2" --one "$3" "$0"' \
                         "$out/q" "$jobs" "$here/corpus.sh" "quillane-$format" "${inputs[@]}")
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
