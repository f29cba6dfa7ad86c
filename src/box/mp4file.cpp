#include "box/mp4file.h"

#include <algorithm>
#include <iterator>

#include "box/log.h"
#include "box/movie_boxes.h"
#include "stbl.h"

namespace {

// The path from the top of a file down to the sample table.
constexpr AtomType kFileBoxes[] = {
    {"moov", &makeAtom<ContainerAtom>}, {"trak", &makeAtom<ContainerAtom>},
    {"mdia", &makeAtom<ContainerAtom>}, {"minf", &makeAtom<ContainerAtom>},
    {"stbl", &makeAtom<StblAtom>},      {"mdat", &makeAtom<MdatAtom>},
    {"mvhd", &makeAtom<MvhdAtom>},      {"tkhd", &makeAtom<TkhdAtom>},
    {"mdhd", &makeAtom<MdhdAtom>},      {"hdlr", &makeAtom<HdlrAtom>},
};

Atom* readFileBox(IOStream* stream) {
  return ReadTypedChild(stream, kFileBoxes, std::size(kFileBoxes));
}

constexpr unsigned kCopyBlock = 1u << 20;

}  // namespace

ContainerAtom::ContainerAtom(const AtomHeader& from) : Atom(from) {}

Atom* ContainerAtom::ReadChild(IOStream* stream) { return readFileBox(stream); }

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
  std::vector<unsigned char> block(std::min<uint64_t>(bodyLength, kCopyBlock));
  for (uint64_t left = bodyLength; left > 0;) {
    const unsigned piece = static_cast<unsigned>(std::min<uint64_t>(left, block.size()));
    if (static_cast<unsigned>(source->readBytes(block.data(), piece)) != piece) {
      logStreamFailure(source, "readBytes");
      return -1;
    }
    if (static_cast<unsigned>(stream->writeBytes(block.data(), piece)) != piece) {
      logStreamFailure(stream, "writeBytes");
      return -1;
    }
    left -= piece;
  }
  return 0;
}

Mp4File::Mp4File() : root(AtomHeader()) {}

int Mp4File::open(const std::string& path) {
  if (file_.open(path, FileStream::Mode::Read) != 0) return -1;
  path_ = path;
  return read(&file_);
}

int Mp4File::read(IOStream* stream) {
  if (stream == nullptr) {
    QX_LOG_NULL_PARAM("read");
    return -1;
  }
  if (stream->getLength() < 0) {
    QX_LOG_Printf("MP4", 3, "a file is read from a stream of known length\n");
    return -1;
  }
  while (stream->getOffset() < stream->getLength()) {
    Atom* box = readFileBox(stream);
    if (box == nullptr) return -1;
    root.children.push_back(box);
  }
  return 0;
}

int Mp4File::write(IOStream* out) {
  if (out == nullptr) {
    QX_LOG_NULL_PARAM("write");
    return -1;
  }
  return root.writeChildren(out);
}

int Mp4File::save(const std::string& path) {
  if (!path_.empty() && path == path_) {
    QX_LOG_Printf("MP4", 3, "%s cannot be written over while it is read\n", path.c_str());
    return -1;
  }
  FileStream out;
  if (out.open(path, FileStream::Mode::Write) != 0) return -1;
  if (write(&out) != 0) return -1;
  return out.close();
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
