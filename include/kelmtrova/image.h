/* SPDX-License-Identifier: Apache-2.0 */
/*
 * kelmtrova/image.h - the fingerprint image toolkit of libkelmtrova.
 *
 * Exact computations on grey images and masks that lie in the caller's memory. No function keeps any state, so all of
 * them may run on any number of threads at once on distinct data. No function reads a file, a setting or a device.
 *
 * Conventions, for every function that does not say otherwise:
 *  - A grey image or mask is 8-bit, row-major, without gaps between rows: pixel (x, y) lies at y * width + x.
 *    Arguments come in the order pointer, height (rows), width (samples per row).
 *  - Results: KELM_IMAGE_OK, KELM_IMAGE_NO_MEMORY (memory could not be obtained) or KELM_IMAGE_BAD_ARGUMENT (a null
 *    pointer, a dimension below 1); the comments below give them as 0, 1 and 2. A function that returns a buffer
 *    returns null instead; a function without a result then does nothing.
 *  - What a function hands back belongs to the caller and is released with free().
 *  - Conversions from floating point to integers truncate toward zero. Results are the same bit for bit on every
 *    processor, at every optimisation level and for every alignment of the buffers.
 *  - Scratch memory comes from malloc() inside the call and is released before the call returns. Each function takes
 *    up to 4 KiB of stack where no other figure is given.
 */
#ifndef KELMTROVA_IMAGE_H
#define KELMTROVA_IMAGE_H

#include <stddef.h>
#include <stdint.h>

#include "kelmtrova/version.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KELMTROVA_API
#define KELMTROVA_API __attribute__((visibility("default")))
#endif

#define KELM_IMAGE_OK 0
#define KELM_IMAGE_NO_MEMORY 1
#define KELM_IMAGE_BAD_ARGUMENT 2

/* ---- Image buffers ---------------------------------------------------------------------------------------------- */

/*
 * Copies height * width bytes from source to destination, which must not overlap. 0 done, 1 if a pointer is null. An
 * image without pixels copies nothing and is done.
 */
KELMTROVA_API int32_t ImageCopy(uint8_t *destination, const uint8_t *source, uint16_t height, uint16_t width);

/* Sets all pixels to 0. 0 done, 1 if the image is null. */
KELMTROVA_API int32_t ImageClear(uint8_t *image, uint16_t height, uint16_t width);

/* Sets all pixels to the value. 0 done, 1 if the image is null. */
KELMTROVA_API int32_t ImageFlood(uint8_t *image, uint8_t value, uint16_t height, uint16_t width);

/*
 * A new image of outHeight * outWidth pixels in which every source pixel is a square of 2 x 2:
 * out(x, y) = source(x / 2, y / 2). The caller releases it with free().
 *
 * sourceWidth is the length of a source row, sourceHeight the number of rows, or 0 when the caller answers for them;
 * the source may be larger than what is read of it. Null without memory, for a null source, and for a source that is
 * too small: fewer than outHeight / 2 rows or outWidth / 2 columns, rounded up. An output without pixels reads no
 * source pixel, needs no source extent and gives a buffer of zero bytes, which is not null.
 */
KELMTROVA_API uint8_t *ImageEnlarge(const uint8_t *source, uint16_t sourceHeight, uint16_t sourceWidth,
                                    uint16_t outHeight, uint16_t outWidth);

/*
 * A new image of outHeight * outWidth pixels, each of them about the source pixel (2x, 2y): row 0 and column 0 are
 * those source pixels as they are; every other one is the 3 x 3 weighted mean about it, with the weights 0.4015
 * (centre) and 0.2992 (neighbour) along each axis, rows first, in single precision and truncated. The weights of an
 * axis add up to 0.9999: a uniform 255 becomes 254. The caller releases the image with free(). 6 KiB of stack.
 *
 * sourceWidth is the length of a source row, sourceHeight the number of rows, or 0 when the caller answers for them;
 * the source may be larger than what is read of it. Null without memory, for a null source, and for a source that is
 * too small: fewer than 2 * outHeight rows or 2 * outWidth columns, or one less of each when the output has a single
 * row or a single column. An output without pixels is treated as by ImageEnlarge.
 */
KELMTROVA_API uint8_t *ImageReduce(const uint8_t *source, uint16_t sourceHeight, uint16_t sourceWidth,
                                   uint16_t outHeight, uint16_t outWidth);

