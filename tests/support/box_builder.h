// A small builder for HEIF test files, so that a malformed case reads as a
// few lines instead of a hex blob.
//
//   using namespace tarn_test::bb;
//   Bytes file = cat({
//       box("ftyp", {fourcc("heic"), u32(0), fourcc("mif1"), fourcc("heic")}),
//       fullbox("meta", 0, 0, {
//           fullbox("hdlr", 0, 0, {u32(0), fourcc("pict"), zeros(12), str("")}),
//           fullbox("pitm", 0, 0, {u16(1)}),
//           ...})});
//
// - Field helpers (u8/u16/u24/u32/u64, fourcc, str, zeros, raw) give big-endian
//   bytes; str() appends the terminating NUL, raw() does not.
// - box()/fullbox() prefix the concatenated parts with a correct 32-bit size
//   (and for fullbox, version and 24-bit flags). Parts may be fields or
//   whole child boxes: a child is just bytes.
// - box_sized()/fullbox_sized() write a given size field instead, for boxes
//   that lie about their length; box_large() writes size 1 and a 64-bit size
//   (the true one unless given).
// - patch_u32() overwrites four bytes in place, e.g. to corrupt a count.
#ifndef TARN_TESTS_BOX_BUILDER_H
#define TARN_TESTS_BOX_BUILDER_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace tarn_test {
namespace bb {

using Bytes = std::vector<uint8_t>;

Bytes u8(uint8_t v);
Bytes u16(uint16_t v);
Bytes u24(uint32_t v);
Bytes u32(uint32_t v);
Bytes u64(uint64_t v);
// Exactly four characters, in file order.
Bytes fourcc(const char *code);
// The characters followed by a NUL.
Bytes str(const std::string &s);
// The characters without a terminator.
Bytes raw(const std::string &s);
Bytes zeros(size_t n);

// Concatenation of parts.
Bytes cat(std::initializer_list<Bytes> parts);
Bytes cat(const std::vector<Bytes> &parts);

// Plain box with its true 32-bit size.
Bytes box(const char *type, std::initializer_list<Bytes> parts = {});
Bytes box(const char *type, const std::vector<Bytes> &parts);
// Full box: size, type, version, 24-bit flags, then the parts.
Bytes fullbox(const char *type, uint8_t version, uint32_t flags,
              std::initializer_list<Bytes> parts = {});
Bytes fullbox(const char *type, uint8_t version, uint32_t flags,
              const std::vector<Bytes> &parts);
// Plain box whose 32-bit size field says size32, whatever the content.
Bytes box_sized(uint32_t size32, const char *type, std::initializer_list<Bytes> parts = {});
// Full box whose 32-bit size field says size32.
Bytes fullbox_sized(uint32_t size32, const char *type, uint8_t version, uint32_t flags,
                    std::initializer_list<Bytes> parts = {});
// Box with size field 1 and a 64-bit size: the true size when size64 is 0.
Bytes box_large(const char *type, std::initializer_list<Bytes> parts = {}, uint64_t size64 = 0);

// Overwrites the big-endian 32-bit value at offset (which must be in range).
void patch_u32(Bytes *b, size_t offset, uint32_t v);
// Appends other to *b.
void append(Bytes *b, const Bytes &other);

}  // namespace bb
}  // namespace tarn_test

#endif  // TARN_TESTS_BOX_BUILDER_H
