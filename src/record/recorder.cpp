#include "record/recorder.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "box/file_stream.h"
#include "box/new_file.h"
#include "record/movie.h"
#include "record/record_file.h"
#include "record/recorded_track.h"
#include "record/sample_entries.h"

namespace mp4stbl {

using record::Chunk;
using record::HeldSample;
using record::PlacedChunk;
using record::RecordedTrack;

namespace {

constexpr uint32_t kMaxTracks = 64;
constexpr uint32_t kMdatHeader = 8;
constexpr uint32_t kLargeMdatHeader = 16;

// A 64-bit media data header.
Bytes largeMdatHeader(uint64_t length) {
  Bytes header = {0, 0, 0, 1, 'm', 'd', 'a', 't'};
  for (int shift = 56; shift >= 0; shift -= 8) header.push_back(static_cast<uint8_t>(length >> shift));
  return header;
}

Bytes mdatHeader(uint32_t length) {
  return {static_cast<uint8_t>(length >> 24), static_cast<uint8_t>(length >> 16),
          static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length), 'm', 'd', 'a', 't'};
}

}  // namespace

struct Recorder::State {
  RecorderOptions options;
  std::string path;  // empty when recording into a caller's stream
  RecordFile file;
  IOStream* out = nullptr;
  std::vector<RecordedTrack> tracks;

  bool started = false;
  bool finished = false;
  Status broken;  // the failure that ended the recording
  uint64_t headerOffset = 0;  // where the fragmented moov (or plain mdat) starts
  uint64_t mediaStart = 0;    // where the first fragment starts
  uint32_t sequence = 0;
  size_t held = 0;  // bytes of samples held for the next fragment
  bool holding = false;
  double fragmentStart = 0;  // seconds

  bool fragmented() const { return options.layout != RecorderOptions::Layout::Plain; }
  Status fail(const std::string& what);
  Status writeBytes(const Bytes& bytes);
  Status writeChunk(std::vector<Bytes>& pieces);
  Status writeAt(uint64_t offset, const Bytes& bytes);
  Status sync();
  Status start();
  Result<uint32_t> addTrack(RecordedTrack track);
  Status check(uint32_t id, size_t size, const SampleTime& time) const;
  // A sample whose bytes are `owned`'s, when given, are kept without a copy.
  Status write(uint32_t id, const uint8_t* bytes, size_t size, const SampleTime& time,
               Bytes* owned);
  void complete(RecordedTrack& track, uint64_t nextTime);
  void hold(RecordedTrack& track, const uint8_t* bytes, const HeldSample& sample, uint64_t time,
            Bytes* owned);
  bool fragmentDue(const RecordedTrack& track, const SampleTime& time, size_t size) const;
  std::vector<PlacedChunk> heldChunks();
  Status writeFragmentHead(std::vector<PlacedChunk>& placed);
  Status flush();
  Status finishInPlace();
  Status moveMovieFirst(uint64_t end);
  Bytes movedMovieBox(uint64_t before);
};

Status Recorder::State::fail(const std::string& what) {
  const int error = file.error();
  std::string message = what;
  if (error != 0) message += ": " + systemReason(error, "");
  // What reached the file whole stays: a fragment cut short is taken away.
  if (!path.empty() && started && file.truncate(file.marked()) != 0) {
    message += " (and the file could not be cut back to its last whole fragment)";
  }
  broken = Status::failure(message);
  return broken;
}

Status Recorder::State::writeBytes(const Bytes& bytes) {
  if (bytes.empty()) return fail("a box could not be built");
  const auto count = static_cast<unsigned>(bytes.size());
  if (out->write(bytes.data(), count) != static_cast<int>(count)) return fail("cannot write");
  return {};
}

