// A whole MP4 file as a tree of typed boxes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "box/atom.h"
#include "box/iostream.h"

// A box that holds only boxes: moov, trak, mdia, minf. Its children are
// typed down to the sample table; everything else stays opaque.
class ContainerAtom : public Atom {
 public:
  explicit ContainerAtom(const AtomHeader& header);
  Atom* ReadChild(IOStream* stream) override;
};

// Media data. The body is never loaded: the box remembers where it lies in
// the stream it was read from and copies it across in bounded blocks when
// it is written, so that stream must outlive the box.
class MdatAtom : public Atom {
 public:
  explicit MdatAtom(const AtomHeader& header);
  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;

  IOStream* source = nullptr;
  uint64_t bodyOffset = 0;
  uint64_t bodyLength = 0;
};

class Mp4File {
 public:
  Mp4File();
  Mp4File(const Mp4File&) = delete;
  Mp4File& operator=(const Mp4File&) = delete;

  // Reads the file at path; it stays open for the media data. 0 or -1.
  int open(const std::string& path);
  // Reads every box of stream, which must outlive this object. 0 or -1.
  int read(IOStream* stream);
  // Writes the tree back. 0 or -1.
  int write(IOStream* out);
  int save(const std::string& path);

  // Every box at a path of types below the top level, e.g.
  // "moov/trak/mdia/minf/stbl".
  std::vector<Atom*> find(const std::string& path);

  // The top-level boxes are its children.
  Atom root;

 private:
  FileStream file_;
  std::string path_;
};
