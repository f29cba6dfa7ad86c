// mp4stbl record: an MP4 file recorded from elementary streams as they
// come (H.264 or HEVC in Annex B, AAC in ADTS, raw G.711), from files,
// named pipes or stdin. Samples go to the recorder in decode-time order
// across the tracks, so that a file cut short holds every track up to about
// the same time; SIGINT and SIGTERM end the recording with a finished file.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <deque>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include <mp4stbl/media/elementary.h>
#include <mp4stbl/record/recorder.h>
#include "record_input.h"

namespace mp4stbl::cli {

namespace {

using nlohmann::json;

volatile std::sig_atomic_t stopped = 0;

void onStop(int) { stopped = 1; }

// Samples held back while another input may still give an earlier one:
// beyond either bound they are written anyway, out of step with that input.
constexpr size_t kMaxHeldBytes = 64u << 20;
constexpr double kMaxHeldSeconds = 20;

struct Sample {
  Bytes data;
  SampleTime time;
};

// What one input becomes: a track, and its samples in decode order.
class Source {
 public:
  virtual ~Source() = default;
  virtual Status feed(const uint8_t* bytes, size_t size) = 0;
  // The input ended; `cut` when a signal stopped it mid-stream.
  virtual Status end(bool cut) = 0;
  // The stream's configuration came: its track can be added.
  virtual bool configured() const = 0;
  virtual Result<uint32_t> addTrack(Recorder& recorder, std::vector<std::string>& notes) = 0;
  // Moves the samples that are complete to `queue`.
  virtual Status take(std::deque<Sample>& queue) = 0;
  virtual uint32_t timescale() const = 0;
  virtual const char* kind() const = 0;
  virtual const char* codec() const = 0;
  // What the track waits for before it can be added.
  virtual const char* configuration() const { return "its configuration"; }
  // Said once the recording is over.
  virtual std::string note() const { return ""; }
  // The samples a piece holds as MP4 counts them: one, or a byte each (G.711).
  virtual uint64_t samplesIn(const Sample&) const { return 1; }
};

// A time scale of at least 10000 that counts whole frames: the rate's
// numerator doubled until it is large enough, as ffmpeg picks it (12800
// for 25 fps, 30000 for 30000/1001).
struct FrameTiming {
  uint32_t timescale = 0;
  uint32_t delta = 0;
};

bool frameTiming(uint64_t num, uint64_t den, FrameTiming* timing) {
  if (num == 0 || den == 0) return false;
  const uint64_t common = std::gcd(num, den);
  num /= common;
  den /= common;
  uint64_t scale = num;
  while (scale < 10000) scale *= 2;
  const uint64_t delta = den * (scale / num);
  if (scale > UINT32_MAX || delta > UINT32_MAX) return false;
  *timing = {static_cast<uint32_t>(scale), static_cast<uint32_t>(delta)};
  return true;
}

class VideoSource : public Source {
 public:
  VideoSource(std::string path, uint32_t fpsNum, uint32_t fpsDen)
      : path_(std::move(path)), fpsNum_(fpsNum), fpsDen_(fpsDen) {}

  Status feed(const uint8_t* bytes, size_t size) override { return reader_.feed(bytes, size); }
  // A stream cut by a signal may end inside an access unit, which is left
  // out; the frames held back for their presentation order are kept.
  Status end(bool cut) override { return cut ? reader_.cut() : reader_.finish(); }
  bool configured() const override { return reader_.config() != nullptr; }

  Result<uint32_t> addTrack(Recorder& recorder, std::vector<std::string>&) override {
    chooseTiming();
    return recorder.addVideo(*reader_.config(), timing_.timescale, delay_ * timing_.delta);
  }

