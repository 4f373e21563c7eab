#!/usr/bin/env bash
# Prepares the palette quality benchmark (bench/quality.py): installs Pillow
# (PSNR and blur) and the quantisers it compares against when they are
# packaged (pngquant, ImageMagick), and unpacks six photographs from the
# Debian package of scikit-image (its sample data: astronaut, cat, coffee,
# motorcycle, rocket, retina) into DIR (default build/photos).  The package
# is only downloaded and unpacked, not installed.
set -euo pipefail
dest=$(realpath -m "${1:-build/photos}")

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
need=()
for pkg in python3-pil pngquant imagemagick; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg")
done
if [ ${#need[@]} -gt 0 ]; then
  echo "setup_quality: installing ${need[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${need[@]}" >/dev/null
fi

mkdir -p "$dest"
work=$(mktemp -d)
chmod 755 "$work"  # apt downloads as its own user
trap 'rm -rf "$work"' EXIT
(cd "$work" && apt-get download -qq python3-skimage >/dev/null && dpkg-deb -x python3-skimage_*.deb unpacked)
data="$work/unpacked/usr/lib/python3/dist-packages/skimage/data"
for name in astronaut.png chelsea.png coffee.png motorcycle_left.png rocket.jpg retina.jpg; do
  # Every photograph as a plain 24-bit RGB PNG.
  /usr/bin/python3 -c 'import sys; from PIL import Image; Image.open(sys.argv[1]).convert("RGB").save(sys.argv[2])' \
    "$data/$name" "$dest/${name%.*}.png"
done
echo "setup_quality: photographs in $dest"
