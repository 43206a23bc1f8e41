#include "h264_nal.hh"

#include <algorithm>
#include <cstddef>

namespace ravel_soft {
namespace {

// Exp-Golomb reads over a NAL unit's payload, skipping the emulation
// prevention bytes (00 00 03) as it goes.  Reads past the end give zeros and
// set `overrun`, so that a cut unit is noticed rather than read out of bounds.
class bit_reader {
 public:
  bit_reader(const uint8_t *data, int32_t size) : data_(data), size_(size) {}

  uint32_t bit() {
    if (bits_left_ == 0 && !load()) {
      overrun = true;
      return 0;
    }
    bits_left_--;
    return (byte_ >> bits_left_) & 1u;
  }
  uint32_t bits(int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; i++) v = (v << 1) | bit();
    return v;
  }
  uint32_t ue() {
    int zeros = 0;
    while (bit() == 0) {
      if (overrun || ++zeros > 31) {
        overrun = true;
        return 0;
      }
    }
    return zeros == 0 ? 0 : ((1u << zeros) - 1) + bits(zeros);
  }
  int32_t se() {
    uint32_t k = ue();
    return (k & 1) != 0 ? static_cast<int32_t>((k + 1) / 2) : -static_cast<int32_t>(k / 2);
  }

  bool overrun = false;

 private:
  bool load() {
    if (pos_ >= size_) return false;
    if (zeros_ >= 2 && data_[pos_] == 3) {
      zeros_ = 0;
      if (++pos_ >= size_) return false;
    }
    byte_ = data_[pos_++];
    zeros_ = byte_ == 0 ? zeros_ + 1 : 0;
    bits_left_ = 8;
    return true;
  }

  const uint8_t *data_;
  int32_t size_;
  int32_t pos_ = 0;
  int zeros_ = 0;
  uint32_t byte_ = 0;
  int bits_left_ = 0;
};

void skip_scaling_list(bit_reader &r, int size) {
  int last = 8, next = 8;
  for (int j = 0; j < size && !r.overrun; j++) {
    if (next == 0) continue;
    // A delta_scale outside -128..127 is damage (and would overflow here).
    const int32_t delta = r.se();
    if (delta < -128 || delta > 127) {
      r.overrun = true;
      return;
    }
    next = (last + delta + 256) % 256;
    last = next == 0 ? last : next;
  }
}

// Walks the NAL units of an Annex B unit: `visit(type, ref_idc, payload,
// bytes to the end of the unit)`, until it gives false.  A NAL unit's own
// end is not looked for: the readers stop long before it, and a unit is not
// scanned past the slice header that answers what the port asks.
template <typename F>
void for_each_nal(const uint8_t *data, int32_t size, F visit) {
  for (int32_t i = 0; i + 3 < size; i++) {
    if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) continue;
    const int32_t start = i + 3;
    if (!visit(data[start] & 0x1f, (data[start] >> 5) & 3, data + start + 1, size - start - 1))
      return;
    i = start;
  }
}

}  // namespace

stream_reader::stream_reader() { pps_sps_.fill(-1); }

access_unit stream_reader::inspect(const uint8_t *data, int32_t size) {
  access_unit au;
  au.intra = true;
  au.params_known = true;
  for_each_nal(data, size, [&](int type, int ref_idc, const uint8_t *nal, int32_t n) {
    if (type == 7) {
      read_sps(nal, n);
      au.has_params = true;
    } else if (type == 8) {
      read_pps(nal, n);
      au.has_params = true;
    } else if (type == 1 || type == 5) {
      if (type == 5) au.idr = true;
      if (ref_idc != 0) au.reference = true;
      read_slice(nal, n, au);
      // Only a picture that is intra so far but not IDR needs its other
      // slices read.
      return au.intra && !au.idr && au.params_known && !au.cut;
    }
    return true;
  });
  if (!au.has_slice) {
    au.intra = false;
    au.params_known = false;
  }
  return au;
}

void stream_reader::read_sps(const uint8_t *nal, int32_t size) {
  bit_reader r(nal, size);
  uint32_t profile = r.bits(8);
  r.bits(16);  // constraint flags, level
  uint32_t id = r.ue();
  if (id >= sps_.size()) return;
  sps s;
  static constexpr uint32_t kHighProfiles[] = {100, 110, 122, 244, 44,  83, 86,
                                               118, 128, 138, 139, 134, 135};
  bool high = false;
  for (uint32_t p : kHighProfiles) high = high || p == profile;
  if (high) {
    uint32_t chroma_format = r.ue();
    if (chroma_format == 3) s.separate_colour_planes = r.bit() != 0;
    r.ue();   // luma bit depth
    r.ue();   // chroma bit depth
    r.bit();  // qpprime_y_zero_transform_bypass
    if (r.bit() != 0) {
      int lists = chroma_format == 3 ? 12 : 8;
      for (int i = 0; i < lists && !r.overrun; i++)
        if (r.bit() != 0) skip_scaling_list(r, i < 6 ? 16 : 64);
    }
  }
  uint32_t log2_max_frame_num = r.ue() + 4;
  uint32_t poc_type = r.ue();
  if (poc_type == 0) {
    uint32_t log2_max_poc_lsb = r.ue() + 4;
    if (log2_max_poc_lsb <= 16) s.log2_max_poc_lsb = static_cast<uint8_t>(log2_max_poc_lsb);
  } else if (poc_type == 1) {
    r.bit();
    r.se();
    r.se();
    uint32_t cycle = r.ue();
    for (uint32_t i = 0; i < cycle && i < 256 && !r.overrun; i++) r.se();
  }
  r.ue();  // max_num_ref_frames
  s.gaps_allowed = r.bit() != 0;
  if (r.overrun || log2_max_frame_num > 16) return;
  s.log2_max_frame_num = static_cast<uint8_t>(log2_max_frame_num);
  s.valid = true;
  r.ue();  // width in macroblocks
  r.ue();  // height in map units
  s.frame_mbs_only = r.bit() != 0;
  // Without the rest, frame_num still counts, the presentation order not.
  if (r.overrun) s.log2_max_poc_lsb = 0;
  sps_[id] = s;
}