// A chunk's bytes; the file may take its buffers.
Status Recorder::State::writeChunk(std::vector<Bytes>& pieces) {
  if (!path.empty()) return file.give(pieces) == 0 ? Status{} : fail("cannot write");
  for (const Bytes& piece : pieces) {
    const auto count = static_cast<unsigned>(piece.size());
    if (out->write(piece.data(), count) != static_cast<int>(count)) return fail("cannot write");
  }
  return {};
}

Status Recorder::State::writeAt(uint64_t offset, const Bytes& bytes) {
  const long long end = out->getOffset();
  if (out->seek(static_cast<long long>(offset)) != 0) return fail("cannot seek");
  if (Status written = writeBytes(bytes); !written.ok()) return written;
  if (out->seek(end) != 0) return fail("cannot seek");
  return {};
}

// Each fragment reaches the system as soon as it is whole, and the disk too
// when the options ask for it.
Status Recorder::State::sync() {
  if (path.empty()) return {};
  if (!options.syncEachFragment) return file.flush() == 0 ? Status{} : fail("cannot write");
  return file.sync() == 0 ? Status{} : fail("cannot flush to the disk");
}

// The file's first boxes: the brands, an 8-byte free box, then the
// fragmented moov or the start of a plain recording's one media data box.
// finish() writes a 64-bit mdat header over the free box and the header
// after it, in one write (readers take no 64-bit size on a moov).
Status Recorder::State::start() {
  started = true;
  if (Status written = writeBytes(record::fileTypeBox(tracks)); !written.ok()) return written;
  headerOffset = static_cast<uint64_t>(out->getOffset());
  Bytes header = {0, 0, 0, 8, 'f', 'r', 'e', 'e'};
  const Bytes next = fragmented() ? record::fragmentedMovieBox(tracks, options.movieTimescale)
                                  : Bytes{0, 0, 0, 0, 'm', 'd', 'a', 't'};
  if (next.empty()) return fail("a box could not be built");
  header.insert(header.end(), next.begin(), next.end());
  if (Status written = writeBytes(header); !written.ok()) return written;
  mediaStart = static_cast<uint64_t>(out->getOffset());
  file.mark(mediaStart);
  return sync();
}

Result<uint32_t> Recorder::State::addTrack(RecordedTrack track) {
  if (finished) return Status::failure("the recording is finished");
  if (started) return Status::failure("tracks are added before the first sample is written");
  if (tracks.size() >= kMaxTracks) return Status::failure("a recording holds at most 64 tracks");
  if (track.timescale == 0) return Status::failure("a time scale of 0");
  track.id = static_cast<uint32_t>(tracks.size() + 1);
  track.chunkTicks = track.ticks(options.chunkSeconds);
  tracks.push_back(std::move(track));
  return tracks.back().id;
}

Status Recorder::State::check(uint32_t id, size_t size, const SampleTime& time) const {
  if (!broken.ok()) return broken;
  if (finished) return Status::failure("the recording is finished");
  if (id == 0 || id > tracks.size()) {
    return Status::failure("no track " + std::to_string(id) + " (the recording has " +
                           std::to_string(tracks.size()) + ")");
  }
  const RecordedTrack& track = tracks[id - 1];
  // Built only for a refusal: write() is called for every sample.
  auto refuse = [id](const std::string& reason) {
    return Status::failure("track " + std::to_string(id) + ": " + reason);
  };
  if (size == 0) return refuse("a sample of 0 bytes");
  if (size > options.maxBufferedBytes || size > UINT32_MAX) {
    return refuse("a sample of " + std::to_string(size) + " bytes, more than the recorder holds (" +
                  std::to_string(options.maxBufferedBytes) + ")");
  }
  if (track.frameSize != 0 && size % track.frameSize != 0) {
    return refuse(std::to_string(size) + " bytes are not whole frames of " +
                  std::to_string(track.frameSize));
  }
  if (track.pending && time.decodeTime <= track.pendingTime) {
    return refuse("decode time " + std::to_string(time.decodeTime) + " does not come after " +
                  std::to_string(track.pendingTime));
  }
  if (track.pending && time.decodeTime - track.pendingTime > UINT32_MAX) {
    return refuse("decode time " + std::to_string(time.decodeTime) +
                  " jumps more than 2^32 units past " + std::to_string(track.pendingTime));
  }
  return {};
}

