// Ready-made reader input sources: a caller-owned memory block and a file
// read through buffered stdio. Both refuse to move past the end of the data,
// so a file gives the same result from memory and from disk.
#if !defined(_FILE_OFFSET_BITS)
#define _FILE_OFFSET_BITS 64  // 64-bit offsets on 32-bit ARM as well
#endif

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

#include "common/memory_source.h"
#include "tarn/io.h"

namespace tarn {

// Caller-data members of the descriptor used by these sources.
constexpr int kDataMember = 0;
constexpr int kSizeMember = 1;
constexpr int kPathMember = 0;

void *memory_open(const tarnd_io_dsc *io, int32_t mode) {
  (void)mode;
  // malloc, not calloc: every field is set below, and glibc serves small
  // mallocs from its per-thread cache, which its calloc bypasses.
  MemorySource *src = static_cast<MemorySource *>(malloc(sizeof(MemorySource)));
  if (src == nullptr) return nullptr;
  src->data = static_cast<const uint8_t *>(io->caller_data[kDataMember]);
  src->size = reinterpret_cast<uintptr_t>(io->caller_data[kSizeMember]);
  src->pos = 0;
  return src;
}

uint32_t memory_read(void *handle, void *buffer, uint32_t count) {
  MemorySource *src = static_cast<MemorySource *>(handle);
  const uint64_t left = src->size - src->pos;
  const uint32_t n = count > left ? static_cast<uint32_t>(left) : count;
  if (n != 0) memcpy(buffer, src->data + src->pos, n);
  src->pos += n;
  return n;
}

}  // namespace tarn

