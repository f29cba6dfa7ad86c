#include "box/mp4file.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <type_traits>
#include <typeinfo>

#include "box/byte_order.h"
#include "box/edit_boxes.h"
#include "box/file_stream.h"
#include "box/fragment_boxes.h"
#include "box/log.h"
#include "box/movie_boxes.h"
#include "box/new_file.h"
#include "box/table_reason.h"
#include "stbl.h"

namespace mp4stbl {

namespace {

// The path from the top of a file down to the sample table, and the boxes
// of fragments.
constexpr AtomType kFileBoxes[] = {
    {"moov", &makeAtom<ContainerAtom>}, {"trak", &makeAtom<ContainerAtom>},
    {"mdia", &makeAtom<ContainerAtom>}, {"minf", &makeAtom<ContainerAtom>},
    {"stbl", &makeAtom<FileStblAtom>},      {"mdat", &makeAtom<MdatAtom>},
    {"mvhd", &makeAtom<MvhdAtom>},      {"tkhd", &makeAtom<TkhdAtom>},
    {"mdhd", &makeAtom<MdhdAtom>},      {"hdlr", &makeAtom<HdlrAtom>},
    {"edts", &makeAtom<ContainerAtom>}, {"elst", &makeAtom<ElstAtom>},
    {"ftyp", &makeAtom<FtypAtom>},
    // Fragments: the track defaults, then each movie fragment's tracks.
    {"mvex", &makeAtom<ContainerAtom>}, {"mehd", &makeAtom<MehdAtom>},
    {"trex", &makeAtom<TrexAtom>},      {"moof", &makeAtom<ContainerAtom>},
    {"mfhd", &makeAtom<MfhdAtom>},      {"traf", &makeAtom<ContainerAtom>},
    {"tfhd", &makeAtom<TfhdAtom>},      {"tfdt", &makeAtom<TfdtAtom>},
    {"trun", &makeAtom<TrunAtom>},      {"mfra", &makeAtom<ContainerAtom>},
};

// A box of no type above, larger than this (a big free or skip box, a
// vendor's data), is copied from the file when written, like mdat, and
// never loaded: memory stays that of the tables.
constexpr uint64_t kLoadedBoxLimit = 1u << 20;

bool isTyped(const std::string& type) {
  return std::any_of(std::begin(kFileBoxes), std::end(kFileBoxes),
                     [&](const AtomType& typed) { return type == typed.type; });
}

Atom* readFileBox(IOStream* stream) {
  if (stream != nullptr) {
    // The header is peeked at quietly; reading it for real logs its faults.
    const long long start = stream->getOffset();
    uint32_t size = 0;
    char type[5] = {};
    unsigned long long large = 0;
    const bool copied =
        stream->readBe32(&size) == 4 &&
        stream->readBytes(reinterpret_cast<unsigned char*>(type), 4) == 4 &&
        (size != 1 || stream->readBe64(&large) == 8) && !isTyped(type) &&
        (size == 0 || (size == 1 ? large : size) > kLoadedBoxLimit);
    if (stream->seek(start) != 0) return nullptr;
    const AtomType asMedia[] = {{type, &makeAtom<MdatAtom>}};
    if (copied) return ReadTypedChild(stream, asMedia, std::size(asMedia));
  }
  return ReadTypedChild(stream, kFileBoxes, std::size(kFileBoxes));
}

// Version and flags, the default size and the sample count.
constexpr size_t kStszFields = 12;

}  // namespace

ContainerAtom::ContainerAtom(const AtomHeader& from) : Atom(from) {}

Atom* ContainerAtom::ReadChild(IOStream* stream) { return readFileBox(stream); }

ConstantSizeStszAtom::ConstantSizeStszAtom(const AtomHeader& from) : UserDefAtom(from) {}

int ConstantSizeStszAtom::readData(IOStream* stream) {
  if (UserDefAtom::readData(stream) != 0) return -1;
  if (body.size() < kStszFields) {
    QX_LOG_Printf("MP4", 3, "stsz at offset %llu: body of %zu bytes\n",
                  static_cast<unsigned long long>(header.headerOffset), body.size());
    return -1;
  }
  sampleSize = byte_order::load<uint32_t>(body.data() + 4);
  sampleCount = byte_order::load<uint32_t>(body.data() + 8);
  return 0;
}

void ConstantSizeStszAtom::describe(FieldSink& sink) const {
  sink.field("version", body[0]);
  sink.field("flags", byte_order::load<uint32_t>(body.data()) & 0xFFFFFFu);
  sink.field("sample_size", sampleSize);
  sink.field("sample_count", sampleCount);
}

FileStblAtom::FileStblAtom(const AtomHeader& from) : StblAtom(from) {}

namespace {

constexpr AtomType kConstantSizeStsz[] = {{"stsz", &makeAtom<ConstantSizeStszAtom>}};

// The sample table's children beside the tables the walk needs.
constexpr AtomType kSampleTableExtras[] = {
    {"stsd", &makeAtom<FileStsdAtom>},
    {"ctts", &makeAtom<CttsAtom>},
    {"sdtp", &makeAtom<SdtpAtom>},
    {"sgpd", &makeAtom<SgpdAtom>},
    {"sbgp", &makeAtom<SbgpAtom>},
};

// Sample entries that stsd keeps as bytes and a file reads as plain
// visual or audio entries.
constexpr AtomType kMoreSampleEntries[] = {
    {"avc3", &makeAtom<VisualSampleEntry>}, {"hev1", &makeAtom<VisualSampleEntry>},
    {"avc2", &makeAtom<VisualSampleEntry>}, {"avc4", &makeAtom<VisualSampleEntry>},
    {"dvh1", &makeAtom<VisualSampleEntry>}, {"dvhe", &makeAtom<VisualSampleEntry>},
    {"mp4v", &makeAtom<VisualSampleEntry>}, {"vp08", &makeAtom<VisualSampleEntry>},
    {"vp09", &makeAtom<VisualSampleEntry>}, {"av01", &makeAtom<VisualSampleEntry>},
    {"jpeg", &makeAtom<VisualSampleEntry>}, {"mjpa", &makeAtom<VisualSampleEntry>},
    {"mjpb", &makeAtom<VisualSampleEntry>}, {"ap4h", &makeAtom<VisualSampleEntry>},
    {"ap4x", &makeAtom<VisualSampleEntry>}, {"s263", &makeAtom<VisualSampleEntry>},
    {"twos", &makeAtom<AudioSampleEntry>},  {"sowt", &makeAtom<AudioSampleEntry>},
    {"lpcm", &makeAtom<AudioSampleEntry>},  {"in24", &makeAtom<AudioSampleEntry>},
    {"fl32", &makeAtom<AudioSampleEntry>},  {"ac-3", &makeAtom<AudioSampleEntry>},
    {"ec-3", &makeAtom<AudioSampleEntry>},  {".mp3", &makeAtom<AudioSampleEntry>},
    {"Opus", &makeAtom<AudioSampleEntry>},  {"fLaC", &makeAtom<AudioSampleEntry>},
    {"alac", &makeAtom<AudioSampleEntry>},  {"samr", &makeAtom<AudioSampleEntry>},
    {"sawb", &makeAtom<AudioSampleEntry>},
};

// The entry of `types` for the box at the stream's position; null for any
// other box. Leaves the stream where it was.
template <size_t N>
const AtomType* typeAt(IOStream* stream, long long start, const AtomType (&types)[N]) {
  AtomHeader header;
  const bool read = header.Read(stream) == 0;
  if (stream->seek(start) != 0 || !read) return nullptr;
  for (const AtomType& type : types) {
    if (header.type == type.type) return &type;
  }
  return nullptr;
}

const AtomType* extraAt(IOStream* stream, long long start) {
  return typeAt(stream, start, kSampleTableExtras);
}

// Whether the box at the stream's position is an "stsz" whose samples all
// have one size and no table follows. Leaves the stream where it was.
bool isConstantSizeStsz(IOStream* stream, long long start) {
  AtomHeader header;
  uint32_t versionFlags = 0, sampleSize = 0, sampleCount = 0;
  const bool constant = header.Read(stream) == 0 && header.type == "stsz" &&
                        stream->readBe32(&versionFlags) == 4 &&
                        stream->readBe32(&sampleSize) == 4 &&
                        stream->readBe32(&sampleCount) == 4 && sampleSize != 0 &&
                        sampleCount != 0;
  return stream->seek(start) == 0 && constant;
}

}  // namespace

Atom* FileStblAtom::readAs(IOStream* stream, long long start, const AtomType* types,
                           size_t count) {
  if (stream->seek(start) != 0) return nullptr;
  return ReadTypedChild(stream, types, count);
}

Atom* FileStblAtom::ReadChild(IOStream* stream) {
  if (stream == nullptr) return StblAtom::ReadChild(stream);
  const long long start = stream->getOffset();
  if (isConstantSizeStsz(stream, start)) {
    return readAs(stream, start, kConstantSizeStsz, std::size(kConstantSizeStsz));
  }
  FailureNote note;
  const AtomType* extra = extraAt(stream, start);
  Atom* child =
      extra != nullptr ? readAs(stream, start, extra, 1) : StblAtom::ReadChild(stream);
  if (child != nullptr) return child;
  // Kept as bytes when its header at least holds: the stbl stays whole.
  Atom* kept = readAs(stream, start, nullptr, 0);
  if (const auto* bytes = dynamic_cast<const UserDefAtom*>(kept)) {
    unreadable.push_back(explainUnreadable(*bytes, note.text()));
  }
  return kept;
}

FileStsdAtom::FileStsdAtom(const AtomHeader& from) : StsdAtom(from) {}

Atom* FileStsdAtom::ReadChild(IOStream* stream) {
  if (stream == nullptr) return StsdAtom::ReadChild(stream);
  const long long start = stream->getOffset();
  const AtomType* more = typeAt(stream, start, kMoreSampleEntries);
  if (more == nullptr) return StsdAtom::ReadChild(stream);
  Atom* entry = ReadTypedChild(stream, more, 1);
  // An entry too short for the fields of its kind is kept as bytes, as an
  // entry of a kind not known here is.
  if (entry == nullptr && stream->seek(start) == 0) return StsdAtom::ReadChild(stream);
  return entry;
}

MdatAtom::MdatAtom(const AtomHeader& from) : Atom(from) {}

int MdatAtom::readData(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("readData");
    return -1;
  }
  // The window handed to a body lives only while the box is read; keep the
  // stream beneath it.
  auto* window = dynamic_cast<BoundedStream*>(stream);
  source = window != nullptr ? window->base() : stream;
  const long long offset = stream->getOffset();
  const long long end = stream->getLength();
  if (end < offset) {
    QX_LOG_Printf("MP4", 3, "mdat at offset %lld: length of its stream unknown\n", offset);
    return -1;
  }
  bodyOffset = static_cast<uint64_t>(offset);
  bodyLength = static_cast<uint64_t>(end - offset);
  return 0;
}

