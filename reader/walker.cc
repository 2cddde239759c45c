// The box walker: one flat pass over the source, dispatching each box by its
// code through a constant handler table.
#include <stdlib.h>
#include <string.h>

#include "common/log.h"
#include "reader/internal.h"

using namespace tarnd;

namespace {

// Sorted by code value (first character least significant), so that
// tarn_bsearch finds a row in at most six steps.
constexpr tarnd_handler kHandlers[] = {
    {TARND_FCC('h', 'v', 'c', 'C'), 0, 1, 1, parser_hvcC},
    {TARND_FCC('a', 'u', 'x', 'C'), 1, 0, 1, parser_auxC},
    {TARND_FCC('i', 'p', 'm', 'a'), 1, 0, 0, parser_ipma},
    {TARND_FCC('m', 'e', 't', 'a'), 1, 0, 0, nullptr},
    {TARND_FCC('t', 'h', 'm', 'b'), 0, 0, 0, parser_single_iref},
    {TARND_FCC('i', 'l', 'o', 'c'), 1, 0, 0, parser_iloc},
    {TARND_FCC('r', 'l', 'o', 'c'), 1, 0, 1, parser_unknown_property},
    {TARND_FCC('c', 'd', 's', 'c'), 0, 0, 0, parser_single_iref},
    {TARND_FCC('i', 'n', 'f', 'e'), 1, 0, 0, parser_infe},
    {TARND_FCC('i', 's', 'p', 'e'), 1, 0, 1, parser_ispe},
    {TARND_FCC('d', 'r', 'e', 'f'), 1, 0, 0, parser_dref},
    {TARND_FCC('i', 'r', 'e', 'f'), 1, 0, 0, nullptr},
    {TARND_FCC('d', 'i', 'n', 'f'), 0, 0, 0, nullptr},
    {TARND_FCC('i', 'i', 'n', 'f'), 1, 0, 0, parser_iinf},
    {TARND_FCC('d', 'i', 'm', 'g'), 0, 0, 0, parser_single_iref},
    {TARND_FCC('c', 'l', 'l', 'i'), 0, 0, 1, parser_unknown_property},
    {TARND_FCC('p', 'i', 'x', 'i'), 1, 0, 1, parser_unknown_property},
    {TARND_FCC('l', 's', 'e', 'l'), 0, 0, 1, parser_unknown_property},
    {TARND_FCC('g', 'r', 'p', 'l'), 0, 0, 0, nullptr},
    {TARND_FCC('a', 'u', 'x', 'l'), 0, 0, 0, parser_single_iref},
    {TARND_FCC('p', 'i', 't', 'm'), 1, 0, 0, parser_pitm},
    {TARND_FCC('i', 'p', 'c', 'o'), 0, 0, 0, parser_ipco},
    {TARND_FCC('c', 'l', 'a', 'p'), 0, 0, 1, parser_clap},
    {TARND_FCC('i', 'p', 'r', 'p'), 0, 0, 0, nullptr},
    {TARND_FCC('p', 'a', 's', 'p'), 0, 0, 1, parser_unknown_property},
    {TARND_FCC('f', 't', 'y', 'p'), 0, 1, 0, parser_ftyp},
    {TARND_FCC('s', 't', 'e', 'r'), 1, 0, 0, parser_ster},
    {TARND_FCC('i', 'm', 'i', 'r'), 0, 0, 1, parser_unknown_property},
    {TARND_FCC('h', 'd', 'l', 'r'), 1, 1, 0, parser_hdlr},
    {TARND_FCC('c', 'o', 'l', 'r'), 0, 0, 1, parser_colr},
    {TARND_FCC('i', 'd', 'a', 't'), 0, 0, 0, parser_idat},
    {TARND_FCC('m', 'd', 'a', 't'), 0, 1, 0, parser_mdat},
    {TARND_FCC('i', 'r', 'o', 't'), 0, 0, 1, parser_irot},
};

constexpr int32_t kHandlerCount = static_cast<int32_t>(sizeof(kHandlers) / sizeof(kHandlers[0]));

// Only these containers are pushed: a child that claims to run past the
// source resumes at its container's end.
constexpr char kContainers[] = "metadinfiinfiprp";
constexpr int32_t kContainerCount = 4;

constexpr uint64_t kBoxHeaderSize = 8;
constexpr uint64_t kLargeBoxHeaderSize = 16;
constexpr uint64_t kFullBoxFieldsSize = 4;
// Beyond this many unknown boxes the source is taken to be no HEIF file.
constexpr int32_t kMaxUnknownBoxes = 8192;
constexpr uint32_t kFccTrld = TARND_FCC('t', 'r', 'l', 'd');
constexpr uint32_t kFccMeta = TARND_FCC('m', 'e', 't', 'a');

void pop_ended(tarnd_cstack *stack, uint64_t position) {
  while (*stack != nullptr && (*stack)->end <= position) tarnd_cstack_pop(stack);
}

// Outcome of one step of the walk.
enum class Step { kNext, kStop, kLeave };

struct Walk {
  const tarnd_handler *handlers;
  int32_t handler_cnt;
  const char *containers;
  int32_t container_cnt;
  const tarnd_io_dsc *io;
  void *handle;
  tarnd_ctx *ctx;
  uint64_t source_size;
  uint64_t pos;
  tarnd_cstack stack;
  // The first open containers live here rather than on the heap: real files
  // nest at most three deep, and the stack is LIFO, so these are always the
  // bottom nodes.
  tarnd_cstack_node local_nodes[8];
  int32_t local_depth;
  int32_t unknown_cnt;
  bool in_ipco;
  uint64_t ipco_end;
  // The library's memory source, read in place; null for callbacks.
  tarn::MemorySource *mem;
  // Whether the tables are the library's own, which the handler and
  // container indexes below answer for.
  bool own_tables;
};

bool is_local_node(const Walk *w, const tarnd_cstack_node *node) {
  return node >= w->local_nodes && node < w->local_nodes + w->local_depth;
}

bool push_container(Walk *w, uint64_t end) {
  constexpr int32_t kLocalNodes = static_cast<int32_t>(sizeof(w->local_nodes) / sizeof(w->local_nodes[0]));
  if (w->local_depth < kLocalNodes) {
    tarnd_cstack_node *node = &w->local_nodes[w->local_depth++];
    node->next = w->stack;
    node->end = end;
    w->stack = node;
    return true;
  }
  tarnd_cstack_node node = {nullptr, end};
  return tarnd_cstack_push(&w->stack, &node) == 0;
}

void pop_container(Walk *w) {
  if (is_local_node(w, w->stack)) {
    w->stack = w->stack->next;
    --w->local_depth;
  } else {
    tarnd_cstack_pop(&w->stack);
  }
}

void pop_containers_ended(Walk *w, uint64_t position) {
  while (w->stack != nullptr && w->stack->end <= position) pop_container(w);
}

// The source's position, held by the walk for the library's memory source.
bool walk_tell(const Walk *w, uint64_t *position) {
  if (w->mem == nullptr) return tell_pos(w->io, w->handle, position);
  *position = w->mem->pos;
  return true;
}

// Reads the box header at w->pos into *box. Returns false to stop the walk.
bool read_header(Walk *w, tarnd_box *box) {
  uint32_t size32;
  if (tarn::MemorySource *m = w->mem) {
    InPlaceSource src(m);  // hands the position back as it ends
    if (!src.u32(&size32) || !src.fcc(&box->type)) return false;
  } else if (!read_u32(w->io, w->handle, &size32) || !read_fcc(w->io, w->handle, &box->type)) {
    return false;
  }
  box->start = w->pos;
  box->header_size = kBoxHeaderSize;
  box->version = 0;
  box->flags = 0;
  uint64_t size;
  if (size32 == 1) {
    if (!read_u64(w->io, w->handle, &size)) return false;
    if (size < kLargeBoxHeaderSize) {
      TARN_LOGE("tarnd_parse", "size of 64bit atom is too small");
      return false;
    }
    box->header_size = kLargeBoxHeaderSize;
  } else if (size32 == 0) {
    // The box runs to the end of the source.
    size = w->source_size > w->pos ? w->source_size - w->pos : 0;
  } else if (size32 < kBoxHeaderSize) {
    TARN_LOGE("tarnd_parse", "size of 32bit atom is too small");
    return false;
  } else {
    size = size32;
  }
  if (size > UINT64_MAX - w->pos) {
    TARN_LOGE("tarnd_parse", "atom size is too big(%llu)", static_cast<unsigned long long>(size));
    return false;
  }
  box->size = size;
  box->end = w->pos + size;
  return true;
}

Step handle_unknown(Walk *w, const tarnd_box *box) {
  if (w->unknown_cnt > kMaxUnknownBoxes) {
    TARN_LOGW("tarnd_parse", "Too much unknown atom (%d)", w->unknown_cnt + 1);
    return Step::kStop;
  }
  if (box->type == kFccTrld && box->end > w->source_size) {
    TARN_LOGD("tarnd_parse", "trld size is not matched");
    return Step::kStop;
  }
  if (!seek_to(w->io, w->handle, box->end)) return Step::kStop;
  ++w->unknown_cnt;
  return Step::kNext;
}

// Takes one property slot for a box met inside ipco that has no parser
// filling one. False when the table is full.
bool take_stray_slot(tarnd_ctx *ctx) {
  if (ctx->meta.property_cnt >= ctx->meta.property_capacity) {
    TARN_LOGE("tarnd_parse", "%s : abnormal file. abnormal property exist.", "tarnd_parse");
    return false;
  }
  ++ctx->meta.property_cnt;
  return true;
}

// The library's own table is also reached through a perfect hash: one
// multiply and one table load per box instead of six unpredictable branches.
constexpr uint32_t kHashMultiplier = 0x0e54bb4du;
constexpr int kHashBits = 6;

constexpr uint32_t hash_slot(uint32_t fcc) { return (fcc * kHashMultiplier) >> (32 - kHashBits); }

constexpr uint32_t container_code(int32_t i) {
  return TARND_FCC(kContainers[4 * i], kContainers[4 * i + 1], kContainers[4 * i + 2], kContainers[4 * i + 3]);
}

constexpr bool is_container_code(uint32_t fcc) {
  for (int32_t c = 0; c < kContainerCount; ++c) {
    if (fcc == container_code(c)) return true;
  }
  return false;
}

// Each slot holds its row's code and whether the row is a container, so
// that a box is matched and classified from one slot.
struct HandlerSlot {
  uint32_t fcc;
  int8_t row;  // -1 for an empty slot
  bool container;
};

struct HandlerIndex {
  HandlerSlot slot[1 << kHashBits];
};

constexpr HandlerIndex build_index() {
  HandlerIndex index{};
  for (HandlerSlot &slot : index.slot) slot = {0, -1, false};
  for (int32_t i = 0; i < kHandlerCount; ++i) {
    index.slot[hash_slot(kHandlers[i].fcc)] = {kHandlers[i].fcc, static_cast<int8_t>(i),
                                               is_container_code(kHandlers[i].fcc)};
  }
  return index;
}

constexpr HandlerIndex kHandlerIndex = build_index();

constexpr bool every_container_has_a_row() {
  for (int32_t c = 0; c < kContainerCount; ++c) {
    bool found = false;
    for (int32_t i = 0; i < kHandlerCount; ++i) found = found || kHandlers[i].fcc == container_code(c);
    if (!found) return false;
  }
  return true;
}
static_assert(every_container_has_a_row(), "a container without a handler row would not be pushed");

constexpr bool index_is_perfect() {
  for (int32_t i = 0; i < kHandlerCount; ++i) {
    if (kHandlerIndex.slot[hash_slot(kHandlers[i].fcc)].row != i) return false;
  }
  return true;
}
static_assert(index_is_perfect(), "two handler codes share a hash slot: choose another multiplier");

// The handler row of a code: the same answer as tarn_bsearch with
// tarnd_grammar_compare over rows sorted by code value. *container tells
// whether the code is in the container list.
const tarnd_handler *find_handler(const Walk *w, uint32_t type, bool *container) {
  if (w->own_tables) {
    const HandlerSlot &slot = kHandlerIndex.slot[hash_slot(type)];
    if (slot.fcc != type || slot.row < 0) {
      *container = false;
      return nullptr;
    }
    *container = slot.container;
    return &kHandlers[slot.row];
  }
  *container = tarnd_search_fcc(type, w->containers, w->container_cnt) >= 0;
  int32_t lo = 0;
  int32_t hi = w->handler_cnt - 1;
  while (lo <= hi) {
    const int32_t mid = lo + (hi - lo) / 2;
    const uint32_t fcc = w->handlers[mid].fcc;
    if (type == fcc) return &w->handlers[mid];
    if (type > fcc) {
      lo = mid + 1;
    } else {
      hi = mid - 1;
    }
  }
  return nullptr;
}

Step walk_box(Walk *w) {
  uint64_t start = 0;
  if (!walk_tell(w, &start)) return Step::kLeave;
  pop_containers_ended(w, start);

  tarnd_box box;
  if (!read_header(w, &box)) return Step::kStop;

  if (box.type == kFccMeta) {
    // What the model's first block is sized from: the bytes of the meta box
    // that the source holds.
    w->ctx->model_hint = (box.end < w->source_size ? box.end : w->source_size) - box.start;
  }
  if (box.end > w->source_size && w->stack != nullptr) {
    if (!seek_to(w->io, w->handle, w->stack->end)) return Step::kStop;
    return Step::kNext;
  }
  bool container;
  const tarnd_handler *row = find_handler(w, box.type, &container);
  if (container && !push_container(w, box.end)) return Step::kStop;

  if (w->in_ipco) {
    if (w->pos >= w->ipco_end) {
      w->in_ipco = false;
    } else if (row != nullptr && !row->is_property) {
      TARN_LOGI("tarnd_parse", "box type : %u is in ipco box", box.type);
      if (!take_stray_slot(w->ctx)) return Step::kStop;
      if (!seek_to(w->io, w->handle, box.end)) return Step::kStop;
      return Step::kNext;
    } else if (row == nullptr) {
      if (!take_stray_slot(w->ctx)) return Step::kStop;
    }
  }
  if (row == nullptr) return handle_unknown(w, &box);

  if (box.type == kFccIpco) {
    w->ipco_end = box.end;
    w->in_ipco = true;
  }
  if (row->full_box) {
    uint8_t vf[4];
    if (!read_bytes(w->io, w->handle, vf, 4)) return Step::kStop;
    box.version = vf[0];
    box.flags = static_cast<uint32_t>(vf[1]) << 16 | static_cast<uint32_t>(vf[2]) << 8 | vf[3];
    box.header_size += kFullBoxFieldsSize;
    if (box.type == kFccIref) w->ctx->iref_version = box.version;
  }
  // A box too small for its own header would give the parser a negative
  // payload.
  if (box.size < box.header_size) {
    TARN_LOGE("tarnd_parse", "size of 32bit atom is too small");
    return Step::kStop;
  }
  box.payload_size = box.size - box.header_size;

  if (row->parse == nullptr) return Step::kNext;
  if (row->parse(w->io, w->handle, &box, w->ctx) != 0) return Step::kStop;
  uint64_t after = 0;
  if (!walk_tell(w, &after)) return Step::kStop;
  if (after < box.end && row->skip_rest) {
    if (!seek_to(w->io, w->handle, box.end)) return Step::kStop;
  }
  return Step::kNext;
}

}  // namespace