void stream_reader::read_pps(const uint8_t *nal, int32_t size) {
  bit_reader r(nal, size);
  uint32_t id = r.ue();
  uint32_t sps_id = r.ue();
  if (r.overrun || id >= pps_sps_.size() || sps_id >= sps_.size()) return;
  pps_sps_[id] = static_cast<int16_t>(sps_id);
}

void stream_reader::read_slice(const uint8_t *nal, int32_t size, access_unit &au) {
  const bool first = !au.has_slice;
  au.has_slice = true;
  bit_reader r(nal, size);
  r.ue();  // first_mb_in_slice
  uint32_t slice_type = r.ue() % 5;
  uint32_t pps_id = r.ue();
  if (slice_type != 2 && slice_type != 4) au.intra = false;  // I and SI slices are intra
  const sps *s = nullptr;
  if (!r.overrun && pps_id < pps_sps_.size() && pps_sps_[pps_id] >= 0)
    s = &sps_[static_cast<std::size_t>(pps_sps_[pps_id])];
  if (s == nullptr || !s->valid) {
    au.params_known = false;
    au.cut = au.cut || r.overrun;
    return;
  }
  if (s->separate_colour_planes) r.bits(2);
  uint32_t frame_num = r.bits(s->log2_max_frame_num);
  if (r.overrun) {
    au.cut = true;
    return;
  }
  if (!first) return;
  au.frame_num = frame_num;
  au.max_frame_num = 1u << s->log2_max_frame_num;
  au.gaps_allowed = s->gaps_allowed;
  if (!s->frame_mbs_only && r.bit() != 0) return;  // a field
  if (au.idr) r.ue();                              // idr_pic_id
  if (s->log2_max_poc_lsb == 0) return;
  au.poc_lsb = r.bits(s->log2_max_poc_lsb);
  if (!r.overrun) au.max_poc_lsb = 1u << s->log2_max_poc_lsb;
}

std::optional<int64_t> presentation_order::count(const access_unit &au) {
  if (au.idr) {
    prev_msb_ = 0;
    prev_lsb_ = 0;
    known_ = au.max_poc_lsb != 0;
    last_shown_.reset();
    first_ = au.poc_lsb;
  }
  if (!known_ || au.max_poc_lsb == 0) {
    known_ = false;
    return std::nullopt;
  }
  // The most significant part follows the previous reference picture's,
  // across the wrap of the least significant part.
  const int64_t lsb = au.poc_lsb, prev = prev_lsb_, half = au.max_poc_lsb / 2;
  int64_t msb = prev_msb_;
  if (lsb < prev && prev - lsb >= half) msb += au.max_poc_lsb;
  if (lsb > prev && lsb - prev > half) msb -= au.max_poc_lsb;
  if (au.reference) {
    prev_msb_ = msb;
    prev_lsb_ = au.poc_lsb;
  }
  return msb + lsb;
}

void presentation_order::shown(std::optional<int64_t> poc) {
  if (poc && last_shown_ && *poc > *last_shown_) step_ = std::min(step_, *poc - *last_shown_);
  last_shown_ = poc;
  first_.reset();
}

bool presentation_order::next(int64_t poc) const {
  if (first_) return poc == *first_;
  return last_shown_ && poc == *last_shown_ + 2 && step_ == 2;
}

void presentation_order::restart() {
  known_ = false;
  last_shown_.reset();
  first_.reset();
  step_ = 2;
}

bool gap_detector::accept(const access_unit &au) {
  if (!au.has_slice) return true;
  if (!have_prev_) {
    if (!au.intra) return false;
  } else if (!au.idr && !au.gaps_allowed && au.max_frame_num != 0) {
    uint32_t next = (prev_ref_frame_num_ + 1) % au.max_frame_num;
    // A second field, or a non-reference picture after one, repeats the
    // number; anything else but the next number is a gap.
    if (au.frame_num != prev_ref_frame_num_ && au.frame_num != next) return false;
  }
  have_prev_ = true;
  if (au.reference || au.idr) prev_ref_frame_num_ = au.frame_num;
  return true;
}

}  // namespace ravel_soft
