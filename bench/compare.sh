#!/usr/bin/env bash
# Whole-process timings of vkimg beside the tools a user would pick instead
# (ImageMagick, GraphicsMagick, libvips, netpbm, Pillow), one thread each,
# with hyperfine, on a 6000x4000 photo-like PPM; writes a table of medians,
# ratios and vkimg's peak memory.
#
#   bench/compare.sh                      # every operation, every peer
#   OPS="noop gray" PEERS="vips netpbm" RUNS=3 bench/compare.sh
#   REUSE=1 bench/compare.sh              # time vkimg again, keep the peers' earlier results
#
# Peers come from Debian's packages and are installed when missing.  Inputs:
# $BENCH_DATA/photo.ppm (default bench-work/data, made here when missing).
# Results: bench-work/results/compare.md and hyperfine's JSON beside it.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=${BENCH_WORK:-$root/bench-work}
data=${BENCH_DATA:-$work/data}
out=${BENCH_OUT:-/dev/shm/vkimg-compare}   # outputs on tmpfs: no disk writeback in the timings
RUNS=${RUNS:-5}
WARMUP=${WARMUP:-1}
mkdir -p "$work/results" "$data" "$out"

need=()
for pkg in hyperfine imagemagick graphicsmagick libvips-tools netpbm python3-pil time; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg")
done
if [ ${#need[@]} -gt 0 ]; then
  echo "compare: installing ${need[*]}"
  SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${need[@]}" >/dev/null
fi

cmake -S "$root" -B "$root/build/release" -DCMAKE_BUILD_TYPE=Release -DVK_BUILD_TESTS=OFF -DVK_BUILD_BENCH=OFF >/dev/null
cmake --build "$root/build/release" --target vkimg -j"$(nproc 2>/dev/null || echo 2)" >"$work/results/build.log" 2>&1 || { cat "$work/results/build.log"; exit 1; }
VK="$root/build/release/tools/vkimg --no-progress"

# Debian caps ImageMagick at 256 MiB of pixel cache: lift it for 24 megapixels.
policy="$work/im-policy"
mkdir -p "$policy"
cat > "$policy/policy.xml" <<'XML'
<policymap>
  <policy domain="resource" name="memory" value="4GiB"/>
  <policy domain="resource" name="map" value="8GiB"/>
  <policy domain="resource" name="area" value="1GP"/>
  <policy domain="resource" name="disk" value="16GiB"/>
  <policy domain="resource" name="width" value="64KP"/>
  <policy domain="resource" name="height" value="64KP"/>
</policymap>
XML
export MAGICK_CONFIGURE_PATH="$policy"
IM=convert-im6.q16
PY=/usr/bin/python3

P=$data/photo.ppm
if [ ! -s "$P" ]; then
  echo "compare: making $P (plasma fractal, fixed seed)"
  "$IM" -seed 42 -size 6000x4000 plasma:fractal -blur 0x1.5 -depth 8 "$P"
fi

# Pillow, one operation per call (it has no command-line program of its own).
pil() {
  echo "$PY -c 'import sys; from PIL import Image; Image.MAX_IMAGE_PIXELS=None; im=Image.open(sys.argv[1]); $1' $P"
}

declare -A C
im1="MAGICK_THREAD_LIMIT=1 $IM"; gm1="OMP_NUM_THREADS=1 gm convert"; v1="VIPS_CONCURRENCY=1 vips"
# no-op: read and write back unchanged
C[noop|vkimg]="$VK $P $out/vk.ppm"
C[noop|im]="$im1 $P $out/im.ppm"; C[noop|gm]="$gm1 $P $out/gm.ppm"
C[noop|vips]="$v1 copy $P $out/v.ppm"; C[noop|netpbm]="ppmtoppm < $P > $out/n.ppm"
C[noop|pil]=$(pil "im.save(\"$out/pil.ppm\")")
# gray, 8 bits
C[gray|vkimg]="$VK $P --gray 8 $out/vk.pgm"
C[gray|im]="$im1 $P -colorspace Gray $out/im.pgm"; C[gray|gm]="$gm1 $P -colorspace Gray $out/gm.pgm"
C[gray|vips]="$v1 colourspace $P $out/v.pgm b-w"; C[gray|netpbm]="ppmtopgm $P > $out/n.pgm"
C[gray|pil]=$(pil "im.convert(\"L\").save(\"$out/pil.pgm\")")
# ordered dither to black and white
C[bw_ordered|vkimg]="$VK $P --reduce 1 --dither ordered $out/vk.pbm"
C[bw_ordered|im]="$im1 $P -colorspace Gray -ordered-dither o8x8 $out/im.pbm"
C[bw_ordered|gm]="$gm1 $P -colorspace Gray -ordered-dither Intensity 4x4 $out/gm.pbm"
C[bw_ordered|netpbm]="ppmtopgm $P | pamditherbw -dither8 > $out/n.pbm"
# error diffusion (Floyd-Steinberg) to black and white
C[bw_fs|vkimg]="$VK $P --reduce 1 --dither fs $out/vk.pbm"
C[bw_fs|im]="$im1 $P -colorspace Gray -dither FloydSteinberg -monochrome $out/im.pbm"
C[bw_fs|gm]="$gm1 $P -colorspace Gray -dither -monochrome $out/gm.pbm"
C[bw_fs|netpbm]="ppmtopgm $P | pamditherbw -fs > $out/n.pbm"
C[bw_fs|pil]=$(pil "im.convert(\"L\").convert(\"1\").save(\"$out/pil.pbm\")")
# 256 colours, optimised palette, Floyd-Steinberg
C[q256_fs|vkimg]="$VK $P --reduce 8 --dither fs $out/vk.ppm"
C[q256_fs|im]="$im1 $P -dither FloydSteinberg -colors 256 $out/im.ppm"
C[q256_fs|gm]="$gm1 $P -dither -colors 256 $out/gm.ppm"
C[q256_fs|vips]="$v1 pngsave $P $out/v.png --palette --bitdepth 8 --dither 1.0 --compression 0 --filter none"
C[q256_fs|netpbm]="pnmquant -norandom -floyd 256 $P > $out/n.ppm"
C[q256_fs|pil]=$(pil "p=im.quantize(256, method=Image.Quantize.MEDIANCUT, dither=Image.Dither.NONE); im.quantize(palette=p, dither=Image.Dither.FLOYDSTEINBERG).save(\"$out/pil.bmp\")")
# 256 colours, no dithering
C[q256|vkimg]="$VK $P --reduce 8 --dither none $out/vk.ppm"
C[q256|im]="$im1 $P +dither -colors 256 $out/im.ppm"
C[q256|vips]="$v1 pngsave $P $out/v.png --palette --bitdepth 8 --dither 0 --compression 0 --filter none"
C[q256|netpbm]="pnmquant -norandom -nofloyd 256 $P > $out/n.ppm"
C[q256|pil]=$(pil "im.quantize(256, method=Image.Quantize.MEDIANCUT, dither=Image.Dither.NONE).save(\"$out/pil.bmp\")")
# ordered dither to a fixed colour cube
C[cube_ordered|vkimg]="$VK $P --reduce 8 --palette cube --dither ordered $out/vk.ppm"
C[cube_ordered|im]="$im1 $P -ordered-dither o8x8,6 $out/im.ppm"
C[cube_ordered|netpbm]="ppmdither -dim 3 -red 6 -green 6 -blue 6 $P > $out/n.ppm"
# count distinct colours
C[count|vkimg]="$VK $P --count-colors"
C[count|im]="$im1 $P -format %k info:"
C[count|gm]="OMP_NUM_THREADS=1 gm identify -format %k $P"
C[count|netpbm]="ppmhist -noheader $P | wc -l"
C[count|pil]=$(pil "print(len(im.getcolors(1 << 24)))")

# geometry: shrink to a quarter by area averaging, enlarge twice (cubic),
# nearest to a third, turn by 30 degrees (bilinear, canvas grown), quarter
# turn, flip, mirror, x-shear by 30 degrees, a 3000x2000 rectangle
C[shrink4|vkimg]="$VK $P --resize 25%:average $out/vk.ppm"
C[shrink4|im]="$im1 $P -scale 25% $out/im.ppm"; C[shrink4|gm]="$gm1 $P -scale 25% $out/gm.ppm"
C[shrink4|vips]="$v1 shrink $P $out/v.ppm 4 4"; C[shrink4|netpbm]="pamscale -reduce 4 $P > $out/n.ppm"
C[shrink4|pil]=$(pil "im.reduce(4).save(\"$out/pil.ppm\")")
C[up2|vkimg]="$VK $P --resize 200%:smooth $out/vk.ppm"
C[up2|im]="$im1 $P -filter Catrom -resize 200% $out/im.ppm"; C[up2|gm]="$gm1 $P -filter Catrom -resize 200% $out/gm.ppm"
C[up2|vips]="$v1 resize $P $out/v.ppm 2 --kernel cubic"; C[up2|netpbm]="pamscale 2 -filter=catrom $P > $out/n.ppm"
C[up2|pil]=$(pil "im.resize((im.width * 2, im.height * 2), Image.BICUBIC).save(\"$out/pil.ppm\")")
C[near3|vkimg]="$VK $P --resize 2000x1333:nearest $out/vk.ppm"
C[near3|im]="$im1 $P -sample 2000x1333! $out/im.ppm"; C[near3|gm]="$gm1 $P -sample 2000x1333! $out/gm.ppm"
C[near3|vips]="$v1 subsample $P $out/v.ppm 3 3"
C[near3|netpbm]="pamscale -width 2000 -height 1333 -nomix $P > $out/n.ppm"
C[near3|pil]=$(pil "im.resize((2000, 1333), Image.NEAREST).save(\"$out/pil.ppm\")")
C[rot30|vkimg]="$VK $P --rotate 30:resize:linear $out/vk.ppm"
C[rot30|im]="$im1 $P -background black -virtual-pixel background -filter point -interpolate bilinear +distort SRT 30 $out/im.ppm"
C[rot30|gm]="$gm1 $P -background black -rotate 30 $out/gm.ppm"
C[rot30|vips]="$v1 rotate $P $out/v.ppm 30 --interpolate bilinear"
C[rot30|netpbm]="pnmrotate -background=black 30 $P > $out/n.ppm"
C[rot30|pil]=$(pil "im.rotate(30, resample=Image.BILINEAR, expand=True).save(\"$out/pil.ppm\")")
C[rot90|vkimg]="$VK $P --rotate 90 $out/vk.ppm"
C[rot90|im]="$im1 $P -rotate 90 $out/im.ppm"; C[rot90|gm]="$gm1 $P -rotate 90 $out/gm.ppm"
C[rot90|vips]="$v1 rot $P $out/v.ppm d90"; C[rot90|netpbm]="pamflip -cw $P > $out/n.ppm"
C[rot90|pil]=$(pil "im.transpose(Image.ROTATE_270).save(\"$out/pil.ppm\")")
C[flip|vkimg]="$VK $P --flip $out/vk.ppm"
C[flip|im]="$im1 $P -flip $out/im.ppm"; C[flip|gm]="$gm1 $P -flip $out/gm.ppm"
C[flip|vips]="$v1 flip $P $out/v.ppm vertical"; C[flip|netpbm]="pamflip -tb $P > $out/n.ppm"
C[flip|pil]=$(pil "im.transpose(Image.FLIP_TOP_BOTTOM).save(\"$out/pil.ppm\")")
C[mirror|vkimg]="$VK $P --mirror $out/vk.ppm"
C[mirror|im]="$im1 $P -flop $out/im.ppm"; C[mirror|gm]="$gm1 $P -flop $out/gm.ppm"
C[mirror|vips]="$v1 flip $P $out/v.ppm horizontal"; C[mirror|netpbm]="pamflip -lr $P > $out/n.ppm"
C[mirror|pil]=$(pil "im.transpose(Image.FLIP_LEFT_RIGHT).save(\"$out/pil.ppm\")")
C[shear30|vkimg]="$VK $P --shear 30 $out/vk.ppm"
C[shear30|im]="$im1 $P -background black -shear 30x0 $out/im.ppm"
C[shear30|gm]="$gm1 $P -background black -shear 60 $out/gm.ppm"   # GM shears by tan(N/2)
C[shear30|netpbm]="pnmshear -background=black 30 $P > $out/n.ppm"
C[crop|vkimg]="$VK $P --trim 1500,1000,3000,2000 $out/vk.ppm"
C[crop|im]="$im1 $P -crop 3000x2000+1500+1000 +repage $out/im.ppm"
C[crop|gm]="$gm1 $P -crop 3000x2000+1500+1000 +repage $out/gm.ppm"
C[crop|vips]="$v1 crop $P $out/v.ppm 1500 1000 3000 2000"
C[crop|netpbm]="pamcut -left 1500 -top 1000 -width 3000 -height 2000 $P > $out/n.ppm"
C[crop|pil]=$(pil "im.crop((1500, 1000, 4500, 3000)).save(\"$out/pil.ppm\")")

ALL_OPS="noop gray bw_ordered bw_fs q256_fs q256 cube_ordered count shrink4 up2 near3 rot30 rot90 flip mirror shear30 crop"
ALL_PEERS="im gm vips netpbm pil"
OPS=${OPS:-$ALL_OPS}; PEERS=${PEERS:-$ALL_PEERS}
# The targets: reading/writing and gray within 1.2x of the fastest
# peer; every colour reduction at least 5x faster than the fastest peer.
declare -A TARGET=([noop]="<=1.2" [gray]="<=1.2" [bw_ordered]="<=0.2" [bw_fs]="<=0.2" [q256_fs]="<=0.2"
                   [q256]="<=0.2" [cube_ordered]="<=0.2" [count]="-" [shrink4]="-" [up2]="-" [near3]="-"
                   [rot30]="-" [rot90]="-" [flip]="-" [mirror]="-" [shear30]="-" [crop]="-")
# Peers that take minutes per run get fewer runs.
declare -A SLOW=([q256_fs|netpbm]=1 [q256|netpbm]=1 [count|netpbm]=1 [q256_fs|gm]=2 [q256|gm]=2)

bytes=$(( $(head -c 64 "$P" | sed -n 2p | awk '{print $1 * 3 * $2}') ))
# Peak memory in MiB, as the picture's size beside it.
printf '| op | vkimg s | fastest peer | peer s | ratio | target | vkimg peak MiB (picture %d MiB) |\n|---|---|---|---|---|---|---|\n' \
  $((bytes / 1048576)) > "$work/results/compare.md"
for op in $OPS; do
  best=""; best_t=""; vk_t=""
  for pr in vkimg $PEERS; do
    cmd=${C[$op|$pr]-}; [ -n "$cmd" ] || continue
    runs=$RUNS; warm=$WARMUP; [ -n "${SLOW[$op|$pr]-}" ] && { runs=${SLOW[$op|$pr]}; warm=0; }
    json="$work/results/${op}__${pr}.json"
    if [ -n "${REUSE-}" ] && [ "$pr" != vkimg ] && [ -s "$json" ]; then
      :  # the peer's earlier timing stands
    elif ! hyperfine --style basic --warmup "$warm" --runs "$runs" --command-name "$pr" --export-json "$json" \
         --output=null -- "$cmd" >/dev/null 2>&1; then
      echo "compare: $op / $pr failed: $cmd" >&2; continue
    fi
    t=$($PY -c 'import json,statistics,sys; print("%.3f" % statistics.median(json.load(open(sys.argv[1]))["results"][0]["times"]))' "$json")
    echo "$op / $pr: $t s"
    if [ "$pr" = vkimg ]; then vk_t=$t; continue; fi
    if [ -z "$best_t" ] || awk "BEGIN{exit !($t < $best_t)}"; then best=$pr; best_t=$t; fi
  done
  peak=$( { /usr/bin/time -f '%M' sh -c "${C[$op|vkimg]}" >/dev/null; } 2>&1 | tail -n 1)
  ratio=$( [ -n "$best_t" ] && [ -n "$vk_t" ] && awk "BEGIN{printf \"%.2f\", $vk_t / $best_t}" || echo "-")
  printf '| %s | %s | %s | %s | %s | %s | %d |\n' "$op" "${vk_t:--}" "${best:--}" "${best_t:--}" "$ratio" \
    "${TARGET[$op]}" $((peak / 1024)) >> "$work/results/compare.md"
done
rm -rf "$out"
cat "$work/results/compare.md"