int32_t tarnd_parse(const tarnd_handler *handlers, int32_t handler_cnt, const char *containers,
                    int32_t container_cnt, const tarnd_io_dsc *io, void *handle, tarnd_ctx *ctx) {
  Walk w;
  memset(&w, 0, sizeof(w));
  w.handlers = handlers;
  w.handler_cnt = handler_cnt;
  w.containers = containers;
  w.container_cnt = container_cnt;
  w.io = io;
  w.handle = handle;
  w.ctx = ctx;
  w.mem = tarn::as_memory_source(io, handle);
  w.own_tables = handlers == kHandlers && handler_cnt == kHandlerCount && containers == kContainers &&
                 container_cnt == kContainerCount;
  if (!source_size(io, handle, &w.source_size)) return 1;
  tarnd_cstack_init(&w.stack);

  int32_t result = 0;
  bool stopped = false;
  for (;;) {
    // Signed, so that a source shorter than a box header ends the walk at once.
    if (static_cast<int64_t>(w.pos) >= static_cast<int64_t>(w.source_size) - 8) break;
    Step step = walk_box(&w);
    if (step == Step::kStop) {
      stopped = true;
      break;
    }
    if (step == Step::kLeave) break;
    uint64_t next = 0;
    int32_t r = 0;
    if (tarn::MemorySource *m = w.mem) {
      next = m->pos;
    } else {
      r = io->tell(handle, &next);
    }
    if (r != 0) {
      result = r;
      break;
    }
    w.pos = next;
  }
  while (w.stack != nullptr) pop_container(&w);
  if (stopped) return 1;
  if (static_cast<int64_t>(w.pos) >= static_cast<int64_t>(w.source_size) - 8 &&
      w.pos <= w.source_size)
    return 1;
  return result;
}

