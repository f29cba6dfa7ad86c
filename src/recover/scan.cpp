#include "recover/scan.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#if defined(__unix__)
#include <fcntl.h>
#include <unistd.h>
#endif

#include "box/file_stream.h"

namespace mp4stbl::recovery {

namespace {

// The bytes a sample is looked for in: a NAL unit is at most half of it.
constexpr size_t kLook = 16u << 20;
// The window's size: a look from anywhere in its first megabytes.
constexpr size_t kSpan = kLook + (4u << 20);
constexpr size_t kPage = 1024;
// The bytes at a NAL unit's start that its header and a slice header take,
// emulation-prevention bytes included.
constexpr size_t kNalStart = 256;
// The largest raw AAC frame: 6144 bits a channel, 8 channels.
constexpr size_t kAacLook = 6144;
// The bytes of an AAC chunk read first: a few frames.
constexpr size_t kAacFirstPart = 2048;
// AAC chunks split ahead of the walk, at most.
constexpr size_t kChunksAhead = 64;
// How far one track's decode time may run ahead of the track furthest
// behind: muxers interleave by time, so a track that runs further ahead is
// fed by bytes that are not its own.
constexpr double kLead = 1.0;

// Reads the broken file at an offset: straight from the file, no more than
// asked, when the stream is a file on disk (a buffered stream reads a
// window around each read, and most of a video frame is never looked at);
// else through the stream.
class Reader {
 public:
  explicit Reader(IOStream& stream) : stream_(stream) {
#if defined(__unix__)
    if (const auto* file = dynamic_cast<const FileStream*>(&stream)) {
      fd_ = ::open(file->path().c_str(), O_RDONLY | O_CLOEXEC);
    }
#endif
  }
  ~Reader() {
#if defined(__unix__)
    if (fd_ >= 0) ::close(fd_);
#endif
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Whether the reads go straight to the file, so that another reader of
  // the same stream may read on another thread.
  bool direct() const { return fd_ >= 0; }

  bool read(uint64_t offset, uint8_t* to, size_t length) {
#if defined(__unix__)
    if (fd_ >= 0) {
      while (length > 0) {
        const ssize_t got = ::pread(fd_, to, length, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        to += got;
        offset += static_cast<uint64_t>(got);
        length -= static_cast<size_t>(got);
      }
      return true;
    }
#endif
    if (stream_.seek(static_cast<long long>(offset)) != 0) return false;
    while (length > 0) {
      const int got = stream_.read(to, static_cast<unsigned>(std::min<size_t>(length, 1u << 30)));
      if (got <= 0) return false;
      to += got;
      length -= static_cast<size_t>(got);
    }
    return true;
  }

 private:
  IOStream& stream_;
  int fd_ = -1;
};

// The media data seen through a window whose pages are read when a probe
// needs them: the walk looks at a few bytes of each sample (NAL unit
// lengths and slice headers, AAC frames), so the body of a video frame is
// never read.
class Window {
 public:
  Window(IOStream& stream, uint64_t end)
      : reader_(stream), end_(end), buffer_(new uint8_t[kSpan]), held_(kSpan / kPage) {}

  // The bytes from `pos`: `want` of them, fewer only at the end of the
  // data; valid only where `need` read them.
  const uint8_t* at(uint64_t pos, size_t want, size_t* got) {
    const uint64_t wanted = std::min<uint64_t>(want, end_ - pos);
    if (pos < start_ || pos + wanted > start_ + kSpan) {
      start_ = pos - pos % kPage;
      std::fill(held_.begin(), held_.end(), false);
    }
    *got = static_cast<size_t>(wanted);
    return buffer_.get() + (pos - start_);
  }

  // Reads the bytes [pos, pos + length) of the last look where they are not
  // read yet; false when the file cannot be read.
  bool need(uint64_t pos, size_t length) {
    if (failed_) return false;
    if (length == 0) return true;
    auto page = static_cast<size_t>((pos - start_) / kPage);
    const auto last = static_cast<size_t>((pos + length - 1 - start_) / kPage);
    while (page <= last) {
      if (held_[page]) {
        ++page;
        continue;
      }
      size_t run = page;
      while (run <= last && !held_[run]) ++run;
      const uint64_t from = start_ + page * kPage;
      const uint64_t to = std::min<uint64_t>(start_ + run * kPage, end_);
      if (!reader_.read(from, buffer_.get() + page * kPage, static_cast<size_t>(to - from))) {
        failed_ = true;
        failedAt_ = from;
        return false;
      }
      std::fill(held_.begin() + static_cast<std::ptrdiff_t>(page),
                held_.begin() + static_cast<std::ptrdiff_t>(run), true);
      page = run;
    }
    return true;
  }

  bool failed() const { return failed_; }
  uint64_t failedAt() const { return failedAt_; }
  bool direct() const { return reader_.direct(); }

 private:
  Reader reader_;
  uint64_t end_;
  std::unique_ptr<uint8_t[]> buffer_;  // uninitialised: pages are read before they are looked at
  std::vector<bool> held_;             // per page of the window: read
  uint64_t start_ = 0;
  bool failed_ = false;
  uint64_t failedAt_ = 0;
};

struct Progress {
  uint64_t time = 0;  // decode time of the next sample, time-scale units
  double seconds(const TrackModel& model) const {
    return model.timescale == 0 ? 0 : static_cast<double>(time) / model.timescale;
  }
};

// AAC chunks split on a second thread ahead of the walk. A chunk runs from
// where the video frames before it end to where the next one starts; a
// second walk finds the chunks by the video frames alone (where the walk
// finds them too when each chunk's frames fill it) and asks the finder for
// each frame of a chunk as the walk would. The walk takes an answer only
// for the same frame of a chunk with the same end and finds any other
// itself, so its result is the same as without the thread.
class AacAhead {
 public:
  struct Frame {
    uint64_t start = 0;
    size_t length = 0;
  };

  // The walk at `pos`, in the chunk that ends at `end`: the frame's length
  // as the thread found it (waiting while the thread splits that chunk), or
  // 0 when the walk is to find it itself.
  size_t length(uint64_t pos, uint64_t end) {
    std::unique_lock<std::mutex> lock(mutex_);
    reached_ = pos;
    while (!chunks_.empty() && chunks_.begin()->second.end <= pos) chunks_.erase(chunks_.begin());
    changed_.notify_all();
    auto chunk = chunks_.upper_bound(pos);
    if (chunk == chunks_.begin()) return 0;
    --chunk;
    if (chunk->second.end != end) return 0;
    changed_.wait(lock, [&] { return chunk->second.split || stopping_; });
    for (const Frame& frame : chunk->second.frames) {
      if (frame.start == pos) return frame.length;
    }
    return 0;
  }

  // The thread, at the chunk [start, end): true when it is to split it,
  // every other chunk the walk has not reached (the walk splits the others
  // meanwhile); waits while it is far enough ahead.
  bool claim(uint64_t start, uint64_t end) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return chunks_.size() < kChunksAhead || stopping_; });
    if (stopping_ || start <= reached_ || (seen_++ & 1) == 0) return false;
    chunks_.emplace(start, Chunk{end, false, {}});
    return true;
  }

