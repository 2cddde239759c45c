/*
 * Mux speed seen from outside: a separate C program that links libtarn
 * through its public header only, as a camera app does, and times a whole
 * mux of a 48-tile, 8 MB grid (tarnm_create to tarnm_delete) against a
 * memcpy of the same coded bytes, piece by piece, into the same buffer.
 *
 *   tarn_mux_speed [--iterations N] [--samples DIR]
 *
 * Two ways out of the writer are timed:
 *   buffer  the caller hands its buffer over (tarnm_use_delivered_memory_buffer)
 *           right after tarnm_create and the file is built in it;
 *   heap    the file is built in the writer's own heap and copied out with
 *           tarnm_dump_image_to_outputbuffer (two copies of the data by design).
 * Runs of mux and memcpy alternate, so that a busy machine slows both alike;
 * the figures are medians of CPU time per run (wall time beside them).
 *
 * The tiles are the four sample pictures of samples/ in turn, each made
 * about 8 MB / 48 long by repeating its slice data, as tarn_bench does.
 */
#define _POSIX_C_SOURCE 199309L
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "tarn/writer.h"

#ifndef TARN_SOURCE_DIR
#define TARN_SOURCE_DIR "."
#endif

enum { kRows = 6, kColumns = 8, kTiles = kRows * kColumns, kTileSide = 512 };
static const size_t kGridBytes = (size_t)8 << 20;
static const size_t kOutputCapacity = (size_t)16 << 20;

typedef struct Bytes {
  uint8_t *data;
  size_t size;
} Bytes;

typedef struct Picture {
  Bytes vps, sps, pps, frame; /* frame: slices behind 4-byte start codes */
} Picture;

static void *must_alloc(size_t size) {
  void *p = malloc(size ? size : 1);
  if (p == NULL) {
    fprintf(stderr, "out of memory\n");
    exit(1);
  }
  return p;
}

static void append(Bytes *b, const uint8_t *data, size_t size) {
  uint8_t *grown = realloc(b->data, b->size + size);
  if (grown == NULL) {
    fprintf(stderr, "out of memory\n");
    exit(1);
  }
  memcpy(grown + b->size, data, size);
  b->data = grown;
  b->size += size;
}

static int read_file(const char *path, Bytes *out) {
  FILE *f = fopen(path, "rb");
  uint8_t chunk[65536];
  size_t n;
  out->data = NULL;
  out->size = 0;
  if (f == NULL) return 0;
  while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) append(out, chunk, n);
  fclose(f);
  return out->size > 0;
}

/* Splits an Annex-B stream (3- or 4-byte start codes) into parameter sets
 * and the coded picture. */
static int load_picture(const char *path, Picture *p) {
  static const uint8_t kStartCode[4] = {0, 0, 0, 1};
  Bytes s;
  size_t i, start = 0;
  int open = 0;
  memset(p, 0, sizeof *p);
  if (!read_file(path, &s)) return 0;
  for (i = 0; i + 3 <= s.size + 3; ++i) {
    const int at_end = i + 3 > s.size;
    size_t end;
    if (!at_end && (s.data[i] != 0 || s.data[i + 1] != 0 || s.data[i + 2] != 1)) continue;
    if (open) {
      end = at_end ? s.size : i;
      while (!at_end && end > start && s.data[end - 1] == 0) --end;
      if (end - start >= 2) {
        const uint8_t *unit = s.data + start;
        const int type = (unit[0] >> 1) & 0x3F;
        if (type == 32) append(&p->vps, unit, end - start);
        if (type == 33) append(&p->sps, unit, end - start);
        if (type == 34) append(&p->pps, unit, end - start);
        if (type < 32) {
          append(&p->frame, kStartCode, 4);
          append(&p->frame, unit, end - start);
        }
      }
    }
    if (at_end) break;
    start = i + 3;
    open = 1;
  }
  free(s.data);
  return p->vps.size && p->sps.size && p->pps.size && p->frame.size;
}

/* The picture with its slice data repeated inside the last unit until it
 * holds at least target bytes (slice data end in a non-zero byte, so no
 * start code forms where two copies meet). */
static Bytes grow_frame(const Bytes *frame, size_t target) {
  Bytes big = {NULL, 0};
  append(&big, frame->data, frame->size);
  while (big.size < target) append(&big, frame->data + 4, frame->size - 4);
  return big;
}

static double now_us(clockid_t clock) {
  struct timespec t;
  clock_gettime(clock, &t);
  return (double)t.tv_sec * 1e6 + (double)t.tv_nsec / 1e3;
}

typedef struct Job {
  Picture samples[4];
  Bytes tiles[kTiles];
  size_t coded_bytes;
} Job;

