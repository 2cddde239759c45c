// An open HEIF file as the tool sees it: the reader handle, its model and
// the questions the subcommands ask of it, through the public API only.
#ifndef TARN_TOOLS_HEIF_FILE_H
#define TARN_TOOLS_HEIF_FILE_H

#include <cstdint>
#include <string>
#include <vector>

#include "tarn/tarn.h"

namespace tarn_cli {

// What role an image plays in its file.
struct ImageEntry {
  uint32_t id = 0;
  uint32_t type = 0;         // four-character code
  bool hidden = false;       // not among the displayable items
  std::vector<std::string> roles;  // "primary", "thumbnail", "alpha", ...
  uint32_t of = 0;           // the image a thumbnail/auxiliary belongs to (0: none)
  std::vector<uint32_t> inputs;  // dimg to-ids: tiles of a grid, inputs of tmap/iovl
};

class HeifFile {
 public:
  HeifFile() = default;
  ~HeifFile();
  HeifFile(const HeifFile &) = delete;
  HeifFile &operator=(const HeifFile &) = delete;

  // Opens path, in tolerant reading mode unless strict is set; on failure
  // returns false and says why.
  bool open(const std::string &path, std::string *why, bool strict = false);

  void *handle() const { return handle_; }
  const tarnd_ctx *model() const { return static_cast<const tarnd_ctx *>(handle_); }
  uint32_t brand_class() const { return file_info_.brand; }
  const std::string &major_brand() const { return major_brand_; }
  const std::vector<std::string> &compatible_brands() const { return compatible_; }

  const tarnd_item *item(uint32_t id) const;
  // Every image item (hvc1, jpeg, grid, iovl, tmap) that is not a grid tile,
  // in item order, with its roles.
  std::vector<ImageEntry> images() const;
  // Ids of the tiles (dimg inputs) of a grid item, in order.
  std::vector<uint32_t> tiles(uint32_t grid_id) const;
  uint32_t primary() const;
  // The item playing `query` (TARND_ID_*) for ref, or 0 when none.
  uint32_t find(uint32_t query, uint32_t ref) const;
  // The first auxiliary image of ref with the given TARND_ITEM_AUX_* flag.
  uint32_t auxiliary(uint32_t ref, uint32_t aux_flag) const;
  // Colour of an image: "" none, "icc" with its size, or "nclx".
  std::string colour(uint32_t id, uint32_t *icc_size) const;
  // Coded bytes of an hvc1/jpeg item (start-code form for HEVC). The
  // decoder configuration is prepended for HEVC when with_config is set.
  bool frame(uint32_t id, bool with_config, std::vector<uint8_t> *out, std::string *why) const;

 private:
  void *handle_ = nullptr;
  tarnd_io_dsc io_{};
  std::string path_;
  tarnd_file_info file_info_{};
  std::string major_brand_;
  std::vector<std::string> compatible_;
};

std::string fourcc_text(uint32_t code);

}  // namespace tarn_cli

#endif  // TARN_TOOLS_HEIF_FILE_H