// The held sample gets its duration from the next sample's decode time.
void Recorder::State::complete(RecordedTrack& track, uint64_t nextTime) {
  if (!track.pending) return;
  const auto duration = static_cast<uint32_t>(nextTime - track.pendingTime);
  const HeldSample sample{static_cast<uint32_t>(track.pendingBytes.size()), duration,
                          track.pendingOffset, track.pendingKey};
  hold(track, track.pendingBytes.data(), sample, track.pendingTime, &track.pendingBytes);
  track.pending = false;
}

void Recorder::State::hold(RecordedTrack& track, const uint8_t* bytes, const HeldSample& sample,
                           uint64_t time, Bytes* owned) {
  if (!holding) {
    holding = true;
    fragmentStart = static_cast<double>(time) / track.timescale;
  }
  held += sample.size;
  track.append(bytes, sample, time, owned);
}

// A fragment ends before a video key frame once half its length has passed,
// before any sample once all of it has, and before a sample that would
// hold more bytes than allowed. A plain recording writes its held chunks
// out as often.
bool Recorder::State::fragmentDue(const RecordedTrack& track, const SampleTime& time,
                                  size_t size) const {
  if (!holding) return false;
  if (held + size > options.maxBufferedBytes) return true;
  const double age = static_cast<double>(time.decodeTime) / track.timescale - fragmentStart;
  if (track.isVideo() && time.key && age >= options.fragmentSeconds / 2) return true;
  return age >= options.fragmentSeconds;
}

// The held chunks of every track, by time, so that a player reads forward
// through the file.
std::vector<PlacedChunk> Recorder::State::heldChunks() {
  std::vector<PlacedChunk> placed;
  for (RecordedTrack& track : tracks) {
    for (Chunk& chunk : track.chunks) placed.push_back({&track, &chunk, 0});
  }
  std::stable_sort(placed.begin(), placed.end(), [](const PlacedChunk& a, const PlacedChunk& b) {
    return static_cast<double>(a.chunk->startTime) / a.track->timescale <
           static_cast<double>(b.chunk->startTime) / b.track->timescale;
  });
  return placed;
}

// A fragment's moof and mdat header. The moof goes out typed "free" and
// becomes a moof only once its media is written (see flush): a file that
// ends inside it then ends in a free box, which readers pass over, where a
// moof cut short makes some refuse the whole file.
Status Recorder::State::writeFragmentHead(std::vector<PlacedChunk>& placed) {
  uint64_t data = kMdatHeader;
  for (PlacedChunk& chunk : placed) {
    chunk.dataOffset = static_cast<uint32_t>(data);
    data += chunk.chunk->size;
  }
  Bytes head = record::fragmentBox(++sequence, placed);
  if (head.empty()) return fail("a box could not be built");
  std::copy_n("free", 4, head.begin() + 4);
  const Bytes mdat = mdatHeader(static_cast<uint32_t>(data));
  head.insert(head.end(), mdat.begin(), mdat.end());
  return writeBytes(head);
}

Status Recorder::State::flush() {
  if (!holding) return {};
  std::vector<PlacedChunk> placed = heldChunks();
  const uint64_t start = static_cast<uint64_t>(out->getOffset());
  if (fragmented()) {
    if (Status written = writeFragmentHead(placed); !written.ok()) return written;
  }
  uint64_t at = static_cast<uint64_t>(out->getOffset());
  for (const PlacedChunk& chunk : placed) {
    const uint64_t size = chunk.chunk->size;
    if (Status written = writeChunk(chunk.chunk->pieces); !written.ok()) return written;
    chunk.track->addChunk(at, static_cast<uint32_t>(chunk.chunk->samples.size()));
    at += size;
  }
  for (RecordedTrack& track : tracks) track.clearChunks();
  held = 0;
  holding = false;
  if (Status synced = sync(); !synced.ok()) return synced;
  if (fragmented()) {
    if (Status named = writeAt(start + 4, {'m', 'o', 'o', 'f'}); !named.ok()) return named;
    if (Status synced = sync(); !synced.ok()) return synced;
  }
  file.mark(at);
  return {};
}

