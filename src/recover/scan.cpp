#include "recover/scan.h"

#include <algorithm>
#include <cstring>

namespace mp4stbl::recovery {

namespace {

// The bytes a sample is looked for in: a NAL unit is at most half of it.
constexpr size_t kLook = 16u << 20;
// The largest raw AAC frame: 6144 bits a channel, 8 channels.
constexpr size_t kAacLook = 6144;
// How far one track's decode time may run ahead of the track furthest
// behind: muxers interleave by time, so a track that runs further ahead is
// fed by bytes that are not its own.
constexpr double kLead = 1.0;

// A window of the media data read forward: each byte is read once.
class Window {
 public:
  Window(IOStream& stream, uint64_t end) : stream_(stream), end_(end), buffer_(2 * kLook) {}

  // The bytes from `pos`: `want` of them, fewer only at the end of the
  // data; null when the file cannot be read.
  const uint8_t* at(uint64_t pos, size_t want, size_t* got) {
    const uint64_t wanted = std::min<uint64_t>(want, end_ - pos);
    if (pos < start_ || pos + wanted > start_ + length_) {
      const uint64_t held = start_ + length_;
      const size_t keep = pos >= start_ && pos < held ? static_cast<size_t>(held - pos) : 0;
      std::memmove(buffer_.data(), buffer_.data() + (pos - start_) * (keep != 0), keep);
      start_ = pos;
      length_ = keep;
      const auto room = static_cast<size_t>(std::min<uint64_t>(buffer_.size(), end_ - pos));
      if (stream_.seek(static_cast<long long>(pos + keep)) != 0) return nullptr;
      while (length_ < room) {
        const int read = stream_.read(buffer_.data() + length_, static_cast<unsigned>(room - length_));
        if (read <= 0) return nullptr;
        length_ += static_cast<size_t>(read);
      }
    }
    *got = static_cast<size_t>(wanted);
    return buffer_.data() + (pos - start_);
  }

 private:
  IOStream& stream_;
  uint64_t end_;
  std::vector<uint8_t> buffer_;
  uint64_t start_ = 0;
  size_t length_ = 0;
};

struct Progress {
  uint64_t time = 0;  // decode time of the next sample, time-scale units
  double seconds(const TrackModel& model) const {
    return model.timescale == 0 ? 0 : static_cast<double>(time) / model.timescale;
  }
};

// A sample that may start at the walk's position.
struct Candidate {
  uint64_t length = 0;  // 0: none
  uint32_t count = 1;   // samples in it (a packet of fixed-size samples)
  bool key = true;
  AccessUnit unit;      // video: what its picture order count is read from
};

class Scanner {
 public:
  Scanner(IOStream& stream, uint64_t start, uint64_t end, const std::vector<TrackModel>& models,
          const AacFrameLength& aacFrameLength)
      : window_(stream, end), pos_(start), end_(end), models_(models),
        aacFrameLength_(aacFrameLength), progress_(models.size()), orders_(models.size()) {
    for (const TrackModel& model : models) {
      result_.tables.emplace_back(model.kind == TrackModel::Kind::Fixed ? model.sampleSize : 0);
    }
    result_.pictures.resize(models.size());
    result_.end = start;
  }

  ScanResult run() {
    while (pos_ < end_) {
      size_t got = 0;
      const uint8_t* data = window_.at(pos_, kLook, &got);
      if (data == nullptr) {
        result_.stop = "the file cannot be read at offset " + std::to_string(pos_);
        break;
      }
      if (!step(data, got)) {
        result_.stop = "the bytes at offset " + std::to_string(pos_) +
                       " are no whole sample of any track";
        break;
      }
    }
    return std::move(result_);
  }