/* One whole mux; returns the file size or -1. */
static int32_t mux(const Job *job, uint8_t *output, int delivered) {
  const tarnm_init_dsc dsc = {0};
  const tarnm_grid_info grid = {
      kColumns * kTileSide, kRows * kTileSide, kRows, kColumns, 1, kTiles, kTiles + 1, 0};
  tarnm_image_info info;
  int32_t size = -1;
  int ok;
  uint32_t t;
  tarnm_ctx *ctx = tarnm_create(&dsc, NULL);
  if (ctx == NULL) return -1;
  memset(&info, 0, sizeof info);
  info.width = info.height = kTileSide;
  info.param_sets.vps_count = info.param_sets.sps_count = info.param_sets.pps_count = 1;
  info.param_sets.vps_size[0] = (uint32_t)job->samples[0].vps.size;
  info.param_sets.vps_data[0] = job->samples[0].vps.data;
  info.param_sets.sps_size[0] = (uint32_t)job->samples[0].sps.size;
  info.param_sets.sps_data[0] = job->samples[0].sps.data;
  info.param_sets.pps_size[0] = (uint32_t)job->samples[0].pps.size;
  info.param_sets.pps_data[0] = job->samples[0].pps.data;
  ok = (!delivered || tarnm_use_delivered_memory_buffer(ctx, output, (int32_t)kOutputCapacity) == 0) &&
       tarnm_set_image_info(ctx, kTiles + 1, 0, &info, &grid) == 0 &&
       tarnm_set_cover_image(ctx, kTiles + 1) == 0;
  for (t = 0; ok && t < kTiles; ++t)
    ok = tarnm_put_frm(ctx, t + 1, job->tiles[t].data, (uint32_t)job->tiles[t].size) == 0;
  if (ok && tarnm_stop_muxing(ctx) == 0) {
    size = tarnm_get_outputbuffer_size(ctx);
    if (!delivered &&
        (size < 0 || (size_t)size > kOutputCapacity || tarnm_dump_image_to_outputbuffer(ctx, output) != 0))
      size = -1;
  }
  tarnm_delete(ctx);
  return size;
}

static void copy_pieces(const Job *job, uint8_t *output) {
  uint8_t *dst = output;
  int t;
  for (t = 0; t < kTiles; ++t) {
    memcpy(dst, job->tiles[t].data, job->tiles[t].size);
    dst += job->tiles[t].size;
  }
}

static int compare_doubles(const void *a, const void *b) {
  const double x = *(const double *)a, y = *(const double *)b;
  return x < y ? -1 : x > y;
}

static double median(double *v, int n) {
  qsort(v, (size_t)n, sizeof *v, compare_doubles);
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

int main(int argc, char **argv) {
  const char *samples = TARN_SOURCE_DIR "/samples";
  int iterations = 200;
  int a, mode, t;
  Job job;
  uint8_t *output;
  double *times[4];
  volatile uint8_t sink = 0;
  for (a = 1; a < argc; ++a) {
    if (strcmp(argv[a], "--iterations") == 0 && a + 1 < argc) {
      iterations = atoi(argv[++a]);
    } else if (strcmp(argv[a], "--samples") == 0 && a + 1 < argc) {
      samples = argv[++a];
    } else {
      fprintf(stderr, "usage: %s [--iterations N] [--samples DIR]\n", argv[0]);
      return 2;
    }
  }
  if (iterations < 1) iterations = 1;
  memset(&job, 0, sizeof job);
  for (t = 0; t < 4; ++t) {
    char path[4096];
    snprintf(path, sizeof path, "%s/tile_%d.hevc", samples, t);
    if (!load_picture(path, &job.samples[t])) {
      fprintf(stderr, "cannot read the coded picture %s\n", path);
      return 1;
    }
  }
  for (t = 0; t < kTiles; ++t) {
    job.tiles[t] = grow_frame(&job.samples[t % 4].frame, kGridBytes / kTiles);
    job.coded_bytes += job.tiles[t].size;
  }
  output = must_alloc(kOutputCapacity);
  memset(output, 0, kOutputCapacity);
  for (a = 0; a < 4; ++a) times[a] = must_alloc(sizeof(double) * (size_t)iterations);

  printf("48-tile grid, %.2f MB of coded data, %d runs each, medians\n", (double)job.coded_bytes / 1e6,
         iterations);
  printf("%-8s %14s %14s %12s %12s %10s\n", "output", "mux cpu us", "memcpy cpu us", "mux MB/s",
         "memcpy MB/s", "mux/memcpy");
  for (mode = 0; mode < 2; ++mode) {
    const int delivered = mode == 0;
    double mux_cpu, copy_cpu, mux_wall, copy_wall;
    int i;
    /* One untimed run of each warms the caches and the allocator. */
    if (mux(&job, output, delivered) < 0) {
      fprintf(stderr, "mux failed\n");
      return 1;
    }
    copy_pieces(&job, output);
    for (i = 0; i < iterations; ++i) {
      double c0 = now_us(CLOCK_PROCESS_CPUTIME_ID), w0 = now_us(CLOCK_MONOTONIC);
      mux(&job, output, delivered);
      times[0][i] = now_us(CLOCK_PROCESS_CPUTIME_ID) - c0;
      times[1][i] = now_us(CLOCK_MONOTONIC) - w0;
      c0 = now_us(CLOCK_PROCESS_CPUTIME_ID), w0 = now_us(CLOCK_MONOTONIC);
      copy_pieces(&job, output);
      sink ^= output[job.coded_bytes / 2];
      times[2][i] = now_us(CLOCK_PROCESS_CPUTIME_ID) - c0;
      times[3][i] = now_us(CLOCK_MONOTONIC) - w0;
    }
    mux_cpu = median(times[0], iterations);
    mux_wall = median(times[1], iterations);
    copy_cpu = median(times[2], iterations);
    copy_wall = median(times[3], iterations);
    printf("%-8s %14.1f %14.1f %12.0f %12.0f %9.2fx   (wall: %.1f / %.1f us, %.2fx)\n",
           delivered ? "buffer" : "heap", mux_cpu, copy_cpu, (double)job.coded_bytes / mux_cpu,
           (double)job.coded_bytes / copy_cpu, copy_cpu / mux_cpu, mux_wall, copy_wall, copy_wall / mux_wall);
  }
  (void)sink;
  return 0;
}