/*
 * Brings the image to a target mean and variance, in place. With m and v, the rounded mean of the image and its
 * variance about m (as HistogramGetMean and HistogramGetVariance2 give them), every pixel p becomes
 * (p - m) * sqrt(targetVariance) / sqrt(v) + targetMean, in single precision, cut to 0 ... 255 and rounded, halves up.
 * A uniform image becomes targetMean.
 *
 * 0 done, 1 if the image is null. Also 0, with the image unchanged, when the scratch memory (256 bytes) cannot be
 * obtained.
 */
KELMTROVA_API int32_t ImageNormalize(uint8_t *image, uint16_t height, uint16_t width, uint8_t targetMean,
                                     uint32_t targetVariance);

/* ---- Histogram -------------------------------------------------------------------------------------------------- */

/* 256 counters, one per grey level; 1024 bytes, nothing else. */
typedef struct Histogram {
  uint32_t counter[256];
} Histogram;

/* A new histogram with undefined counters, or null without memory. Released with HistogramDestroy or free(). */
KELMTROVA_API Histogram *HistogramCreate(void);

/* Releases a histogram; null is allowed. */
KELMTROVA_API void HistogramDestroy(Histogram *histogram);

/*
 * A new histogram of all pixels of the image; of an image without pixels, one with every counter 0. Null without memory
 * or for a null image. Released with HistogramDestroy or free(). 9 KiB of stack.
 */
KELMTROVA_API Histogram *HistogramCompute(const uint8_t *image, uint16_t height, uint16_t width);

/*
 * The rounded mean grey level (halves up). Exact while the sum of all grey levels plus half the number of pixels stays
 * below 2^31; beyond that the signed 32-bit sum wraps around. 0 for a histogram without pixels and for null.
 */
KELMTROVA_API uint8_t HistogramGetMean(const Histogram *histogram);

/*
 * The rounded mean (halves up) of the squared deviations from the rounded mean, or from a given mean. Exact while the
 * sum of the squares plus half the number of pixels stays below 2^32; beyond that the sum wraps around. 0 for a
 * histogram without pixels and for null.
 */
KELMTROVA_API uint32_t HistogramGetVariance(const Histogram *histogram);
KELMTROVA_API uint32_t HistogramGetVariance2(const Histogram *histogram, uint8_t mean);

/*
 * Writes a picture of n counters to a file: n columns and 256 rows of one byte each, top row first, without any header.
 * Column i has a white bar (255) on black (0) that stands on the bottom row. Its height is counters[i] times 255 / the
 * largest counter, in single precision and truncated; with every counter 0 there is no bar. n = 0 writes an empty file.
 *
 * The result is always 0, so a failure does not show in it. Nothing is written for a negative n, for a null pointer,
 * without memory for the picture (n * 256 bytes), or when the file cannot be opened: an older file at the path then
 * stays as it is. A file that cannot be written to its end is removed.
 */
KELMTROVA_API int32_t HistogramPrint(const uint32_t *counters, int16_t n, const char *path);

/* ---- Fourier transform and histogram smoothing ------------------------------------------------------------------ */

/*
 * The discrete Fourier transform, in place, of a signal of n complex samples re[i] + i * im[i], n a power of two from 2
 * to 16384. FFT gives X[k] = 1/n * sum of x[j] * e^(-2 pi i j k / n). IFFT applies the same sum once more, without the
 * 1/n and with the same negative exponent: IFFT after FFT returns the signal in reversed circular order, element j at
 * (n - j) mod n.
 *
 * Radix-2 decimation in frequency in single precision. The angle of a butterfly is a running single-precision sum of
 * the stage's step; its cosine and sine are computed in double precision and rounded to single. No heap memory, 6 KiB
 * of stack. For any other n, or when an array is null, the arrays stay untouched.
 */
KELMTROVA_API void FFT(float *re, float *im, uint16_t n);
KELMTROVA_API void IFFT(float *re, float *im, int32_t n);

/*
 * Smooths a histogram in place, in the frequency domain: bin i of the spectrum of 128 bins, and bin 127 - i as well, is
 * multiplied by 1 / (0.414 * (i / D)^4 + 1). The counters become the absolute values of the filtered bins, truncated;
 * what a signed 32-bit integer cannot hold becomes 2^31. Counter j receives the filtered value of bin j + 1.
 *
 * HistogramSmooth first folds pairs of its 256 counters into 128 bins (counter[i] = counter[2i] + counter[2i + 1]) and
 * smooths them with D = 5 into counters 0 ... 107. Counters 108 ... 127 keep the folded counts, 128 ... 255 become 0.
 * HistogramSmooth128 smooths 128 counters with D = 7, all of them: counter 127 receives the filtered value of bin 0.
 *
 * 0 done, 2 for null. No heap memory, 7 KiB of stack.
 */
