// H.264 and HEVC byte streams: NAL units split at their start codes,
// grouped into access units, numbered in presentation order by the
// decoder's own output process.
#include <algorithm>
#include <cstring>
#include <deque>
#include <optional>
#include <string>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "media/elementary.h"
#include "media/parameter_sets.h"
#include "media/picture_order.h"

namespace mp4stbl {

namespace {

constexpr size_t kMaxAccessUnit = size_t{64} << 20;
constexpr size_t kMaxParameterSets = 32;
constexpr size_t kMaxParameterSetSize = 0xFFFF;
constexpr size_t kMaxLeadingNals = 8;
// Frames decoded but not yet presented, past the reorder depth: a stream
// whose order never settles is refused rather than held.
constexpr size_t kMaxWaiting = 256;
constexpr size_t kNone = SIZE_MAX;

std::string at(uint64_t offset) { return "at byte " + std::to_string(offset) + ": "; }

enum class Codec { Unknown, H264, Hevc };

uint32_t avcType(const uint8_t* nal) { return nal[0] & 0x1F; }
uint32_t hevcType(const uint8_t* nal) { return (nal[0] >> 1) & 0x3F; }

// A NAL unit that starts a new access unit when it follows a picture.
bool avcStartsUnit(uint32_t type) { return (type >= 6 && type <= 9) || (type >= 14 && type <= 18); }
bool hevcStartsUnit(uint32_t type) {
  return (type >= 32 && type <= 35) || type == 39 || (type >= 41 && type <= 44) ||
         (type >= 48 && type <= 55);
}

struct Waiting {
  VideoFrame frame;
  bool ready = false;
};

}  // namespace

// Splits the bytes into NAL units; each goes to unit().
struct AnnexBReader::State {
  // The splitter: bytes from the NAL unit in progress (or, before the first
  // start code, what may be the start of one) to the end of the input. The
  // NAL units that end inside the bytes of one feed are read where they lie;
  // only what is left at its end is kept here.
  Bytes buffer;
  uint64_t bufferOffset = 0;  // stream offset of buffer[0]
  size_t scan = 0;            // where the search for a start code resumes
  size_t nalStart = kNone;    // in the buffer, or in the fed bytes while they are split
  Status failed;
  bool finished = false;

  Codec codec = Codec::Unknown;
  std::vector<std::pair<Bytes, uint64_t>> leading;  // before the codec was known
  std::vector<Bytes> vps, sps, pps;
  std::vector<AvcSps> avcSps;
  std::vector<AvcPps> avcPps;
  std::vector<HevcSps> hevcSps;
  std::vector<HevcPps> hevcPps;
  std::optional<VideoConfig> config;

  // The access unit in progress.
  Bytes unit;
  uint64_t unitOffset = 0;
  bool unitHasPicture = false;
  bool unitKey = false;
  bool unitNewSequence = false;
  int64_t unitPoc = 0;
  AvcSlice lastSlice;

  PictureOrder pictureOrder;

  // Output: frames in decode order, and the decoder's picture buffer.
  std::deque<Waiting> waiting;
  OutputOrder output;
  std::vector<uint64_t> shown;  // decode indices output by the picture buffer
  uint64_t presented = 0;

