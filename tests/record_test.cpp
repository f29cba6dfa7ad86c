// The recorder: the shipped files' samples recorded again come back from
// the file as they were written, in each layout and from a recording cut
// short; the tables it builds, byte for byte; offsets past 4 GiB; and every
// refusal, which leaves the recording as it was.
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <cstring>
#include <map>

#include <mp4stbl/box/sample_entry.h>
#include <mp4stbl/record/record_file.h>
#include <mp4stbl/record/recorder.h>
#include "support/fault_stream.h"
#include "support/test.h"

namespace {

const std::string kData = MP4STBL_TEST_DATA;

using Layout = RecorderOptions::Layout;

// What the file says of one sample.
struct Row {
  Bytes bytes;
  uint64_t decodeTime;
  uint32_t duration;
  int64_t compositionOffset;
  bool sync;
  bool operator==(const Row& other) const {
    return std::tie(bytes, decodeTime, duration, compositionOffset, sync) ==
           std::tie(other.bytes, other.decodeTime, other.duration, other.compositionOffset,
                    other.sync);
  }
};

std::vector<std::vector<Row>> rowsOf(const std::string& path) {
  Mp4File file;
  EXPECT_TRUE(file.open(path).ok()) << path;
  const Bytes all = readFile(path);
  std::vector<std::vector<Row>> tracks;
  for (const Track& track : findTracks(file).tracks) {
    std::vector<Row>& rows = tracks.emplace_back();
    EXPECT_EQ(walkSamples(track, [&](const SampleInfo& s) {
      rows.push_back({Bytes(all.begin() + s.offset, all.begin() + s.offset + s.size),
                      s.decodeTime, s.duration, s.compositionOffset, s.sync});
    }), "");
  }
  return tracks;
}

// The AudioSpecificConfig of an esds body: the descriptor tagged 5 inside
// the decoder configuration (4) inside the elementary stream's (3).
Bytes specificConfig(const Bytes& esds) {
  size_t at = 4;  // version and flags
  while (at < esds.size()) {
    const uint8_t tag = esds[at++];
    size_t length = 0;
    for (uint8_t byte = 0x80; byte & 0x80 && at < esds.size();) {
      byte = esds[at++];
      length = length << 7 | (byte & 0x7F);
    }
    if (tag == 5) return Bytes(esds.begin() + at, esds.begin() + at + length);
    at += tag == 3 ? 3 : tag == 4 ? 13 : length;  // into the ones that hold it
  }
  return {};
}

// Adds a track like `track` of a file: its sample entry's configuration.
uint32_t addLike(Recorder& recorder, const Track& track) {
  Atom* entry = track.stsd().children.front();
  const std::string type = entry->header.type;
  if (type == "avc1" || type == "hvc1") {
    auto& visual = dynamic_cast<VisualSampleEntry&>(*entry);
    VideoConfig config;
    config.codec = type == "avc1" ? VideoConfig::Codec::H264 : VideoConfig::Codec::Hevc;
    config.width = visual.width;
    config.height = visual.height;
    config.record = dynamic_cast<UserDefAtom&>(*visual.children.front()).body;
    const int64_t delay = track.elst() ? track.elst()->entries.back().mediaTime : 0;
    return *recorder.addVideo(config, track.timescale(), static_cast<uint32_t>(delay));
  }
  auto& audio = dynamic_cast<AudioSampleEntry&>(*entry);
  if (type == "mp4a") {
    return *recorder.addAac(specificConfig(dynamic_cast<EsdsAtom&>(*audio.children.front()).body));
  }
  if (type == "ulaw" || type == "alaw") {
    return *recorder.addG711(type == "alaw" ? G711Law::ALaw : G711Law::MuLaw,
                             audio.sampleRate >> 16, audio.channelCount);
  }
  return 0;
}

// Records the samples of every video, AAC and G.711 track of `source` again, in
// decode-time order across tracks, up to the first write that fails; the
// recorder is left unfinished.
std::unique_ptr<Recorder> rerecord(const std::string& source, const std::string& out,
                                   const RecorderOptions& options, Status* failed = nullptr) {
  Mp4File file;
  EXPECT_TRUE(file.open(source).ok());
  FoundTracks found = findTracks(file);
  auto recorder = Recorder::create(out, options);
  EXPECT_TRUE(recorder.ok()) << recorder.message();
  struct Feed {
    const Track* track;
    uint32_t id;
    std::unique_ptr<SampleWalker> walker;
    const SampleInfo* next;
  };
  std::vector<Feed> feeds;
  for (const Track& track : found.tracks) {
    const uint32_t id = addLike(**recorder, track);
    if (id == 0) continue;
    auto walker = std::make_unique<SampleWalker>(track);
    const SampleInfo* first = *walker->next();
    feeds.push_back({&track, id, std::move(walker), first});
  }
  const Bytes all = readFile(source);
  const auto seconds = [](const Feed& f) {
    return f.next ? static_cast<double>(f.next->decodeTime) / f.track->timescale() : 1e300;
  };
  for (;;) {
    auto feed = std::min_element(feeds.begin(), feeds.end(),
                                 [&](const Feed& a, const Feed& b) { return seconds(a) < seconds(b); });
    if (feed == feeds.end() || feed->next == nullptr) break;
    const SampleInfo& s = *feed->next;
    const SampleTime time{s.decodeTime, s.duration, static_cast<int32_t>(s.compositionOffset),
                          s.sync};
    const Status written = (*recorder)->write(feed->id, all.data() + s.offset, s.size, time);
    if (!written.ok() && failed != nullptr) {
      *failed = written;
      break;
    }
    EXPECT_TRUE(written.ok()) << written.message();
    feed->next = *feed->walker->next();
  }
  return std::move(*recorder);
}

class Record : public ::testing::Test {
 protected:
  std::string out(const std::string& name) const { return dir_ / name; }
  const ScratchDir dir_{"mp4stbl_record_"};
};

struct Source {
  const char* file;
  const char* note;
};

// B-frames with an edit, HEVC, H.264 with a key frame every 4.
const Source kSources[] = {{"bframes_late.mp4", "B-frames"},
                           {"hevc.mp4", "HEVC"},
                           {"h264_aac.mp4", "key frame every 4"}};

TEST_F(Record, SamplesComeBackAsWrittenInEveryLayout) {
  for (const Source& source : kSources) {
    const std::string path = kData + "/" + source.file;
    const auto expected = rowsOf(path);
    for (const auto& [layout, background] :
         {std::pair{Layout::Hybrid, false}, {Layout::Plain, false}, {Layout::MoovFirst, false},
          {Layout::Hybrid, true}, {Layout::Plain, true}, {Layout::MoovFirst, true}}) {
      SCOPED_TRACE(std::string(source.note) + ", layout " + std::to_string(int(layout)) +
                   (background ? ", background writes" : ""));
      RecorderOptions options;
      options.layout = layout;
      options.backgroundWrites = background;
      options.fragmentSeconds = 0.1;
      options.chunkSeconds = 0.05;
      const std::string recorded = out("out.mp4");
      ASSERT_TRUE(rerecord(path, recorded, options)->finish().ok());
      EXPECT_EQ(rowsOf(recorded), expected);
      ReadFile read(readFile(recorded));
      ASSERT_TRUE(read.status.ok());
      EXPECT_TRUE(read.file.find("moof").empty());
      EXPECT_TRUE(read.file.find("moov/mvex").empty());
      EXPECT_EQ(read.file.find("moov").size(), 1u);
      const bool moovFirst = read.file.root.children.front()->header.type == "ftyp" &&
                             (*std::next(read.file.root.children.begin()))->header.type == "moov";
      EXPECT_EQ(moovFirst, layout == Layout::MoovFirst);
      EXPECT_EQ(dir_.names(), std::vector<std::string>{"out.mp4"});
    }
  }
}

// A recording that stops without finish(): a process killed after its last
// fragment. Its fragments hold the first samples as they were written.
TEST_F(Record, UnfinishedRecordingHoldsItsWholeFragments) {
  for (const Source& source : kSources) {
    SCOPED_TRACE(source.note);
    const std::string path = kData + "/" + source.file;
    const auto expected = rowsOf(path).front();
    RecorderOptions options;
    options.fragmentSeconds = 0.1;
    const std::string recorded = out("cut.mp4");
    rerecord(path, recorded, options).reset();
    Mp4File file;
    ASSERT_TRUE(file.open(recorded).ok());
    EXPECT_FALSE(file.find("moov/mvex/trex").empty());
    const auto rows = rowsOf(recorded).front();
    ASSERT_GE(rows.size() + 4, expected.size());  // a fragment of 0.1 s at most is lost
    ASSERT_LT(rows.size(), expected.size());
    EXPECT_EQ(rows, std::vector<Row>(expected.begin(), expected.begin() + rows.size()));
  }
}

// Two tracks recorded into memory: five H.264 frames of 40 ms, the last
// 60 ms (key frames 1 and 4, B-frame offsets) and 1600 G.711 samples in two writes, chunks of
// 80 ms. Each table, as the file holds it.
// A memory sink that also keeps each write, in order, with its offset.
struct WriteLog : MemoryStream {
  std::vector<std::pair<uint64_t, Bytes>> writes;
  int write(const unsigned char* bytes, unsigned count) override {
    writes.emplace_back(static_cast<uint64_t>(getOffset()), Bytes(bytes, bytes + count));
    return MemoryStream::write(bytes, count);
  }
};

struct TwoTracks {
  WriteLog sink;
  Bytes unfinished;  // what the sink held before finish()
  Mp4File file;
  std::vector<Atom*> tables;  // of both stbl boxes, in file order