KELMTROVA_API int32_t HistogramSmooth(Histogram *counters);
KELMTROVA_API int32_t HistogramSmooth128(uint32_t *counters);

/* ---- Rotated-window tables -------------------------------------------------------------------------------------- */

/* One rotated offset. */
typedef struct AxisPoint {
  int16_t x;
  int16_t y;
} AxisPoint;

/*
 * Tables of the offsets of a window of width * height pixels (the width comes first here), rotated by n + 1 angles from
 * -90 to +90 degrees: angle r is r * 180 / n - 90 degrees. Table r holds width * height points, row-major. The point of
 * window row i and column j is the offset dx = j - width / 2, dy = i - height / 2 (halves of odd extents rounded down),
 * rotated by angle r about the centre and rounded, halves away from zero.
 *
 * The array of n + 1 tables belongs to the caller, who releases it with AxisDestroy and the same n. Null without memory
 * (nothing stays allocated) and when n, width or height is 0.
 */
KELMTROVA_API AxisPoint **AxisTransform(uint8_t n, uint8_t width, uint8_t height);

/* Releases the n + 1 tables and their array; null is allowed. */
KELMTROVA_API void AxisDestroy(AxisPoint **tables, uint8_t n);

/* ---- Local sums -------------------------------------------------------------------------------------------------
 *
 * Box sums and box means. The words of a name give the samples of input and output: Char = unsigned 8-bit,
 * Uint16 = unsigned 16-bit, Int = signed 32-bit, Float = single precision.
 *
 * A window size s covers 2 * (s >> 1) + 1 samples centred on the sample (4 acts like 5, 0 like 1) and is cut at the
 * ends of the data: only samples that exist are added, also where the window is wider than the data. Integer sums wrap
 * like their type. Floating-point sums are running sums in single precision: along every line the sum starts with
 * x[0] + x[1] + ... + x[s >> 1], and from element to element the entering sample is added first, then the leaving one
 * subtracted, while there are such.
 */

/*
 * Sums along a vector: out[i * outStride] becomes the sum of the window around in[i * inStride], for i from 0 to n - 1.
 * Strides count samples and may be zero or negative. The output must not overlap the input. Nothing is done for n below
 * 1 or a null pointer.
 */
KELMTROVA_API void fvs_VectorLocalSumChar2Char(uint8_t *out, const uint8_t *in, int16_t outStride, int16_t inStride,
                                               int16_t n, uint8_t size);
KELMTROVA_API void fvs_VectorLocalSumChar2Uint16(uint16_t *out, const uint8_t *in, int16_t outStride, int16_t inStride,
                                                 int16_t n, uint8_t size);
KELMTROVA_API void fvs_VectorLocalSumUint162Uint16(uint16_t *out, const uint16_t *in, int16_t outStride,
                                                   int16_t inStride, int16_t n, uint8_t size);
KELMTROVA_API void fvs_VectorLocalSumInt2Int(int32_t *out, const int32_t *in, int16_t outStride, int16_t inStride,
                                             int16_t n, uint8_t size);
KELMTROVA_API void fvs_VectorLocalSumFloat2Float(float *out, const float *in, int16_t outStride, int16_t inStride,
                                                 int16_t n, uint8_t size);

/*
 * Sums over an image of height x width samples, sizeX wide along the rows and sizeY high down the columns: first every
 * row is summed, then every column of that result. Where the sample types are equal, out may be in; otherwise the two
 * must not overlap.
 *
 * Results: 0 success; 1 the scratch memory could not be obtained, and nothing is written, except that
 * fvs_ImageLocalSumChar2Uint16 then leaves the sums along the rows in out; 2 a null pointer or a dimension below 1,
 * nothing is written.
 *
 * Scratch memory is one block: a row of the input, and up to twelve lines of output samples (six for Int), each up
 * to sizeX + 160 samples longer than a row; in place also (sizeY >> 1) + 1 rows of the input, but no more than there
 * are; for Float it is up to 2 * (sizeY >> 1) + 17 rows and 4096 bytes, which keep the rows apart in the cache.
 */
KELMTROVA_API int32_t fvs_ImageLocalSumChar2Char(uint8_t *out, const uint8_t *in, int16_t height, int16_t width,
                                                 uint8_t sizeX, uint8_t sizeY);
