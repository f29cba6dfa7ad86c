// The sample entries a recording describes its tracks with, built from the
// box layer's entry classes.
#pragma once

#include <cstdint>
#include <memory>

#include "../box/atom.h"
#include "../media/stream_config.h"

namespace mp4stbl::record {

// "avc1" with avcC, or "hvc1" with hvcC.
std::unique_ptr<Atom> videoEntry(const VideoConfig& config);
// "mp4a" with an esds that carries the AudioSpecificConfig.
std::unique_ptr<Atom> aacEntry(const AudioConfig& config, uint32_t trackId);
// "alaw" or "ulaw".
std::unique_ptr<Atom> g711Entry(bool aLaw, uint32_t sampleRate, uint16_t channels);
// "sowt": 16-bit little-endian PCM.
std::unique_ptr<Atom> pcmEntry(uint32_t sampleRate, uint16_t channels);
// "gpmd"
std::unique_ptr<Atom> metadataEntry();

// A header for a box of `type` made in memory.
AtomHeader headerOf(const char* type);

}  // namespace mp4stbl::record