  // The frames the thread found in the chunk it claimed at `start`, unless
  // the walk went past it meanwhile.
  void split(uint64_t start, std::vector<Frame> frames) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const auto chunk = chunks_.find(start);
      if (chunk == chunks_.end()) return;
      chunk->second.frames = std::move(frames);
      chunk->second.split = true;
    }
    changed_.notify_all();
  }

  void stop() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
  }

  bool stopping() {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopping_;
  }

 private:
  struct Chunk {
    uint64_t end = 0;
    bool split = false;
    std::vector<Frame> frames;
  };

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<uint64_t, Chunk> chunks_;  // by start: claimed by the thread, not yet passed by the walk
  uint64_t reached_ = 0;             // where the walk last looked for an AAC frame
  uint64_t seen_ = 0;                // chunks the thread came to
  bool stopping_ = false;
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
  // With `ahead`, the walk takes the AAC frames the thread found; with
  // `walksAhead` too, this is the thread's walk.
  Scanner(IOStream& stream, uint64_t start, uint64_t end, const std::vector<TrackModel>& models,
          const AacFrameLength& aacFrameLength, AacAhead* ahead = nullptr, bool walksAhead = false)
      : window_(stream, end), pos_(start), end_(end), models_(models),
        aacFrameLength_(aacFrameLength), progress_(models.size()), orders_(models.size()),
        ahead_(ahead), walksAhead_(walksAhead) {
    for (const TrackModel& model : models) {
      result_.tables.emplace_back(model.kind == TrackModel::Kind::Fixed ? model.sampleSize : 0);
    }
    result_.pictures.resize(models.size());
    result_.end = start;
  }

  bool direct() const { return window_.direct(); }

  ScanResult run() {
    while (pos_ < end_ && !(walksAhead_ && ahead_->stopping())) {
      size_t got = 0;
      const uint8_t* data = window_.at(pos_, kLook, &got);
      const bool taken = step(data, got);
      if (window_.failed()) {
        result_.stop = "the file cannot be read at offset " + std::to_string(window_.failedAt());
        break;
      }
      if (!taken) {
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
    // The walk ahead counts an AAC chunk as one sample, so it takes no
    // track for being ahead.
    std::vector<size_t> order;
    for (size_t t = 0; t < models_.size(); ++t) {
      if (walksAhead_ || progress_[t].seconds(models_[t]) <= earliest + kLead) order.push_back(t);
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
      if (window_.failed()) return false;
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
        const AccessUnit unit = accessUnit(model.nal, data, got);
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
        // The frames of a chunk run up to the next video frame: given just
        // those bytes, the finder splits them in one pass. Most chunks are
        // short, so their first bytes are read alone first.
        const size_t part = std::min(look, kAacFirstPart);
        if (!window_.need(pos_, part)) break;
        size_t run = runToVideo(data, part);
        if (run == 0 && part < look) {
          if (!window_.need(pos_, look)) break;
          run = runToVideo(data, look);
        }
        if (walksAhead_) {
          found.length = run != 0 && splitAhead(model, data, run) ? run : 0;
          break;
        }
        if (ahead_ != nullptr && run != 0) {
          found.length = ahead_->length(pos_, pos_ + run);
          if (found.length != 0) break;
        }
        size_t length = run != 0 ? aacFrameLength_(model.aacConfig, data, run) : 0;
        if (length == 0 || length > run) {
          if (!window_.need(pos_, look)) break;
          length = aacFrameLength_(model.aacConfig, data, look);
        }
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

  // findAccessUnit on the bytes at the position, read as it walks them:
  // the starts of the first NAL units, and of twice as many while the unit
  // may run on past them (it took them all, or found no slice among them:
  // parameter sets and SEI may come first).
  AccessUnit accessUnit(const NalFormat& format, const uint8_t* data, size_t got) {
    for (size_t units = 4;; units *= 2) {
      bool chainEnds = false;
      const size_t view = readNalStarts(format, data, got, units, &chainEnds);
      if (window_.failed()) return {};
      const AccessUnit unit = findAccessUnit(format, data, view);
      if (chainEnds || view == got || (unit.length != 0 && unit.length < view)) return unit;
    }
  }

  // Reads the length and the start of `units` NAL units from the position,
  // and returns the bytes they take. When a unit that no walk goes past
  // comes first (an implausible length or header, a unit running past the
  // data) it is read too, `chainEnds` is set and the answer is `got`.
  size_t readNalStarts(const NalFormat& format, const uint8_t* data, size_t got, size_t units,
                       bool* chainEnds) {
    const unsigned headerSize = format.codec == VideoCodec::H264 ? 1 : 2;
    size_t at = 0;
    for (size_t n = 0; n < units; ++n) {
      if (got - at < format.lengthSize) break;
      if (!window_.need(pos_ + at, std::min(got - at, format.lengthSize + kNalStart))) return 0;
      const uint64_t length = lengthAt(data + at, format.lengthSize);
      const size_t left = got - at - format.lengthSize;
      if (length < headerSize || length > format.maxNalLength || length > left ||
          !plausibleNalHeader(format, data + at + format.lengthSize, left)) {
        break;
      }
      at += format.lengthSize + static_cast<size_t>(length);
      if (n + 1 == units) return at;
    }
    *chainEnds = true;
    return got;
  }

  // The first offset after the position, within `look` bytes, where a NAL
  // unit of the video track could start (a plausible length and header);
  // 0 when there is none or no video track.
  size_t videoStart(const uint8_t* data, size_t look) const {
    for (const TrackModel& model : models_) {
      if (model.kind != TrackModel::Kind::Video) continue;
      const NalFormat& format = model.nal;
      const unsigned headerSize = format.codec == VideoCodec::H264 ? 1 : 2;
      // Lengths this short start with a zero byte: the search jumps from
      // one to the next.
      const bool zeroFirst =
          format.lengthSize > 1 && (format.maxNalLength >> (8 * (format.lengthSize - 1))) == 0;
      for (size_t at = 1; at + format.lengthSize + headerSize <= look; ++at) {
        if (zeroFirst && data[at] != 0) {
          const void* zero = std::memchr(data + at, 0, look - at);
          if (zero == nullptr) return 0;
          at = static_cast<size_t>(static_cast<const uint8_t*>(zero) - data);
          if (at + format.lengthSize + headerSize > look) return 0;
        }
        const uint64_t length = lengthAt(data + at, format.lengthSize);
        if (length >= headerSize && length <= format.maxNalLength &&
            plausibleNalHeader(format, data + at + format.lengthSize, headerSize)) {
          return at;
        }
      }
      return 0;
    }
    return 0;
  }

  // videoStart from the position. The start found for a chunk's first
  // frame is the next one for its later frames too (no start lay between),
  // so the chunk's bytes are searched once, not once for each frame.
  size_t runToVideo(const uint8_t* data, size_t look) {
    if (videoAt_ <= pos_ || videoAt_ - pos_ >= look) {
      const size_t found = videoStart(data, look);
      videoAt_ = found != 0 ? pos_ + found : 0;
    }
    return videoAt_ > pos_ ? static_cast<size_t>(videoAt_ - pos_) : 0;
  }

  // The thread's walk at a chunk of `run` bytes: its frames as the walk
  // would find them with `run`, split when the walk has not reached the
  // chunk. False when the walk is over.
  bool splitAhead(const TrackModel& model, const uint8_t* data, size_t run) {
    if (!ahead_->claim(pos_, pos_ + run)) return !ahead_->stopping();
    std::vector<AacAhead::Frame> frames;
    for (size_t at = 0; at < run;) {
      const size_t length = aacFrameLength_(model.aacConfig, data + at, run - at);
      if (length == 0 || length > run - at) break;
      frames.push_back({pos_ + at, length});
      at += length;
    }
    ahead_->split(pos_, std::move(frames));
    return true;
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
    if (model.reorders) {
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
  uint64_t videoAt_ = 0;   // the last start runToVideo found, 0 for none
  AacAhead* ahead_;
  bool walksAhead_;
};

// Whether AAC frames are worth splitting ahead: one AAC track (the thread
// splits with its configuration) beside video, whose frames end the chunks.
bool splitsAhead(const std::vector<TrackModel>& models, const AacFrameLength& aacFrameLength) {
  auto count = [&models](TrackModel::Kind kind) {
    return std::count_if(models.begin(), models.end(),
                         [kind](const TrackModel& model) { return model.kind == kind; });
  };
  return aacFrameLength && count(TrackModel::Kind::Aac) == 1 && count(TrackModel::Kind::Video) != 0;
}

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
  if (!splitsAhead(models, aacFrameLength)) {
    return Scanner(stream, start, end, models, aacFrameLength).run();
  }
  AacAhead ahead;
  Scanner walk(stream, start, end, models, aacFrameLength, &ahead);
  // The thread reads the file through a descriptor of its own. Without the
  // thread (none to be had, or out of memory in it) the walk splits every
  // chunk itself; stop() ends any wait for a chunk the thread claimed.
  if (!walk.direct()) return walk.run();
  std::thread thread;
  try {
    thread = std::thread([&] {
      try {
        Scanner walkAhead(stream, start, end, models, aacFrameLength, &ahead, true);
        if (walkAhead.direct()) walkAhead.run();
      } catch (...) {
        // Whatever failed here, the walk finds the frames itself.
      }
      ahead.stop();
    });
  } catch (const std::system_error&) {
    return walk.run();
  }
  // Stopped and joined however the walk ends, an allocation failure included.
  struct Joined {
    AacAhead& ahead;
    std::thread& thread;
    ~Joined() {
      ahead.stop();
      thread.join();
    }
  } joined{ahead, thread};
  return walk.run();
}

}  // namespace mp4stbl::recovery