KELMTROVA_API int32_t fvs_ImageLocalSumChar2Uint16(uint16_t *out, const uint8_t *in, int16_t height, int16_t width,
                                                   uint8_t sizeX, uint8_t sizeY);
KELMTROVA_API int32_t fvs_ImageLocalSumUint162Uint16(uint16_t *out, const uint16_t *in, int16_t height, int16_t width,
                                                     uint8_t sizeX, uint8_t sizeY);
KELMTROVA_API int32_t fvs_ImageLocalSumInt2Int(int32_t *out, const int32_t *in, int16_t height, int16_t width,
                                               uint8_t sizeX, uint8_t sizeY);
KELMTROVA_API int32_t fvs_ImageLocalSumFloat2Float(float *out, const float *in, int16_t height, int16_t width,
                                                   uint8_t sizeX, uint8_t sizeY);

/*
 * Box means: (sum + ((a + 1) >> 1)) / a with the nominal area a = sizeX * sizeY, whatever the window really covered:
 * near the border the sum of the samples that exist is divided by the full area, and for an even size the sum covers
 * one sample more than the size. Char: the sum is taken modulo 65536 and the low 8 bits of the quotient are kept. Int:
 * sum and rounding term wrap, the division truncates toward zero. out may be in.
 *
 * Results: 0 success; 1 no scratch memory; 2 a null pointer, a dimension below 1 or a window size of 0; nothing is
 * written unless 0. Scratch memory as for the sums, with 16-bit sums for Char.
 */
KELMTROVA_API int32_t fvs_ImageMeanChar2Char(uint8_t *out, const uint8_t *in, int16_t height, int16_t width,
                                             uint8_t sizeX, uint8_t sizeY);
KELMTROVA_API int32_t fvs_ImageMeanInt2Int(int32_t *out, const int32_t *in, int16_t height, int16_t width,
                                           uint8_t sizeX, uint8_t sizeY);

/* ---- Binary morphology ------------------------------------------------------------------------------------------
 *
 * All of these work in place. Results: 0 success; 1 the scratch memory could not be obtained; 2 a null mask or a
 * dimension below 1. The mask is unchanged unless the result is 0.
 */

/*
 * 3 x 3 dilation and erosion; any non-zero value is foreground. "Interior" is every pixel that is not in the first or
 * last row or column.
 *  - BDilate sets the eight neighbours of each non-zero interior pixel to 255 and leaves everything else. Pixels of
 *    the border spread nothing, but are set by an interior neighbour.
 *  - BErode sets each interior pixel with a zero in its 3 x 3 neighbourhood to 0. The border never changes.
 * Scratch memory is one block of nine rows, each rounded up to a multiple of 64 pixels, and 64 bytes.
 */
KELMTROVA_API int32_t BDilate(uint8_t *mask, int16_t height, int16_t width);
KELMTROVA_API int32_t BErode(uint8_t *mask, int16_t height, int16_t width);

/*
 * Dilation and erosion by the number of foreground pixels in a window of sizeX x sizeY, covered and cut as for the
 * local sums. With the nominal area a = sizeX * sizeY:
 *  - BWDilateFast, on 0 / 1 bytes, sets pixels whose count is at least 0.1 * a + 0.7 (truncated) to 1 and keeps the
 *    others;
 *  - BWErodeFast, on 0 / 1 bytes, sets pixels whose count is not a to 0 and keeps the others.
 *    Both count modulo 256; a above 255 is a bad argument (2).
 *  - BWDilateFastUint16, on 0 / 1 samples, writes 1 where the count is at least 0.7 + a * 0.18 (truncated), else 0;
 *  - BWErodeFastUint16, on 0 / 1 samples, writes 1 where the count is a, else 0;
 *  - the MY_ forms do the same on bytes, in which any non-zero value is foreground and 255 is written.
 * Where BWDilateFast and the other functions without MY_ find other values than 0 and 1, the count is the sum of the
 * values, modulo 256 or 65536. The cut windows at the border hold fewer pixels than a, so erosion clears the border.
 * Scratch memory is one block: (sizeY >> 1) + 1 rows of the mask, but no more than there are, and up to three lines of
 * counts, each sizeX + 32 counts longer than a row.
 */
KELMTROVA_API int32_t BWDilateFast(uint8_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY);
KELMTROVA_API int32_t BWErodeFast(uint8_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY);
KELMTROVA_API int32_t BWDilateFastUint16(uint16_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY);
KELMTROVA_API int32_t BWErodeFastUint16(uint16_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY);
KELMTROVA_API int32_t MY_BWDilateFastUint16(uint8_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY);
KELMTROVA_API int32_t MY_BWErodeFastUint16(uint8_t *mask, int16_t height, int16_t width, uint8_t sizeX, uint8_t sizeY);

