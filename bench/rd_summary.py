#!/usr/bin/env python3
"""Summarises bench/rd_sweep.sh: per picture and format, bytes of 4:4:4 against 4:2:0 at equal
butteraugli, the writers' choice, quality 75 figures, and the peers at their defaults.
With --equal-look TSV [FORMAT...], summarises bench/corpus.sh --equal-look instead."""
import fnmatch
import math
import os
import sys
from collections import defaultdict

def log_bytes_at(points, ba):
    """log(bytes) at butteraugli `ba`, linear between the two nearest points; None outside."""
    pts = sorted((p[2], math.log(p[1])) for p in points)
    for (b0, l0), (b1, l1) in zip(pts, pts[1:]):
        if b0 <= ba <= b1:
            return l0 if b1 == b0 else l0 + (ba - b0) / (b1 - b0) * (l1 - l0)
    return None


def equal_quality_ratio(a, b):
    """Mean bytes of a over bytes of b at equal butteraugli, over their common range."""
    lo = max(min(p[2] for p in a), min(p[2] for p in b))
    hi = min(max(p[2] for p in a), max(p[2] for p in b))
    if hi <= lo:
        return None
    diffs = []
    for i in range(21):
        ba = lo + (hi - lo) * i / 20
        la, lb = log_bytes_at(a, ba), log_bytes_at(b, ba)
        if la is not None and lb is not None:
            diffs.append(la - lb)
    return math.exp(sum(diffs) / len(diffs)) if diffs else None


def ba_at(points, log_size):
    """Butteraugli at log(bytes) `log_size`, linear between the two nearest points; None outside."""
    pts = sorted((math.log(p[1]), p[2]) for p in points)
    for (l0, b0), (l1, b1) in zip(pts, pts[1:]):
        if l0 <= log_size <= l1:
            return b0 if l1 == l0 else b0 + (log_size - l0) / (l1 - l0) * (b1 - b0)
    return None


def equal_bytes_ratio(a, b):
    """Mean butteraugli of a over that of b at equal bytes, over their common range."""
    lo = max(min(math.log(p[1]) for p in a), min(math.log(p[1]) for p in b))
    hi = min(max(math.log(p[1]) for p in a), max(math.log(p[1]) for p in b))
    if hi <= lo:
        return None
    r = []
    for i in range(21):
        ls = lo + (hi - lo) * i / 20
        ba, bb = ba_at(a, ls), ba_at(b, ls)
        if ba is not None and bb:
            r.append(math.log(ba / bb))
    return math.exp(sum(r) / len(r)) if r else None


def chosen_curve(c, layout):
    return [p for p in c[layout] if p[0] < 90] + [p for p in c["444"] if p[0] >= 90]


def pct(r):
    return "-" if r is None else f"{(r - 1) * 100:+.0f} %"


def value_at(points, ba, value):
    """value(point) at butteraugli `ba`, linear between the two nearest points; None outside."""
    pts = sorted((p[2], value(p)) for p in points)
    for (b0, v0), (b1, v1) in zip(pts, pts[1:]):
        if b0 <= ba <= b1:
            return v0 if b1 == b0 else v0 + (ba - b0) / (b1 - b0) * (v1 - v0)
    return None