  Status take(std::deque<Sample>& queue) override {
    VideoFrame frame;
    while (reader_.next(&frame)) {
      chooseTiming();
      // Shown `delay_` frames late, so that no offset is negative; the
      // edit list hides the delay.
      const uint64_t shown = frame.presentationIndex + delay_;
      const uint64_t offset =
          shown >= frame.decodeIndex ? (shown - frame.decodeIndex) * timing_.delta : UINT64_MAX;
      if (offset > INT32_MAX) {
        return Status::failure("frame " + std::to_string(frame.decodeIndex + 1) +
                               " is shown too far from where it decodes");
      }
      SampleTime time;
      time.decodeTime = frame.decodeIndex * timing_.delta;
      time.duration = timing_.delta;
      time.compositionOffset = static_cast<int32_t>(offset);
      time.key = frame.key;
      queue.push_back({std::move(frame.data), time});
    }
    return Status();
  }

  uint32_t timescale() const override { return timing_.timescale; }
  const char* kind() const override { return "video"; }
  const char* codec() const override {
    return reader_.config() != nullptr && reader_.config()->codec == VideoConfig::Codec::Hevc
               ? "hevc"
               : "h264";
  }
  const char* configuration() const override { return "parameter sets"; }
  std::string note() const override { return note_; }

 private:
  std::string path_;
  uint32_t fpsNum_;
  uint32_t fpsDen_;
  AnnexBReader reader_;
  FrameTiming timing_;
  uint32_t delay_ = 0;
  std::string note_;

  // Once, with the configuration: --fps, else the stream's timing, else 25
  // fps with a note.
  void chooseTiming() {
    if (timing_.delta != 0) return;
    const VideoConfig& config = *reader_.config();
    const bool given = fpsNum_ != 0 && frameTiming(fpsNum_, fpsDen_, &timing_);
    const bool stated =
        !given && config.unitsPerFrame != 0 &&
        static_cast<double>(config.timeScale) / config.unitsPerFrame <= 1000 &&
        frameTiming(config.timeScale, config.unitsPerFrame, &timing_);
    if (!given && !stated) {
      frameTiming(25, 1, &timing_);
      note_ = path_ + ": the stream gives no frame rate; recorded at 25 fps (--fps sets it)";
    }
    delay_ = reader_.reorderDelay();
  }
};

class AacSource : public Source {
 public:
  explicit AacSource(std::string path) : path_(std::move(path)) {}

  Status feed(const uint8_t* bytes, size_t size) override { return reader_.feed(bytes, size); }
  // A frame cut short at the end is dropped with a note.
  Status end(bool) override {
    const Status ended = reader_.finish();
    if (!ended.ok()) dropped_ = ended.message();
    return Status();
  }
  bool configured() const override { return reader_.config() != nullptr; }

  Result<uint32_t> addTrack(Recorder& recorder, std::vector<std::string>&) override {
    return recorder.addAac(reader_.config()->specificConfig);
  }

  Status take(std::deque<Sample>& queue) override {
    const uint32_t length = reader_.config() != nullptr ? reader_.config()->samplesPerFrame : 0;
    for (Bytes frame; reader_.next(&frame); ++frames_) {
      SampleTime time;
      time.decodeTime = frames_ * length;
      time.duration = length;
      queue.push_back({std::move(frame), time});
    }
    return Status();
  }

  uint32_t timescale() const override {
    return reader_.config() != nullptr ? reader_.config()->sampleRate : 0;
  }
  const char* kind() const override { return "audio"; }
  const char* codec() const override { return "aac"; }
  const char* configuration() const override { return "an ADTS header"; }
  std::string note() const override { return dropped_.empty() ? "" : path_ + ": " + dropped_; }

 private:
  std::string path_;
  AdtsReader reader_;
  uint64_t frames_ = 0;
  std::string dropped_;
};

// Raw G.711, one byte a sample (mono), cut into samples of about 20 ms.
class G711Source : public Source {
 public:
  G711Source(G711Law law, uint32_t rate)
      : law_(law), rate_(rate), piece_(std::max<uint32_t>(1, rate / 50)) {}

