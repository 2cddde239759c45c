// File output for the writer: the descriptor callbacks over buffered stdio.
// A write counts only the bytes that reached the file, so a full disk or an
// I/O error shows up as a short write and the dump reports it.
#include <stdio.h>
#include <string.h>

#include "tarn/io.h"

static tarnm_file_output *owner(tarnm_output_dsc *dsc) {
  // The descriptor is the record's first member.
  return reinterpret_cast<tarnm_file_output *>(dsc);
}

static void *file_open(tarnm_output_dsc *dsc, int32_t mode) {
  tarnm_file_output *out = owner(dsc);
  if (!out || !out->path || mode != 1) return nullptr;
  FILE *f = fopen(out->path, "wb");
  out->file = f;
  out->failed = f ? 0 : 1;
  // The close callback gets only the stream; it finds the record through it.
  return f ? out : nullptr;
}

static size_t file_write(void *handle, const void *data, size_t count) {
  tarnm_file_output *out = static_cast<tarnm_file_output *>(handle);
  if (!out || !out->file || (count && !data)) return 0;
  FILE *f = static_cast<FILE *>(out->file);
  size_t written = count ? fwrite(data, 1, count, f) : 0;
  // Buffered bytes that cannot be flushed never reached the file.
  if (fflush(f) != 0) written = 0;
  if (written != count) out->failed = 1;
  return written;
}

// Called once, with the handle file_open returned: the record of an open stream.
static void file_close(void *handle) {
  tarnm_file_output *out = static_cast<tarnm_file_output *>(handle);
  if (fclose(static_cast<FILE *>(out->file)) != 0) out->failed = 1;
  out->file = nullptr;
}

extern "C" int32_t tarnm_output_init_file(tarnm_file_output *out, const char *path) {
  if (!out || !path || !path[0]) return -1;
  memset(out, 0, sizeof *out);
  out->dsc.open = file_open;
  out->dsc.close = file_close;
  out->dsc.write = file_write;
  out->path = path;
  return 0;
}
