// make_big_file IN OUT GAP: writes OUT as the file IN with a free box of GAP
// bytes, left as a hole, before its media data and every stco turned into a
// co64 that follows the media, so a small real file becomes one past 4 GiB
// that takes a few kilobytes of disk (scripts/verify_big.sh).
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include <mp4stbl/box/file_stream.h>
#include <mp4stbl/box/mp4file.h>
#include <mp4stbl/stbl.h>
#include "support/co64.h"

using namespace mp4stbl;

namespace {

// A free box with a 64-bit size whose body is a hole in the file.
class SparseFree : public Atom {
 public:
  explicit SparseFree(uint64_t length) : Atom(AtomHeader()), length_(length) {
    header.type = "free";
    header.size = 1;
  }
  int writeData(IOStream* stream) override {
    const long long end = stream->getOffset() + static_cast<long long>(length_) - 16;
    return stream->seek(end);
  }

 private:
  uint64_t length_;
};

int fail(const char* what) {
  std::fprintf(stderr, "make_big_file: %s\n", what);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return fail("usage: make_big_file IN OUT GAP");
  const uint64_t gap = std::strtoull(argv[3], nullptr, 10);
  if (gap < 16) return fail("GAP is at least 16 bytes");
  Mp4File file;
  if (!file.open(argv[1]).ok()) return fail("IN cannot be read");
  widenChunkOffsets(file, gap);
  auto& top = file.root.children;
  auto mdat = top.begin();
  while (mdat != top.end() && (*mdat)->header.type != "mdat") ++mdat;
  if (mdat == top.end()) return fail("IN has no mdat");
  top.insert(mdat, new SparseFree(gap));
  FileStream out;
  if (out.open(argv[2], FileStream::Mode::Write) != 0) return fail("OUT cannot be opened");
  if (!file.write(&out).ok() || out.close() != 0) return fail("OUT cannot be written");
  return 0;
}