def equal_look(path, formats):
    """bench/corpus.sh --equal-look: per format and kind of picture, the bytes and CPU of
    Quillane and of the tool at butteraugli 1.0, 1.5 and 2.0, summed over the pictures whose
    sweeps reach that distance on both sides, and the mean ratios over the common range."""
    runs = defaultdict(list)  # (format, class, picture, side) -> [(point, bytes, ba, cpu)]
    patterns = os.environ.get("QUILLANE_BENCH_PICTURES", "*").split()
    for line in open(path):
        cls, pic, fmt, side, point, size, cpu, ba = line.rstrip("\n").split("\t")
        if not any(fnmatch.fnmatchcase(pic, p) for p in patterns):
            continue
        runs[(fmt, cls, pic, side)].append((int(point), int(size), float(ba), float(cpu)))
    print("\n| Format | Pictures | Butteraugli | Reached | Quillane bytes / CPU | Tool bytes / CPU | Ratio bytes / CPU |")
    print("|---|---|---:|---:|---|---|---|")
    for fmt in formats:
        for cls in ("photo", "graphic"):
            pics = sorted({k[2] for k in runs if k[0] == fmt and k[1] == cls})
            pairs = [(runs[(fmt, cls, p, "quillane")], runs[(fmt, cls, p, "tool")]) for p in pics]
            pairs = [(q, t) for q, t in pairs if len(q) > 1 and len(t) > 1]
            if not pairs:
                continue
            for ba in (1.0, 1.5, 2.0):
                qb = qc = tb = tc = 0.0
                n = 0
                for q, t in pairs:
                    got = [value_at(side, ba, v) for side in (q, t)
                           for v in (lambda p: math.log(p[1]), lambda p: p[3])]
                    if None in got:
                        continue
                    n += 1
                    qb += math.exp(got[0]); qc += got[1]; tb += math.exp(got[2]); tc += got[3]
                if n == 0:
                    print(f"| {fmt} | {cls} | {ba:.1f} | 0 of {len(pairs)} | - | - | - |")
                    continue
                print(f"| {fmt} | {cls} | {ba:.1f} | {n} of {len(pairs)} | {qb / 1e6:.3f} MB / {qc:.2f} s | "
                      f"{tb / 1e6:.3f} MB / {tc:.2f} s | {qb / tb:.3f} / {qc / max(tc, 1e-6):.2f} |")
            # Over the common range of each picture: bytes at equal distance, and distance at
            # equal bytes (the figure for a palette, whose distance has a floor).
            def mean(ratios):
                ratios = [r for r in ratios if r is not None]
                return (math.exp(sum(math.log(r) for r in ratios) / len(ratios)), len(ratios)) if ratios else None
            for label, got in (("bytes over the curve", mean(equal_quality_ratio(q, t) for q, t in pairs)),
                               ("distance at equal bytes", mean(equal_bytes_ratio(q, t) for q, t in pairs))):
                if got:
                    print(f"| {fmt} | {cls} | {label} | {got[1]} of {len(pairs)} | | | {got[0]:.3f} |")


if sys.argv[1] == "--equal-look":
    equal_look(sys.argv[2], sys.argv[3:] or ["jpeg", "webp", "avif", "heic", "jxl", "png"])
    sys.exit(0)

rd_path, choice_path = sys.argv[1], sys.argv[2]
curves = defaultdict(lambda: defaultdict(list))  # (pic, fmt) -> layout -> [(q, bytes, ba)]
peers = {}
for line in open(rd_path):
    pic, fmt, q, layout, size, ba = line.rstrip("\n").split("\t")
    if not ba:
        continue
    if layout == "default":
        peers[(pic, fmt)] = (q, int(size), float(ba))
    else:
        curves[(pic, fmt)][layout].append((int(q), int(size), float(ba)))

choice = {}
for line in open(choice_path):
    f = line.split()
    pic = f[0].rsplit("/", 1)[-1][:-4]
    choice[pic] = (float(f[1]), float(f[2]), f[3])


formats = sorted({k[1] for k in curves}, key=["avif", "heic", "jpeg"].index)
pics = sorted({k[0] for k in curves}, key=lambda p: (["screenshot", "graphic", "photo"].index(p.split("-")[0]), p))
for fmt in formats:
    print(f"\n### {fmt.upper()}\n")
    print("| Picture | edges > 16 / > 32 | 4:4:4 vs 4:2:0: bytes at equal BA | BA at equal bytes | chosen | q75 4:2:0 bytes / BA | q75 chosen bytes / BA | peer default bytes / BA | ours at peer's BA |")
    print("|---|---:|---:|---:|---|---|---|---|---:|")
    for pic in pics:
        c = curves.get((pic, fmt))
        if not c or len(c["420"]) < 6 or len(c["444"]) < 6:
            continue
        share16, share32, layout = choice[pic]
        ratio = equal_quality_ratio(c["444"], c["420"])
        ba_ratio = equal_bytes_ratio(c["444"], c["420"])
        q75 = {l: next(p for p in c[l] if p[0] == 75) for l in ("420", "444")}
        today, chosen = q75["420"], q75[layout]
        peer = peers.get((pic, fmt))
        peer_cell, ours_cell = "-", "-"
        if peer:
            peer_cell = f"{peer[1]:,} / {peer[2]:.2f}"
            lb = log_bytes_at(chosen_curve(c, layout), peer[2])
            ours_cell = "out of range" if lb is None else pct(math.exp(lb) / peer[1])
        print(f"| {pic} | {share16:.4f} / {share32:.4f} | {pct(ratio)} | {pct(ba_ratio)} | {layout} | {today[1]:,} / {today[2]:.2f} | "
              f"{chosen[1]:,} / {chosen[2]:.2f} | {peer_cell} | {ours_cell} |")
