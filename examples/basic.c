/*
 * basic.c - the library from C: make a bitmap, write its rows, read a pixel
 * back, print the version.
 *
 *   ./basic        prints the version, the bitmap's geometry and one pixel
 */
#include <stdio.h>
#include <string.h>

#include "vkkrn.h"

int main(void) {
  VersionInfo version;
  BitmapHandle bitmap;
  uint8_t row[3 * 64];
  int32_t result, y, x;
  uint32_t colour;

  memset(&version, 0, sizeof version);
  if (V_VersionInfo(&version) != RESULT_OK) return 1;
  printf("%s, version %d.%d.%d\n", version.Banner, (int)version.MajorVersion, (int)version.MinorVersion,
         (int)version.Level);

  /* A 64 x 32 bitmap of 24 bits per pixel in blue, green, red order, in
   * plain memory, its rows stored top first (view perspective 0). */
  memset(&bitmap, 0, sizeof bitmap);
  result = V_CreateBitmap(&bitmap, TYPE_CONVENTIONAL, 64, 32, 24, ORDER_BGR, NULL, 0, NULL, 0);
  if (result != RESULT_OK) {
    fprintf(stderr, "V_CreateBitmap failed: %d\n", (int)result);
    return 1;
  }
  printf("bitmap: %dx%d, %d bits per pixel, %u bytes per line\n", (int)bitmap.Width, (int)bitmap.Height,
         (int)bitmap.BitsPerPixel, (unsigned)bitmap.BytesPerLine);

  /* Each row: red rises from left to right, green from top to bottom. */
  for (y = 0; y < bitmap.Height; ++y) {
    for (x = 0; x < bitmap.Width; ++x) {
      row[3 * x + 0] = 64;                      /* blue */
      row[3 * x + 1] = (uint8_t)(y * 255 / 31); /* green */
      row[3 * x + 2] = (uint8_t)(x * 255 / 63); /* red */
    }
    if (V_PutBitmapRow(&bitmap, row, (uint32_t)y, (int32_t)sizeof row) < 0) {
      fprintf(stderr, "V_PutBitmapRow failed at row %d\n", (int)y);
      V_FreeBitmap(&bitmap);
      return 1;
    }
  }

  /* A colour value is 0x00BBGGRR. */
  colour = V_GetPixelColor(&bitmap, 31, 63);
  if (colour == COLOR_INVALID) {
    fprintf(stderr, "V_GetPixelColor failed\n");
    V_FreeBitmap(&bitmap);
    return 1;
  }
  printf("pixel (63, 31): red %u, green %u, blue %u\n", (unsigned)(colour & 0xFF), (unsigned)((colour >> 8) & 0xFF),
         (unsigned)((colour >> 16) & 0xFF));

  V_FreeBitmap(&bitmap);
  return 0;
}