int MdatAtom::writeData(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("writeData");
    return -1;
  }
  if (bodyLength == 0) return 0;
  if (source == nullptr || source->seek(static_cast<long long>(bodyOffset)) != 0) {
    QX_LOG_Printf("MP4", 3, "mdat body at offset %llu cannot be reached\n",
                  static_cast<unsigned long long>(bodyOffset));
    return -1;
  }
  return copyRange(source, bodyOffset, bodyLength, stream);
}

int MdatAtom::Write(IOStream* stream) {
  if (!cutShort) return Atom::Write(stream);
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("Write");
    return -1;
  }
  // The header as read: its size still claims the bytes that were lost.
  const bool written =
      stream->writeBe32(header.size) == 4 &&
      stream->writeBytes(reinterpret_cast<const unsigned char*>("mdat"), 4) == 4 &&
      (!header.isLarge() || stream->write64(header.largeSize) == 8);
  if (!written) {
    logStreamFailure(stream, "writeBe32");
    return -1;
  }
  return writeData(stream);
}

TrailingBytesAtom::TrailingBytesAtom(const AtomHeader& from) : MdatAtom(from) {}

int TrailingBytesAtom::Write(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("Write");
    return -1;
  }
  return writeData(stream);
}

Mp4File::Mp4File() : root(AtomHeader()) {}