  Status feed(const uint8_t* bytes, size_t size);
  size_t firstStartCode(const uint8_t* bytes, size_t size) const;
  Status splitStartCodes(const uint8_t* data, size_t size, uint64_t offset);
  Status checkLeadingZeros(const uint8_t* data, size_t end, uint64_t offset);
  Status endNal(const uint8_t* data, size_t end, uint64_t offset);
  Status splitInPlace(const uint8_t* bytes, size_t size);
  void compact();
  Status nal(const uint8_t* data, size_t size, uint64_t offset);
  Status detect(const uint8_t* data, size_t size, uint64_t offset);
  Status avcNal(const uint8_t* data, size_t size, uint64_t offset);
  Status hevcNal(const uint8_t* data, size_t size, uint64_t offset);
  Status parameterSet(std::vector<Bytes>& sets, const uint8_t* data, size_t size, uint64_t offset);
  Status makeConfig(uint64_t offset);
  Status avcPicture(const AvcSlice& slice, const AvcSps& sequence);
  Status hevcPicture(const HevcSlice& slice, const HevcSps& sequence);
  Status append(const uint8_t* data, size_t size, uint64_t offset);
  Status closeUnit();
  void present();
  uint32_t delay() const { return config ? config->reorderFrames : 0; }
};

Status AnnexBReader::State::feed(const uint8_t* bytes, size_t size) {
  if (!failed.ok()) return failed;
  if (finished) return failed = Status::failure("bytes fed after the end of the stream");
  size_t from = 0;
  if (!buffer.empty()) {
    // The held bytes run up to the first start code of the new ones, which
    // ends the NAL unit in progress; the rest is split where it lies.
    const size_t code = firstStartCode(bytes, size);
    from = code == kNone ? size : code + 1;
    buffer.insert(buffer.end(), bytes, bytes + from);
    if (code != kNone) {
      failed = endNal(buffer.data(), buffer.size() - 3, bufferOffset);
      nalStart = scan = buffer.size();
    } else if (nalStart == kNone) {
      failed = splitStartCodes(buffer.data(), buffer.size(), bufferOffset);
    } else {
      scan = buffer.size() >= 2 ? buffer.size() - 2 : 0;
    }
    if (failed.ok() && from == size) compact();
  }
  if (failed.ok() && from < size) failed = splitInPlace(bytes + from, size - from);
  if (failed.ok() && nalStart != kNone && buffer.size() - nalStart > kMaxAccessUnit) {
    failed = Status::failure(at(bufferOffset + nalStart) + "a NAL unit of more than 64 MiB");
  }
  return failed;
}

// Where the 01 of the first start code that ends in `bytes` lies, its
// zeros perhaps among the held bytes; kNone when there is none.
size_t AnnexBReader::State::firstStartCode(const uint8_t* bytes, size_t size) const {
  auto zeroAt = [&](size_t k, size_t back) {
    return k >= back ? bytes[k - back] == 0
                     : back - k <= buffer.size() && buffer[buffer.size() - (back - k)] == 0;
  };
  for (size_t k = 0; k < size;) {
    const void* one = std::memchr(bytes + k, 1, size - k);
    if (one == nullptr) return kNone;
    k = static_cast<size_t>(static_cast<const uint8_t*>(one) - bytes);
    if (zeroAt(k, 1) && zeroAt(k, 2)) return k;
    ++k;
  }
  return kNone;
}

// Splits the fed bytes after the held ones were used up (or when none
// were held), then keeps what is left after the last start code.
Status AnnexBReader::State::splitInPlace(const uint8_t* bytes, size_t size) {
  const uint64_t offset = bufferOffset + buffer.size();
  if (nalStart != kNone) nalStart -= buffer.size();
  scan = 0;
  buffer.clear();
  bufferOffset = offset;
  Status status = splitStartCodes(bytes, size, offset);
  if (!status.ok()) return status;
  const size_t keep = nalStart == kNone ? scan : nalStart;
  buffer.assign(bytes + keep, bytes + size);
  bufferOffset = offset + keep;
  scan -= keep;
  if (nalStart != kNone) nalStart -= keep;
  return status;
}

namespace {

// The 01 of the first start code (00 00 01) whose zeros start at `from` or
// later; kNone when there is none. Coded slices never hold two zero bytes
// in a row but before a start code or an emulation prevention byte, so
// sixteen positions at a time are tested for a pair.
size_t findStartCode(const uint8_t* data, size_t from, size_t size) {
  size_t k = from;
#if defined(__SSE2__)
  const __m128i zero = _mm_setzero_si128();
  for (; k + 18 <= size; k += 16) {
    const __m128i here = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + k));
    const __m128i next = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + k + 1));
    auto pairs = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(here, zero), _mm_cmpeq_epi8(next, zero))));
    for (; pairs != 0; pairs &= pairs - 1) {
      const size_t at = k + static_cast<size_t>(__builtin_ctz(pairs));
      if (data[at + 2] == 1) return at + 2;
    }
  }
