#!/usr/bin/env python3
"""Palette quality on real photographs.

Reduces every PNG of a folder (bench/setup_quality.sh fetches six) to 256,
64 and 16 colours with Floyd-Steinberg dithering, with vkimg's optimised and
best palettes and, when installed, with pngquant, ImageMagick and Pillow's
median cut, and prints the mean PSNR over the photographs, raw and after a
1.5-pixel Gaussian blur (roughly what the eye sees of a dither pattern).
Needs Pillow (run it with the system python3).
Usage: quality.py VKIMG [PHOTO_DIR] [--each]
"""
import os
import shutil
import subprocess
import sys
import tempfile

from PIL import Image, ImageChops, ImageFilter

COUNTS = (256, 64, 16)


def psnr(a, b):
    hist = ImageChops.difference(a, b).histogram()
    sq = sum(n * (i % 256) ** 2 for i, n in enumerate(hist))
    mse = sq / (3 * a.size[0] * a.size[1])
    return 99.0 if mse == 0 else 10 * __import__("math").log10(255 * 255 / mse)


def methods(vkimg):
    def vk(palette):
        return lambda src, n, out: [vkimg, src, "--reduce", "8", "--colors", str(n), "--dither", "fs",
                                    "--palette", palette, out]
    found = [("optimised", vk("optimised")), ("best", vk("best"))]
    if shutil.which("pngquant"):
        found.append(("pngquant", lambda src, n, out: ["pngquant", "--force", "--output", out, str(n), src]))
    if shutil.which("convert"):
        found.append(("ImageMagick", lambda src, n, out: ["convert", src, "-dither", "FloydSteinberg",
                                                          "-colors", str(n), out]))
    found.append(("Pillow", None))
    return found


def reduce(run, src, n, out):
    if run is None:  # Pillow's median cut in this process
        Image.open(src).quantize(colors=n, method=Image.Quantize.MEDIANCUT,
                                 dither=Image.Dither.FLOYDSTEINBERG).save(out)
    else:
        subprocess.run(run(src, n, out), check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def main():
    args = [a for a in sys.argv[1:] if not a.startswith("--")]
    each = "--each" in sys.argv
    if not args:
        sys.exit(__doc__)
    vkimg = os.path.abspath(args[0])
    folder = args[1] if len(args) > 1 else "build/photos"
    photos = sorted(os.path.join(folder, f) for f in os.listdir(folder) if f.endswith(".png"))
    found = methods(vkimg)
    scores = {}  # (method, n) -> [(raw, blurred)]
    with tempfile.TemporaryDirectory() as tmp:
        for photo in photos:
            ref = Image.open(photo).convert("RGB")
            ref_blur = ref.filter(ImageFilter.GaussianBlur(1.5))
            for name, run in found:
                for n in COUNTS:
                    out = os.path.join(tmp, "out.png")
                    reduce(run, photo, n, out)
                    got = Image.open(out).convert("RGB")
                    s = (psnr(ref, got), psnr(ref_blur, got.filter(ImageFilter.GaussianBlur(1.5))))
                    scores.setdefault((name, n), []).append(s)
                    if each:
                        print(f"{os.path.basename(photo):22} {name:12} {n:3}  {s[0]:5.1f} {s[1]:5.1f}")
    print(f"mean PSNR over {len(photos)} photographs, raw / blurred (dB), Floyd-Steinberg")
    print(f"{'':12}" + "".join(f"{n:>14}" for n in COUNTS))
    for name, _ in found:
        row = []
        for n in COUNTS:
            v = scores[(name, n)]
            row.append(f"{sum(r for r, _ in v) / len(v):6.1f} /{sum(b for _, b in v) / len(v):5.1f}")
        print(f"{name:12}" + "".join(f"{c:>14}" for c in row))


if __name__ == "__main__":
    main()
