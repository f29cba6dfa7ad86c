// The box tree: headers, the box base class and the opaque box.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <new>
#include <string>
#include <vector>

#include "stream.h"

namespace mp4stbl {

// A box header as read from a stream.
//   size 2..N    : the box's length in 32 bits (8-byte header)
//   size 1       : largeSize holds the length (16-byte header)
//   size 0       : the box runs to the end of its enclosing space; Read
//                  resolves that length into largeSize
// headerOffset is where the header starts.
class AtomHeader {
 public:
  virtual ~AtomHeader() = default;

  // 0, or -1 with a log line when the header cannot be read or its size
  // cannot hold the header itself or passes the end of the stream.
  int Read(IOStream* stream);

  bool isLarge() const { return size == 1; }
  bool runsToEnd() const { return size == 0 && largeSize != 0; }
  unsigned headerLength() const { return isLarge() ? 16u : 8u; }
  // The box's length in bytes, header included, as the header gives it.
  uint64_t boxLength() const { return size > 1 ? size : largeSize; }

  uint64_t largeSize = 0;
  uint32_t size = 0;
  std::string type = "0000";
  uint64_t headerOffset = 0;
};

// What a box shows of itself to a dump: its fields by name, then the first
// rows of its table, each row its fields in file order.
class FieldSink {
 public:
  virtual ~FieldSink() = default;
  virtual void field(const char* name, uint64_t value) = 0;
  // A field shown as text (a brand, a name); a sink of numbers skips it.
  virtual void text(const char* name, const std::string& value) {
    static_cast<void>(name), static_cast<void>(value);
  }
  // A table of `count` records follows; returns how many rows the sink
  // takes, and the table offers no more.
  virtual size_t table(size_t count) = 0;
  virtual void row(const uint64_t* values, unsigned count) = 0;
  // A row whose fields may be negative; a sink that shows only unsigned
  // numbers gets them in two's complement.
  virtual void signedRow(const int64_t* values, unsigned count);
};

// The base of every box. A box owns its children and deletes them.
class Atom {
 public:
  explicit Atom(const AtomHeader& header);
  Atom(const Atom&) = delete;
  Atom& operator=(const Atom&) = delete;

  virtual ~Atom();
  // Writes header, body and children; the size field written is the number
  // of bytes actually written. 0 or -1.
  virtual int Write(IOStream* stream);
  // Reads a whole box (header and content) at the stream's position.
  virtual int Read(IOStream* stream);
  // One indented text line per box, children below their parent.
  virtual int Dump(IOStream* stream, unsigned indent);
  virtual int readData(IOStream* stream);
  virtual int writeData(IOStream* stream);
  virtual Atom* ReadChild(IOStream* stream);
  virtual int writeChildren(IOStream* stream);
  // Hands the fields of the box's body to `sink`; an opaque box has none.
  virtual void describe(FieldSink& sink) const;

  // Reads the body and children of a box whose header was just read, never
  // past the box's end, and leaves the stream at that end. 0 or -1.
  int ReadContent(IOStream* stream);
  // Grows the box's recorded size after its body grew in memory: the 64-bit
  // size of a box with a large header, else the 32-bit one, which wraps like
  // the field it mirrors (Write never trusts either).
  int IncreaseSize(unsigned bytes) {
    if (header.isLarge()) {
      header.largeSize += bytes;
    } else {
      header.size += bytes;
    }
    return 0;
  }

  AtomHeader header;
  uint32_t auxWord = 0;
  std::list<Atom*> children;

  // Containers nested deeper than this are refused rather than recursed into.
  static constexpr unsigned kMaxDepth = 64;
};

// A box kept as opaque bytes and written back unchanged.
class UserDefAtom : public Atom {
 public:
  explicit UserDefAtom(const AtomHeader& header);

  int readData(IOStream* stream) override;
  int writeData(IOStream* stream) override;

  std::vector<unsigned char> body;
};

// Raw bytes of a body: everything from the stream's position to the end of
// the box's window, and their writer, in pieces. Both log a failure and
// return -1.
int readRestOfBox(IOStream* stream, const AtomHeader& box, std::vector<unsigned char>* bytes);
int writeRawBytes(IOStream* stream, const std::vector<unsigned char>& bytes);

// Child factories: a table maps box types to makers, and ReadTypedChild
// reads one child through it.
using AtomMaker = Atom* (*)(const AtomHeader& header);

struct AtomType {
  const char* type;
  AtomMaker make;
};

// A maker for box classes built from a header; null when memory runs out.
template <class Box>
Atom* makeAtom(const AtomHeader& header) {
  AtomHeader copy(header);
  return new (std::nothrow) Box(copy);
}

// Reads one child box at the stream's position: its header, a box made by
// the first entry of `types` whose type matches exactly (an opaque
// UserDefAtom when none does) and its content. Returns the child, or null
// when the header cannot be read, memory runs out ("new %s atom no memory")
// or the content fails (the half-read child is deleted).
Atom* ReadTypedChild(IOStream* stream, const AtomType* types, size_t count);

}  // namespace mp4stbl
