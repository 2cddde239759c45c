// Internals of the lossless edit: what it needs to know about the input
// beyond the reader's model.
#ifndef TARN_EDIT_INTERNAL_H
#define TARN_EDIT_INTERNAL_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "tarn/edit.h"

namespace tarn_edit_internal {

// A growable array of plain values whose growth reports failure instead of
// throwing: like the engines, the edit turns every allocation failure into
// a status.
template <typename T>
class List {
  static_assert(std::is_trivially_copyable<T>::value, "List holds plain values only");

 public:
  List() = default;
  ~List() { std::free(data_); }
  List(const List &) = delete;
  List &operator=(const List &) = delete;
  List(List &&other) noexcept { take(&other); }
  List &operator=(List &&other) noexcept {
    if (this != &other) {
      std::free(data_);
      take(&other);
    }
    return *this;
  }

  // Room for n values in all; false when it cannot be had.
  bool reserve(size_t n) {
    if (n <= capacity_) return true;
    if (n > SIZE_MAX / sizeof(T) / 2) return false;
    const size_t grown = capacity_ * 2 > n ? capacity_ * 2 : n;
    T *p = static_cast<T *>(std::realloc(data_, grown * sizeof(T)));
    if (p == nullptr) return false;
    data_ = p;
    capacity_ = grown;
    return true;
  }
  // New values are left as the allocation holds them.
  bool resize(size_t n) {
    if (!reserve(n)) return false;
    size_ = n;
    return true;
  }
  bool append(const T *values, size_t n) {
    if (n > SIZE_MAX - size_ || !reserve(size_ + n)) return false;
    if (n != 0) std::memcpy(data_ + size_, values, n * sizeof(T));
    size_ += n;
    return true;
  }
  bool push(const T &value) { return append(&value, 1); }
  void clear() { size_ = 0; }

  T *data() { return data_; }
  const T *data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T &operator[](size_t i) { return data_[i]; }
  const T &operator[](size_t i) const { return data_[i]; }
  const T *begin() const { return data_; }
  const T *end() const { return data_ + size_; }

 private:
  void take(List *other) {
    data_ = other->data_;
    size_ = other->size_;
    capacity_ = other->capacity_;
    other->data_ = nullptr;
    other->size_ = other->capacity_ = 0;
  }

  T *data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

// One child of ipco, in file order (the reader's property indexes count the
// same boxes). Only the values the reader does not keep are filled.
struct PropertyBox {
  uint32_t type = 0;
  uint32_t colour_type = 0;  // colr: nclx, rICC or prof
  uint8_t nclx[7] = {};      // nclx values as the writer takes them (host-order u16s, full-range byte)
  uint32_t max_cll = 0, max_pall = 0;  // clli
};

// One entity group inside grpl.
struct GroupBox {
  uint32_t type = 0;
  uint32_t entity_cnt = 0;
  uint32_t entities[2] = {};  // the first two, where the box holds them
};

// What the edit learns from its own walk of the box structure.
struct BoxFacts {
  List<PropertyBox> properties;
  List<uint32_t> top_level;  // box types at the top of the file
  List<GroupBox> groups;
};

// Outcome of the edit's own reads of the input.
enum class Read { kOk, kMissing, kNoMemory };

// Walks the top level, meta, iprp, ipco and grpl of the source behind io
// through its own handle. kMissing when the source cannot be opened or its
// structure cannot be followed up to ipco.
Read read_box_facts(const tarnd_io_dsc *io, BoxFacts *facts);

// The bytes of an item as stored (file or idat), read through the source's
// own handle. kMissing when they lie outside the source.
Read read_item_bytes(const tarnd_io_dsc *io, const tarnd_ctx *ctx, const tarnd_item &item,
                     List<uint8_t> *out);

}  // namespace tarn_edit_internal

#endif  // TARN_EDIT_INTERNAL_H