Mp4File::~Mp4File() = default;

namespace {

// The status of a library call that logged its reason on failure.
Status statusOf(int result, const FailureNote& note, const char* otherwise) {
  if (result == 0) return Status();
  return Status::failure(note.text().empty() ? otherwise : note.text());
}

// A box header read straight from the stream, for the scan below.
struct RawBox {
  uint64_t start = 0;
  uint64_t end = 0;
  uint64_t body = 0;
  std::string type;
};

bool rawBoxAt(IOStream* stream, uint64_t start, uint64_t limit, RawBox* box) {
  uint32_t size = 0;
  unsigned long long large = 0;
  unsigned char type[4] = {};
  if (limit - start < 8 || stream->seek(static_cast<long long>(start)) != 0 ||
      stream->readBe32(&size) != 4 || stream->readBytes(type, 4) != 4 ||
      (size == 1 && stream->readBe64(&large) != 8)) {
    return false;
  }
  const uint64_t length = size == 1 ? large : size == 0 ? limit - start : size;
  box->start = start;
  box->body = start + (size == 1 ? 16 : 8);
  box->end = start + length;
  box->type.assign(reinterpret_cast<char*>(type), 4);
  return length >= box->body - start && length <= limit - start;
}

// The children of [body, end) one after the other, while they fit.
template <class Visit>
void forEachRawChild(IOStream* stream, uint64_t body, uint64_t end, Visit visit) {
  RawBox child;
  for (uint64_t at = body; rawBoxAt(stream, at, end, &child) && child.end > at; at = child.end) {
    if (!visit(child)) return;
  }
}

// "track 2 (soun)" for the trak that holds `position`, from its tkhd and
// hdlr read straight from the stream; empty when no trak holds it. A file
// that cannot be read as a tree still shows which track its fault is in.
std::string trackAt(IOStream* stream, uint64_t position) {
  const auto length = static_cast<uint64_t>(stream->getLength());
  std::string found;
  forEachRawChild(stream, 0, length, [&](const RawBox& top) {
    if (top.type != "moov") return true;
    forEachRawChild(stream, top.body, top.end, [&](const RawBox& trak) {
      if (trak.type != "trak" || position < trak.start || position >= trak.end) return true;
      uint32_t id = 0;
      unsigned char handler[4] = {'?', '?', '?', '?'};
      forEachRawChild(stream, trak.body, trak.end, [&](const RawBox& child) {
        uint8_t version = 0;
        if (child.type == "tkhd" && stream->seek(static_cast<long long>(child.body)) == 0 &&
            stream->readByte(&version) == 1) {
          stream->seek(static_cast<long long>(child.body + (version == 1 ? 20 : 12)));
          stream->readBe32(&id);
        }
        if (child.type != "mdia") return true;
        forEachRawChild(stream, child.body, child.end, [&](const RawBox& box) {
          if (box.type == "hdlr" && stream->seek(static_cast<long long>(box.body + 8)) == 0) {
            stream->readBytes(handler, 4);
          }
          return true;
        });
        return true;
      });
      found = "track " + std::to_string(id) + " (" +
              std::string(reinterpret_cast<char*>(handler), 4) + ")";
      return false;
    });
    return false;
  });
  return found;
}

Atom* childNamed(const Atom* parent, const char* type) {
  if (parent == nullptr) return nullptr;
  for (Atom* child : parent->children) {
    if (child->header.type == type) return child;
  }
  return nullptr;
}

// Walks an entry's fields over its body in memory, quietly: whether the
// body holds them all (the audio entry's fields depend on its version).
class FieldFit {
 public:
  explicit FieldFit(const std::vector<unsigned char>& bytes) : bytes_(bytes) {}
  template <class Value>
  void operator()(Value& value) {
    static_assert(std::is_unsigned_v<Value>, "the entries' fields are unsigned");
    if (!take(sizeof value)) return;
    value = 0;
    for (size_t i = at_ - sizeof value; i < at_; ++i) {
      value = static_cast<Value>(value << 8 | bytes_[i]);
    }
  }
  template <size_t N>
  void operator()(std::array<uint8_t, N>&) {
    take(N);
  }
  bool fits() const { return fits_; }