#endif
  for (; k + 3 <= size; ++k) {
    if (data[k] == 0 && data[k + 1] == 0 && data[k + 2] == 1) return k + 2;
  }
  return kNone;
}

}  // namespace

Status AnnexBReader::State::splitStartCodes(const uint8_t* data, size_t size, uint64_t offset) {
  size_t from = scan;
  for (size_t k = findStartCode(data, from, size); k != kNone; k = findStartCode(data, from, size)) {
    Status status = endNal(data, k - 2, offset);
    if (!status.ok()) return status;
    nalStart = k + 1;
    from = k + 1;
  }
  scan = std::max(from, size >= 2 ? size - 2 : 0);
  return nalStart == kNone ? checkLeadingZeros(data, scan, offset) : Status();
}

// Before the first start code only zero bytes may come.
Status AnnexBReader::State::checkLeadingZeros(const uint8_t* data, size_t end, uint64_t offset) {
  for (size_t i = 0; i < end; ++i) {
    if (data[i] != 0) {
      return Status::failure(at(offset + i) + "not an H.264 or HEVC byte stream (no start code)");
    }
  }
  return Status();
}

Status AnnexBReader::State::endNal(const uint8_t* data, size_t end, uint64_t offset) {
  if (nalStart == kNone) return checkLeadingZeros(data, end, offset);
  size_t last = end;
  while (last > nalStart && data[last - 1] == 0) --last;  // trailing_zero_8bits
  if (last == nalStart) return Status();
  return nal(data + nalStart, last - nalStart, offset + nalStart);
}

// Drops the bytes before the NAL unit in progress once they are half the
// buffer, so that a stream fed a byte at a time is not copied for each.
void AnnexBReader::State::compact() {
  const size_t drop = nalStart == kNone ? scan : nalStart;
  if (drop == 0 || drop < buffer.size() / 2) return;
  buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(drop));
  bufferOffset += drop;
  scan -= drop;
  if (nalStart != kNone) nalStart -= drop;
}

Status AnnexBReader::State::nal(const uint8_t* data, size_t size, uint64_t offset) {
  if (data[0] & 0x80) return Status::failure(at(offset) + "NAL unit with its forbidden bit set");
  switch (codec) {
    case Codec::Unknown:
      return detect(data, size, offset);
    case Codec::H264:
      return avcNal(data, size, offset);
    case Codec::Hevc:
      return hevcNal(data, size, offset);
  }
  return Status();
}

// The first parameter set tells the codec; delimiters and SEI before it
// are held until then.
Status AnnexBReader::State::detect(const uint8_t* data, size_t size, uint64_t offset) {
  const uint32_t avc = avcType(data), hevc = hevcType(data);
  if (avc == 7 || avc == 8) {
    codec = Codec::H264;
  } else if (size >= 2 && hevc >= 32 && hevc <= 34) {
    codec = Codec::Hevc;
  } else if (leading.size() < kMaxLeadingNals && size <= kMaxParameterSetSize &&
             (avc == 6 || avc == 9 || hevc == 35 || hevc == 39)) {
    leading.emplace_back(Bytes(data, data + size), offset);
    return Status();
  } else {
    return Status::failure(at(offset) +
                           "the stream does not start with H.264 or HEVC parameter "
                           "sets (NAL unit header " +
                           std::to_string(data[0]) + ")");
  }
  std::vector<std::pair<Bytes, uint64_t>> held;
  held.swap(leading);
  for (const auto& [bytes, where] : held) {
    Status status = nal(bytes.data(), bytes.size(), where);
    if (!status.ok()) return status;
  }
  return nal(data, size, offset);
}