 private:
  // Takes the sample at the position: the tracks whose decode time is not
  // too far ahead, video first (its NAL units are a strong sign), then the
  // others in decode-time order.
  bool step(const uint8_t* data, size_t got) {
    double earliest = 1e300;
    for (size_t t = 0; t < models_.size(); ++t) {
      earliest = std::min(earliest, progress_[t].seconds(models_[t]));
    }
    std::vector<size_t> order;
    for (size_t t = 0; t < models_.size(); ++t) {
      if (progress_[t].seconds(models_[t]) <= earliest + kLead) order.push_back(t);
    }
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
      const bool videoA = models_[a].kind == TrackModel::Kind::Video;
      const bool videoB = models_[b].kind == TrackModel::Kind::Video;
      if (videoA != videoB) return videoA;
      return progress_[a].seconds(models_[a]) < progress_[b].seconds(models_[b]);
    });
    videoCut_ = false;
    for (size_t t : order) {
      const Candidate found = probe(models_[t], data, got);
      if (found.length == 0) continue;
      take(t, found);
      return true;
    }
    return false;
  }

  Candidate probe(const TrackModel& model, const uint8_t* data, size_t got) {
    Candidate found;
    switch (model.kind) {
      case TrackModel::Kind::Video: {
        const AccessUnit unit = findAccessUnit(model.nal, data, got);
        // A recording starts with a key frame: nothing decodes before one.
        const bool starts = unit.key || tables(model).samples() != 0;
        if (!unit.cutShort && starts) {
          found.length = unit.length;
          found.key = unit.key;
          found.unit = unit;
        }
        videoCut_ = videoCut_ || unit.cutShort;
        break;
      }
      case TrackModel::Kind::Aac: {
        if (!aacFrameLength_) break;
        const size_t look = std::min(got, kAacLook);
        const size_t length = aacFrameLength_(model.aacConfig, data, look);
        if (length <= look) found.length = length;
        break;
      }
      case TrackModel::Kind::Fixed: {
        // Never the bytes of a video frame that the end cut short.
        const uint64_t packet = uint64_t{model.sampleSize} * model.packetSamples;
        if (videoCut_) break;
        if (got >= packet) {
          found.length = packet;
          found.count = model.packetSamples;
        } else if (got == end_ - pos_) {
          // The last whole samples before the end.
          found.count = static_cast<uint32_t>(got / model.sampleSize);
          found.length = uint64_t{found.count} * model.sampleSize;
        }
        break;
      }
    }
    return found;
  }

  const TrackTables& tables(const TrackModel& model) const {
    return result_.tables[static_cast<size_t>(&model - models_.data())];
  }

  void take(size_t t, const Candidate& found) {
    const TrackModel& model = models_[t];
    FoundSample sample;
    sample.offset = pos_;
    sample.size = static_cast<uint32_t>(found.length / found.count);
    sample.duration = model.sampleDuration;
    sample.sync = found.key;
    result_.tables[t].add(sample, found.count);
    if (model.kind == TrackModel::Kind::Video) {
      result_.pictures[t].push_back(pictureCount(orders_[t], found.unit));
    }
    progress_[t].time += uint64_t{model.sampleDuration} * found.count;
    pos_ += found.length;
    result_.end = pos_;
  }

  Window window_;
  uint64_t pos_;
  uint64_t end_;
  const std::vector<TrackModel>& models_;
  const AacFrameLength& aacFrameLength_;
  std::vector<Progress> progress_;
  std::vector<PictureOrder> orders_;
  ScanResult result_;
  bool videoCut_ = false;  // a video frame cut off by the end starts at the position
};

}  // namespace

ScanResult scanMedia(IOStream& stream, uint64_t start, uint64_t end,
                     const std::vector<TrackModel>& models, const AacFrameLength& aacFrameLength) {
  if (start >= end || models.empty()) {
    ScanResult none;
    for (const TrackModel& model : models) {
      none.tables.emplace_back(model.kind == TrackModel::Kind::Fixed ? model.sampleSize : 0);
    }
    none.pictures.resize(models.size());
    none.end = start;
    return none;
  }
  return Scanner(stream, start, end, models, aacFrameLength).run();
}

}  // namespace mp4stbl::recovery