 private:
  bool take(size_t count) {
    fits_ = fits_ && bytes_.size() - at_ >= count;
    if (fits_) at_ += count;
    return fits_;
  }
  const std::vector<unsigned char>& bytes_;
  size_t at_ = 0;
  bool fits_ = true;
};

template <class Entry>
bool holdsFields(const UserDefAtom& kept) {
  Entry entry(kept.header);
  FieldFit fit(kept.body);
  entry.fields(fit);
  return fit.fits();
}

// The plain entry of a track's handler, and whether an entry kept as
// bytes holds its fields; null for a handler whose entries have no common
// fields.
struct PlainEntry {
  AtomMaker make;
  bool (*holds)(const UserDefAtom& kept);
};

PlainEntry plainEntryFor(const Atom* mdia) {
  for (const Atom* child : mdia->children) {
    const auto* hdlr = dynamic_cast<const HdlrAtom*>(child);
    if (hdlr == nullptr) continue;
    if (hdlr->handlerType() == "vide") {
      return {&makeAtom<VisualSampleEntry>, &holdsFields<VisualSampleEntry>};
    }
    if (hdlr->handlerType() == "soun") {
      return {&makeAtom<AudioSampleEntry>, &holdsFields<AudioSampleEntry>};
    }
    break;
  }
  return {nullptr, nullptr};
}

// Every sample entry of a video or sound track has that kind's fields,
// whatever its coding (DNxHR "AVdh", "m2v1", "v210", "ima4", ...): an
// entry of a type not known here, kept as bytes, is read again as a plain
// visual or audio entry, from where it lies in the stream. One too short
// for the fields stays bytes, without a word in the log.
void readEntriesByHandler(IOStream* stream, Atom& root) {
  for (const Atom* moov : root.children) {
    if (moov->header.type != "moov") continue;
    for (const Atom* trak : moov->children) {
      const Atom* mdia = trak->header.type == "trak" ? childNamed(trak, "mdia") : nullptr;
      const PlainEntry plain =
          mdia != nullptr ? plainEntryFor(mdia) : PlainEntry{nullptr, nullptr};
      Atom* stsd = childNamed(childNamed(childNamed(mdia, "minf"), "stbl"), "stsd");
      if (plain.make == nullptr || stsd == nullptr) continue;
      for (Atom*& entry : stsd->children) {
        if (typeid(*entry) != typeid(UserDefAtom)) continue;
        const auto& kept = static_cast<const UserDefAtom&>(*entry);
        if (!plain.holds(kept)) continue;
        // Only an entry kept whole: one whose header claims more than its
        // stsd holds was kept cut short, and read again from the stream it
        // would take the bytes past its parent.
        const auto at = static_cast<long long>(entry->header.headerOffset);
        AtomHeader claimed;
        if (stream->seek(at) != 0 || claimed.Read(stream) != 0 ||
            claimed.boxLength() != claimed.headerLength() + kept.body.size()) {
          continue;
        }
        const AtomType types[] = {{entry->header.type.c_str(), plain.make}};
        if (stream->seek(at) != 0) continue;
        Atom* read = ReadTypedChild(stream, types, std::size(types));
        if (read == nullptr) continue;
        delete entry;
        entry = read;
      }
    }
  }
}

}  // namespace

