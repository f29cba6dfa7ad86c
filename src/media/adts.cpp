// AAC in ADTS: a header before every raw data block, whose fields make
// the stream's AudioSpecificConfig.
#include <optional>
#include <string>

#include "media/bits.h"
#include "media/elementary.h"

namespace mp4stbl {

namespace {

constexpr size_t kHeaderSize = 7;

struct AdtsHeader {
  size_t headerSize = kHeaderSize;  // 9 with a CRC
  size_t frameSize = 0;
  Bytes specificConfig;
};

std::string at(uint64_t offset) { return "ADTS at byte " + std::to_string(offset) + ": "; }

Result<AdtsHeader> parseHeader(const uint8_t* bytes, uint64_t offset) {
  BitReader in(bytes, kHeaderSize);
  if (in.bits(12) != 0xFFF) return Status::failure(at(offset) + "no sync word");
  in.skip(1);  // MPEG version
  if (in.bits(2) != 0) return Status::failure(at(offset) + "layer is not 0");
  AdtsHeader header;
  header.headerSize = in.flag() ? kHeaderSize : kHeaderSize + 2;
  const uint32_t objectType = in.bits(2) + 1;
  const uint32_t rateIndex = in.bits(4);
  in.skip(1);
  const uint32_t channels = in.bits(3);
  in.skip(4);
  header.frameSize = in.bits(13);
  in.skip(11);  // buffer fullness
  if (in.bits(2) != 0) return Status::failure(at(offset) + "a frame of several raw data blocks");
  if (header.frameSize <= header.headerSize) {
    return Status::failure(at(offset) + "frame_length " + std::to_string(header.frameSize));
  }
  const uint32_t config = objectType << 11 | rateIndex << 7 | channels << 3;
  header.specificConfig = {static_cast<uint8_t>(config >> 8), static_cast<uint8_t>(config)};
  return header;
}

}  // namespace

struct AdtsReader::State {
  Bytes buffer;  // from the first byte of a frame not yet complete
  uint64_t bufferOffset = 0;
  size_t used = 0;  // bytes of the buffer already handed on
  std::optional<AudioConfig> config;
  std::vector<Bytes> frames;
  size_t taken = 0;
  Status failed;

  Status frame(const uint8_t* bytes, size_t available, size_t* size);
  Status split();
};

// One frame at the start of `bytes`; *size 0 when it is not all there yet.
Status AdtsReader::State::frame(const uint8_t* bytes, size_t available, size_t* size) {
  *size = 0;
  const uint64_t offset = bufferOffset + used;
  if (available < kHeaderSize) return Status();
  Result<AdtsHeader> header = parseHeader(bytes, offset);
  if (!header.ok()) return header.status();
  if (!config) {
    Result<AudioConfig> parsed = aacConfig(header->specificConfig);
    if (!parsed.ok()) return Status::failure(at(offset) + parsed.message());
    config = *parsed;
  } else if (config->specificConfig != header->specificConfig) {
    return Status::failure(at(offset) + "the configuration changes; not supported");
  }
  if (available < header->frameSize) return Status();
  frames.emplace_back(bytes + header->headerSize, bytes + header->frameSize);
  *size = header->frameSize;
  return Status();
}

Status AdtsReader::State::split() {
  for (;;) {
    size_t size = 0;
    Status status = frame(buffer.data() + used, buffer.size() - used, &size);
    if (!status.ok() || size == 0) return status;
    used += size;
  }
}

AdtsReader::AdtsReader() : state_(std::make_unique<State>()) {}
AdtsReader::~AdtsReader() = default;

Status AdtsReader::feed(const uint8_t* bytes, size_t size) {
  State& s = *state_;
  if (!s.failed.ok()) return s.failed;
  s.buffer.insert(s.buffer.end(), bytes, bytes + size);
  s.failed = s.split();
  // A frame is at most 8191 bytes: what stays is one partial frame.
  s.buffer.erase(s.buffer.begin(), s.buffer.begin() + static_cast<std::ptrdiff_t>(s.used));
  s.bufferOffset += s.used;
  s.used = 0;
  return s.failed;
}

Status AdtsReader::finish() {
  State& s = *state_;
  if (!s.failed.ok()) return s.failed;
  if (!s.buffer.empty()) {
    s.failed = Status::failure(at(s.bufferOffset) + "the last frame is cut short (" +
                               std::to_string(s.buffer.size()) + " bytes dropped)");
    s.buffer.clear();
  } else if (!s.config) {
    s.failed = Status::failure("no ADTS frame in the stream");
  }
  return s.failed;
}

const AudioConfig* AdtsReader::config() const {
  return state_->config ? &*state_->config : nullptr;
}

bool AdtsReader::next(Bytes* frame) {
  State& s = *state_;
  if (s.taken == s.frames.size()) return false;
  *frame = std::move(s.frames[s.taken++]);
  if (s.taken == s.frames.size()) {
    s.frames.clear();
    s.taken = 0;
  }
  return true;
}

}  // namespace mp4stbl