/* ---- Region growing --------------------------------------------------------------------------------------------- */

/* A stack of packed pixel positions: column in the low 16 bits, row in the high 16 bits. It never grows. */
typedef struct ZooList {
  uint32_t *items;  /* storage for capacity entries */
  int32_t count;    /* entries held; the top entry is items[count - 1] */
  int32_t capacity; /* fixed when the list is made */
} ZooList;

/*
 * Makes an empty list with zero-filled storage for `capacity` entries. A capacity below 1 takes no storage and holds
 * nothing; when the storage cannot be obtained, items is null and capacity 0. What the record held before is ignored:
 * it is not released. Release the list with zooClearup(). Null is ignored.
 */
KELMTROVA_API void zooInitList(ZooList *list, int32_t capacity);
/* Adds an entry. Result 1; 0, with nothing changed, when the list is full, null or without storage, or its count is
 * below 0. */
KELMTROVA_API int32_t zooPush(ZooList *list, uint32_t entry);
/* Takes the top entry. Result 1; 0, with nothing changed, when the list is empty, its count beyond its capacity or a
 * pointer null. */
KELMTROVA_API int32_t zooPop(ZooList *list, uint32_t *entry);
/* 1 when the list holds no entry (or is null), else 0. */
KELMTROVA_API int32_t zooIsListEmpty(const ZooList *list);
/* Releases the storage of a list whose capacity is at least 1 and sets items to null; otherwise does nothing. */
KELMTROVA_API void zooClearup(ZooList *list);

/*
 * Fills the 4-connected region around a seed pixel. A pixel matches when it differs from seedValue by less than
 * `tolerance`; every pixel of the region is set to `label`. Reported: the number of pixels filled and the columns and
 * rows that the region spans. Outputs that are not wanted may be null.
 *
 * A seed that does not match is not filled, but when its left neighbour matches, the region of that one is; a
 * seedColumn of `width` stands for the place behind the last pixel of the row in the same way. When neither matches,
 * but some pixel of the image does, area is 0 and the box is that of an empty run at the seed: left = min(width,
 * seedColumn), right = max(0, seedColumn - 1), top = bottom = seedRow.
 *
 * Nothing is filled, area is 0 and (left, top, right, bottom) is (width, height, 0, 0) when no pixel of the image
 * matches, when the seed lies outside the image, when the label itself would match (a fill with such a label has no
 * end), and when the scratch memory cannot be obtained: 4 bytes for every matching pixel of the whole image and 8 bytes
 * for every 64 pixels of a row, rounded up. A null image or a dimension below 1: nothing is done, the outputs are
 * untouched.
 */
KELMTROVA_API void RegionGrow(uint8_t *image, int16_t height, int16_t width, int16_t seedRow, int16_t seedColumn,
                              uint32_t *area, int16_t *left, int16_t *top, int16_t *right, int16_t *bottom,
                              uint8_t seedValue, uint8_t label, uint8_t tolerance);
/*
 * Sets every 4-connected area of pixels equal to `value` that has at most `largest` pixels to `replacement`. A negative
 * `largest` means no limit: every such area is replaced.
 *
 * Results: 0 success; 1 scratch memory could not be obtained; 2 a null image, a dimension below 1, or equal values. On
 * 1 and 2 the image is unchanged. Scratch memory: 8 bytes for every run of `value` along the rows (which is less than
 * the image in usual masks, at most about 4 times the image when every other pixel has the value) and 4 bytes per row.
 */
KELMTROVA_API int32_t RemoveSmallArea(uint8_t *image, int16_t height, int16_t width, uint8_t value, uint8_t replacement,
                                      int16_t largest);

/* ---- Mean smoothing and stripe removal -------------------------------------------------------------------------- */

/*
 * 3 x 3 mean: the sum of the samples that lie in the image, divided by 9 and truncated. The divisor is 9 at the border
 * too, so a constant image of 90 becomes 60 along the edges and 40 in the corners; an image of one row or column sums
 * what there is in the same way. Source and destination may be the same image or overlap in any way.
 *
 * Results: 0 success; 1 scratch memory (8 bytes per column) could not be obtained; 2 a null pointer or a dimension
 * below 1. On 1 and 2 the destination is untouched.
 */
