#!/usr/bin/env bash
# Rate-distortion sweep of the chroma layout: every corpus picture written by the AVIF, HEIC and
# JPEG writers at 4:2:0 and at 4:4:4 over slider values 40 to 95, read back by the libraries'
# own command-line decoders, and scored with butteraugli (3-norm). Also the layout the writers
# choose, and avifenc and heif-enc at their defaults for comparison. One process at a time,
# pictures of about 0.17 MP: about a quarter of an hour on a loaded 2-core machine.
#
#   bench/rd_sweep.sh BUILD_DIR OUT_DIR [FORMATS]      FORMATS default "avif heic jpeg"
#
# BUILD_DIR needs bin/chroma_bench and bin/ui_tests (for the window screenshots). Results:
# OUT_DIR/rd.tsv (one line per encoding), OUT_DIR/choice.tsv (measure per picture), and the
# summary that bench/rd_summary.py prints. Pictures come from Debian packages (downloaded with
# apt-get download, unpacked, never installed) and from renderings made here.
set -euo pipefail

build=$(realpath "$1")
out=$(realpath -m "$2")
formats=${3:-"avif heic jpeg"}
here=$(dirname "$(realpath "$0")")
tool="$build/bin/chroma_bench"
mkdir -p "$out/corpus" "$out/debs" "$out/work"

need=(libjxl-devtools libavif-bin libheif-examples libjpeg-turbo-progs python3-pygments python3-pil graphviz)
missing=()
for p in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# --- corpus -------------------------------------------------------------------------------
src="$out/debs/root"
if [ ! -d "$src" ]; then
  (cd "$out/debs" && apt-get download -qq python3-skimage lomiri-wallpapers-20.04 ukui-wallpapers)
  for d in "$out"/debs/*.deb; do dpkg -x "$d" "$src"; done
fi
sk="$src/usr/lib/python3/dist-packages/skimage/data"
bg="$src/usr/share/backgrounds"
gen="$out/debs/generated"
mkdir -p "$gen"
if [ ! -f "$gen/diagram.png" ]; then
  sed -n 81,200p /usr/include/avif/avif.h > "$gen/code.h"
  /usr/bin/python3 -m pygments -l c -f png -O 'style=default,font_name=DejaVu Sans Mono,font_size=13,line_numbers=True' \
    -o "$gen/code-light.png" "$gen/code.h"
  sed -n 1,120p /usr/lib/python3/dist-packages/pygments/lexers/special.py > "$gen/code.py"
  /usr/bin/python3 -m pygments -l python -f png -O 'style=monokai,font_name=DejaVu Sans Mono,font_size=13' \
    -o "$gen/code-dark.png" "$gen/code.py"
  dot -Tpng -Gdpi=110 "$here/rd_diagram.dot" -o "$gen/diagram.png"
  dot -Tpng -Gdpi=110 -Gbgcolor=transparent "$here/rd_diagram.dot" -o "$gen/diagram-alpha.png"
  QT_QPA_PLATFORM=offscreen QUILLANE_BIN_DIR="$gen/bin" "$build/bin/ui_tests" \
    --gtest_filter='ScreenshotTest.MainWindowLightAndDarkAndTheHistory' > /dev/null
fi

# class name source x y w h
corpus=$(cat <<CORPUS
screenshot code-light $gen/code-light.png 0 220 480 360
screenshot code-dark $gen/code-dark.png 0 300 480 360
screenshot window $gen/screenshots/main-light.png 0 0 480 360
screenshot window-dark $gen/screenshots/main-dark.png 0 0 480 360
graphic diagram $gen/diagram.png 330 20 480 360
graphic diagram-alpha $gen/diagram-alpha.png 330 20 480 360
graphic logo-alpha $sk/logo.png 60 60 380 380
graphic rollpaper $bg/rollpaper.png 1700 700 480 360
graphic focal $bg/focal-ubuntukylin.png 1950 1100 480 360
graphic goldfish $bg/goldfish.png 1900 800 480 360
photo astronaut $sk/astronaut.png 16 0 480 360
photo chelsea $sk/chelsea.png 0 0 451 300
photo coffee $sk/coffee.png 60 0 480 360
photo motorcycle $sk/motorcycle_left.png 130 70 480 360
photo rocket $sk/rocket.jpg 80 0 480 360
photo kleiber $bg/Kleiber_by_Lukas_Baubkus.jpg 2500 1500 480 360
photo milkyway $bg/Infinite-Sea_by_Aury88.jpg 1700 1200 480 360
CORPUS
)
while read -r cls name file x y w h; do
  [ -f "$out/corpus/$cls-$name.png" ] || "$tool" crop "$file" "$out/corpus/$cls-$name.png" "$x" "$y" "$w" "$h"
done <<< "$corpus"

"$tool" measure "$out"/corpus/*.png > "$out/choice.tsv"

# --- sweep --------------------------------------------------------------------------------
score() {  # reference, decoded PNG -> butteraugli 3-norm
  butteraugli_main "$1" "$2" --pnorm 3 2> /dev/null | awk '/3-norm/ {print $2}'
}
decode() {  # format, file -> path of the decoded picture
  case "$1" in
    avif) avifdec "$2" "$w/d.png" > /dev/null && echo "$w/d.png" ;;
    heic) heif-convert "$2" "$w/d.png" > /dev/null && echo "$w/d.png" ;;
    jpeg) djpeg -outfile "$w/d.ppm" "$2" && echo "$w/d.ppm" ;;
  esac
}
rd="$out/rd.tsv"
w="$out/work"
touch "$rd"
for ref in "$out"/corpus/*.png; do
  pic=$(basename "$ref" .png)
  for fmt in $formats; do
    # JPEG has no alpha: the writer's flattened picture would not match the reference.
    [ "$fmt" = jpeg ] && [[ "$pic" == *alpha* ]] && continue
    for q in 40 50 60 75 85 95; do
      for layout in 420 444; do
        grep -q "^$pic	$fmt	$q	$layout	" "$rd" && continue
        ext=$fmt; [ "$fmt" = jpeg ] && ext=jpg
        read -r bytes _ < <("$tool" encode "$ref" "$fmt" "$q" "$layout" "$w/e.$ext")
        decoded=$(decode "$fmt" "$w/e.$ext")
        printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$pic" "$fmt" "$q" "$layout" "$bytes" "$(score "$ref" "$decoded")" >> "$rd"
      done
    done
    # The peers at their defaults.
    peer=""
    case "$fmt" in
      avif) peer=avifenc; avifenc -j 1 "$ref" "$w/p.avif" > /dev/null; pf="$w/p.avif" ;;
      heic) peer=heif-enc; heif-enc "$ref" -o "$w/p.heic" > /dev/null; pf="$w/p.heic" ;;
    esac
    if [ -n "$peer" ] && ! grep -q "^$pic	$fmt	$peer	" "$rd"; then
      decoded=$(decode "$fmt" "$pf")
      printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$pic" "$fmt" "$peer" default "$(stat -c %s "$pf")" "$(score "$ref" "$decoded")" >> "$rd"
    fi
  done
done

/usr/bin/python3 "$here/rd_summary.py" "$rd" "$out/choice.tsv"
