// HEVC video, sequence and picture parameter sets and slice segment
// headers.
#include <algorithm>

#include "media/bits.h"
#include "media/parameter_sets.h"

namespace mp4stbl {

namespace {

constexpr size_t kHeaderPrefix = 96;

HevcProfile readProfileTierLevel(BitReader& in, uint32_t maxSubLayersMinus1) {
  HevcProfile profile;
  profile.space = static_cast<uint8_t>(in.bits(2));
  profile.tier = static_cast<uint8_t>(in.bits(1));
  profile.idc = static_cast<uint8_t>(in.bits(5));
  profile.compatibility = in.bits(32);
  profile.constraints = (uint64_t{in.bits(16)} << 32) | in.bits(32);
  profile.level = static_cast<uint8_t>(in.bits(8));
  bool profilePresent[8] = {}, levelPresent[8] = {};
  for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
    profilePresent[i] = in.flag();
    levelPresent[i] = in.flag();
  }
  if (maxSubLayersMinus1 > 0) in.skip(2 * (8 - maxSubLayersMinus1));
  for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
    if (profilePresent[i]) in.skip(88);
    if (levelPresent[i]) in.skip(8);
  }
  return profile;
}

void skipScalingListData(BitReader& in) {
  for (unsigned sizeId = 0; sizeId < 4; ++sizeId) {
    for (unsigned matrixId = 0; matrixId < 6; matrixId += sizeId == 3 ? 3 : 1) {
      if (!in.flag()) {
        in.ue();  // scaling_list_pred_matrix_id_delta
        continue;
      }
      const unsigned coefficients = std::min(64u, 1u << (4 + (sizeId << 1)));
      if (sizeId > 1) in.se();
      for (unsigned i = 0; i < coefficients && !in.failed(); ++i) in.se();
    }
  }
}

// st_ref_pic_set(index) of the SPS; `deltaPocs` holds NumDeltaPocs of the
// sets before it. False when the set does not parse.
bool skipShortTermRefSet(BitReader& in, uint32_t index, std::vector<uint32_t>& deltaPocs) {
  if (index != 0 && in.flag()) {  // inter_ref_pic_set_prediction_flag
    in.skip(1);
    in.ue();
    uint32_t count = 0;
    for (uint32_t j = 0; j <= deltaPocs[index - 1] && !in.failed(); ++j) {
      const bool used = in.flag();
      if (used || in.flag()) ++count;
    }
    deltaPocs.push_back(count);
    return !in.failed() && count <= 32;
  }
  const uint32_t negative = in.ue(), positive = in.ue();
  if (negative > 16 || positive > 16) return false;
  for (uint32_t i = 0; i < negative + positive && !in.failed(); ++i) {
    in.ue();
    in.skip(1);
  }
  deltaPocs.push_back(negative + positive);
  return !in.failed();
}

Status failure(const std::string& why) { return Status::failure("HEVC SPS: " + why); }

Status readPicture(BitReader& in, HevcSps& sps) {
  sps.chromaFormat = in.ue();
  if (sps.chromaFormat > 3) return failure("chroma_format_idc " + std::to_string(sps.chromaFormat));
  if (sps.chromaFormat == 3) sps.separateColourPlanes = in.flag();
  const uint32_t width = in.ue(), height = in.ue();
  if (width == 0 || height == 0 || width > 16888 || height > 16888) return failure("picture size");
  uint32_t left = 0, right = 0, top = 0, bottom = 0;
  if (in.flag()) {
    left = in.ue();
    right = in.ue();
    top = in.ue();
    bottom = in.ue();
  }
  const bool subsampled =
      !sps.separateColourPlanes && (sps.chromaFormat == 1 || sps.chromaFormat == 2);
  const uint64_t cropWidth = uint64_t{subsampled ? 2u : 1u} * (uint64_t{left} + right);
  const uint64_t cropHeight =
      uint64_t{!sps.separateColourPlanes && sps.chromaFormat == 1 ? 2u : 1u} *
      (uint64_t{top} + bottom);
  if (cropWidth >= width || cropHeight >= height) return failure("cropping leaves no picture");
  sps.width = static_cast<uint32_t>(width - cropWidth);
  sps.height = static_cast<uint32_t>(height - cropHeight);
  sps.bitDepthLuma = in.ue() + 8;
  sps.bitDepthChroma = in.ue() + 8;
  sps.log2MaxPocLsb = in.ue() + 4;
  if (sps.bitDepthLuma > 16 || sps.bitDepthChroma > 16 || sps.log2MaxPocLsb > 16) {
    return failure("bit depth or log2_max_pic_order_cnt_lsb out of range");
  }
  const bool allLayers = in.flag();
  for (uint32_t i = allLayers ? 0 : sps.maxSubLayers - 1; i < sps.maxSubLayers; ++i) {
    in.ue();
    sps.reorderPics = in.ue();
    in.ue();
  }
  return Status();
}

// Coding tools up to the VUI flag; false when they do not parse.
bool skipCodingTools(BitReader& in, const HevcSps& sps) {
  for (int i = 0; i < 6; ++i) in.ue();  // block sizes and transform depths
  if (in.flag() && in.flag()) skipScalingListData(in);
  in.skip(2);       // amp, sample_adaptive_offset
  if (in.flag()) {  // pcm
    in.skip(8);
    in.ue();
    in.ue();
    in.skip(1);
  }
  const uint32_t sets = in.ue();
  if (sets > 64) return false;
  std::vector<uint32_t> deltaPocs;
  for (uint32_t i = 0; i < sets; ++i) {
    if (!skipShortTermRefSet(in, i, deltaPocs)) return false;
  }
  if (in.flag()) {  // long_term_ref_pics_present_flag
    const uint32_t count = in.ue();
    if (count > 32) return false;
    for (uint32_t i = 0; i < count && !in.failed(); ++i) in.skip(sps.log2MaxPocLsb + 1);
  }
  in.skip(2);  // temporal_mvp, strong_intra_smoothing
  return !in.failed();
}

