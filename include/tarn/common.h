/*
 * libtarn: shared definitions, byte-order conversions and table search.
 *
 * Every multi-byte integer in a HEIF file is big-endian. The library reads a
 * field's bytes straight into the host variable that holds it and turns the
 * variable over in place; the writer does the reverse before writing.
 */
#ifndef TARN_COMMON_H
#define TARN_COMMON_H

#include <stddef.h>
#include <stdint.h>

#if defined(TARN_STATIC)
#define TARN_API
#elif defined(_WIN32)
#if defined(TARN_BUILDING_LIBRARY)
#define TARN_API __declspec(dllexport)
#else
#define TARN_API __declspec(dllimport)
#endif
#else
#define TARN_API __attribute__((visibility("default")))
#endif

#define TARN_VERSION_MAJOR 0
#define TARN_VERSION_MINOR 1
#define TARN_VERSION_PATCH 0

#ifdef __cplusplus
extern "C" {
#endif

/* The library's version as "major.minor.patch"; a static string. */
TARN_API const char *tarn_version(void);

/* Exchanges the two bytes of one 16-bit value at buf (any alignment). */
TARN_API void tarn_conv_u16(void *buf);
/* Reverses the four bytes of one 32-bit value at buf (any alignment). */
TARN_API void tarn_conv_u32(void *buf);
/* Reverses the eight bytes of one 64-bit value at buf (any alignment). */
TARN_API void tarn_conv_u64(void *buf);
/* Reverses the first n bytes of buf for n = 2, 3 or 4; other n: no change. */
TARN_API void tarn_conv_u32_with_i(void *buf, int32_t n);
/* Swaps each of count consecutive 16-bit values in place; count 0: no change. */
TARN_API void tarn_conv_buf_u16(void *buf, size_t count);
/* Reverses each of count consecutive 32-bit values in place. */
TARN_API void tarn_conv_buf_u32(void *buf, size_t count);
/* Reverses each of count consecutive 64-bit values in place. */
TARN_API void tarn_conv_buf_u64(void *buf, size_t count);
/* Reverses the order of n bytes; n below 2 leaves buf unchanged. */
TARN_API void tarn_conv_reverse(void *buf, int32_t n);
/*
 * Reverses the first n bytes (n at most 8) through a zeroed 8-byte copy that
 * is written back; n below 2 leaves buf unchanged, n above 8 is refused the
 * same way.
 */
TARN_API void tarn_conv_int(void *buf, int32_t n);

/*
 * Orders a key against one table element: positive when the key lies after
 * the element, 0 on a match, negative when it lies before.
 */
typedef int32_t (*tarn_compare_fn)(const void *key, const void *element, void *user);

/*
 * Binary search over count elements of element_size bytes at base, sorted
 * ascending by compare. Returns a matching element (whichever the halving
 * reaches first when several match) or NULL when none matches or count < 1.
 * user is passed to compare untouched.
 */
TARN_API void *tarn_bsearch(const void *base, int32_t count, size_t element_size,
                            const void *key, tarn_compare_fn compare, void *user);

#ifdef __cplusplus
}
#endif

#endif /* TARN_COMMON_H */
