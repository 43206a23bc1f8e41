// What the engine reads of an H.264 access unit before decoding it: the kind
// of picture, and the numbers that tell whether a frame went missing before it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

namespace ravel_soft {

// One access unit, as far as the port needs to know it.
struct access_unit {
  bool has_slice = false;     // a coded picture is in it
  bool has_params = false;    // a sequence or picture parameter set is in it
  bool cut = false;           // a slice header ends before its frame_num
  bool idr = false;           // an IDR slice is in it
  bool intra = false;         // every slice is an I slice (IDR or not)
  bool reference = false;     // nal_ref_idc of its slices is not 0
  bool params_known = false;  // the SPS and PPS that its slices name have been seen
  bool gaps_allowed = false;  // its SPS lets frame_num jump
  uint32_t frame_num = 0;
  uint32_t max_frame_num = 0;  // frame_num counts modulo this
  // pic_order_cnt_lsb of a frame picture whose SPS counts that way (POC
  // type 0); max_poc_lsb is 0 for any other picture.
  uint32_t poc_lsb = 0;
  uint32_t max_poc_lsb = 0;
};

// Reads the parameter sets and slice headers of a stream, unit by unit, and
// keeps the parameter sets for the units that follow.
class stream_reader {
 public:
  stream_reader();
  access_unit inspect(const uint8_t *data, int32_t size);

 private:
  struct sps {
    bool valid = false;
    bool separate_colour_planes = false;
    bool gaps_allowed = false;
    bool frame_mbs_only = true;
    uint8_t log2_max_frame_num = 0;
    uint8_t log2_max_poc_lsb = 0;  // 0: POC type 1 or 2
  };
  void read_sps(const uint8_t *nal, int32_t size);
  void read_pps(const uint8_t *nal, int32_t size);
  void read_slice(const uint8_t *nal, int32_t size, access_unit &au);

  std::array<sps, 32> sps_;
  std::array<int16_t, 256> pps_sps_;  // SPS id of each PPS id, -1 for unknown
};

// Decides, frame by frame, whether a reference frame went missing: H.264's
// frame_num steps by one after each reference picture, so a larger step
// means that the decoder would build on a picture it never had.
class gap_detector {
 public:
  // True when `au` can be decoded without a missing reference before it;
  // remembers it when so.  After a restart only an intra picture is.
  bool accept(const access_unit &au);
  // A fresh start: the next picture must be intra.
  void restart() { have_prev_ = false; }

 private:
  bool have_prev_ = false;
  uint32_t prev_ref_frame_num_ = 0;
};

// The presentation order of a stream's frames (picture order counts, from
// pic_order_cnt_lsb), so that a picture the decoder still holds back can be
// brought out once it is surely the next one to show.
class presentation_order {
 public:
  // Its count, or nothing for a unit whose count is not known.
  std::optional<int64_t> count(const access_unit &au);
  // A picture with count `poc` came out (nothing: one of unknown count).
  void shown(std::optional<int64_t> poc);
  // Whether a held-back picture with count `poc`, the lowest held, is the
  // next to show: the first of an IDR sequence, or two counts (one frame)
  // after the last shown, with no shown pair ever closer.
  bool next(int64_t poc) const;
  void restart();

 private:
  int64_t prev_msb_ = 0;
  uint32_t prev_lsb_ = 0;
  bool known_ = false;  // since the last IDR
  std::optional<int64_t> last_shown_;
  std::optional<int64_t> first_;  // the IDR's count, until a picture is shown
  int64_t step_ = 2;
};

}  // namespace ravel_soft