  explicit TwoTracks(Layout layout, double fragmentSeconds = 1) {
    RecorderOptions options;
    options.layout = layout;
    options.chunkSeconds = 0.08;
    options.fragmentSeconds = fragmentSeconds;
    auto recorder = Recorder::create(&sink, options);
    VideoConfig config;
    config.record = {1, 0x64, 0, 0x1F, 0xFF, 0xE0, 0};
    const uint32_t video = *(*recorder)->addVideo(config, 1000, 40);
    const uint32_t audio = *(*recorder)->addG711(G711Law::ALaw, 8000);
    const uint32_t sizes[] = {10, 4, 4, 10, 4};
    const int32_t offsets[] = {40, 80, 0, 40, 0};
    const Bytes samples(800, 0xD5);
    for (uint32_t i = 0; i < 5; ++i) {
      const Bytes frame(sizes[i], static_cast<unsigned char>(i));
      EXPECT_TRUE((*recorder)->write(video, frame.data(), frame.size(),
                                     {i * 40, i == 4 ? 60u : 0u, offsets[i], i % 3 == 0}).ok());
      if (i < 2) {
        EXPECT_TRUE((*recorder)->write(audio, samples.data(), samples.size(), {i * 800u}).ok());
      }
    }
    unfinished = sink.data();
    EXPECT_TRUE((*recorder)->finish().ok());
    MemoryStream in(sink.data());
    EXPECT_TRUE(file.read(&in).ok());
    for (Atom* stbl : file.find("moov/trak/mdia/minf/stbl")) {
      for (Atom* table : stbl->children) {
        if (table->header.type != "stsd") tables.push_back(table);
      }
    }
  }
};

Bytes bytesOf(Atom* box) {
  MemoryStream out;
  EXPECT_EQ(box->Write(&out), 0);
  return out.data();
}

TEST(RecordTables, GoldenBytes) {
  TwoTracks recorded(Layout::Plain);
  // ftyp (36 bytes with avc1), free, mdat header: the media starts at 52.
  // By time: video 1-2 at 52, audio 1-640 at 66, video 3-4 at 706, audio
  // 641-1280 at 720, video 5 at 1360, audio 1281-1600 at 1364.
  const std::vector<Bytes> expected = {
      ByteWriter::fullBox("stts", 0, 0, ByteWriter().u32(2).u32(4).u32(40).u32(1).u32(60).bytes),
      ByteWriter::fullBox("ctts", 0, 0,
                          ByteWriter().u32(5).u32(1).u32(40).u32(1).u32(80).u32(1).u32(0)
                              .u32(1).u32(40).u32(1).u32(0).bytes),
      ByteWriter::fullBox("stsc", 0, 0,
                          ByteWriter().u32(2).u32(1).u32(2).u32(1).u32(3).u32(1).u32(1).bytes),
      ByteWriter::fullBox("stsz", 0, 0,
                          ByteWriter().u32(0).u32(5).u32(10).u32(4).u32(4).u32(10).u32(4).bytes),
      ByteWriter::fullBox("stss", 0, 0, ByteWriter().u32(2).u32(1).u32(4).bytes),
      ByteWriter::fullBox("stco", 0, 0, ByteWriter().u32(3).u32(52).u32(706).u32(1360).bytes),
      ByteWriter::fullBox("stts", 0, 0, ByteWriter().u32(1).u32(1600).u32(1).bytes),
      ByteWriter::fullBox("stsc", 0, 0,
                          ByteWriter().u32(2).u32(1).u32(640).u32(1).u32(3).u32(320).u32(1).bytes),
      ByteWriter::fullBox("stsz", 0, 0, ByteWriter().u32(1).u32(1600).bytes),
      ByteWriter::fullBox("stco", 0, 0, ByteWriter().u32(3).u32(66).u32(720).u32(1364).bytes),
  };
  ASSERT_EQ(recorded.tables.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(bytesOf(recorded.tables[i]), expected[i]) << i;
  }
  // The video's edit hides the 40 ms its first frame waits; its media lasts
  // 220 ms, the audio's 200.
  const auto* elst = dynamic_cast<ElstAtom*>(recorded.file.find("moov/trak/edts/elst").front());
  ASSERT_EQ(elst->entries.size(), 1u);
  EXPECT_EQ(elst->entries[0].segmentDuration, 220u);
  EXPECT_EQ(elst->entries[0].mediaTime, 40);
  EXPECT_EQ(dynamic_cast<MvhdAtom&>(*recorded.file.find("moov/mvhd").front()).duration, 220u);
}

// The same recording in fragments of 80 ms: each fragment's runs say what
// the tables say, so the file reads the same before finish() as after it,
// but for its last fragment, which finish() writes.
TEST(RecordTables, FragmentsAgreeWithTheTables) {
  TwoTracks finished(Layout::Hybrid, 0.08);
  ASSERT_EQ(finished.tables.size(), 10u);
  MemoryStream cut(finished.unfinished);
  Mp4File fragmented;
  ASSERT_TRUE(fragmented.read(&cut).ok());
  FoundTracks a = findTracks(finished.file), b = findTracks(fragmented);
  ASSERT_EQ(b.tracks.size(), 2u);
  for (size_t t = 0; t < 2; ++t) {
    EXPECT_TRUE(b.tracks[t].fragmented());
    std::vector<SampleInfo> x, y;
    walkSamples(a.tracks[t], [&](const SampleInfo& s) { x.push_back(s); });
    walkSamples(b.tracks[t], [&](const SampleInfo& s) { y.push_back(s); });
    ASSERT_LT(y.size(), x.size());
    ASSERT_GT(y.size(), 0u);
    for (size_t i = 0; i < y.size(); ++i) {
      EXPECT_EQ(std::tie(x[i].offset, x[i].size, x[i].decodeTime, x[i].duration, x[i].sync,
                         x[i].presentationTime),
                std::tie(y[i].offset, y[i].size, y[i].decodeTime, y[i].duration, y[i].sync,
                         y[i].presentationTime))
          << "track " << t << " sample " << i;
    }
  }
}

// What the disk holds after any number of the recorder's writes, the last
// one perhaps in part: every box typed moof is whole and its mdat too, since
// some readers refuse a file that ends inside a moof.
TEST(RecordTables, NoWriteLeavesAFragmentCutShortNamed) {
  TwoTracks recorded(Layout::Hybrid, 0.04);
  const auto& writes = recorded.sink.writes;
  ASSERT_GT(writes.size(), 10u);
  auto be32 = [](const Bytes& bytes, uint64_t at) {
    return uint64_t{bytes[at]} << 24 | bytes[at + 1] << 16 | bytes[at + 2] << 8 | bytes[at + 3];
  };
  Bytes disk;
  auto check = [&](const Bytes& held) {
    uint64_t at = 0;
    while (at + 8 <= held.size()) {
      const uint64_t size = be32(held, at);
      const std::string type(held.begin() + static_cast<long>(at + 4),
                             held.begin() + static_cast<long>(at + 8));
      if (size < 8) return;  // the mdat of a finished file, not yet sized
      if (type == "moof") {
        const uint64_t mdat = at + size;
        ASSERT_LE(mdat + 8, held.size());
        ASSERT_EQ(std::string(held.begin() + static_cast<long>(mdat + 4),
                              held.begin() + static_cast<long>(mdat + 8)), "mdat");
        ASSERT_LE(mdat + be32(held, mdat), held.size());
      }
      at += size;
    }
  };
  for (size_t i = 0; i < writes.size(); ++i) {
    SCOPED_TRACE("write " + std::to_string(i));
    const auto& [offset, bytes] = writes[i];
    Bytes half = disk;
    half.resize(std::max<uint64_t>(half.size(), offset + bytes.size() / 2));
    std::copy(bytes.begin(), bytes.begin() + static_cast<long>(bytes.size() / 2),
              half.begin() + static_cast<long>(offset));
    check(half);
    disk.resize(std::max<uint64_t>(disk.size(), offset + bytes.size()));
    std::copy(bytes.begin(), bytes.end(), disk.begin() + static_cast<long>(offset));
    check(disk);
  }
}

// A sink that keeps what is written near the start and at the end, and
// only counts the media in between: a recording of more than 4 GiB.
class SparseSink : public IOStream {
 public:
  int read(unsigned char*, unsigned) override { return -1; }
  int write(const unsigned char* bytes, unsigned count) override {
    if (count < (1u << 20)) kept_[position_] = Bytes(bytes, bytes + count);
    position_ += count;
    length_ = std::max(length_, position_);
    return static_cast<int>(count);
  }
  int seek(long long offset) override {
    position_ = static_cast<uint64_t>(offset);
    return 0;
  }
  long long getOffset() override { return static_cast<long long>(position_); }
  long long getLength() override { return static_cast<long long>(length_); }
  // The last box written whole.
  Bytes last() const { return kept_.rbegin()->second; }