  Status feed(const uint8_t* bytes, size_t size) override {
    held_.insert(held_.end(), bytes, bytes + size);
    return Status();
  }
  Status end(bool) override {
    ended_ = true;
    return Status();
  }
  bool configured() const override { return true; }

  Result<uint32_t> addTrack(Recorder& recorder, std::vector<std::string>&) override {
    return recorder.addG711(law_, rate_);
  }

  Status take(std::deque<Sample>& queue) override {
    size_t from = 0;
    while (held_.size() - from >= piece_ || (ended_ && from < held_.size())) {
      const size_t size = std::min<size_t>(piece_, held_.size() - from);
      SampleTime time;
      time.decodeTime = taken_;
      time.duration = static_cast<uint32_t>(size);
      queue.push_back({Bytes(held_.begin() + from, held_.begin() + from + size), time});
      from += size;
      taken_ += size;
    }
    held_.erase(held_.begin(), held_.begin() + from);
    return Status();
  }

  uint32_t timescale() const override { return rate_; }
  const char* kind() const override { return "audio"; }
  const char* codec() const override { return law_ == G711Law::ALaw ? "alaw" : "ulaw"; }
  uint64_t samplesIn(const Sample& piece) const override { return piece.data.size(); }

 private:
  G711Law law_;
  uint32_t rate_;
  uint32_t piece_;
  Bytes held_;
  uint64_t taken_ = 0;
  bool ended_ = false;
};

// One input and its track while recording.
struct Feed {
  std::string path;
  std::unique_ptr<Source> source;
  std::deque<Sample> queue;
  uint64_t queuedBytes = 0;
  uint64_t fed = 0;  // bytes of the input given to the source
  uint64_t next = 0;  // where the next sample taken decodes, in the track's units
  uint32_t track = 0;
  uint64_t samples = 0;
  uint64_t end = 0;  // where the last sample written ends
  bool finished = false;  // its source was told the input ended

  double at(uint64_t units) const { return seconds(units, source->timescale()); }
};

// Progress on stderr when it is a terminal, at most four times a second.
class Progress {
 public:
  Progress(bool shown, std::string output)
      : shown_(shown && isatty(STDERR_FILENO) != 0), output_(std::move(output)) {}
  ~Progress() {
    if (drawn_) std::fputc('\n', stderr);
  }

  void update(const Recorder& recorder) {
    const auto now = std::chrono::steady_clock::now();
    if (!shown_ || now - last_ < std::chrono::milliseconds(250)) return;
    last_ = now;
    drawn_ = true;
    std::fprintf(stderr, "\rrecording %s: %.1f s, %.1f MB ", output_.c_str(), recorder.seconds(),
                 static_cast<double>(recorder.bytesWritten()) / 1e6);
  }

 private:
  bool shown_;
  std::string output_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_;
};

// A failure and the file it is about.
struct Failure {
  std::string file;
  std::string reason;
  bool failed() const { return !reason.empty(); }
};

class Recording {
 public:
  explicit Recording(const Options& options) : options_(options) {}

  // Opens the inputs; a failure names the one that did not open.
  Failure open() {
    uint32_t num = 0, den = 1;
    if (!options_.fps.empty()) parseFrameRate(options_.fps, &num, &den);
    const std::pair<const std::string*, int> named[] = {
        {&options_.video, 0}, {&options_.audio, 1}, {&options_.alaw, 2}, {&options_.ulaw, 3}};
    for (const auto& [path, kind] : named) {
      if (path->empty()) continue;
      const std::string reason = inputs_.add(*path);
      if (!reason.empty()) return {*path, "cannot be opened: " + reason};
      Feed feed;
      feed.path = *path;
      if (kind == 0) feed.source = std::make_unique<VideoSource>(*path, num, den);
      if (kind == 1) feed.source = std::make_unique<AacSource>(*path);
      if (kind == 2) feed.source = std::make_unique<G711Source>(G711Law::ALaw, options_.rate);
      if (kind == 3) feed.source = std::make_unique<G711Source>(G711Law::MuLaw, options_.rate);
      feeds_.push_back(std::move(feed));
    }
    return {};
  }