KELMTROVA_API int32_t MeanSmooth(const uint8_t *source, uint8_t *destination, int16_t height, int16_t width);
/*
 * Sets every run of `value` that is at most `longest` pixels long to `fill`: runs along the rows for direction 0, down
 * the columns for direction 1; any other direction, and longest = 0, leave the image as it is. Runs that touch the
 * border count like all others.
 *
 * Results: 0 success; 2 a null image or a dimension below 1. No memory, but 16 KiB of stack.
 */
KELMTROVA_API int32_t RemoveStripe(uint8_t *image, int16_t height, int16_t width, uint8_t value, uint8_t fill,
                                   uint8_t longest, uint8_t direction);

/* ---- Foreground segmentation ------------------------------------------------------------------------------------ */

/*
 * Both functions turn a picture of gradient strengths (8-bit, strong gradients = the print) into a mask in place:
 * pixels above a threshold become 255, the others 0. They differ in how they choose the threshold from the histogram.
 *
 * FpThresholdingGradsImage draws the histogram as a silhouette of 256 x 256, cleans that with binary morphology and
 * places the threshold by the number of peaks left. Result: the threshold, 0 to 255. A picture whose silhouette has no
 * peak gets the threshold 0. Levels outside 0 to 255 count as 0 where a rule looks for neighbours there.
 *
 * FpThresholdingGradsImageEx smooths the histogram with HistogramSmooth and places the threshold 2.5 standard
 * deviations below the foreground's mode. Result: the low 8 bits of the threshold; a threshold below 0 makes every
 * pixel 255. A smoothed histogram without a peak gets the threshold 0.
 *
 * Both return 255 and leave the picture alone when memory is short, for a null picture and for a dimension below 1; 255
 * can also be a threshold. Scratch memory: a Histogram each; the silhouette is cleaned without a canvas. 9 KiB of
 * stack.
 */
KELMTROVA_API int32_t FpThresholdingGradsImage(uint8_t *image, int16_t height, int16_t width);
KELMTROVA_API int32_t FpThresholdingGradsImageEx(uint8_t *image, int16_t height, int16_t width);

/*
 * How ragged the pixels equal to `value` are: (A - I)^2 / A in single precision, with A such pixels off the image's
 * border, I of them with at least one bit set in all four neighbours. -1 for a null mask; not a number when A is 0,
 * which includes dimensions below 3.
 */
KELMTROVA_API float Complexity(const uint8_t *mask, int16_t height, int16_t width, uint8_t value);

/* A byte for the caller's use: 0 when the library is loaded; no function of the library reads or writes it. */
KELMTROVA_API extern uint8_t needRefineSegment;

/* ---- Orientation field ------------------------------------------------------------------------------------------ */

/*
 * Directions are whole degrees, -90 to 90, of the ridges: counted counter-clockwise from the horizontal as the picture
 * is seen with row 0 at the top. Directions that differ by 180 are the same.
 */

/* A block-wise field: block row r, block column c at data[r * cols + c]. */
typedef struct FingerprintBlockField {
  uint16_t blockSize; /* edge of a block in pixels of the full-resolution image: 8 or 16 */
  uint16_t rows;
  uint16_t cols;
  int16_t *data; /* rows * cols samples; released by the caller with free() */
} FingerprintBlockField;

/*
 * The ridge directions of a fingerprint image of fullHeight x fullWidth pixels, from the image of height x width at
 * half that resolution. Sobel gradients gx, gy give the products 2 gx gy and the differences gy^2 - gx^2, which are
 * summed over a box of smoothWindow (see Local sums); half the angle between the two at the centre of a block is its
 * direction, and directions are averaged over neighbouring blocks as vectors of the doubled angle (Kass and Witkin,
 * Analyzing oriented patterns, 1987).
 *
 *  - products, differences: receive new images of height x width summed samples, in wrapping 32-bit arithmetic.
 *  - direction8: height / 4 rows of width / 4 blocks of 8 full-resolution pixels, averaged over 5 x 5 blocks.
 *  - orientGrad: the same blocks; how fast the direction changes (FingerprintOrientGrad of the directions before they
 *    are averaged).
 *  - direction16: (fullHeight + 15) / 16 rows of (fullWidth + 15) / 16 blocks of 16 pixels, averaged over 3 x 3 blocks.
 *    A last row or column beyond the image repeats its neighbour.
 *
 * What the records held before is not released. The reserved argument is not read. The records must be distinct.
 *
 * Results: 0 success; all five blocks belong to the caller. 1 memory could not be obtained, at whatever stage: nothing
 * is handed over, direction8 and orientGrad have their blockSize, rows and cols already, direction8->data is as it was,
 * orientGrad->data is null, everything else is as it was. 2 a null pointer, a height or width below 8 or above 32767,
 * or sizes that do not belong together: the rows and columns of direction16 must be height / 8 and width / 8 or one
 * more each; nothing is written.
 */