Status AnnexBReader::State::avcNal(const uint8_t* data, size_t size, uint64_t offset) {
  const uint32_t type = avcType(data);
  if (type >= 1 && type <= 5) {
    Status status = makeConfig(offset);
    if (!status.ok()) return status;
    const AvcSps* sequence = nullptr;
    Result<AvcSlice> slice = parseAvcSlice(data, size, avcSps, avcPps, &sequence);
    if (!slice.ok()) return Status::failure(at(offset) + "H.264 " + slice.message());
    status = avcPicture(*slice, *sequence);
    return status.ok() ? append(data, size, offset) : status;
  }
  if (unitHasPicture && (type == 9 || avcStartsUnit(type))) {
    Status status = closeUnit();
    if (!status.ok()) return status;
  }
  if (type == 7 || type == 8) {
    Status status = parameterSet(type == 7 ? sps : pps, data, size, offset);
    if (!status.ok()) return status;
  }
  if (type == 6 && avcRecoveryFrames(data, size) >= 0) unitKey = true;
  return append(data, size, offset);
}

Status AnnexBReader::State::avcPicture(const AvcSlice& slice, const AvcSps& sequence) {
  const bool starts = !unitHasPicture || newAvcPicture(lastSlice, slice);
  lastSlice = slice;
  if (!starts) return Status();
  if (unitHasPicture) {
    Status status = closeUnit();
    if (!status.ok()) return status;
  }
  unitHasPicture = true;
  unitNewSequence = slice.nalType == 5;
  unitKey = unitKey || unitNewSequence;
  unitPoc = pictureOrder.avc(slice, sequence);
  return Status();
}

Status AnnexBReader::State::hevcNal(const uint8_t* data, size_t size, uint64_t offset) {
  if (size < 2) return Status::failure(at(offset) + "HEVC NAL unit of one byte");
  const uint32_t type = hevcType(data);
  if (type <= 31) {
    Status status = makeConfig(offset);
    if (!status.ok()) return status;
    const HevcSps* sequence = nullptr;
    Result<HevcSlice> slice = parseHevcSlice(data, size, hevcSps, hevcPps, &sequence);
    if (!slice.ok()) return Status::failure(at(offset) + "HEVC " + slice.message());
    if (slice->firstInPicture) status = hevcPicture(*slice, *sequence);
    return status.ok() ? append(data, size, offset) : status;
  }
  if (unitHasPicture && hevcStartsUnit(type)) {
    Status status = closeUnit();
    if (!status.ok()) return status;
  }
  if (type >= 32 && type <= 34) {
    Status status = parameterSet(type == 32 ? vps : type == 33 ? sps : pps, data, size, offset);
    if (!status.ok()) return status;
  }
  Status status = append(data, size, offset);
  if (type == 36 || type == 37) pictureOrder.hevcEndOfSequence();
  return status;
}

Status AnnexBReader::State::hevcPicture(const HevcSlice& slice, const HevcSps& sequence) {
  if (unitHasPicture) {
    Status status = closeUnit();
    if (!status.ok()) return status;
  }
  unitHasPicture = true;
  unitKey = slice.nalType >= 16 && slice.nalType <= 23;
  unitPoc = pictureOrder.hevc(slice, sequence, &unitNewSequence);
  return Status();
}

Status AnnexBReader::State::parameterSet(std::vector<Bytes>& sets, const uint8_t* data, size_t size,
                                         uint64_t offset) {
  const Bytes set(data, data + size);
  if (std::find(sets.begin(), sets.end(), set) != sets.end()) return Status();
  if (config) {
    return Status::failure("parameter sets change at byte " + std::to_string(offset) +
                           "; not supported");
  }
  if (size > kMaxParameterSetSize) {
    return Status::failure(at(offset) + "a parameter set of " + std::to_string(size) + " bytes");
  }
  if (vps.size() + sps.size() + pps.size() >= kMaxParameterSets) {
    return Status::failure(at(offset) + "more than 32 parameter sets");
  }
  sets.push_back(set);
  return Status();
}