  // Reads until every stream's configuration came, then records until
  // every input ends or a signal comes. Only a failure before the first
  // track leaves no file.
  Failure run() {
    while (!configured()) {
      if (held() > kMaxHeldBytes) {
        return {unconfigured(), std::string("gave no ") + configurationOf(unconfigured()) +
                                    " while the other inputs gave " +
                                    std::to_string(held() >> 20) + " MiB"};
      }
      if (const Failure failed = read(); failed.failed()) return failed;
      if (stopped != 0) {
        return {options_.output, "interrupted before the streams began; no file was written"};
      }
      for (const Feed& feed : feeds_) {
        if (feed.finished && !feed.source->configured()) {
          return {feed.path, std::string("ended before its ") + feed.source->configuration()};
        }
      }
    }
    RecorderOptions settings;
    settings.layout = options_.plain       ? RecorderOptions::Layout::Plain
                      : options_.moovFirst ? RecorderOptions::Layout::MoovFirst
                                           : RecorderOptions::Layout::Hybrid;
    settings.fragmentSeconds = options_.fragment;
    settings.chunkSeconds = options_.chunk;
    settings.syncEachFragment = options_.sync;
    settings.backgroundWrites = true;
    auto created = Recorder::create(options_.output, settings);
    if (!created.ok()) return {options_.output, created.message()};
    recorder_ = std::move(*created);
    for (Feed& feed : feeds_) {
      const Result<uint32_t> added = feed.source->addTrack(*recorder_, notes_);
      if (!added.ok()) {
        recorder_.reset();
        std::remove(options_.output.c_str());
        return {feed.path, added.message()};
      }
      feed.track = *added;
    }
    return record();
  }

  // Whether a file was begun: a later failure leaves it.
  bool recorded() const { return recorder_ != nullptr; }
  const Recorder& recorder() const { return *recorder_; }
  const std::vector<Feed>& feeds() const { return feeds_; }
  const std::vector<std::string>& notes() const { return notes_; }

 private:
  bool configured() const {
    return std::all_of(feeds_.begin(), feeds_.end(),
                       [](const Feed& feed) { return feed.source->configured(); });
  }

  std::string unconfigured() const {
    for (const Feed& feed : feeds_) {
      if (!feed.source->configured()) return feed.path;
    }
    return options_.output;
  }

  const char* configurationOf(const std::string& path) const {
    for (const Feed& feed : feeds_) {
      if (feed.path == path) return feed.source->configuration();
    }
    return "configuration";
  }

  uint64_t held() const {
    uint64_t bytes = 0;
    for (const Feed& feed : feeds_) bytes += feed.queuedBytes;
    return bytes;
  }

  // Moves what the source completed to the feed's queue.
  Status collect(Feed& feed) {
    const size_t before = feed.queue.size();
    const Status taken = feed.source->take(feed.queue);
    for (size_t i = before; i < feed.queue.size(); ++i) {
      feed.queuedBytes += feed.queue[i].data.size();
      feed.next = feed.queue[i].time.decodeTime + feed.queue[i].time.duration;
    }
    return taken;
  }

  // One round of reads; the end of an input is handed to its source.
  Failure read() {
    Failure failure;
    size_t failed = 0;
    auto visit = [&](size_t index, const uint8_t* bytes, size_t size) {
      Feed& feed = feeds_[index];
      if (failure.failed()) return;
      Status status = size == 0 ? Status() : feed.source->feed(bytes, size);
      if (status.ok() && size == 0) {
        feed.finished = true;
        status = feed.source->end(false);
      }
      if (status.ok()) status = collect(feed);
      if (!status.ok()) failure = {feed.path, status.message()};
      feed.fed += size;
      // Two seconds of the stream at the rate it came so far.
      const double seconds = feed.next != 0 ? feed.at(feed.next) : 0;
      if (seconds > 0) inputs_.pace(index, static_cast<uint64_t>(2 * feed.fed / seconds));
    };
    auto wanted = [this](size_t index) { return feeds_[index].queue.empty(); };
    const std::string reason = inputs_.read(250, wanted, visit, &failed);
    if (!reason.empty()) return {feeds_[failed].path, "cannot be read: " + reason};
    if (stopped != 0) stop();
    return failure;
  }