KELMTROVA_API int32_t FingerprintGetDirectionFloat(const uint8_t *image, uint16_t height, uint16_t width,
                                                   uint16_t fullHeight, uint16_t fullWidth, uint8_t smoothWindow,
                                                   uint8_t reserved, int32_t **products, int32_t **differences,
                                                   FingerprintBlockField *direction8, FingerprintBlockField *orientGrad,
                                                   FingerprintBlockField *direction16);

/*
 * How fast directions change from block to block: the root of the squared differences to the right and to the lower
 * neighbour, a weighted mean over 5 x 5 blocks. The output receives the input's blockSize, rows and cols and new data;
 * its earlier data, if not null, is released first. The output may be the input or share its data, which is then
 * released once it has been read.
 *
 * Results: 0 success; 1 memory could not be obtained: the output's data is null and the rest of the record as it was,
 * but an output that shares the input's data is wholly as it was; 2 a null record or an input without data, nothing is
 * written.
 */
KELMTROVA_API int32_t FingerprintOrientGrad(FingerprintBlockField *output, const FingerprintBlockField *input);

/* The difference of two directions `a` and `b` in degrees, 0 to 90 for directions from -90 to 90. The low 16 bits of
 * each count. */
KELMTROVA_API int32_t AngleDiffAbs(int32_t a, int32_t b);

/* ---- Ridge frequency -------------------------------------------------------------------------------------------- */

/*
 * The ridge period of every cell of 4 x 4 pixels, from the grey-level profile across the ridges: 33 samples about a
 * pixel apart, each the mean of five points along the ridge. The period is the commonest gap between neighbouring peaks
 * (or valleys), the longest of equally common ones, three neighbouring lengths counting as one; with two peaks and two
 * valleys it is taken from the distance over three half-periods.
 *
 * The field gives the directions of blocks of 8 x 8 pixels; blockSize is not read, and blocks beyond the field take the
 * nearest row and column. The field's first row belongs to the image's bottom blocks, and directions are counted
 * with rows growing downward: a field of FingerprintGetDirectionFloat expects the image flipped vertically. Negative
 * directions have 180 added; those outside -180 to 180 are taken modulo 180 first.
 *
 * map receives a new image of (height / 4) x (width / 4) bytes: eight times the period in pixels, or 255 where the
 * profile shows no period. Near the border a sample without a point inside the image keeps the value that it had in the
 * cell before, row by row, so a cell there depends on its neighbours.
 *
 * Results: 0 success; 1 memory could not be obtained: *map is null, or a map of 255 throughout that belongs to the
 * caller; 2 a null pointer, a dimension below 1, or a field without data, rows or columns: nothing is written. Scratch
 * memory: about 45 KB, 17 bytes per column, and up to six bands of 96 image rows; 6 KiB of stack.
 */
KELMTROVA_API int32_t FpGetFrequency(const uint8_t *image, int16_t height, int16_t width,
                                     const FingerprintBlockField *field, uint8_t **map);

/* ---- Four-direction gradients ----------------------------------------------------------------------------------- */

/*
 * How much the grey level varies along four directions: 0 horizontal, 1 rising to the right, 2 vertical, 3 falling to
 * the right. A grid point lies on every step-th pixel of every step-th row: rows = height / step, cols = width / step,
 * point (gx, gy) on pixel (gx * step, gy * step). Its value is the sum of |neighbour - m| over the six pixels at
 * distances 1, 2, 3 on either side along the direction, where m is the mean of these and the centre, truncated; 0 to
 * 1530.
 *
 * The maps have rows * cols values, row-major, and belong to the caller (free()). A picture smaller than the step gives
 * a map without values, which is released all the same. There is no limit on the width.
 *
 * FpGetImg4DirectionGrads makes the map of one direction; row 0 and column 0 of the grid stay 0. The last point of a
 * row may lie `step` pixels from the edge, so a step below 4 is refused. Results: 0, and *map is the map; 1 it could
 * not be allocated, and *map is null; 2 a null pointer, a dimension below 1, a step below 4 or a direction above 3, and
 * *map is not written.
 */
KELMTROVA_API uint32_t FpGetImg4DirectionGrads(const uint8_t *image, int16_t height, int16_t width, uint16_t **map,
                                               uint8_t direction, uint8_t step);
