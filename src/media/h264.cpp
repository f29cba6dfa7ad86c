// H.264 sequence and picture parameter sets, slice headers and recovery
// point SEI messages.
#include <algorithm>

#include "media/bits.h"
#include "media/parameter_sets.h"

namespace mp4stbl {

namespace {

// Slice headers and SEI messages are read from this many unescaped bytes:
// the fields read come well before it.
constexpr size_t kHeaderPrefix = 96;

bool highProfile(uint8_t profile) {
  static const uint8_t kProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
  return std::find(std::begin(kProfiles), std::end(kProfiles), profile) != std::end(kProfiles);
}

void skipScalingList(BitReader& in, unsigned size) {
  int32_t last = 8, next = 8;
  for (unsigned j = 0; j < size && !in.failed(); ++j) {
    if (next != 0) next = (last + in.se() + 256) % 256;
    if (next != 0) last = next;
  }
}

Status readChroma(BitReader& in, AvcSps& sps) {
  sps.chromaFormat = in.ue();
  if (sps.chromaFormat > 3) {
    return Status::failure("chroma_format_idc " + std::to_string(sps.chromaFormat));
  }
  if (sps.chromaFormat == 3) sps.separateColourPlanes = in.flag();
  sps.bitDepthLuma = in.ue() + 8;
  sps.bitDepthChroma = in.ue() + 8;
  if (sps.bitDepthLuma > 14 || sps.bitDepthChroma > 14) return Status::failure("bit depth past 14");
  in.skip(1);  // qpprime_y_zero_transform_bypass_flag
  if (in.flag()) {
    const unsigned lists = sps.chromaFormat == 3 ? 12 : 8;
    for (unsigned i = 0; i < lists; ++i) {
      if (in.flag()) skipScalingList(in, i < 6 ? 16 : 64);
    }
  }
  return Status();
}

Status readPicOrder(BitReader& in, AvcSps& sps) {
  sps.log2MaxFrameNum = in.ue() + 4;
  if (sps.log2MaxFrameNum > 16) return Status::failure("log2_max_frame_num past 16");
  sps.pocType = in.ue();
  if (sps.pocType == 0) {
    sps.log2MaxPocLsb = in.ue() + 4;
    if (sps.log2MaxPocLsb > 16) return Status::failure("log2_max_pic_order_cnt_lsb past 16");
  } else if (sps.pocType == 1) {
    sps.deltaPicOrderAlwaysZero = in.flag();
    sps.offsetForNonRefPic = in.se();
    sps.offsetForTopToBottomField = in.se();
    const uint32_t cycle = in.ue();
    if (cycle > 255) return Status::failure("num_ref_frames_in_pic_order_cnt_cycle past 255");
    for (uint32_t i = 0; i < cycle && !in.failed(); ++i) sps.refFrameOffsets.push_back(in.se());
  } else if (sps.pocType != 2) {
    return Status::failure("pic_order_cnt_type " + std::to_string(sps.pocType));
  }
  return Status();
}

Status readSize(BitReader& in, AvcSps& sps) {
  sps.maxRefFrames = in.ue();
  in.skip(1);  // gaps_in_frame_num_value_allowed_flag
  sps.widthInMbs = in.ue() + 1;
  sps.heightInMapUnits = in.ue() + 1;
  sps.frameMbsOnly = in.flag();
  if (!sps.frameMbsOnly) in.skip(1);  // mb_adaptive_frame_field_flag
  in.skip(1);                         // direct_8x8_inference_flag
  if (sps.widthInMbs > 1024 || sps.heightInMapUnits > 1024) {
    return Status::failure("picture too large");
  }
  const uint32_t frameHeight = sps.heightInMapUnits * 16 * (sps.frameMbsOnly ? 1 : 2);
  uint32_t left = 0, right = 0, top = 0, bottom = 0;
  if (in.flag()) {
    left = in.ue();
    right = in.ue();
    top = in.ue();
    bottom = in.ue();
  }
  const uint32_t arrayType = sps.separateColourPlanes ? 0 : sps.chromaFormat;
  const uint32_t cropX = arrayType == 1 || arrayType == 2 ? 2 : 1;
  const uint32_t cropY = (arrayType == 1 ? 2 : 1) * (sps.frameMbsOnly ? 1 : 2);
  const uint64_t cropWidth = uint64_t{cropX} * (uint64_t{left} + right);
  const uint64_t cropHeight = uint64_t{cropY} * (uint64_t{top} + bottom);
  if (cropWidth >= sps.widthInMbs * 16 || cropHeight >= frameHeight) {
    return Status::failure("cropping leaves no picture");
  }
  sps.width = static_cast<uint32_t>(sps.widthInMbs * 16 - cropWidth);
  sps.height = static_cast<uint32_t>(frameHeight - cropHeight);
  return Status();
}

void skipHrd(BitReader& in) {
  const uint32_t count = in.ue() + 1;
  if (count > 32) {
    in.skip(SIZE_MAX / 2);  // fails the reader
    return;
  }
  in.skip(8);  // bit_rate_scale, cpb_size_scale
  for (uint32_t i = 0; i < count && !in.failed(); ++i) {
    in.ue();
    in.ue();
    in.skip(1);
  }
  in.skip(20);  // four delay lengths of 5 bits
}

void readVui(BitReader& in, AvcSps& sps) {
  if (in.flag() && in.bits(8) == 255) in.skip(32);  // aspect_ratio_idc, sar
  if (in.flag()) in.skip(1);                        // overscan
  if (in.flag()) {                                  // video signal type
    in.skip(4);
    if (in.flag()) in.skip(24);
  }
  if (in.flag()) {  // chroma location
    in.ue();
    in.ue();
  }
  if (in.flag()) {
    sps.unitsInTick = in.bits(32);
    sps.timeScale = in.bits(32);
    in.skip(1);  // fixed_frame_rate_flag
  }
  const bool nalHrd = in.flag();
  if (nalHrd) skipHrd(in);
  const bool vclHrd = in.flag();
  if (vclHrd) skipHrd(in);
  if (nalHrd || vclHrd) in.skip(1);  // low_delay_hrd_flag
  in.skip(1);                        // pic_struct_present_flag
  if (in.flag()) {
    in.skip(1);
    for (int i = 0; i < 4; ++i) in.ue();
    sps.reorderFrames = in.ue();
    sps.hasReorderFrames = !in.failed();
    in.ue();  // max_dec_frame_buffering
  }
}

Status spsFailure(const std::string& why) { return Status::failure("H.264 SPS: " + why); }

}  // namespace

Result<AvcSps> parseAvcSps(const Bytes& nal) {
  const Bytes rbsp = unescapeNal(nal.data(), nal.size());
  if (rbsp.size() < 4 || (rbsp[0] & 0x1F) != 7) return spsFailure("not a sequence parameter set");
  BitReader in(rbsp.data() + 1, rbsp.size() - 1);
  AvcSps sps;
  sps.profile = static_cast<uint8_t>(in.bits(8));
  sps.compatibility = static_cast<uint8_t>(in.bits(8));
  sps.level = static_cast<uint8_t>(in.bits(8));
  sps.id = in.ue();
  if (sps.id > 31) return spsFailure("seq_parameter_set_id " + std::to_string(sps.id));
  for (auto read : {highProfile(sps.profile) ? readChroma : nullptr, readPicOrder, readSize}) {
    if (read == nullptr) continue;
    Status status = read(in, sps);
    if (!status.ok()) return spsFailure(status.message());
    if (in.failed()) return spsFailure("ends early, at bit " + std::to_string(in.position()));
  }
  if (in.flag()) {
    AvcSps withVui = sps;
    readVui(in, withVui);
    if (in.failed()) return spsFailure("VUI ends early, at bit " + std::to_string(in.position()));
    sps = withVui;
  }
  return sps;
}

Result<AvcPps> parseAvcPps(const Bytes& nal) {
  const Bytes rbsp = unescapeNal(nal.data(), nal.size(), kHeaderPrefix);
  if (rbsp.size() < 2 || (rbsp[0] & 0x1F) != 8) {
    return Status::failure("H.264 PPS: not a picture parameter set");
  }
  BitReader in(rbsp.data() + 1, rbsp.size() - 1);
  AvcPps pps;
  pps.id = in.ue();
  pps.spsId = in.ue();
  in.skip(1);  // entropy_coding_mode_flag
  pps.bottomFieldPicOrderPresent = in.flag();
  if (in.failed() || pps.id > 255 || pps.spsId > 31) {
    return Status::failure("H.264 PPS: ids out of range or set ends early");
  }
  return pps;
}

namespace {

const AvcSps* findSps(const std::vector<AvcSps>& sps, uint32_t id) {
  for (const AvcSps& set : sps) {
    if (set.id == id) return &set;
  }
  return nullptr;
}

void readPictureOrder(BitReader& in, const AvcSps& sps, const AvcPps& pps, AvcSlice& slice) {
  const bool bottomPresent = pps.bottomFieldPicOrderPresent && !slice.fieldPic;
  if (sps.pocType == 0) {
    slice.pocLsb = in.bits(sps.log2MaxPocLsb);
    if (bottomPresent) slice.deltaPocBottom = in.se();
  } else if (sps.pocType == 1 && !sps.deltaPicOrderAlwaysZero) {
    slice.deltaPoc[0] = in.se();
    if (bottomPresent) slice.deltaPoc[1] = in.se();
  }
}

}  // namespace

Result<AvcSlice> parseAvcSlice(const uint8_t* nal, size_t size, const std::vector<AvcSps>& sps,
                               const std::vector<AvcPps>& pps, const AvcSps** active) {
  const Bytes rbsp = unescapeNal(nal, size, kHeaderPrefix);
  if (rbsp.size() < 2) return Status::failure("slice header ends early");
  AvcSlice slice;
  slice.nalType = rbsp[0] & 0x1F;
  slice.refIdc = (rbsp[0] >> 5) & 3;
  BitReader in(rbsp.data() + 1, rbsp.size() - 1);
  slice.firstMb = in.ue();
  in.ue();  // slice_type
  slice.ppsId = in.ue();
  const AvcPps* picture = nullptr;
  for (const AvcPps& set : pps) {
    if (set.id == slice.ppsId) picture = &set;
  }
  const AvcSps* sequence = picture ? findSps(sps, picture->spsId) : nullptr;
  if (sequence == nullptr) return Status::failure("slice refers to a missing parameter set");
  if (sequence->separateColourPlanes) in.skip(2);
  slice.frameNum = in.bits(sequence->log2MaxFrameNum);
  if (!sequence->frameMbsOnly) {
    slice.fieldPic = in.flag();
    if (slice.fieldPic) slice.bottomField = in.flag();
  }
  if (slice.nalType == 5) slice.idrPicId = in.ue();
  readPictureOrder(in, *sequence, *picture, slice);
  if (in.failed()) return Status::failure("slice header ends early");
  *active = sequence;
  return slice;
}

bool newAvcPicture(const AvcSlice& a, const AvcSlice& b) {
  return b.firstMb == 0 || a.frameNum != b.frameNum || a.ppsId != b.ppsId ||
         a.fieldPic != b.fieldPic || a.bottomField != b.bottomField ||
         (a.refIdc == 0) != (b.refIdc == 0) || (a.nalType == 5) != (b.nalType == 5) ||
         (a.nalType == 5 && a.idrPicId != b.idrPicId) || a.pocLsb != b.pocLsb ||
         a.deltaPocBottom != b.deltaPocBottom || a.deltaPoc[0] != b.deltaPoc[0] ||
         a.deltaPoc[1] != b.deltaPoc[1];
}

int32_t avcRecoveryFrames(const uint8_t* nal, size_t size) {
  const Bytes rbsp = unescapeNal(nal, size, kHeaderPrefix);
  size_t at = 1;
  // Each message: type and size in runs of 0xFF bytes, then the payload.
  while (at + 2 <= rbsp.size() && rbsp[at] != 0x80) {
    uint32_t type = 0, length = 0;
    while (at < rbsp.size() && rbsp[at] == 0xFF) type += rbsp[at++];
    if (at >= rbsp.size()) break;
    type += rbsp[at++];
    while (at < rbsp.size() && rbsp[at] == 0xFF) length += rbsp[at++];
    if (at >= rbsp.size()) break;
    length += rbsp[at++];
    if (type == 6) {
      BitReader in(rbsp.data() + at, rbsp.size() - at);
      const uint32_t frames = in.ue();
      return in.failed() || frames > INT32_MAX ? -1 : static_cast<int32_t>(frames);
    }
    at += length;
  }
  return -1;
}

uint32_t avcDefaultReorder(const AvcSps& sps) {
  const bool intra =
      sps.profile == 44 || ((sps.profile == 110 || sps.profile == 122 || sps.profile == 244) &&
                            (sps.compatibility & 0x10));
  if (sps.profile == 66 || intra) return 0;
  // MaxDpbMbs by level_idc.
  static const std::pair<uint8_t, uint32_t> kLevels[] = {
      {9, 396},     {10, 396},    {11, 900},    {12, 2376},   {13, 2376},
      {20, 2376},   {21, 4752},   {22, 8100},   {30, 8100},   {31, 18000},
      {32, 20480},  {40, 32768},  {41, 32768},  {42, 34816},  {50, 110400},
      {51, 184320}, {52, 184320}, {60, 696320}, {61, 696320}, {62, 696320}};
  uint32_t maxDpbMbs = 696320;
  for (const auto& [level, mbs] : kLevels) {
    if (level == sps.level) maxDpbMbs = mbs;
  }
  if (sps.level == 11 && (sps.compatibility & 0x10) && sps.profile != 100) maxDpbMbs = 396;  // 1b
  const uint32_t frameMbs = sps.widthInMbs * sps.heightInMapUnits * (sps.frameMbsOnly ? 1 : 2);
  return std::min<uint32_t>(16, maxDpbMbs / std::max<uint32_t>(1, frameMbs));
}

}  // namespace mp4stbl
