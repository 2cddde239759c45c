// Hostile files built box by box: each case breaks one thing in an otherwise
// valid file and states the open status, the status of one query and the
// exact line the reader logs. Every case's bytes are also kept in
// fuzz/regressions/reader/ so that the fuzz replay runs them through every
// query (TARN_UPDATE_REGRESSIONS=1 rewrites them).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "reader/helpers.h"
#include "support/log_capture.h"

namespace tarn_test {
namespace {

using namespace bb;

// Item 1 is a grid of the given data over tiles 2 and 3 (listed in dimg).
File grid(const Bytes &data, std::vector<uint16_t> tiles = {2, 3}) {
  File f;
  f.infes = {infe(1, "grid"), infe(2, "hvc1", 1), infe(3, "hvc1", 1)};
  f.mdat = cat({data, kFrame});
  const uint32_t d = uint32_t(data.size());
  f.locs = {{1, 0, d, 0}, {2, d, 10, 0}, {3, d, 10, 0}};
  f.ipma_box = ipma({{1, 0x82}, {2, 0x81, 0x82}, {3, 0x81, 0x82}});
  f.more = iref(ref("dimg", 1, tiles));
  return f;
}
// Item 1 with a clean aperture on an image of w x h.
File clapped(uint32_t w, uint32_t h, std::vector<int32_t> v) {
  File f;
  f.ipco = cat({hvcc(), ispe(w, h), clap(v)});
  f.ipma_box = ipma({{1, 0x81, 0x82, 0x83}});
  return f;
}

// Item 1 as in File, plus a hidden 64x64 item 2 holding kFrame too.
File two_items() {
  File f;
  f.infes = {infe(1, "hvc1"), infe(2, "hvc1", 1)};
  f.locs = {{1, 0, 10, 0}, {2, 0, 10, 0}};
  f.ipma_box = ipma({{1, 0x81, 0x82}, {2, 0x81, 0x82}});
  return f;
}
// Moves iinf behind iprp, so that iloc is the box that numbers the slots.
File iloc_first(File f) {
  f.more = cat({fullbox("iinf", 0, 0, {u16(uint16_t(f.infes.size())), cat(f.infes)}), f.more});
  f.iinf = box("free");
  return f;
}
// Item 1 in two extents, stored in reverse order; the second extent starts
// at second_off in mdat.
File two_extents(uint32_t second_off) {
  File f;
  f.mdat = cat({Bytes(kFrame.begin() + 4, kFrame.end()), Bytes(kFrame.begin(), kFrame.begin() + 4)});
  f.split = {{6, 4}, {second_off, 6}};
  return f;
}
// Item 2 is an auxiliary image of item 1 of the given type.
File aux_of_1(const char *urn) {
  File f = two_items();
  f.ipco = cat({hvcc(), ispe(64, 64), fullbox("auxC", 0, 0, {str(urn)})});
  f.ipma_box = ipma({{1, 0x81, 0x82}, {2, 0x81, 0x82, 0x83}});
  f.more = iref(ref("auxl", 2, {1}));
  return f;
}

enum Query { kNone, kFrame64, kInfoImage, kGrid, kRefs4, kThumb, kFrameSize, kPrimary, kGainMap, kFlags2, kBrand,
             kGroups, kMeasure, kExif, kMdat, kAuxSubtype };

struct Case {
  const char *name;
  File (*make)();
  int32_t create;      // tarnd_create's status
  Query query;         // asked of item 1 when the open succeeds
  int32_t query_status;
  const char *log;     // exact line; "" = nothing at WARN or above
  const char *tag;
};

const Case kCases[] = {
    // Box headers and sizes.
    {"box_size_below_header", [] { File f; f.more = box_sized(4, "free"); return f; },
     0, kFrame64, 0, "size of 32bit atom is too small", "tarnd_parse"},
    {"fullbox_smaller_than_its_fields", [] { File f; f.more = box_sized(8, "iref"); return f; },
     0, kNone, 0, "size of 32bit atom is too small", "tarnd_parse"},
    {"large_size_below_16", [] { File f; f.more = box_large("free", {}, 15); return f; },
     0, kNone, 0, "size of 64bit atom is too small", "tarnd_parse"},
    {"large_size_of_its_header_alone", [] { File f; f.more = box_large("free"); return f; },
     0, kFrame64, 0, "", nullptr},
    {"large_size_ends_at_the_last_position", [] { File f; f.tail = box_large("free");
       f.tail = box_large("free", {}, ~0ull - (f.build().size() - 16)); return f; },
     0, kFrame64, 0, "", nullptr},
    {"large_size_wraps_position", [] { File f; f.tail = box_large("free", {}, ~0ull - 15); return f; },
     0, kNone, 0, "atom size is too big(18446744073709551600)", "tarnd_parse"},
    {"zero_size_box_swallows_meta", [] { File f; f.head = box_sized(0, "free"); return f; },
     -2, kNone, 0, "ctx->meta.items is NULL", "tarnd"},
    {"child_past_file_resumes_after_meta", [] { File f; f.more = box_sized(0x7fffffff, "free"); return f; },
     0, kFrame64, 0, "", nullptr},
    {"containers_nested_deeper_than_real_files", [] { File f; f.head = box("free", {});
       for (int i = 0; i < 12; ++i) f.head = box("dinf", {f.head});
       f.head = box("dinf", {f.head, box_sized(0x7fffffff, "free")}); return f; },
     0, kFrame64, 0, "", nullptr},
    {"unknown_boxes_8193_pass", [] { File f; f.head = cat(std::vector<Bytes>(8193, box("zzzz"))); return f; },
     0, kFrame64, 0, "", nullptr},
    {"unknown_boxes_8194_stop", [] { File f; f.head = cat(std::vector<Bytes>(8194, box("zzzz"))); return f; },
     -2, kNone, 0, "Too much unknown atom (8194)", "tarnd_parse"},
    {"mdat_of_2_GiB_located_not_read", [] { File f; f.tail = cat({u32(1), fourcc("mdat"), u64(0x80000010)}); return f; },
     0, kMdat, 0x40000008, "", nullptr},
    {"trld_ending_with_the_file", [] { File f; f.tail = box("trld", {zeros(4)}); return f; },
     0, kNone, 0, "", nullptr},
    {"trld_before_meta", [] { File f; f.head = box("trld", {zeros(4)}); return f; },
     0, kFrame64, 0, "", nullptr},
    {"trld_past_file", [] { File f; f.tail = box_sized(1000, "trld", {zeros(4)}); return f; },
     0, kNone, 0, "trld size is not matched", "tarnd_parse"},
    {"item_box_inside_ipco", [] { File f; f.ipco = cat({infe(5, "hvc1"), hvcc(), ispe(64, 64)});
       f.ipma_box = ipma({{1, 0x82, 0x83}}); return f; },
     0, kFrame64, 0, "box type : 1701211753 is in ipco box", "tarnd_parse"},
    {"hdlr_shorter_than_fixed_fields", [] { File f; f.hdlr = fullbox("hdlr", 0, 0, {u32(0)}); return f; },
     0, kFrame64, 0, "", nullptr},
    {"ftyp_without_compatible_brands", [] { File f; f.ftyp = box("ftyp", {fourcc("heic"), u32(0)}); return f; },
     0, kBrand, 1, "", nullptr},
    {"ftyp_still_brand_after_another", [] { File f;
       f.ftyp = box("ftyp", {fourcc("miaf"), u32(0), fourcc("miaf"), fourcc("mif1")}); return f; },
     0, kBrand, 1, "", nullptr},
    {"ftyp_sequence_major_brand_alone", [] { File f; f.ftyp = box("ftyp", {fourcc("hevc"), u32(0)}); return f; },
     0, kBrand, 2, "", nullptr},
    // Item information and 16- versus 32-bit ids.
    {"pitm_v1_id_above_16_bits", [] { File f; f.pitm = fullbox("pitm", 1, 0, {u32(0x10001)}); return f; },
     -2, kNone, 0, "parser_pitm : item id is too big(65537)", "tarnd_handlers"},
    {"iinf_count_zero", [] { File f; f.iinf = fullbox("iinf", 0, 0, {u16(0)}); return f; },
     -2, kNone, 0, "parser_iinf : item count is abnormal(0)", "tarnd_handlers"},
    {"iinf_count_as_large_as_its_data_holds", [] { File f; f.iinf = fullbox("iinf", 0, 0, {u16(2), box("free"), box("free")});
       return f; },
     0, kNone, 0, "Warning! item count of iloc is less than it of iinf!", "tarnd_handlers"},
    {"iinf_count_beyond_data", [] { File f;
       f.iinf = fullbox("iinf", 1, 0, {u32(18512790), infe(1, "hvc1")}); return f; },
     -2, kNone, 0, "parser_iinf : item count is abnormal(18512790)", "tarnd_handlers"},
    {"infe_id_repeats", [] { File f; f.infes = {infe(1, "hvc1"), infe(1, "hvc1")}; return f; },
     -2, kNone, 0, "item_ID does not increase. previous(1), current(1)", "tarnd_handlers"},
    {"infe_v3_id_above_16_bits", [] { File f;
       f.infes = {fullbox("infe", 3, 0, {u32(0x12345), u16(0), fourcc("hvc1")})}; return f; },
     -2, kNone, 0, "parser_infe : item id is too big(74565)", "tarnd_handlers"},
    {"infe_v3_and_iref_v1_largest_id", [] { File f; f.pitm = fullbox("pitm", 0, 0, {u16(0xffff)});
       f.infes = {fullbox("infe", 3, 0, {u32(0xffff), u16(0), fourcc("hvc1"), str("")})}; f.locs = {{0xffff, 0, 10, 0}};
       f.ipma_box = fullbox("ipma", 0, 0, {u32(1), u16(0xffff), u8(2), u8(0x81), u8(0x82)});
       f.more = iref(box("thmb", {u32(0xffff), u16(1), u32(0xffff)}), 1); return f; },
     0, kThumb, 0, "", nullptr},
    {"ipma_names_missing_items", [] { File f; f.ipma_box = ipma({{0, 0x81}, {7, 0x81}, {1, 0x81, 0x82}});
       return f; },
     0, kFrame64, 0, "", nullptr},
    {"ipma_v1_entries_written_16_bit", [] { File f;
       f.ipma_box = fullbox("ipma", 1, 0, {u32(1), u16(1), u8(2), u8(0x81), u8(0x82)}); return f; },
     0, kFrame64, 0, "file has abnormal property association data", "tarnd_handlers"},
    {"iref_v1_id_above_16_bits", [] { File f;
       f.more = iref(box("thmb", {u32(0x10002), u16(1), u32(1)}), 1); return f; },
     0, kNone, 0, "parser_single_iref : item id is too big(65538)", "tarnd_handlers"},
    // Item locations.
    {"iloc_count_beyond_data", [] { File f;
       f.iloc = fullbox("iloc", 0, 0, {u8(0x44), u8(0), u16(1000), u16(1), u16(0), u16(1), u32(0),
       u32(0)}); return f; },
     -2, kNone, 0, "parser_iloc : item count is abnormal(1000)", "tarnd_handlers"},
    {"iloc_count_as_large_as_its_data_holds", [] { File f;  // one entry without extents: 6 bytes
       f.iloc = fullbox("iloc", 0, 0, {u8(0), u8(0), u16(1), u16(1), u16(0), u16(0)}); return f; },
     0, kNone, 0, "", nullptr},
    {"iloc_more_entries_than_items", [] { File f; f.locs = {{1, 0, 10, 0}, {2, 0, 10, 0}}; return f; },
     -2, kNone, 0, "items are more than item count(1)", "tarnd_handlers"},
    {"iloc_names_missing_item", [] { File f; f.locs = {{7, 0, 10, 0}}; return f; },
     -2, kNone, 0, "parser_iloc : valid index for item(7) could not be found", "tarnd_handlers"},
    {"iloc_v2_id_above_16_bits", [] { File f;
       f.iloc = fullbox("iloc", 2, 0, {u8(0x44), u8(0), u32(1), u32(70000), u16(0), u16(0), u16(1), u32(0),
       u32(10)}); return f; },
     -2, kNone, 0, "parser_iloc : item id is too big(70000)", "tarnd_handlers"},
    {"iloc_length_cut_by_end_of_file", [] { File f; f.tail = cat({u32(30), fourcc("iloc"), u32(0), u8(0x44), u8(0),
       u16(1), u16(1), u16(0), u16(1), u32(0), u16(0)}); return f; },
     0, kFrameSize, 10, "", nullptr},
    {"iloc_v2_wide_ids", [] { File f; f.iloc_version = 2; return f; },
     0, kFrame64, 0, "", nullptr},
    {"iloc_extent_index_missing", [] { File f;
       f.iloc = fullbox("iloc", 1, 0, {u8(0), u8(0x04), u16(1), u16(1), u16(0), u16(0), u16(1)}); return f; },
     -2, kNone, 0, "ctx->meta.properties is NULL", "tarnd"},
    {"iloc_three_extents_and_base_offset_last_stays", [] { File f; f.iloc = fullbox("iloc", 1, 0, {u8(0x44), u8(0x40),
       u16(1), u16(1), u16(1), u16(0), u32(1000), u16(3), u32(1), u32(2), u32(3), u32(4), u32(50), u32(10)});
       f.more = box("idat", {zeros(1050), kFrame}); return f; },
     0, kFrameSize, 10, "", nullptr},
    {"extent_past_end_of_file", [] { File f; f.locs = {{1, 0, 1000, 0}}; return f; },
     0, kFrame64, -6, "", nullptr},
    {"extent_offset_plus_length_overflows", [] { File f;
       f.iloc = fullbox("iloc", 0, 0, {u8(0x88), u8(0), u16(1), u16(1), u16(0), u16(1), u64(~0ull - 15),
       u64(32)}); return f; },
     0, kFrame64, -1, "", nullptr},
    {"exif_offset_plus_header_overflows", [] { File f; f.infes = {infe(1, "hvc1"), infe(2, "Exif", 1)};
       f.iloc = fullbox("iloc", 0, 0, {u8(0x88), u8(0), u16(2), u16(1), u16(0), u16(1), u64(0), u64(10), u16(2),
       u16(0), u16(1), u64(~0ull - 1), u64(20)}); f.more = iref(ref("cdsc", 2, {1})); return f; },
     0, kExif, -1, "", nullptr},
    {"extent_offset_past_idat", [] { File f; f.iloc_version = 1; f.locs = {{1, 100, 10, 1}};
       f.more = box("idat", {kFrame}); return f; },
     0, kFrame64, -1, "", nullptr},
    {"iloc_without_entries", [] { File f; f.iloc = fullbox("iloc", 0, 0, {u8(0x44), u8(0), u16(0)});
       return f; },
     -2, kNone, 0, "parser_iloc : item count is abnormal(0)", "tarnd_handlers"},
    {"infe_beyond_the_iinf_count", [] { File f;
       f.iinf = fullbox("iinf", 0, 0, {u16(1), infe(1, "hvc1"), infe(2, "hvc1", 1)}); return f; },
     -2, kNone, 0, "ctx->meta.properties is NULL", "tarnd"},
    {"infe_version_1_names_no_type", [] { File f;  // its name is not a type, even when it reads like one
       f.infes = {fullbox("infe", 1, 0, {u16(1), u16(0), str("hvc1"), str("")})}; return f; },
     0, kFrame64, -1, "", nullptr},
    {"exif_primary_and_every_image_hidden", [] { File f = two_items();
       f.infes = {infe(1, "hvc1", 1), infe(2, "Exif", 1)};
       f.pitm = fullbox("pitm", 0, 0, {u16(2)}); return f; },
     0, kPrimary, 2, "", nullptr},
    {"extent_past_idat", [] { File f; f.iloc_version = 1; f.locs = {{1, 0, 100, 1}};
       f.more = box("idat", {kFrame}); return f; },
     0, kFrame64, -6, "", nullptr},
    {"construction_method_2", [] { File f; f.iloc_version = 1; f.locs = {{1, 0, 10, 2}}; return f; },
     0, kFrame64, -2, "tarnd_get_image_frm : data location(2) of item(1) is not supported", "tarnd"},
    {"nal_length_is_last_in_item", [] { File f; f.mdat = cat({kFrame, u32(5)}); f.locs = {{1, 0, 14, 0}};
       return f; },
     0, kFrame64, -3, "", nullptr},
    {"nal_length_cut_by_item_end", [] { File f; f.mdat = cat({kFrame, u8(0)}); f.locs = {{1, 0, 11, 0}};
       f.tail = box("free"); return f; },
     0, kFrame64, -3, "", nullptr},
    {"jpeg_measured_without_buffer", [] { File f; f.infes = {infe(1, "jpeg")}; return f; },
     0, kMeasure, 10, "", nullptr},
    {"jpeg_past_file_into_a_small_buffer", [] { File f; f.infes = {infe(1, "jpeg")}; f.locs = {{1, 0, 100, 0}};
       return f; },
     0, kFrame64, -6, "", nullptr},
    {"nal_longer_than_item_is_cut", [] { File f; f.mdat = cat({u32(1000), zeros(6)}); return f; },
     0, kFrame64, 0, "", nullptr},
    // Properties and associations.
    {"ipco_payload_7", [] { File f; f.ipco = zeros(7); return f; },
     -2, kNone, 0, "parser_ipco : invalid item property count(0)", "tarnd_handlers"},
    {"second_ipco", [] { File f; f.iprp = box("iprp", {box("ipco", {f.ipco}),
       f.ipma_box, box("ipco", {ispe(1, 1)})}); f.more = iref(ref("thmb", 1, {1})); return f; },
     0, kThumb, -1, "parser_ipco : duplicated ipco box", "tarnd_handlers"},
    {"property_before_ipco", [] { File f; f.iprp = box("iprp", {ispe(1, 1), box("ipco", {f.ipco}),
       f.ipma_box}); return f; },
     -2, kNone, 0, "parser_ispe : abnormal file. maybe ipco box does not exist.", "tarnd_handlers"},
    {"clap_before_ipco", [] { File f; f.iprp = box("iprp", {clap({}), box("ipco", {f.ipco}), f.ipma_box}); return f; },
     -2, kNone, 0, "parser_clap : abnormal file. maybe ipco box does not exist.", "tarnd_handlers"},
    {"auxC_before_ipco", [] { File f; f.iprp = box("iprp", {fullbox("auxC", 0, 0, {}), box("ipco", {f.ipco}),
       f.ipma_box}); return f; },
     -2, kNone, 0, "parser_auxC : abnormal file. maybe ipco box does not exist.", "tarnd_handlers"},
    {"hvcC_before_ipco", [] { File f; f.iprp = box("iprp", {hvcc(), box("ipco", {f.ipco}), f.ipma_box}); return f; },
     -2, kNone, 0, "parser_hvcC : abnormal file. maybe ipco box does not exist.", "tarnd_handlers"},
    {"ipma_entries_beyond_payload", [] { File f;
       f.ipma_box = fullbox("ipma", 0, 0, {u32(10), u16(1), u8(1), u8(0x81)}); return f; },
     -2, kNone, 0, "atom data size is abnormal. atom data size : 8, entry_cnt : 10", "tarnd_handlers"},
    {"ipma_index_past_property_table", [] { File f; f.ipma_box = ipma({{1, 0x81, 0x89}}); return f; },
     0, kInfoImage, 0, "", nullptr},
    {"colr_profile_missing", [] { File f; f.ipco = cat({hvcc(), ispe(64, 64), box("colr",
       {fourcc("prof")})}); return f; },
     -2, kNone, 0, "color data size is too big 4", "tarnd_handlers"},
    {"auxC_type_without_nul", [] { File f;
       f.ipco = cat({hvcc(), ispe(64, 64), fullbox("auxC", 0, 0, {raw("urn:x")})}); return f; },
     0, kFrame64, 0, "aux data is abnormal", "tarnd_handlers"},
    {"auxC_alpha_with_subtype", [] { File f; f.ipco = cat({hvcc(), ispe(64, 64), fullbox("auxC", 0, 0,
       {str("urn:mpeg:hevc:2015:auxid:1"), u32(2), u16(0xabcd)})}); f.ipma_box = ipma({{1, 0x81, 0x82, 0x83}}); return f; },
     0, kAuxSubtype, 0x2cd, "", nullptr},
    {"hvcC_nal_length_past_box", [] { File f;
       f.ipco = cat({hvcc(cat({u8(33), u16(1), u16(0xffff), zeros(2)}), 1), ispe(64, 64)}); return f; },
     -2, kNone, 0, "ctx->meta.association_list is NULL", "tarnd"},
    {"hvcC_array_count_past_box", [] { File f; f.ipco = cat({hvcc({}, 200), ispe(64, 64)}); return f; },
     -2, kNone, 0, "ctx->meta.association_list is NULL", "tarnd"},
    {"clap_offset_overflows", [] { return clapped(64, 64, {64, 1, 64, 1, 0x7fffffff, 1, 0, 1}); },
     0, kInfoImage, 0, "crop area is abnormal", "tarnd_clean_aperture"},
    {"clap_denominators_overflow", [] { return clapped(64, 64, {64, 1, 64, 1, 1, 0x7fffffff, 0, 1}); },
     0, kInfoImage, 0, "crop area is abnormal", "tarnd_clean_aperture"},
    {"clap_right_edge_overflows", [] { return clapped(2, 2, {0x40000000, 1, 2, 1, 0x7ffffffe, 1, 0, 1}); },
     0, kInfoImage, 0,
     "clap info is abnormal. left(1610612735), top(0), clap_width(1073741824), clap_heigt(2)",
     "tarnd_clean_aperture"},
    {"clap_right_edge_at_int32_max", [] { return clapped(0x7ffffffe, 2, {2, 1, 2, 1, 0x3fffffff, 1, 0, 1}); },
     0, kInfoImage, 0, "clap info is abnormal. resolution(2147483646 x 2), left(2147483645), top(0), clap_width(2), "
     "clap_heigt(2)", "tarnd_clean_aperture"},
    {"clap_negative_denominator", [] { return clapped(64, 64, {64, -1, 64, 1, 0, 1, 0, 1}); },
     0, kInfoImage, 0, "clap data is abnormal", "tarnd_clean_aperture"},
    // References and groups.
    {"iref_from_missing_item", [] { File f; f.more = iref(ref("thmb", 9, {1})); return f; },
     0, kNone, 0, "parser_single_iref : valid index for from_item(9) could not be found", "tarnd_handlers"},
    {"iref_to_missing_item", [] { File f;
       f.more = iref(cat({ref("dimg", 1, {9}), ref("thmb", 1, {1})})); return f; },
     0, kThumb, -1, "parser_single_iref : valid index for to_item(9) could not be found", "tarnd_handlers"},
    {"iref_count_beyond_data", [] { File f; f.more = iref(ref("thmb", 1, {1}, 0xffff)); return f; },
     0, kThumb, -1, "", nullptr},
    {"iref_to_itself", [] { File f; f.more = iref(ref("thmb", 1, {1})); return f; },
     0, kThumb, 0, "", nullptr},
    {"thmb_marks_no_auxiliary", [] { File f = two_items(); f.more = iref(ref("thmb", 1, {2})); return f; },
     0, kFlags2, 0, "", nullptr},
    {"iref_cycle", [] { File f = grid(cat({u16(0), u16(0), u32(0x00400040)}), {2});
       f.more = iref(cat({ref("dimg", 1, {2}), ref("dimg", 2, {3}), ref("dimg", 3, {1})})); return f; },
     0, kGrid, 0, "", nullptr},
    {"seventeen_references", [] { File f; std::vector<Bytes> r(17, ref("thmb", 1, {1}));
       f.more = iref(cat(r)); return f; },
     0, kThumb, 0, "too many referece_from_cnt. ignore reference", "tarnd_handlers"},
    {"ster_entities_beyond_payload", [] { File f;
       f.more = box("grpl", {fullbox("ster", 0, 0, {u32(9), u32(0x40000000), u32(1)})}); return f; },
     0, kNone, 0, "ster atom is too small size(24), entityCount(1073741824)", "tarnd_handlers"},
    {"ster_without_entities", [] { File f; f.more = box("grpl", {fullbox("ster", 0, 0, {u32(9), u32(0)})}); return f; },
     0, kGroups, 1, "", nullptr},
    {"seventeen_ster_groups", [] { File f;
       f.more = box("grpl", {cat(std::vector<Bytes>(17, fullbox("ster", 0, 0, {u32(100), u32(2), u32(1), u32(1)})))});
       return f; },
     0, kGroups, 16, "too many group count", "tarnd_handlers"},
    // Grids.
    {"grid_layout_wants_more_tiles", [] { return grid(cat({u16(0x0001), u16(0x0101), u32(0x00800080)})); },
     0, kRefs4, 0, "", nullptr},
    {"grid_data_6_bytes", [] { return grid(cat({u16(0), u16(0x0101), u16(0x40)})); },
     0, kGrid, -2, "tarnd_get_info_item : grid data size is invalid(6)", "tarnd"},
    {"grid_32bit_sizes_in_8_bytes", [] { return grid(cat({u16(1), u16(0x0101), u32(0x00400040)})); },
     0, kGrid, -2, "tarnd_get_info_item : grid data size is invalid(8)", "tarnd"},
    {"grid_offset_past_idat", [] { File f = grid({}); f.iloc_version = 1; f.locs[0] = {1, 100, 8, 1};
       f.more = cat({f.more, box("idat", {zeros(8)})}); return f; },
     0, kGrid, -2, "tarnd_get_info_item : grid data is abnormal", "tarnd"},
};

// Valid files that strict reading refuses or reads short, and tolerant
// reading opens: both modes side by side, with the line each one logs.
struct ModeCase {
  const char *name;
  File (*make)();
  Query query;
  struct Mode {
    int32_t create;
    int32_t answer;   // the query's status, or its value where it has one
    const char *log;  // exact line at WARN or above; nullptr = none
    const char *tag;
  } strict, tolerant;
};

const ModeCase kModeCases[] = {
    {"mode_iloc_ids_descending", [] { File f = two_items(); f.locs = {f.locs[1], f.locs[0]};
       return iloc_first(f); }, kFrame64,
     {0, -1, "parser_infe : valid index for item(1) could not be found", "tarnd_handlers"},
     {0, 0, nullptr, nullptr}},
    {"mode_infe_ids_descending", [] { File f = two_items(); f.infes = {f.infes[1], f.infes[0]};
       f.more = iref(ref("thmb", 2, {1})); return f; }, kThumb,
     {-2, 0, "item_ID does not increase. previous(2), current(1)", "tarnd_handlers"},
     {0, 0, nullptr, nullptr}},
    {"mode_id_0_among_unordered_ids", [] { File f; f.pitm = fullbox("pitm", 0, 0, {u16(0)});
       f.infes = {infe(2, "hvc1", 1), infe(1, "hvc1"), infe(0, "mime", 1), infe(3, "hvc1", 1)}; return f; }, kPrimary,
     {-2, 0, "item_ID does not increase. previous(2), current(1)", "tarnd_handlers"},
     {0, 0, "Warning! item count of iloc is less than it of iinf!", "tarnd_handlers"}},
    {"mode_all_boxes_descending", [] { File f = two_items(); f.infes = {f.infes[1], f.infes[0]};
       f.locs = {f.locs[1], f.locs[0]}; f.more = iref(ref("thmb", 2, {1})); return iloc_first(f); }, kThumb,
     {0, -1, "item_ID does not increase. previous(2), current(1)", "tarnd_handlers"},
     {0, 0, nullptr, nullptr}},
    {"mode_65_items_descending", [] { File f; f.infes.clear(), f.locs.clear(); std::vector<std::vector<uint8_t>> a;
       for (uint16_t id = 65; id >= 1; --id) {
         f.infes.push_back(infe(id, "hvc1", id != 1)), f.locs.push_back({id, 0, 10, 0}), a.push_back({uint8_t(id), 0x81, 0x82});
       }
       f.ipma_box = ipma(a); return f; }, kPrimary,
     {-2, 0, "item_ID does not increase. previous(65), current(64)", "tarnd_handlers"}, {0, 1, nullptr, nullptr}},
    {"mode_colr_profile_empty", [] { File f; f.ipco = cat({hvcc(), ispe(64, 64), box("colr",
       {fourcc("prof")})}); f.ipma_box = ipma({{1, 0x81, 0x82, 0x83}}); return f; }, kInfoImage,
     {-2, 0, "color data size is too big 4", "tarnd_handlers"},
     {0, 0, "colour profile is empty or too short(0 bytes); kept without profile", "tarnd_handlers"}},
    {"mode_colr_profile_short", [] { File f; f.ipco = cat({hvcc(), ispe(64, 64), box("colr",
       {fourcc("rICC"), zeros(100)})}); f.ipma_box = ipma({{1, 0x81, 0x82, 0x83}}); return f; }, kInfoImage,
     {0, 0, nullptr, nullptr},
     {0, 0, "colour profile is empty or too short(100 bytes); kept without profile", "tarnd_handlers"}},
    {"mode_apple_gain_map", [] { return aux_of_1("urn:com:apple:photo:2020:aux:hdrgainmap"); }, kGainMap,
     {0, -1, nullptr, nullptr}, {0, 2, nullptr, nullptr}},
    {"mode_cicp_alpha", [] { return aux_of_1("urn:mpeg:mpegB:cicp:systems:auxiliary:alpha"); }, kFlags2,
     {0, 0, nullptr, nullptr}, {0, TARND_ITEM_AUX_ALPHA, nullptr, nullptr}},
    {"mode_two_extents", [] { return two_extents(0); }, kFrameSize,
     {0, 6, nullptr, nullptr}, {0, 10, nullptr, nullptr}},
    {"mode_second_extent_past_file", [] { return two_extents(1000); }, kFrame64,
     {0, -1, nullptr, nullptr}, {0, -6, nullptr, nullptr}},
    {"mode_grid_first_extent_past_file", [] { File f = grid(cat({u16(0), u16(0x0101), u32(0x00400040)}));
       f.split = {{1000, 4}, {0, 4}}; return f; }, kGrid,
     {0, -2, "tarnd_get_info_item : grid data size is invalid(4)", "tarnd"}, {0, -1, nullptr, nullptr}},
    {"mode_id_0_among_ids_out_of_order", [] { File f;  // sorting puts id 0 last, where lookups expect it
       f.infes = {infe(2, "hvc1", 1), infe(0, "hvc1", 1), infe(1, "hvc1")};
       f.locs = {{2, 0, 10, 0}, {0, 0, 10, 0}, {1, 0, 10, 0}}; return f; }, kFrameSize,
     {-2, 0, "item_ID does not increase. previous(2), current(0)", "tarnd_handlers"},
     {0, 10, nullptr, nullptr}},
    {"mode_repeated_id", [] { File f; f.infes = {infe(1, "hvc1"), infe(1, "hvc1")}; return f; }, kNone,
     {-2, 0, "item_ID does not increase. previous(1), current(1)", "tarnd_handlers"},
     {-2, 0, "duplicated item(type : 828601960). abnormal file", "tarnd_handlers"}},
    {"mode_overlay_primary", [] { File f; f.infes = {infe(2, "hvc1"), infe(3, "iovl")};
       f.locs = {{2, 0, 10, 0}, {3, 0, 0, 0}}; f.ipma_box = ipma({{2, 0x81, 0x82}, {3, 0x82}});
       f.pitm = fullbox("pitm", 0, 0, {u16(3)}); f.more = iref(ref("dimg", 3, {2})); return f; }, kPrimary,
     {0, 2, nullptr, nullptr}, {0, 3, nullptr, nullptr}},
    {"mode_exif_primary", [] { File f = two_items(); f.infes = {infe(1, "hvc1"), infe(2, "Exif", 1)};
       f.pitm = fullbox("pitm", 0, 0, {u16(2)}); return f; }, kPrimary,
     {0, 1, nullptr, nullptr}, {0, 1, nullptr, nullptr}},
};

int32_t ask(void *h, Query q) {
  uint32_t id = 0;
  int32_t size = -1, s = 0;
  switch (q) {
    case kFrame64: {
      uint8_t buf[72];
      memset(buf, 0xEE, sizeof(buf));
      s = tarnd_get_image_frm(h, 1, buf, 64, &size);
      for (size_t i = 64; i < sizeof(buf); ++i) EXPECT_EQ(buf[i], 0xEE) << "written past the buffer";
      EXPECT_LE(size, 64);
      return s;
    }
    case kInfoImage:
    case kFlags2: {
      tarnd_image_info info = {};
      info.crop.right = 77;  // must stay as set unless the crop converts
      s = tarnd_get_info_image(h, q == kFlags2 ? 2 : 1, &info);
      EXPECT_EQ(info.crop.right, 77);
      const uint32_t aux = TARND_ITEM_AUX_ALPHA | TARND_ITEM_AUX_GAINMAP | TARND_ITEM_HAS_AUX;
      return s == 0 && q == kFlags2 ? int32_t(info.flags & aux) : s;
    }
    case kGrid:
    case kExif: {
      tarnd_grid_info g = {};
      tarnd_item_data d = {};
      const uint32_t kind = q == kGrid ? TARND_INFO_GRID : TARND_INFO_EXIF;
      return tarnd_get_info_item(h, 1, kind, q == kGrid ? static_cast<void *>(&g) : &d);
    }
    case kRefs4: {
      uint32_t ids[4] = {0xAAAA, 0xAAAA, 0xAAAA, 0xAAAA};
      s = tarnd_get_list_referenceto(h, 1, ids, 4);
      EXPECT_TRUE(ids[0] == 2 && ids[1] == 3 && ids[2] == 0xAAAA && ids[3] == 0xAAAA);
      return s;
    }
    case kThumb:
    case kPrimary:
    case kGainMap: {  // the status of a thumbnail, the id of the others
      const uint32_t code = q == kThumb     ? TARND_ID_THUMBNAIL
                            : q == kPrimary ? TARND_ID_PRIMARY
                                            : TARND_ID_GAINMAP;
      s = tarnd_get_image_id(h, code, TARND_ID_REF_PRIMARY, &id);
      return s == 0 && q != kThumb ? int32_t(id) : s;
    }
    case kFrameSize:
    case kMeasure: {  // the frame's size, measured without a buffer or extracted into one
      uint8_t buf[64];
      s = tarnd_get_image_frm(h, 1, q == kMeasure ? nullptr : buf, q == kMeasure ? 0 : sizeof(buf), &size);
      if (q == kFrameSize && size == 10) {
        EXPECT_EQ(memcmp(buf + 4, kFrame.data() + 4, 6), 0);
      }
      return s == 0 ? size : s;
    }
    case kBrand:
      return int32_t(static_cast<tarnd_ctx *>(h)->brand);
    case kGroups:
      return int32_t(static_cast<tarnd_ctx *>(h)->meta.group_cnt);
    case kMdat:
      return int32_t(static_cast<tarnd_ctx *>(h)->mdat_size >> 1);
    case kAuxSubtype: {
      const auto &aux = static_cast<tarnd_ctx *>(h)->meta.properties[2].payload.auxC;
      return aux.subtype_size == 0 ? -1 : int32_t(aux.subtype_size << 8 | aux.subtype_data[aux.subtype_size - 1]);
    }
    case kNone:
      break;
  }
  return 0;
}

// Opens bytes in one mode and checks the open's status, the query's answer
// and the exact line logged at WARN or above.
void expect_open(const Bytes &bytes, uint32_t mode, Query query, const ModeCase::Mode &m) {
  LogCapture cap;
  int32_t err = 1;
  CtxPtr h = open_memory(bytes, &err, mode);
  EXPECT_EQ(err, m.create);
  EXPECT_EQ(h != nullptr, err == 0);
  if (h != nullptr) {
    EXPECT_EQ(ask(h.get(), query), m.answer);
  }
  if (m.tag != nullptr) {
    EXPECT_TRUE(cap.has(m.log, m.tag)) << cap.dump();
    // Each case breaks one thing: once it is reported, the walk warns of
    // nothing else (the open's own summary aside).
    bool seen = false, more = false;
    for (const LogLine &l : cap.lines()) {
      more = more || (seen && l.priority >= 5 && l.tag != "tarnd");
      seen = seen || l.text == m.log;
    }
    EXPECT_FALSE(more) << cap.dump();
  } else {
    for (const LogLine &l : cap.lines()) EXPECT_LT(l.priority, 5) << l.text;
  }
}

TEST(MalformedFiles, StatusAndLogLine) {
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    const Bytes bytes = c.make().build();
    expect_open(bytes, TARND_READ_STRICT, c.query, {c.create, c.query_status, c.log, c.tag});
    // Tolerant reading is as safe on the same damage: the query's buffer
    // checks run again, and whatever strict reading opens, it opens too.
    CtxPtr t = open_memory(bytes, nullptr, TARND_READ_TOLERANT);
    if (c.create == 0) {
      EXPECT_NE(t, nullptr);
    }
    if (t != nullptr) ask(t.get(), c.query);
  }
  // A missing source or file record is refused before anything is read.
  tarnd_io_dsc io;
  tarnd_io_init_memory(&io, kFrame.data(), kFrame.size());
  tarnd_file_info info;
  int32_t err = 0;
  EXPECT_EQ(tarnd_create(nullptr, 0, &info, &err), nullptr);
  EXPECT_EQ(tarnd_create(&io, 0, nullptr, &err), nullptr);
  EXPECT_EQ(err, -6);
  EXPECT_EQ(tarnd_create_with_flags(&io, 0x80, &info, &err), nullptr);  // a mode bit of no meaning
  EXPECT_EQ(err, -1);
  EXPECT_EQ(tarnd_get_info_item(nullptr, 1, TARND_INFO_EXIF, &info), -1);
}

TEST(MalformedFiles, StrictAndTolerantSideBySide) {
  for (const ModeCase &c : kModeCases) {
    SCOPED_TRACE(c.name);
    const Bytes bytes = c.make().build();
    for (const uint32_t mode : {TARND_READ_STRICT, TARND_READ_TOLERANT}) {
      SCOPED_TRACE(mode == TARND_READ_STRICT ? "strict" : "tolerant");
      expect_open(bytes, mode, c.query, mode == TARND_READ_STRICT ? c.strict : c.tolerant);
    }
  }
}

// The replay of fuzz/regressions/reader/ runs these files through every query.
TEST(MalformedFiles, RegressionInputsAreCurrent) {
  const bool update = std::getenv("TARN_UPDATE_REGRESSIONS") != nullptr;
  std::vector<std::pair<const char *, Bytes>> files;
  for (const Case &c : kCases) files.emplace_back(c.name, c.make().build());
  for (const ModeCase &c : kModeCases) files.emplace_back(c.name, c.make().build());
  for (const auto &[name, bytes] : files) {
    const std::string path = regression_path(name);
    if (update) {
      std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(bytes.data()),
                                                  std::streamsize(bytes.size()));
    }
    Bytes stored;
    EXPECT_TRUE(read_file(path, &stored) && stored == bytes)
        << path << " is stale: run with TARN_UPDATE_REGRESSIONS=1";
  }
}

}  // namespace
}  // namespace tarn_test
