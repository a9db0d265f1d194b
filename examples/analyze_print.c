/* SPDX-License-Identifier: Apache-2.0 */
/* Follows the ridges of a drawn print: how they run, how far apart they are, how good the picture is. */
#include <kelmtrova/image.h>
#include <stdio.h>
#include <stdlib.h>

enum { HEIGHT = 320, WIDTH = 256, WAVE = 12 };

/* Ridges that rise to the right by 45 degrees, dark in the middle. */
static void draw(uint8_t *image, int upsideDown) {
  for (int y = 0; y < HEIGHT; ++y) {
    const int row = upsideDown ? HEIGHT - 1 - y : y;
    for (int x = 0; x < WIDTH; ++x) {
      const int phase = (row + x) % WAVE;
      image[y * WIDTH + x] = (uint8_t)(60 + 140 * abs(2 * phase - WAVE) / WAVE);
    }
  }
}

int main(void) {
  static uint8_t image[HEIGHT * WIDTH], flipped[HEIGHT * WIDTH];
  draw(image, 0);
  draw(flipped, 1);

  /* Directions come from the picture at half its size. */
  uint8_t *half = ImageReduce(image, HEIGHT, WIDTH, HEIGHT / 2, WIDTH / 2);
  int32_t *products = NULL, *differences = NULL;
  FingerprintBlockField directions = {0}, changes = {0}, coarse = {.rows = HEIGHT / 16, .cols = WIDTH / 16};
  if (half == NULL || FingerprintGetDirectionFloat(half, HEIGHT / 2, WIDTH / 2, HEIGHT, WIDTH, 15, 0, &products,
                                                   &differences, &directions, &changes, &coarse) != KELM_IMAGE_OK) {
    return 1;
  }
  const int row = directions.rows / 2, col = directions.cols / 2;
  printf("direction in the middle: %d degrees\n", directions.data[row * directions.cols + col]);

  /* Periods are read with the field's first row at the bottom. */
  uint8_t *periods = NULL;
  if (FpGetFrequency(flipped, HEIGHT, WIDTH, &directions, &periods) != KELM_IMAGE_OK) return 1;
  printf("ridges are %.1f pixels apart\n", periods[HEIGHT / 8 * (WIDTH / 4) + WIDTH / 8] / 8.0);

  BlockQualityMap quality = {0};
  if (ImageBlkQuality(&quality, image, HEIGHT, WIDTH, 0) != KELM_IMAGE_OK) return 1;
  printf("quality in the middle: %d\n", quality.grades[quality.rows / 2 * quality.cols + quality.cols / 2]);
  printf("light gaps: %s\n", NotContinue(image, HEIGHT, WIDTH, 190) ? "yes" : "no");

  free(half), free(products), free(differences), free(periods), free(quality.grades);
  free(directions.data), free(changes.data), free(coarse.data);
  return 0;
}
