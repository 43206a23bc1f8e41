// What the engine reads of an H.264 access unit before decoding it: the kind
// of picture, and the numbers that tell whether a frame went missing before it.
#pragma once

#include <array>
#include <cstdint>

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
    uint8_t log2_max_frame_num = 0;
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

}  // namespace ravel_soft