Recorder::Recorder(std::unique_ptr<State> state) : state_(std::move(state)) {}

Recorder::~Recorder() = default;

Result<std::unique_ptr<Recorder>> Recorder::create(const std::string& path,
                                                   const RecorderOptions& options) {
  auto state = std::make_unique<State>();
  state->options = options;
  state->path = path;
  if (state->file.open(path, options.backgroundWrites) != 0) {
    return Status::failure(path + ": cannot be created: " +
                           systemReason(state->file.error(), "no reason given"));
  }
  state->out = &state->file;
  return std::unique_ptr<Recorder>(new Recorder(std::move(state)));
}

Result<std::unique_ptr<Recorder>> Recorder::create(IOStream* sink,
                                                   const RecorderOptions& options) {
  if (sink == nullptr) return Status::failure("no stream to record into");
  if (options.layout == RecorderOptions::Layout::MoovFirst) {
    return Status::failure("the movie box goes first only in a file named by its path");
  }
  auto state = std::make_unique<State>();
  state->options = options;
  state->out = sink;
  return std::unique_ptr<Recorder>(new Recorder(std::move(state)));
}

Result<uint32_t> Recorder::addVideo(const VideoConfig& config, uint32_t timescale,
                                    uint32_t presentationDelay) {
  if (config.record.empty()) return Status::failure("a video track needs its decoder configuration");
  RecordedTrack track;
  track.handler = "vide";
  track.timescale = timescale;
  track.entry = record::videoEntry(config);
  track.presentationDelay = presentationDelay;
  track.width = config.width;
  track.height = config.height;
  return state_->addTrack(std::move(track));
}

Result<uint32_t> Recorder::addH264(const std::vector<Bytes>& sps, const std::vector<Bytes>& pps,
                                   uint32_t timescale, uint32_t presentationDelay) {
  Result<VideoConfig> config = avcConfig(sps, pps);
  if (!config.ok()) return config.status();
  return addVideo(*config, timescale, presentationDelay);
}

Result<uint32_t> Recorder::addHevc(const std::vector<Bytes>& vps, const std::vector<Bytes>& sps,
                                   const std::vector<Bytes>& pps, uint32_t timescale,
                                   uint32_t presentationDelay) {
  Result<VideoConfig> config = hevcConfig(vps, sps, pps);
  if (!config.ok()) return config.status();
  return addVideo(*config, timescale, presentationDelay);
}

Result<uint32_t> Recorder::addAac(const Bytes& audioSpecificConfig) {
  Result<AudioConfig> config = aacConfig(audioSpecificConfig);
  if (!config.ok()) return config.status();
  RecordedTrack track;
  track.handler = "soun";
  track.timescale = config->sampleRate;
  track.entry = record::aacEntry(*config, static_cast<uint32_t>(state_->tracks.size() + 1));
  return state_->addTrack(std::move(track));
}

namespace {

Status checkRate(uint32_t sampleRate, uint16_t channels) {
  if (sampleRate == 0 || sampleRate > 768000) {
    return Status::failure("a sample rate of " + std::to_string(sampleRate) + " Hz");
  }
  if (channels == 0 || channels > 32) {
    return Status::failure(std::to_string(channels) + " channels");
  }
  return {};
}

RecordedTrack soundTrack(std::unique_ptr<Atom> entry, uint32_t sampleRate, uint32_t frameSize) {
  RecordedTrack track;
  track.handler = "soun";
  track.timescale = sampleRate;
  track.entry = std::move(entry);
  track.frameSize = frameSize;
  return track;
}

}  // namespace