  // Stops reading every input mid-stream; what the sources completed is
  // still written.
  void stop() {
    for (size_t index = 0; index < feeds_.size(); ++index) {
      Feed& feed = feeds_[index];
      if (feed.finished) continue;
      inputs_.close(index);
      feed.finished = true;
      Status ended = feed.source->end(true);
      if (ended.ok()) ended = collect(feed);
      static_cast<void>(ended);
    }
  }

  // The feed whose next sample decodes first, or null when none is queued.
  Feed* earliest() {
    Feed* first = nullptr;
    for (Feed& feed : feeds_) {
      if (feed.queue.empty()) continue;
      if (first == nullptr ||
          feed.at(feed.queue.front().time.decodeTime) < first->at(first->queue.front().time.decodeTime)) {
        first = &feed;
      }
    }
    return first;
  }

  // Whether an input that still reads may give a sample before `at`
  // seconds, or at it: samples of the same time go in the order of the
  // inputs however their reads fell. Unless too much is held already.
  bool worthWaiting(double at) const {
    bool earlier = false;
    double latest = at;
    for (const Feed& feed : feeds_) {
      if (feed.queue.empty() && !feed.finished && feed.at(feed.next) <= at) earlier = true;
      if (!feed.queue.empty()) latest = std::max(latest, feed.at(feed.next));
    }
    return earlier && held() <= kMaxHeldBytes && latest - at <= kMaxHeldSeconds;
  }

  Failure record() {
    Progress progress(!options_.json && !options_.quiet, options_.output);
    Failure failure;
    while (true) {
      Feed* next = earliest();
      if (next == nullptr && inputs_.allEnded()) break;
      if (next == nullptr || worthWaiting(next->at(next->queue.front().time.decodeTime))) {
        // A stream that fails ends the recording; what came before it is kept.
        if (Failure failed = read(); failed.failed()) {
          failure = std::move(failed);
          stop();
        }
        continue;
      }
      Sample& sample = next->queue.front();
      const size_t size = sample.data.size();
      const uint64_t samples = next->source->samplesIn(sample);
      const Status written = recorder_->write(next->track, std::move(sample.data), sample.time);
      if (!written.ok()) return {options_.output, written.message()};
      next->samples += samples;
      next->end = sample.time.decodeTime + sample.time.duration;
      next->queuedBytes -= size;
      next->queue.pop_front();
      progress.update(*recorder_);
    }
    for (const Feed& feed : feeds_) {
      if (!feed.source->note().empty()) notes_.push_back(feed.source->note());
    }
    const Status finished = recorder_->finish();
    if (!finished.ok()) return {options_.output, finished.message()};
    return failure;
  }