namespace {

using tarn::MemorySource;
using tarn::memory_open;
using tarn::memory_read;
using tarn::kDataMember;
using tarn::kPathMember;
using tarn::kSizeMember;

// A file is read through a window of its own: box fields are a few bytes
// each and the walker moves past every box it does not parse, so moves only
// change pos, and the file is read (and positioned) when a read leaves the
// window. stdio's own buffer is switched off; it would cost a system call
// for every move.
constexpr uint32_t kFileWindow = 16 * 1024;

struct FileSource {
  FILE *file;
  uint64_t size;
  uint64_t pos;          // the reader's position
  uint64_t file_pos;     // where the next fread starts
  uint64_t window_start; // file position of window[0]
  uint32_t window_len;
  uint8_t window[kFileWindow];
};

int32_t memory_close(void *handle) {
  free(handle);
  return 0;
}

int32_t memory_tell(void *handle, uint64_t *position) {
  *position = static_cast<MemorySource *>(handle)->pos;
  return 0;
}

int32_t memory_seek(void *handle, uint64_t *position) {
  MemorySource *src = static_cast<MemorySource *>(handle);
  if (*position > src->size) return -1;
  src->pos = *position;
  return 0;
}

int32_t memory_skip(void *handle, uint64_t *count) {
  MemorySource *src = static_cast<MemorySource *>(handle);
  if (*count > src->size - src->pos) return -1;
  src->pos += *count;
  return 0;
}

int32_t memory_get_size(void *handle, uint64_t *size) {
  *size = static_cast<MemorySource *>(handle)->size;
  return 0;
}

void *file_open(const tarnd_io_dsc *io, int32_t mode) {
  (void)mode;
  const char *path = static_cast<const char *>(io->caller_data[kPathMember]);
  FILE *f = fopen(path, "rb");
  if (f == nullptr) return nullptr;
  off_t end = -1;
  if (setvbuf(f, nullptr, _IONBF, 0) == 0 && fseeko(f, 0, SEEK_END) == 0) end = ftello(f);
  FileSource *src = nullptr;
  if (end >= 0 && fseeko(f, 0, SEEK_SET) == 0)
    src = static_cast<FileSource *>(malloc(sizeof(FileSource)));
  if (src == nullptr) {
    fclose(f);
    return nullptr;
  }
  src->file = f;
  src->size = static_cast<uint64_t>(end);
  src->pos = 0;
  src->file_pos = 0;
  src->window_start = 0;
  src->window_len = 0;
  return src;
}

int32_t file_close(void *handle) {
  FileSource *src = static_cast<FileSource *>(handle);
  fclose(src->file);
  free(src);
  return 0;
}

// off_t may be 32 bits on a platform without large-file support.
bool fits_off_t(uint64_t v) {
  return v <= static_cast<uint64_t>((static_cast<uint64_t>(1) << (sizeof(off_t) * 8 - 1)) - 1);
}

// Reads up to count bytes at pos into out; returns how many arrived.
size_t read_at(FileSource *src, uint8_t *out, size_t count) {
  if (src->file_pos != src->pos) {
    if (!fits_off_t(src->pos) || fseeko(src->file, static_cast<off_t>(src->pos), SEEK_SET) != 0) return 0;
    src->file_pos = src->pos;
  }
  const size_t n = fread(out, 1, count, src->file);
  src->file_pos += n;
  return n;
}

uint32_t file_read(void *handle, void *buffer, uint32_t count) {
  FileSource *src = static_cast<FileSource *>(handle);
  uint8_t *out = static_cast<uint8_t *>(buffer);
  uint32_t done = 0;
  while (done < count) {
    const uint32_t want = count - done;
    if (src->pos >= src->window_start && src->pos - src->window_start < src->window_len) {
      const uint32_t at = static_cast<uint32_t>(src->pos - src->window_start);
      const uint32_t n = want < src->window_len - at ? want : src->window_len - at;
      memcpy(out + done, src->window + at, n);
      src->pos += n;
      done += n;
      continue;
    }
    if (src->pos >= src->size) break;
    if (want >= kFileWindow) {
      // Coded data and metadata go straight into the caller's buffer.
      const size_t n = read_at(src, out + done, want);
      src->pos += n;
      done += static_cast<uint32_t>(n);
      if (n < want) break;
      continue;
    }
    const size_t n = read_at(src, src->window, kFileWindow);
    src->window_start = src->pos;
    src->window_len = static_cast<uint32_t>(n);
    if (n == 0) break;
  }
  return done;
}

int32_t file_tell(void *handle, uint64_t *position) {
  *position = static_cast<FileSource *>(handle)->pos;
  return 0;
}

int32_t file_seek(void *handle, uint64_t *position) {
  FileSource *src = static_cast<FileSource *>(handle);
  if (*position > src->size || !fits_off_t(*position)) return -1;
  src->pos = *position;
  return 0;
}

int32_t file_skip(void *handle, uint64_t *count) {
  FileSource *src = static_cast<FileSource *>(handle);
  if (*count > src->size - src->pos) return -1;
  uint64_t target = src->pos + *count;
  return file_seek(handle, &target);
}

int32_t file_get_size(void *handle, uint64_t *size) {
  *size = static_cast<FileSource *>(handle)->size;
  return 0;
}

}  // namespace

int32_t tarnd_io_init_memory(tarnd_io_dsc *io, const void *data, size_t size) {
  if (io == nullptr || (data == nullptr && size != 0)) return -1;
  memset(io, 0, sizeof(*io));
  io->open = memory_open;
  io->close = memory_close;
  io->read = memory_read;
  io->tell = memory_tell;
  io->seek = memory_seek;
  io->skip = memory_skip;
  io->get_size = memory_get_size;
  io->caller_data[kDataMember] = const_cast<void *>(data);
  io->caller_data[kSizeMember] = reinterpret_cast<void *>(static_cast<uintptr_t>(size));
  return 0;
}

int32_t tarnd_io_init_file(tarnd_io_dsc *io, const char *path) {
  if (io == nullptr || path == nullptr) return -1;
  memset(io, 0, sizeof(*io));
  io->open = file_open;
  io->close = file_close;
  io->read = file_read;
  io->tell = file_tell;
  io->seek = file_seek;
  io->skip = file_skip;
  io->get_size = file_get_size;
  io->caller_data[kPathMember] = const_cast<char *>(path);
  return 0;
}