// VUI up to its timing; the timing stays 0 when the VUI does not parse.
void readVuiTiming(BitReader& in, HevcSps& sps) {
  if (in.flag() && in.bits(8) == 255) in.skip(32);
  if (in.flag()) in.skip(1);
  if (in.flag()) {
    in.skip(4);
    if (in.flag()) in.skip(24);
  }
  if (in.flag()) {
    in.ue();
    in.ue();
  }
  in.skip(3);  // neutral_chroma, field_seq, frame_field_info_present
  if (in.flag()) {
    for (int i = 0; i < 4; ++i) in.ue();  // default display window
  }
  if (!in.flag()) return;
  const uint32_t units = in.bits(32), scale = in.bits(32);
  if (in.failed()) return;
  sps.unitsInTick = units;
  sps.timeScale = scale;
}

}  // namespace

uint32_t hevcVpsMaxSubLayers(const Bytes& nal) {
  const Bytes rbsp = unescapeNal(nal.data(), nal.size(), 8);
  if (rbsp.size() < 4) return 1;
  return ((rbsp[3] >> 1) & 7) + 1;
}

Result<HevcSps> parseHevcSps(const Bytes& nal) {
  const Bytes rbsp = unescapeNal(nal.data(), nal.size());
  if (rbsp.size() < 3 || ((rbsp[0] >> 1) & 0x3F) != 33) {
    return failure("not a sequence parameter set");
  }
  BitReader in(rbsp.data() + 2, rbsp.size() - 2);
  HevcSps sps;
  in.skip(4);  // sps_video_parameter_set_id
  sps.maxSubLayers = in.bits(3) + 1;
  if (sps.maxSubLayers > 7) return failure("sps_max_sub_layers_minus1 7");
  sps.temporalIdNesting = in.flag();
  sps.profile = readProfileTierLevel(in, sps.maxSubLayers - 1);
  sps.id = in.ue();
  if (sps.id > 15) return failure("sps_seq_parameter_set_id " + std::to_string(sps.id));
  Status status = readPicture(in, sps);
  if (!status.ok()) return status;
  if (in.failed()) return failure("ends early, at bit " + std::to_string(in.position()));
  if (skipCodingTools(in, sps) && in.flag()) readVuiTiming(in, sps);
  return sps;
}

Result<HevcPps> parseHevcPps(const Bytes& nal) {
  const Bytes rbsp = unescapeNal(nal.data(), nal.size(), kHeaderPrefix);
  if (rbsp.size() < 3 || ((rbsp[0] >> 1) & 0x3F) != 34) {
    return Status::failure("HEVC PPS: not a picture parameter set");
  }
  BitReader in(rbsp.data() + 2, rbsp.size() - 2);
  HevcPps pps;
  pps.id = in.ue();
  pps.spsId = in.ue();
  pps.dependentSliceSegments = in.flag();
  pps.outputFlagPresent = in.flag();
  pps.extraSliceHeaderBits = in.bits(3);
  if (in.failed() || pps.id > 63 || pps.spsId > 15) {
    return Status::failure("HEVC PPS: ids out of range or set ends early");
  }
  return pps;
}

Result<HevcSlice> parseHevcSlice(const uint8_t* nal, size_t size, const std::vector<HevcSps>& sps,
                                 const std::vector<HevcPps>& pps, const HevcSps** active) {
  const Bytes rbsp = unescapeNal(nal, size, kHeaderPrefix);
  if (rbsp.size() < 3) return Status::failure("slice segment header ends early");
  HevcSlice slice;
  slice.nalType = (rbsp[0] >> 1) & 0x3F;
  if ((rbsp[1] & 7) == 0) return Status::failure("NAL unit header with a temporal id of 0");
  slice.temporalId = (rbsp[1] & 7) - 1u;
  BitReader in(rbsp.data() + 2, rbsp.size() - 2);
  slice.firstInPicture = in.flag();
  if (!slice.firstInPicture) return slice;  // only a picture's first segment is read
  if (slice.nalType >= 16 && slice.nalType <= 23) in.skip(1);  // no_output_of_prior_pics_flag
  const uint32_t ppsId = in.ue();
  const HevcPps* picture = nullptr;
  const HevcSps* sequence = nullptr;
  for (const HevcPps& set : pps) {
    if (set.id == ppsId) picture = &set;
  }
  for (const HevcSps& set : sps) {
    if (picture && set.id == picture->spsId) sequence = &set;
  }
  if (sequence == nullptr) return Status::failure("slice refers to a missing parameter set");
  in.skip(picture->extraSliceHeaderBits);
  in.ue();  // slice_type
  if (picture->outputFlagPresent) in.skip(1);
  if (sequence->separateColourPlanes) in.skip(2);
  if (slice.nalType != 19 && slice.nalType != 20) slice.pocLsb = in.bits(sequence->log2MaxPocLsb);
  if (in.failed()) return Status::failure("slice segment header ends early");
  *active = sequence;
  return slice;
}

}  // namespace mp4stbl
