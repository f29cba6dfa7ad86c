// The two child factories on arbitrary bytes: the first byte picks
// StblAtom::ReadChild (even) or StsdAtom::ReadChild (odd), the rest is the
// stream. Every child read is written back, and the written bytes must read
// through the same factory to a child that writes the very same bytes.
#include <cstddef>
#include <cstdint>
#include <vector>

#include <mp4stbl/box/stream.h>
#include <mp4stbl/box/log.h>
#include <mp4stbl/stbl.h>

using namespace mp4stbl;

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

void quiet(const char*, int, const char*) {}

std::vector<unsigned char> written(Atom* child) {
  MemoryStream out;
  check(child->Write(&out) == 0);
  return out.data();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = (mp4stbl::setLogSink({&quiet, 0}), true);
  (void)silenced;
  if (size == 0) return 0;

  StblAtom stbl{AtomHeader()};
  StsdAtom stsd{AtomHeader()};
  Atom& factory = data[0] % 2 == 0 ? static_cast<Atom&>(stbl) : static_cast<Atom&>(stsd);
  MemoryStream input(std::vector<unsigned char>(data + 1, data + size));
  // Children one after another, as a parent reads them, until one fails.
  for (int read = 0; read < 64 && input.getOffset() < input.getLength(); ++read) {
    const long long before = input.getOffset();
    Atom* child = factory.ReadChild(&input);
    if (child == nullptr) break;
    check(input.getOffset() > before);
    const std::vector<unsigned char> first = written(child);
    delete child;

    MemoryStream again(first);
    Atom* reread = factory.ReadChild(&again);
    check(reread != nullptr && again.getOffset() == again.getLength());
    check(written(reread) == first);
    delete reread;
  }
  return 0;
}
