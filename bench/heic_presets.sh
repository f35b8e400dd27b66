#!/usr/bin/env bash
# x265 settings for HEIC: bytes at equal butteraugli against CPU time, with Debian's heif-enc
# (the same libheif and x265 as the writer). Usage: bench/heic_presets.sh PICTURES_DIR [CONFIG...]
# Each PNG in PICTURES_DIR is encoded at libheif quality 40, 44 and 48 (the slider's 75 is 44)
# under every configuration; "medium" at 44 is the reference. Prints one line per picture and
# configuration: CPU seconds at 44, bytes and butteraugli 3-norm at 44, and the bytes the
# configuration needs for the reference's butteraugli (log-linear between the bracketing points).
set -euo pipefail
dir=$1; shift
configs=("$@")
[ ${#configs[@]} -gt 0 ] || configs=(medium fast faster veryfast)
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT

run() {  # picture config quality -> "cpu bytes butteraugli"
  local png=$1 config=$2 q=$3 params=()
  IFS=+ read -ra parts <<<"$config"
  params+=(-p "preset=${parts[0]}")
  for extra in "${parts[@]:1}"; do params+=(-p "x265:$extra"); done
  local t; t=$( { /usr/bin/time -f "%U %S" heif-enc -q "$q" -p chroma=420 "${params[@]}" "$png" -o "$work/o.heic" >/dev/null; } 2>&1 | tail -1)
  heif-convert "$work/o.heic" "$work/o.png" >/dev/null
  local ba; ba=$(butteraugli_main "$png" "$work/o.png" --pnorm 3 2>/dev/null | sed -n 's/^3-norm: //p')
  echo "$(awk '{print $1 + $2}' <<<"$t") $(stat -c %s "$work/o.heic") $ba"
}

for png in "$dir"/*.png; do
  name=$(basename "$png" .png)
  ref=$(run "$png" medium 44); refBa=$(cut -d' ' -f3 <<<"$ref")
  for config in "${configs[@]}"; do
    lo=$(run "$png" "$config" 40); mid=$( [ "$config" = medium ] && echo "$ref" || run "$png" "$config" 44 ); hi=$(run "$png" "$config" 48)
    python3 - "$name" "$config" "$refBa" "$lo" "$mid" "$hi" <<'PY'
import sys, math
name, config, ref = sys.argv[1], sys.argv[2], float(sys.argv[3])
pts = sorted((float(b), int(s)) for _, s, b in (a.split() for a in sys.argv[4:]))
cpu, size, ba = sys.argv[5].split()
def at(x):
    for (b0, s0), (b1, s1) in zip(pts, pts[1:]):
        if b0 <= x <= b1 and b1 > b0:
            t = (x - b0) / (b1 - b0)
            return math.exp(math.log(s0) * (1 - t) + math.log(s1) * t)
    return float('nan')
print(f"{name} {config} cpu={float(cpu):.2f}s bytes44={size} ba44={float(ba):.3f} bytes_at_ref_ba={at(ref):.0f}", flush=True)
PY
  done
done