 private:
  std::map<uint64_t, Bytes> kept_;
  uint64_t position_ = 0;
  uint64_t length_ = 0;
};

TEST(RecordTables, ChunkOffsetsTurn64BitPastFourGigabytes) {
  SparseSink sink;
  RecorderOptions options;
  options.layout = Layout::Plain;
  auto recorder = Recorder::create(&sink, options);
  const uint32_t track = *(*recorder)->addMetadata(1);
  const Bytes sample(48u << 20, 7);  // 48 MiB a second, a chunk and a flush each
  for (uint32_t i = 0; i < 90; ++i) {
    ASSERT_TRUE((*recorder)->write(track, sample.data(), sample.size(), {i}).ok());
  }
  ASSERT_TRUE((*recorder)->finish().ok());
  MemoryStream moov(sink.last());
  Mp4File file;
  ASSERT_TRUE(file.read(&moov).ok());
  ASSERT_TRUE(file.find("moov/trak/mdia/minf/stbl/stco").empty());
  const auto* co64 = dynamic_cast<Co64Atom*>(file.find("moov/trak/mdia/minf/stbl/co64").front());
  ASSERT_EQ(co64->entries.size(), 90u);
  for (uint32_t i = 0; i < 90; ++i) {
    EXPECT_EQ(co64->entries[i], 32 + 16 + uint64_t{i} * sample.size()) << i;
  }
}

// Each refusal says why and leaves the recording as it was: the file
// written at the end holds the samples written before and after it.
TEST_F(Record, RefusalsLeaveTheRecordingAsItWas) {
  auto created = Recorder::create(out("r.mp4"));
  Recorder& recorder = **created;
  EXPECT_EQ(recorder.addG711(G711Law::MuLaw, 0).message(), "a sample rate of 0 Hz");
  EXPECT_EQ(recorder.addPcm(48000, 0).message(), "0 channels");
  EXPECT_EQ(recorder.addMetadata(0).message(), "a time scale of 0");
  const uint32_t audio = *recorder.addG711(G711Law::MuLaw, 8000, 2);
  const Bytes bytes(160, 0xFF);
  ASSERT_TRUE(recorder.write(audio, bytes.data(), bytes.size(), {0}).ok());
  const struct {
    uint32_t track;
    size_t size;
    uint64_t time;
    const char* message;
  } refused[] = {
      {2, 160, 80, "no track 2 (the recording has 1)"},
      {0, 160, 80, "no track 0 (the recording has 1)"},
      {audio, 0, 80, "track 1: a sample of 0 bytes"},
      {audio, 159, 80, "track 1: 159 bytes are not whole frames of 2"},
      {audio, 160, 79, "track 1: decode time 79 does not come after 79"},
      {audio, 160, 20, "track 1: decode time 20 does not come after 79"},
      {audio, 160, 79 + (uint64_t{1} << 32), "track 1: decode time 4294967375 jumps more than 2^32 units past 79"},
      {audio, (64u << 20) + 2, 80, "track 1: a sample of 67108866 bytes, more than the recorder holds (67108864)"},
  };
  for (const auto& bad : refused) {
    const Status status = recorder.write(bad.track, bytes.data(), bad.size, {bad.time});
    EXPECT_EQ(status.message().substr(0, std::string(bad.message).size()), bad.message);
  }
  EXPECT_EQ(recorder.addMetadata(1000).message(),
            "tracks are added before the first sample is written");
  ASSERT_TRUE(recorder.write(audio, bytes.data(), bytes.size(), {80}).ok());
  ASSERT_TRUE(recorder.finish().ok());
  EXPECT_EQ(recorder.write(audio, bytes.data(), bytes.size(), {160}).message(),
            "the recording is finished");
  EXPECT_EQ(recorder.finish().message(), "the recording is finished");
  const auto rows = rowsOf(out("r.mp4"));
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].size(), 160u);
  EXPECT_EQ(rows[0].back().decodeTime, 159u);
  EXPECT_EQ(Recorder::create(nullptr).message(), "no stream to record into");
  MemoryStream sink;
  RecorderOptions moovFirst;
  moovFirst.layout = Layout::MoovFirst;
  EXPECT_EQ(Recorder::create(&sink, moovFirst).message(),
            "the movie box goes first only in a file named by its path");
  EXPECT_EQ(Recorder::create(out("no/such/dir.mp4")).message(),
            out("no/such/dir.mp4") + ": cannot be created: No such file or directory");
}