Result<uint32_t> Recorder::addG711(G711Law law, uint32_t sampleRate, uint16_t channels) {
  if (Status valid = checkRate(sampleRate, channels); !valid.ok()) return valid;
  return state_->addTrack(soundTrack(record::g711Entry(law == G711Law::ALaw, sampleRate, channels),
                                     sampleRate, channels));
}

Result<uint32_t> Recorder::addPcm(uint32_t sampleRate, uint16_t channels) {
  if (Status valid = checkRate(sampleRate, channels); !valid.ok()) return valid;
  return state_->addTrack(
      soundTrack(record::pcmEntry(sampleRate, channels), sampleRate, 2u * channels));
}

Result<uint32_t> Recorder::addMetadata(uint32_t timescale) {
  RecordedTrack track;
  track.handler = "meta";
  track.timescale = timescale;
  track.entry = record::metadataEntry();
  return state_->addTrack(std::move(track));
}

Status Recorder::write(uint32_t id, const uint8_t* bytes, size_t size, const SampleTime& time) {
  return state_->write(id, bytes, size, time, nullptr);
}

Status Recorder::write(uint32_t id, Bytes&& sample, const SampleTime& time) {
  return state_->write(id, sample.data(), sample.size(), time, &sample);
}

Status Recorder::State::write(uint32_t id, const uint8_t* bytes, size_t size,
                              const SampleTime& time, Bytes* owned) {
  if (Status valid = check(id, size, time); !valid.ok()) return valid;
  if (bytes == nullptr) return Status::failure("no sample bytes");
  if (!started) {
    if (Status begun = start(); !begun.ok()) return begun;
  }
  RecordedTrack& track = tracks[id - 1];
  complete(track, time.decodeTime);
  if (fragmentDue(track, time, size)) {
    if (Status flushed = flush(); !flushed.ok()) return flushed;
  }
  if (!track.started) {
    track.started = true;
    track.firstDecodeTime = track.endTime = time.decodeTime;
  }
  // A constant-size track takes many samples a call; all but the last are
  // one time unit long and go straight into the fragment.
  const size_t frame = track.frameSize == 0 ? size : track.frameSize;
  const size_t count = size / frame;
  for (size_t i = 0; i + 1 < count; ++i) {
    hold(track, bytes + i * frame, {static_cast<uint32_t>(frame), 1, 0, true}, time.decodeTime + i,
         nullptr);
  }
  track.pending = true;
  track.pendingTime = time.decodeTime + count - 1;
  track.pendingDuration = track.frameSize == 0 ? time.duration : 1;
  track.pendingOffset = time.compositionOffset;
  track.pendingKey = time.key;
  if (owned != nullptr && count == 1) {
    track.pendingBytes.swap(*owned);
  } else {
    track.pendingBytes.assign(bytes + (count - 1) * frame, bytes + size);
  }
  return {};
}

// The moov goes after the media, and one header write turns what comes
// before it (a fragmented moov and its fragments, or a plain media data box
// of unknown length) into one media data box.
Status Recorder::State::finishInPlace() {
  const uint64_t end = static_cast<uint64_t>(out->getOffset());
  if (Status written = writeBytes(record::finalMovieBox(tracks, options.movieTimescale, 0));
      !written.ok()) {
    return written;
  }
  // The complete moov is written (and on the disk, when syncing) before the
  // fragments become plain media data: until the header below changes, the
  // file is still a fragmented one, whose second moov players skip.
  if (Status synced = sync(); !synced.ok()) return synced;
  if (Status written = writeAt(headerOffset, largeMdatHeader(end - headerOffset)); !written.ok()) {
    return written;
  }
  return sync();
}