// The configuration, from the parameter sets before the first picture.
Status AnnexBReader::State::makeConfig(uint64_t offset) {
  if (config) return Status();
  if (sps.empty() || pps.empty() || (codec == Codec::Hevc && vps.empty())) {
    return Status::failure(at(offset) + "a picture before its parameter sets");
  }
  Result<VideoConfig> made = codec == Codec::H264 ? avcConfig(sps, pps) : hevcConfig(vps, sps, pps);
  if (!made.ok()) return Status::failure(at(offset) + made.message());
  for (const Bytes& set : sps) {
    if (codec == Codec::H264) avcSps.push_back(*parseAvcSps(set));
    if (codec == Codec::Hevc) hevcSps.push_back(*parseHevcSps(set));
  }
  for (const Bytes& set : pps) {
    if (codec == Codec::H264) avcPps.push_back(*parseAvcPps(set));
    if (codec == Codec::Hevc) hevcPps.push_back(*parseHevcPps(set));
  }
  config = std::move(*made);
  return Status();
}

Status AnnexBReader::State::append(const uint8_t* data, size_t size, uint64_t offset) {
  if (unit.empty()) unitOffset = offset;
  if (unit.size() + 4 + size > kMaxAccessUnit) {
    return Status::failure(at(unitOffset) + "an access unit of more than 64 MiB");
  }
  for (int shift = 24; shift >= 0; shift -= 8) unit.push_back(static_cast<uint8_t>(size >> shift));
  unit.insert(unit.end(), data, data + size);
  return Status();
}

// The access unit in progress is complete: it enters the picture buffer.
Status AnnexBReader::State::closeUnit() {
  if (output.longestWait() > kMaxWaiting + delay()) {
    return Status::failure(at(unitOffset) + "a frame waits for its presentation past " +
                           std::to_string(kMaxWaiting) + " frames");
  }
  Waiting& entry = waiting.emplace_back();
  entry.frame.data.swap(unit);
  entry.frame.decodeIndex = output.decoded();
  entry.frame.key = unitKey;
  output.decode(unitPoc, unitNewSequence, delay(), shown);
  present();
  unit.clear();
  unitHasPicture = unitKey = unitNewSequence = false;
  return Status();
}

// Numbers the frames the picture buffer output, in the order it did.
void AnnexBReader::State::present() {
  for (uint64_t index : shown) {
    Waiting& entry = waiting[static_cast<size_t>(index - waiting.front().frame.decodeIndex)];
    entry.frame.presentationIndex = presented++;
    entry.ready = true;
  }
  shown.clear();
}

AnnexBReader::AnnexBReader() : state_(std::make_unique<State>()) {}
AnnexBReader::~AnnexBReader() = default;

Status AnnexBReader::feed(const uint8_t* bytes, size_t size) { return state_->feed(bytes, size); }

Status AnnexBReader::finish() {
  State& s = *state_;
  if (!s.failed.ok() || s.finished) return s.failed;
  s.finished = true;
  s.failed = s.endNal(s.buffer.data(), s.buffer.size(), s.bufferOffset);
  s.nalStart = kNone;
  if (s.failed.ok() && s.unitHasPicture) s.failed = s.closeUnit();
  s.output.flush(s.shown);
  s.present();
  if (s.failed.ok() && s.output.decoded() == 0) {
    s.failed = Status::failure("no video frame in " +
                               std::to_string(s.bufferOffset + s.buffer.size()) + " bytes");
  }
  return s.failed;
}

Status AnnexBReader::cut() {
  State& s = *state_;
  if (!s.failed.ok() || s.finished) return s.failed;
  s.finished = true;
  // The last NAL unit may be short, but its header still tells whether it
  // starts a picture and so ends the access unit before it; what it cannot
  // tell (a header cut short) is no failure of the frames before.
  static_cast<void>(s.endNal(s.buffer.data(), s.buffer.size(), s.bufferOffset));
  s.output.flush(s.shown);
  s.present();
  return Status();
}

const VideoConfig* AnnexBReader::config() const {
  return state_->config ? &*state_->config : nullptr;
}

bool AnnexBReader::next(VideoFrame* frame) {
  std::deque<Waiting>& waiting = state_->waiting;
  if (waiting.empty() || !waiting.front().ready) return false;
  *frame = std::move(waiting.front().frame);
  waiting.pop_front();
  return true;
}

uint32_t AnnexBReader::reorderDelay() const { return state_->delay(); }

}  // namespace mp4stbl