// A disk that fills up, during the fragments or only when finish() writes
// the moov, with the caller's thread writing or the recorder's own: the
// write that fails ends the recording (the recorder's thread says so at
// the next fragment or at finish()), and the file is cut back to its last
// whole fragment, which plays.
TEST_F(Record, FullDiskKeepsTheFragmentsWritten) {
  const std::string path = kData + "/h264_aac.mp4";
  const auto expected = rowsOf(path).front();
  RecorderOptions options;
  options.fragmentSeconds = 0.1;
  // Where the finished file's moov starts: the end of its last fragment.
  const std::string whole = out("whole.mp4");
  ASSERT_TRUE(rerecord(path, whole, options)->finish().ok());
  Mp4File finished;
  ASSERT_TRUE(finished.open(whole).ok());
  const uint64_t fragmented = finished.find("moov").front()->header.headerOffset;
  struct Case {
    uint64_t limit;
    bool background;
  };
  for (const Case& c : {Case{8000, false}, Case{8000, true}, Case{fragmented + 100, false},
                        Case{fragmented + 100, true}}) {
    SCOPED_TRACE("limit " + std::to_string(c.limit) + (c.background ? ", background" : ""));
    const std::string recorded = out("full.mp4");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // Writes past the limit fail with EFBIG.
      std::signal(SIGXFSZ, SIG_IGN);
      const rlimit limit{static_cast<rlim_t>(c.limit), static_cast<rlim_t>(c.limit)};
      setrlimit(RLIMIT_FSIZE, &limit);
      options.backgroundWrites = c.background;
      Status failed;
      auto recorder = rerecord(path, recorded, options, &failed);
      const Status finished = recorder->finish();
      const bool said = finished.message() == "cannot write: File too large";
      const bool same = failed.ok() || failed.message() == finished.message();
      _exit(said && same ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    Mp4File file;
    ASSERT_TRUE(file.open(recorded).ok());
    EXPECT_FALSE(file.find("moov/mvex/trex").empty());
    const auto rows = rowsOf(recorded).front();
    EXPECT_GE(rows.size(), 3u);
    EXPECT_EQ(rows, std::vector<Row>(expected.begin(), expected.begin() + rows.size()));
    if (c.limit > 8000) {
      EXPECT_EQ(rows.size(), expected.size());
      EXPECT_EQ(fs::file_size(recorded), fragmented);
    } else {
      EXPECT_LT(rows.size(), expected.size());
      EXPECT_LE(fs::file_size(recorded), c.limit);
    }
  }
}

// A write the writing thread fails keeps the fragment end queued after it
// from being marked whole (the file would be cut back to bytes it never
// got), and drain() waits for the thread to meet that failure. The write
// is two pieces that cross the file size limit: the system writes part of
// them, and what is left must go after that part, where it fails, not over
// the file's first bytes. The file may grow to 32 MiB.
TEST_F(Record, NoFragmentMarkedWholeAfterAFailedWrite) {
  const rlim_t limit = 32u << 20;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit fileSize{limit, limit};
    setrlimit(RLIMIT_FSIZE, &fileSize);
    RecordFile file;
    if (file.open(out("failed.bin"), true) != 0) _exit(2);
    std::vector<std::vector<unsigned char>> pieces;
    pieces.emplace_back(limit - 100, 7);
    pieces.emplace_back(200, 9);
    if (file.give(pieces) != 0) _exit(3);
    file.mark(limit + 100);
    const bool failed = file.drain() != 0 && file.error() == EFBIG;
    _exit(failed && file.marked() == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  std::ifstream written(out("failed.bin"), std::ios::binary);
  auto byteAt = [&written](std::streamoff offset) {
    written.seekg(offset);
    return written.get();
  };
  EXPECT_EQ(fs::file_size(out("failed.bin")), limit);
  EXPECT_EQ(byteAt(0), 7);
  EXPECT_EQ(byteAt(limit - 100), 9);
}

// The same at finish(): the moov fails to reach a disk that is full while
// the last fragment (one 32 MiB sample) is still being written, so the
// failure shows only when finish() waits for the writing thread, and the
// file must still be open then to be cut back to that fragment.
TEST_F(Record, FullDiskMetWhileTheLastFragmentIsWritten) {
  RecorderOptions options;
  options.backgroundWrites = true;
  const Bytes sample(32u << 20, 5);
  auto record = [&](const std::string& path, Status* finished) {
    auto recorder = Recorder::create(path, options);
    if (!recorder.ok()) return;
    const uint32_t track = *(*recorder)->addMetadata(10);
    if ((*recorder)->write(track, sample.data(), sample.size(), {0, 1, 0, true}).ok()) {
      *finished = (*recorder)->finish();
    }
  };
  Status finished = Status::failure("not recorded");
  record(out("whole.mp4"), &finished);
  ASSERT_TRUE(finished.ok()) << finished.message();
  Mp4File whole;
  ASSERT_TRUE(whole.open(out("whole.mp4")).ok());
  const uint64_t fragmented = whole.find("moov").front()->header.headerOffset;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const auto most = static_cast<rlim_t>(fragmented + 100);
    const rlimit limit{most, most};
    setrlimit(RLIMIT_FSIZE, &limit);
    record(out("full.mp4"), &finished);
    _exit(finished.message() == "cannot write: File too large" ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(fs::file_size(out("full.mp4")), fragmented);
}

// A recording's file past 4 GiB, written at its offset on every build, the
// 32-bit one included (sparse: nothing is written before it).
TEST_F(Record, FileWrittenPastFourGigabytes) {
  const uint64_t offset = (uint64_t{5} << 30) + 7;
  const unsigned char bytes[3] = {1, 2, 3};
  for (bool background : {false, true}) {
    RecordFile file;
    ASSERT_EQ(file.open(out("large.bin"), background), 0);
    ASSERT_EQ(file.seek(static_cast<long long>(offset)), 0);
    ASSERT_EQ(file.write(bytes, sizeof bytes), static_cast<int>(sizeof bytes));
    ASSERT_EQ(file.close(), 0) << std::strerror(file.error());
    EXPECT_EQ(fs::file_size(out("large.bin")), offset + sizeof bytes);
  }
}

// Samples larger than the file's buffers, whose chunks go to the writing
// thread as they are, given by pointer and by their buffer: each comes back
// with its bytes, in its chunk.
TEST_F(Record, LargeSamplesWrittenInTheBackground) {
  for (Layout layout : {Layout::Hybrid, Layout::Plain}) {
    SCOPED_TRACE("layout " + std::to_string(int(layout)));
    RecorderOptions options;
    options.layout = layout;
    options.backgroundWrites = true;
    options.chunkSeconds = 0.3;  // 3 samples, 240 KiB
    options.fragmentSeconds = 1;
    const std::string recorded = out("large.mp4");
    auto recorder = Recorder::create(recorded, options);
    ASSERT_TRUE(recorder.ok());
    const uint32_t track = *(*recorder)->addMetadata(10);
    std::vector<Bytes> samples;
    for (uint32_t i = 0; i < 40; ++i) {
      Bytes sample(80 * 1024 + i, static_cast<uint8_t>(i));
      sample[i] = 0xFF;
      samples.push_back(sample);
      const SampleTime time{i, 1, 0, true};
      const Status written = i % 2 == 0 ? (*recorder)->write(track, std::move(sample), time)
                                        : (*recorder)->write(track, sample.data(), sample.size(), time);
      ASSERT_TRUE(written.ok()) << written.message();
    }
    ASSERT_TRUE((*recorder)->finish().ok());
    const auto rows = rowsOf(recorded);
    ASSERT_EQ(rows.size(), 1u);
    ASSERT_EQ(rows[0].size(), samples.size());
    for (size_t i = 0; i < samples.size(); ++i) {
      EXPECT_EQ(rows[0][i].bytes, samples[i]) << "sample " << i;
      EXPECT_EQ(rows[0][i].decodeTime, i);
    }
    Mp4File file;
    ASSERT_TRUE(file.open(recorded).ok());
    const auto* stco = dynamic_cast<StcoAtom*>(file.find("moov/trak/mdia/minf/stbl/stco").front());
    ASSERT_NE(stco, nullptr);
    EXPECT_EQ(stco->entries.size(), 16u);  // chunks of 3, 3, 3 and 1 in fragments of 10
  }
}

// The sample entry of each kind of track, as the file holds it.
TEST(RecordTables, SampleEntries) {
  MemoryStream sink;
  auto recorder = Recorder::create(&sink);
  VideoConfig hevc;
  hevc.codec = VideoConfig::Codec::Hevc;
  hevc.record = {1, 2, 3};
  hevc.width = 1920;
  hevc.height = 1080;
  EXPECT_EQ((*recorder)->addVideo(VideoConfig{}, 90000).message(),
            "a video track needs its decoder configuration");
  ASSERT_TRUE((*recorder)->addVideo(hevc, 90000).ok());
  ASSERT_TRUE((*recorder)->addG711(G711Law::ALaw, 8000).ok());
  ASSERT_TRUE((*recorder)->addG711(G711Law::MuLaw, 16000, 2).ok());
  ASSERT_TRUE((*recorder)->addPcm(96000, 6).ok());
  ASSERT_TRUE((*recorder)->addMetadata(1000).ok());
  ASSERT_TRUE((*recorder)->finish().ok());
  const auto sound = [](const char* type, uint16_t channels, uint32_t rate) {
    return ByteWriter::box(type, ByteWriter().u32(0).u32(1).u32(0).u32(0)
                                     .be(channels, 2).be(16, 2).u32(0).u32(rate).bytes);
  };
  const Bytes visual = ByteWriter::box(
      "hvc1", ByteWriter().u32(0).u32(1).append(Bytes(16, 0)).be(1920, 2).be(1080, 2)
                  .u32(0x00480000).u32(0x00480000).u32(0).be(1, 2).append(Bytes(32, 0))
                  .be(0x18, 2).be(0xFFFF, 2).append(ByteWriter::box("hvcC", {1, 2, 3})).bytes);
  const std::vector<Bytes> expected = {
      visual,
      sound("alaw", 1, 8000u << 16),
      sound("ulaw", 2, 16000u << 16),
      sound("sowt", 6, 0),  // 96 kHz does not fit the 16.16 field
      ByteWriter::box("gpmd", ByteWriter().u32(0).u32(1).u32(0).bytes),
  };
  MemoryStream in(sink.data());
  Mp4File file;
  ASSERT_TRUE(file.read(&in).ok());
  const auto stsds = file.find("moov/trak/mdia/minf/stbl/stsd");
  ASSERT_EQ(stsds.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(bytesOf(stsds[i]->children.front()), expected[i]) << i;
  }
}

}  // namespace