// The final moov for media moved to start `before` bytes plus its own size
// into a new file. Its size moves the media, which may need 64-bit offsets
// and so change its size: a few turns settle it.
Bytes Recorder::State::movedMovieBox(uint64_t before) {
  size_t size = record::finalMovieBox(tracks, options.movieTimescale, 0).size();
  Bytes movie;
  for (int turn = 0; turn < 3; ++turn) {
    const int64_t shift = static_cast<int64_t>(before + size) - static_cast<int64_t>(mediaStart);
    movie = record::finalMovieBox(tracks, options.movieTimescale, shift);
    if (movie.size() == size) break;
    size = movie.size();
  }
  return movie;
}

// The moov cannot be written ahead of media whose length is not known yet
// without guessing its size: room reserved for it is wasted on a short
// recording and too small for a long one. So the recording is finished in
// place like any other, and then a new file is written with the moov first
// and the media after it, copied by the kernel (shared blocks on file
// systems that can), which takes the recording's place. When that fails
// (it needs the room twice), the finished recording stays.
Status Recorder::State::moveMovieFirst(uint64_t end) {
  FileStream recorded;
  if (recorded.open(path, FileStream::Mode::Read) != 0) {
    return Status::failure(systemReason(recorded.error(), "cannot be read back"));
  }
  const Bytes fileType = record::fileTypeBox(tracks);
  const uint64_t media = end - mediaStart;
  const Bytes movie = movedMovieBox(fileType.size() + kLargeMdatHeader);
  NewFile target(path);
  FileStream moved;
  if (Status opened = target.open(moved); !opened.ok()) return opened;
  const Bytes mdat = largeMdatHeader(kLargeMdatHeader + media);
  for (const Bytes* part : std::initializer_list<const Bytes*>{&fileType, &movie, &mdat}) {
    const auto count = static_cast<unsigned>(part->size());
    if (part->empty() || moved.write(part->data(), count) != static_cast<int>(count)) {
      return Status::failure(systemReason(moved.error(), "cannot be written"));
    }
  }
  if (copyRange(&recorded, mediaStart, media, &moved) != 0 || moved.close() != 0) {
    return Status::failure(systemReason(moved.error(), "cannot be written"));
  }
  return target.keep();
}

Status Recorder::finish() {
  State& s = *state_;
  if (!s.broken.ok()) return s.broken;
  if (s.finished) return Status::failure("the recording is finished");
  s.finished = true;
  if (!s.started) {
    if (Status started = s.start(); !started.ok()) return started;
  }
  for (RecordedTrack& track : s.tracks) {
    if (!track.pending) continue;
    const uint32_t duration = track.pendingDuration != 0 ? track.pendingDuration
                              : track.lastDuration != 0  ? track.lastDuration
                                                         : 1;
    s.complete(track, track.pendingTime + duration);
  }
  if (Status flushed = s.flush(); !flushed.ok()) return flushed;
  const uint64_t end = static_cast<uint64_t>(s.out->getOffset());
  if (Status done = s.finishInPlace(); !done.ok()) return done;
  if (s.path.empty()) return {};
  // Failures of the writing thread show once it is done; the file is
  // still open to be cut back.
  if (s.file.drain() != 0 || s.file.close() != 0) return s.fail("cannot write");
  if (s.options.layout != RecorderOptions::Layout::MoovFirst) return {};
  if (Status moved = s.moveMovieFirst(end); !moved.ok()) {
    return Status::failure("the movie box could not be moved before the media (" +
                           moved.message() + "); the recording is finished with it at the end");
  }
  return {};
}

double Recorder::seconds() const {
  double longest = 0;
  for (const RecordedTrack& track : state_->tracks) {
    longest = std::max(longest, static_cast<double>(track.mediaDuration()) / track.timescale);
  }
  return longest;
}

uint64_t Recorder::bytesWritten() const {
  return static_cast<uint64_t>(std::max(0LL, state_->out->getOffset()));
}

}  // namespace mp4stbl