  const Options& options_;
  Inputs inputs_;
  std::vector<Feed> feeds_;
  std::unique_ptr<Recorder> recorder_;
  std::vector<std::string> notes_;
};

const char* layoutName(const Options& options) {
  return options.plain ? "plain" : options.moovFirst ? "moov-first" : "hybrid";
}

// Refuses an output that is one of the inputs: recording would destroy it.
bool isInput(const Options& options) {
  struct stat out {};
  if (stat(options.output.c_str(), &out) != 0) return false;
  for (const std::string* path : {&options.video, &options.audio, &options.alaw, &options.ulaw}) {
    struct stat in {};
    if (!path->empty() && *path != "-" && stat(path->c_str(), &in) == 0 &&
        in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
      return true;
    }
  }
  return false;
}

int summarize(const Options& options, const Recording& recording, const Failure& failure) {
  std::vector<std::string> notes = recording.notes();
  if (stopped != 0) notes.emplace_back("interrupted: recorded what came before the signal");
  struct stat written {};
  const uint64_t bytes = stat(options.output.c_str(), &written) == 0 ? written.st_size : 0;
  json tracks = json::array();
  for (const Feed& feed : recording.feeds()) {
    tracks.push_back({{"id", feed.track},
                      {"input", feed.path},
                      {"kind", feed.source->kind()},
                      {"codec", feed.source->codec()},
                      {"samples", feed.samples},
                      {"seconds", feed.at(feed.end)}});
  }
  if (failure.failed()) {
    Options about = options;
    about.file = failure.file;
    return fail(about, failure.reason + "; " + options.output + " holds what came before");
  }
  if (options.json) {
    printJson({{"output", options.output},
               {"layout", layoutName(options)},
               {"seconds", recording.recorder().seconds()},
               {"bytes", bytes},
               {"interrupted", stopped != 0},
               {"tracks", tracks},
               {"notes", notes}});
    return 0;
  }
  std::printf("wrote %s (%s, %.3f s, %llu bytes)\n", options.output.c_str(), layoutName(options),
              recording.recorder().seconds(), static_cast<unsigned long long>(bytes));
  for (const json& track : tracks) {
    std::printf("track %u: %s %s from %s, %llu samples, %.3f s\n", track["id"].get<unsigned>(),
                track["kind"].get<std::string>().c_str(), track["codec"].get<std::string>().c_str(),
                track["input"].get<std::string>().c_str(), track["samples"].get<unsigned long long>(),
                track["seconds"].get<double>());
  }
  for (const std::string& text : notes) note(options, text);
  return 0;
}

}  // namespace

bool parseFrameRate(const std::string& text, uint32_t* num, uint32_t* den) {
  const size_t slash = text.find('/');
  const std::string top = text.substr(0, slash);
  const std::string bottom = slash == std::string::npos ? "1" : text.substr(slash + 1);
  for (const std::string& part : {top, bottom}) {
    if (part.empty() || part.size() > 7 || part.find_first_not_of("0123456789") != std::string::npos) {
      return false;
    }
  }
  *num = static_cast<uint32_t>(std::stoul(top));
  *den = static_cast<uint32_t>(std::stoul(bottom));
  FrameTiming timing;
  return *num != 0 && *den != 0 && *num <= 1000ull * *den && frameTiming(*num, *den, &timing);
}

int record(const Options& options) {
  const std::vector<const std::string*> named = {&options.video, &options.audio, &options.alaw,
                                                 &options.ulaw};
  const auto given = std::count_if(named.begin(), named.end(),
                                   [](const std::string* path) { return !path->empty(); });
  const auto fromStdin = std::count_if(named.begin(), named.end(),
                                       [](const std::string* path) { return *path == "-"; });
  if (given == 0) return usageError(options.json, "record: expects --video, --audio, --alaw or --ulaw");
  if (fromStdin > 1) return usageError(options.json, "record: only one input can be stdin (-)");
  if (isInput(options)) {
    Options about = options;
    about.file = options.output;
    return fail(about, "is one of the inputs");
  }
  stopped = 0;
  struct sigaction stop {}, previousInt {}, previousTerm {};
  stop.sa_handler = &onStop;  // no SA_RESTART: a signal ends the wait for input
  sigemptyset(&stop.sa_mask);
  sigaction(SIGINT, &stop, &previousInt);
  sigaction(SIGTERM, &stop, &previousTerm);
  Recording recording(options);
  Failure failure = recording.open();
  const bool started = !failure.failed();
  if (started) failure = recording.run();
  sigaction(SIGINT, &previousInt, nullptr);
  sigaction(SIGTERM, &previousTerm, nullptr);
  if (failure.failed() && (!started || !recording.recorded())) {
    Options about = options;
    about.file = failure.file;
    return fail(about, failure.reason);
  }
  return summarize(options, recording, failure);
}

}  // namespace mp4stbl::cli
