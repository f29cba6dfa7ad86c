// A whole MP4 file as a tree of typed boxes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "atom.h"
#include "result.h"
#include "stream.h"
#include "../stbl.h"

namespace mp4stbl {

class FileStream;

// A box that holds only boxes: moov, trak, mdia, minf. Its children are
// typed down to the sample table; everything else stays opaque.
class ContainerAtom : public Atom {
 public:
  explicit ContainerAtom(const AtomHeader& header);
  Atom* ReadChild(IOStream* stream) override;
};

// "stsz" with one size for every sample and no table, as writers store PCM
// and other constant-size audio, timecode and one-frame tracks. The body is
// kept as read, so it writes back unchanged; the walk takes the size and
// count from its fields.
class ConstantSizeStszAtom : public UserDefAtom {
 public:
  explicit ConstantSizeStszAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  void describe(FieldSink& sink) const override;

  uint32_t sampleSize = 0;
  uint32_t sampleCount = 0;
};

// The sample descriptions of a file being read: the codings stsd types
// itself, and more read as plain visual or audio entries (AVC and HEVC with
// their parameter sets in the stream, MPEG-4 Part 2, VP9, AV1, Motion JPEG,
// QuickTime PCM, AC-3, MP3, Opus, FLAC, ...), so that their picture size,
// rate and configuration show too. One too short for those fields is kept
// as bytes.
class FileStsdAtom : public StsdAtom {
 public:
  explicit FileStsdAtom(const AtomHeader& header);
  Atom* ReadChild(IOStream* stream) override;
};

// The sample table of a file being read. A constant-size "stsz" is read as
// such; a table that cannot be read is kept as its bytes, with the reason,
// so the file still reads and writes back and only its own track is lost.
class FileStblAtom : public StblAtom {
 public:
  explicit FileStblAtom(const AtomHeader& header);
  Atom* ReadChild(IOStream* stream) override;

  // Why each child kept as bytes could not be read, naming the box.
  std::vector<std::string> unreadable;

 private:
  Atom* readAs(IOStream* stream, long long start, const AtomType* types, size_t count);
};

// Media data. The body is never loaded: the box remembers where it lies in
// the stream it was read from and copies it across in bounded blocks when
// it is written, so that stream must outlive the box.
class MdatAtom : public Atom {
 public:
  explicit MdatAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;

  // A recording cut short: the header claims more bytes than the file
  // holds. It is written back as read, its claim included.
  int Write(IOStream* stream) override;

  IOStream* source = nullptr;
  uint64_t bodyOffset = 0;
  uint64_t bodyLength = 0;
  bool cutShort = false;
};

// Bytes after the last box that are not a box themselves (padding, a
// partial header): kept and written back as they are, with no header.
class TrailingBytesAtom : public MdatAtom {
 public:
  explicit TrailingBytesAtom(const AtomHeader& header);
  int Write(IOStream* stream) override;
};

// A whole file as a tree of boxes. Failures come back as a Status whose
// message is the reason the library logged first.
class Mp4File {
 public:
  Mp4File();
  ~Mp4File();
  Mp4File(const Mp4File&) = delete;
  Mp4File& operator=(const Mp4File&) = delete;

  // Reads the file at path; it stays open for the media data.
  Status open(const std::string& path);
  // Reads every box of stream, which must outlive this object.
  Status read(IOStream* stream);
  // Writes the tree back.
  Status write(IOStream* out);
  // Writes the tree to a new file at path, which appears there only once
  // it is whole (see NewFile): a failure, or a process killed mid-way,
  // leaves no partial file. A file at path is replaced; the file being read,
  // and a path that is not a regular file (a device, a directory), are
  // refused. Messages start with the path.
  Status save(const std::string& path);

  // Whether open() got as far as opening the file.
  bool isOpen() const { return file_ != nullptr; }
  // The file open() read, which the media data is copied from; null
  // before open().
  IOStream* stream() const;
  // The length of the stream read, in bytes.
  uint64_t length() const { return length_; }
  // What was read with a warning: a file cut short, bytes after the boxes.
  const std::vector<std::string>& warnings() const { return warnings_; }

  // Every box at a path of types below the top level, e.g.
  // "moov/trak/mdia/minf/stbl".
  std::vector<Atom*> find(const std::string& path);

  // The top-level boxes are its children.
  Atom root;

 private:
  std::unique_ptr<FileStream> file_;
  Atom* readTail(IOStream* stream, long long start);

  std::string path_;
  uint64_t length_ = 0;
  std::vector<std::string> warnings_;
};

}  // namespace mp4stbl