Status Mp4File::open(const std::string& path) {
  FailureNote note;
  auto file = std::make_unique<FileStream>();
  // The caller knows the path; the system's reason follows.
  if (file->open(path, FileStream::Mode::Read) != 0) {
    const std::string reason = systemReason(file->error(), "no reason given");
    return Status::failure("cannot open the file: " + reason);
  }
  file_ = std::move(file);
  path_ = path;
  return read(file_.get());
}

Status Mp4File::read(IOStream* stream) {
  FailureNote note;
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("read");
    return statusOf(-1, note, "no stream");
  }
  const long long length = stream->getLength();
  if (length < 0) return Status::failure("a file is read from a stream of known length");
  length_ = static_cast<uint64_t>(length);
  while (stream->getOffset() < length) {
    const long long start = stream->getOffset();
    Atom* box = readFileBox(stream);
    const auto failedAt = static_cast<uint64_t>(stream->getOffset());
    // Past the first box, a header that does not fit the file is the end of
    // a recording cut short, or bytes that are not a box.
    if (box == nullptr && !root.children.empty()) {
      box = readTail(stream, start);
      if (box != nullptr && stream->seek(length) != 0) {
        delete box;
        box = nullptr;
      }
    }
    if (box == nullptr) {
      const std::string why = statusOf(-1, note, "a box cannot be read").message();
      const std::string track = trackAt(stream, failedAt);
      return Status::failure(track.empty() ? why : track + ": " + why);
    }
    root.children.push_back(box);
  }
  readEntriesByHandler(stream, root);
  return Status();
}