/*
 * The maps of all four directions: an array of four pointers, element d for direction d; the caller releases the four
 * maps and then the array. The first and the last row and column of the grid stay 0. Null for a null image, a dimension
 * below 1, a step below 3, or when memory could not be obtained; nothing stays allocated then. Scratch memory is 19
 * KiB.
 */
KELMTROVA_API uint16_t **FpGetImg4DirectionGradsEx(const uint8_t *image, int16_t height, int16_t width, uint8_t step);

/* ---- Block quality ---------------------------------------------------------------------------------------------- */

/* Quality grades of the blocks of an image, 0 to 255; block row r, block column c at grades[r * cols + c]. */
typedef struct BlockQualityMap {
  uint8_t blkH;    /* block height in pixels: 16 */
  uint8_t blkW;    /* block width in pixels: 16 */
  uint16_t rows;   /* (height - 1) / 16 + 1 */
  uint16_t cols;   /* (width - 1) / 16 + 1 */
  uint8_t *grades; /* rows * cols grades; released by the caller with free() */
} BlockQualityMap;

/*
 * Grades blocks of 16 x 16 pixels by contrast and by how far their sample points agree on one ridge direction. A block
 * has 4 x 4 cells of 4 x 4 pixels. With the four directional gradients of a cell, its direction is the one with the
 * least gradient (the lowest of equal ones), its mean is their sum >> 2, at most 255. The grade is the mean of the cell
 * means, truncated, times the share of the cells that have the commonest direction, truncated; the grades are then
 * smoothed with MeanSmooth(). Only whole blocks are graded: where height or width is not a multiple of 16, the last row
 * or column of `grades` stays 0. `reserved` is not read.
 *
 * Results: 0 success; 1 memory could not be obtained; 2 a null pointer or a dimension below 1, and the map is
 * unchanged; 2 also when the image is less than 16 pixels high or wide and so holds no whole block. The map's header is
 * filled in on every result but the first kind of 2, and so is `grades`, which belongs to the caller from then on (zero
 * when the result is not 0, null when itself could not be obtained): set it to null before the call, release it after.
 * Scratch memory is 19 KiB and one byte per block; 5 KiB of stack.
 */
KELMTROVA_API uint32_t ImageBlkQuality(BlockQualityMap *map, const uint8_t *image, int16_t height, int16_t width,
                                       uint64_t reserved);
/*
 * The same from the caller's direction maps: grads[d] is the map of direction d with step 4 as
 * FpGetImg4DirectionGradsEx(image, height, width, 4) makes it. The image must not be null but is not read. The maps
 * stay the caller's. Values are read as signed 16-bit numbers; of a cell mean below 0, which no picture gives, the low
 * 8 bits are used. A null array or map is a result 2 that leaves the map unchanged. 5 KiB of stack.
 */
KELMTROVA_API uint32_t ImageBlkQualityEx(BlockQualityMap *map, const uint8_t *image, int16_t height, int16_t width,
                                         uint64_t reserved, uint16_t *const *grads);

/* ---- Continuity check ------------------------------------------------------------------------------------------- */

/*
 * Mode 0: sums[r] = the sum of row r, for `rows` rows of `width` samples. Any other mode: sums[c] = the sum of column
 * c. Sums wrap modulo 2^32. A sum over no samples, because the other dimension is below 1, is 0. Does nothing for a
 * null pointer, and where the dimension that says how many sums there are is below 1.
 */
KELMTROVA_API void Project(int32_t *sums, const uint8_t *image, int32_t rows, int32_t width, uint32_t mode);
/*
 * Whether light gaps break up a fingerprint image: 1 when they do, 0 otherwise.
 *
 * A row is light when its sum is above (width - 10) * level. A run of light rows start..end with start > 3,
 * start <= height - 10, end > 9 and end < height - 4 is a band across the image: 1. Otherwise the image is cut into
 * strips of 16 rows (what is left over is not examined); a column of a strip is light when its sum is above 15 * level;
 * a run of light columns with start > 15, start <= width - 15, end > 14, end < width - 15 and at least 7 columns is a
 * gap. With G gaps in all strips and P rows that are not light, the answer is 1 when G * 16 / P, in single precision,
 * is above 0.45. Runs that reach the last row or column never count.
 *
 * 0 also for a null image, a dimension below 1 or one above 1024. Any level is allowed. Takes no memory.
 */
KELMTROVA_API int32_t NotContinue(const uint8_t *image, int32_t height, int32_t width, int32_t level);

#ifdef __cplusplus
}
#endif

#endif
