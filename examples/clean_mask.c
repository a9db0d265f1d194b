/* SPDX-License-Identifier: Apache-2.0 */
/* Finds a finger in a drawn picture: gradients, a threshold, and a mask without specks and holes. */
#include <kelmtrova/image.h>
#include <stdio.h>
#include <stdlib.h>

enum { HEIGHT = 240, WIDTH = 200, STEP = 4, ROWS = HEIGHT / STEP, COLS = WIDTH / STEP };

/* Ridges within an ellipse on light paper. */
static void draw(uint8_t *image) {
  for (int y = 0; y < HEIGHT; ++y) {
    for (int x = 0; x < WIDTH; ++x) {
      const int across = x - WIDTH / 2, down = y - HEIGHT / 2;
      const int inside = across * across * 36 + down * down * 25 < 36 * 25 * 144;
      image[y * WIDTH + x] = inside && (y + x / 3) % 8 < 4 ? 70 : 210;
    }
  }
}

int main(void) {
  static uint8_t image[HEIGHT * WIDTH], mask[ROWS * COLS];
  draw(image);
  Histogram *histogram = HistogramCompute(image, HEIGHT, WIDTH);
  if (histogram == NULL) return 1;
  printf("mean grey %d, variance %u\n", HistogramGetMean(histogram), HistogramGetVariance(histogram));
  HistogramDestroy(histogram);

  /* Where the grey changes much, in whatever direction, there are ridges. */
  uint16_t **gradients = FpGetImg4DirectionGradsEx(image, HEIGHT, WIDTH, STEP);
  if (gradients == NULL) return 1;
  for (int i = 0; i < ROWS * COLS; ++i) {
    const int sum = (gradients[0][i] + gradients[1][i] + gradients[2][i] + gradients[3][i]) / 8;
    mask[i] = (uint8_t)(sum < 255 ? sum : 255);
  }
  for (int direction = 0; direction < 4; ++direction) free(gradients[direction]);
  free(gradients);

  if (fvs_ImageMeanChar2Char(mask, mask, ROWS, COLS, 3, 3) != KELM_IMAGE_OK) return 1;
  printf("threshold %d\n", FpThresholdingGradsImageEx(mask, ROWS, COLS));
  if (MY_BWDilateFastUint16(mask, ROWS, COLS, 3, 3) != KELM_IMAGE_OK || BErode(mask, ROWS, COLS) != KELM_IMAGE_OK ||
      RemoveSmallArea(mask, ROWS, COLS, 255, 0, 50) != KELM_IMAGE_OK ||
      RemoveStripe(mask, ROWS, COLS, 0, 255, 3, 0) != KELM_IMAGE_OK) {
    return 1;
  }
  int finger = 0;
  for (int i = 0; i < ROWS * COLS; ++i) finger += mask[i] != 0;
  printf("the finger covers %d %% of the picture\n", finger * 100 / (ROWS * COLS));
  return 0;
}