const tarnd_handler *tarnd_handlers(void) { return kHandlers; }
int32_t tarnd_handlers_cnt(void) { return kHandlerCount; }
const char *tarnd_handlers_containr_fcc(void) { return kContainers; }
int32_t tarnd_handlers_containr_fcc_cnt(void) { return kContainerCount; }

int32_t tarnd_grammar_compare(const void *key, const void *row, void *user) {
  (void)user;
  uint32_t code;
  memcpy(&code, key, sizeof(code));
  const uint32_t fcc = static_cast<const tarnd_handler *>(row)->fcc;
  // Printable codes keep the difference inside the signed range.
  return static_cast<int32_t>(static_cast<int64_t>(code) - static_cast<int64_t>(fcc));
}

int32_t tarnd_search_fcc(uint32_t fcc, const char *list, int32_t count) {
  if (list == nullptr || count < 1) return -1;
  for (int32_t i = 0; i < count; ++i) {
    if (fcc_load(reinterpret_cast<const uint8_t *>(list) + 4 * i) == fcc) return i;
  }
  return -1;
}

void tarnd_cstack_init(tarnd_cstack *stack) { *stack = nullptr; }

int32_t tarnd_cstack_push(tarnd_cstack *stack, const tarnd_cstack_node *node) {
  tarnd_cstack_node *n = static_cast<tarnd_cstack_node *>(malloc(sizeof(tarnd_cstack_node)));
  if (n == nullptr) return -1;
  *n = *node;
  n->next = *stack;
  *stack = n;
  return 0;
}

tarnd_cstack_node *tarnd_cstack_top(tarnd_cstack *stack) { return *stack; }

void tarnd_cstack_pop(tarnd_cstack *stack) {
  tarnd_cstack_node *top = *stack;
  if (top == nullptr) return;
  *stack = top->next;
  free(top);
}

void tarnd_cstack_deinit(tarnd_cstack *stack) {
  while (*stack != nullptr) tarnd_cstack_pop(stack);
}

int32_t tarnd_parse_containr_end(const tarnd_io_dsc *io, void *handle, tarnd_cstack *stack) {
  uint64_t position = 0;
  if (io->tell(handle, &position) != 0) return -1;
  pop_ended(stack, position);
  return 0;
}