Atom* Mp4File::readTail(IOStream* stream, long long start) {
  const long long length = stream->getLength();
  uint32_t size32 = 0;
  unsigned char type[4] = {};
  unsigned long long large = 0;
  if (stream->seek(start) != 0) return nullptr;
  const bool header = stream->readBe32(&size32) == 4 && stream->readBytes(type, 4) == 4 &&
                      (size32 != 1 || stream->readBe64(&large) == 8);
  const bool isMdat = header && std::string(reinterpret_cast<char*>(type), 4) == "mdat";
  const unsigned long long claimed = size32 == 1 ? large : size32;
  if (isMdat && claimed > static_cast<unsigned long long>(length - start)) {
    AtomHeader cut;
    cut.type = "mdat";
    cut.size = size32;
    cut.largeSize = large;
    cut.headerOffset = static_cast<uint64_t>(start);
    auto* mdat = new (std::nothrow) MdatAtom(cut);
    if (mdat == nullptr || mdat->readData(stream) != 0) {
      delete mdat;
      return nullptr;
    }
    mdat->cutShort = true;
    warnings_.push_back("mdat at offset " + std::to_string(start) + " claims " +
                        std::to_string(claimed) + " bytes, the file holds " +
                        std::to_string(length - start) + ": it was cut short");
    return mdat;
  }
  // A box that fits the file is not a cut: its content failed.
  const auto remaining = static_cast<unsigned long long>(length - start);
  const bool fits = header && (size32 == 0 || (claimed >= 8 && claimed <= remaining));
  if (fits) return nullptr;
  AtomHeader rest;
  rest.type = "trailing bytes";
  rest.headerOffset = static_cast<uint64_t>(start);
  rest.largeSize = static_cast<uint64_t>(length - start);
  auto* tail = new (std::nothrow) TrailingBytesAtom(rest);
  if (tail == nullptr || stream->seek(start) != 0 || tail->readData(stream) != 0) {
    delete tail;
    return nullptr;
  }
  warnings_.push_back(std::to_string(length - start) + " bytes at offset " +
                      std::to_string(start) + " are not a box: kept as they are");
  return tail;
}

Status Mp4File::write(IOStream* out) {
  FailureNote note;
  if (out == nullptr) {
    QX_LOG_NULL_PARAM("write");
    return statusOf(-1, note, "no stream");
  }
  return statusOf(root.writeChildren(out), note, "cannot be written");
}

IOStream* Mp4File::stream() const { return file_.get(); }

Status Mp4File::save(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code ignored;
  if (!path_.empty() && (path == path_ || fs::equivalent(path, path_, ignored))) {
    return Status::failure(path + ": cannot be written over while it is read");
  }
  // A device, a pipe or a directory is never replaced by a file.
  const fs::file_status there = fs::status(path, ignored);
  if (fs::exists(there) && !fs::is_regular_file(there)) {
    return Status::failure(path + ": is not a regular file");
  }
  NewFile target(path);
  FileStream out;
  Status opened = target.open(out);
  if (!opened.ok()) return Status::failure(path + ": " + opened.message());
  Status written = write(&out);
  if (written.ok() && out.close() != 0) {
    written = Status::failure("offset:" + std::to_string(out.getOffset()) + ", close fail");
  }
  if (!written.ok()) {
    // The system's reason first, then what the writer was doing.
    const std::string detail = written.message();
    const std::string reason = systemReason(out.error(), detail);
    return Status::failure(path + ": cannot be written: " + reason +
                           (out.error() != 0 && !detail.empty() ? " (detail: " + detail + ")" : ""));
  }
  Status kept = target.keep();
  if (!kept.ok()) return Status::failure(path + ": " + kept.message());
  return Status();
}

std::vector<Atom*> Mp4File::find(const std::string& path) {
  std::vector<Atom*> level{&root};
  size_t from = 0;
  while (from <= path.size() && !level.empty()) {
    const size_t slash = std::min(path.find('/', from), path.size());
    const std::string type = path.substr(from, slash - from);
    std::vector<Atom*> next;
    for (Atom* parent : level) {
      for (Atom* child : parent->children) {
        if (child->header.type == type) next.push_back(child);
      }
    }
    level = std::move(next);
    from = slash + 1;
  }
  return level;
}

}  // namespace mp4stbl
