#include "box/sample_entry.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

#include "box/codec_config.h"
#include "box/fields.h"
#include "box/log.h"

namespace mp4stbl {

namespace {

constexpr long long kTerminator = 4;

// True when the first `length` bytes are exactly a run of boxes with plain
// 32-bit sizes.
bool isRunOfBoxes(const std::vector<unsigned char>& bytes, size_t length) {
  size_t at = 0;
  while (length - at >= 8) {
    const uint32_t size = uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 |
                          uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
    if (size < 8 || size > length - at) return false;
    at += size;
  }
  return at == length;
}

// A run of boxes closed by a 4-byte zero word, as QuickTime ends the
// children of a sample description.
bool isTerminatedRun(const std::vector<unsigned char>& bytes) {
  const auto isZero = [](unsigned char byte) { return byte == 0; };
  return bytes.size() >= kTerminator && std::all_of(bytes.end() - kTerminator, bytes.end(), isZero) &&
         isRunOfBoxes(bytes, bytes.size() - kTerminator);
}

// Reads what follows an entry's fields up to the end of its box: opaque
// child boxes when it is a clean run of boxes, perhaps closed by a zero
// word, raw bytes otherwise.
int readEntryTail(Atom& entry, IOStream* stream, std::vector<unsigned char>& tail,
                  bool& terminated) {
  std::vector<unsigned char> rest;
  const long long start = stream->getOffset();
  if (readRestOfBox(stream, entry.header, &rest) != 0) return -1;
  terminated = isTerminatedRun(rest);
  if (!terminated && !isRunOfBoxes(rest, rest.size())) {
    tail = std::move(rest);
    return 0;
  }
  if (stream->seek(start) != 0) {
    logStreamFailure(stream, "seek");
    return -1;
  }
  const long long end = stream->getLength() - (terminated ? kTerminator : 0);
  while (stream->getOffset() < end) {
    Atom* child = ReadTypedChild(stream, kSampleEntryChildren, std::size(kSampleEntryChildren));
    if (child == nullptr) return -1;
    entry.children.push_back(child);
  }
  if (stream->seek(stream->getLength()) != 0) {
    logStreamFailure(stream, "seek");
    return -1;
  }
  return 0;
}

template <class Entry>
int readEntry(Entry& entry, IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("readData");
    return -1;
  }
  FieldReader reader(stream);
  entry.fields(reader);
  if (reader.status() != 0) return -1;
  return readEntryTail(entry, stream, entry.tail, entry.terminated);
}

int writeEntryChildren(Atom& entry, bool terminated, IOStream* stream) {
  if (entry.Atom::writeChildren(stream) != 0) return -1;
  const std::vector<unsigned char> zero(static_cast<size_t>(kTerminator), 0);
  return terminated ? writeRawBytes(stream, zero) : 0;
}

template <class Entry>
int writeEntry(Entry& entry, IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("writeData");
    return -1;
  }
  FieldWriter writer(stream);
  entry.fields(writer);
  if (writer.status() != 0) return -1;
  return writeRawBytes(stream, entry.tail);
}

}  // namespace

VisualSampleEntry::VisualSampleEntry(const AtomHeader& from) : Atom(from) {}

int VisualSampleEntry::readData(IOStream* stream) { return readEntry(*this, stream); }

int VisualSampleEntry::writeData(IOStream* stream) { return writeEntry(*this, stream); }

int VisualSampleEntry::writeChildren(IOStream* stream) {
  return writeEntryChildren(*this, terminated, stream);
}

std::string VisualSampleEntry::compressor() const {
  const size_t length = std::min<size_t>(compressorName[0], compressorName.size() - 1);
  return std::string(compressorName.begin() + 1, compressorName.begin() + 1 + length);
}

void VisualSampleEntry::describe(FieldSink& sink) const {
  sink.field("data_reference_index", dataReferenceIndex);
  if (vendor != 0) {
    const char code[4] = {static_cast<char>(vendor >> 24), static_cast<char>(vendor >> 16),
                          static_cast<char>(vendor >> 8), static_cast<char>(vendor)};
    sink.text("vendor", std::string(code, 4));
  }
  sink.field("width", width);
  sink.field("height", height);
  sink.field("horizontal_dpi", horizontalResolution >> 16);
  sink.field("vertical_dpi", verticalResolution >> 16);
  sink.field("frame_count", frameCount);
  sink.text("compressor", compressor());
  sink.field("depth", depth);
}

AudioSampleEntry::AudioSampleEntry(const AtomHeader& from) : Atom(from) {}

int AudioSampleEntry::readData(IOStream* stream) { return readEntry(*this, stream); }

int AudioSampleEntry::writeData(IOStream* stream) { return writeEntry(*this, stream); }

int AudioSampleEntry::writeChildren(IOStream* stream) {
  return writeEntryChildren(*this, terminated, stream);
}

double AudioSampleEntry::samplesPerSecond() const {
  if (soundVersion != 2) return sampleRate / 65536.0;
  double rate = 0;
  static_assert(sizeof rate == sizeof v2SampleRate, "the rate is a 64-bit float");
  std::memcpy(&rate, &v2SampleRate, sizeof rate);
  return rate > 0 && rate < 1e12 ? rate : 0.0;  // NaN and nonsense alike give 0
}

uint32_t AudioSampleEntry::channels() const { return soundVersion == 2 ? v2[0] : channelCount; }

void AudioSampleEntry::describe(FieldSink& sink) const {
  sink.field("data_reference_index", dataReferenceIndex);
  sink.field("version", soundVersion);
  sink.field("channels", channelCount);
  sink.field("sample_size", sampleSize);
  sink.field("compression_id", compressionId);
  sink.field("packet_size", packetSize);
  sink.field("sample_rate", sampleRate >> 16);
  if (soundVersion == 1) {
    sink.field("samples_per_packet", v1[0]);
    sink.field("bytes_per_packet", v1[1]);
    sink.field("bytes_per_frame", v1[2]);
    sink.field("bytes_per_sample", v1[3]);
  } else if (soundVersion == 2) {
    sink.field("v2_sample_rate", static_cast<uint64_t>(std::llround(samplesPerSecond())));
    sink.field("v2_channels", v2[0]);
    sink.field("bits_per_channel", v2[2]);
    sink.field("format_flags", v2[3]);
    sink.field("bytes_per_packet", v2[4]);
    sink.field("frames_per_packet", v2[5]);
  }
}

Mp4aAtom::Mp4aAtom(AtomHeader from) : AudioSampleEntry(from) {}

G711Atom::G711Atom(AtomHeader from) : AudioSampleEntry(from) {}

Avc1Atom::Avc1Atom(AtomHeader& from) : VisualSampleEntry(from) {}

Hvc1Atom::Hvc1Atom(AtomHeader from) : VisualSampleEntry(from) {}

ProresAtom::ProresAtom(AtomHeader& from, const std::string& name)
    : VisualSampleEntry(from), variant(name) {}

}  // namespace mp4stbl
