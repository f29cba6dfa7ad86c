// The media data of an edited file: which byte ranges of which source go
// where, and the box that copies them.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "../box/atom.h"
#include "../box/result.h"

namespace mp4stbl::edit {

// Source byte ranges laid out one after the other in the new media data.
// Ranges of one source are kept in their file order; a small gap between
// two of them keeps its length, so that interleaved tracks keep their
// distances and page offsets, but is written as zeros: bytes of the source
// that no kept sample holds (what a trim cut away) never reach the new
// file. A large block lands at the same offset within a page as in its
// source, so that a file system that shares blocks can share its pages, and
// its first whole page lands on a 64 KiB boundary of the new file, where
// the kernel's copy fills whole large folios (15% faster on ext4 here);
// zero bytes pad the gap. A range may carry a prefix, bytes that the source
// does not hold and that are written just before it (parameter sets carried
// in band at a clip's first sample).
class Layout {
 public:
  struct Block {
    size_t source = 0;
    uint64_t from = 0;    // in the source
    uint64_t length = 0;
    uint64_t out = 0;     // from the start of the new media data: its prefix, then its bytes
    uint64_t prefix = 0;  // length of its prefix
    size_t prefixIndex = 0;
  };

  // A range that must be copied. Sources are laid out in the order of
  // their numbers.
  void add(size_t source, uint64_t offset, uint64_t length);
  // A range whose new copy starts with `prefix`; it is never joined to the
  // range before it.
  void add(size_t source, uint64_t offset, uint64_t length, std::vector<uint8_t> prefix);
  // Sorts and joins the ranges into blocks; call once, after the last add.
  void finish();
  // Places the blocks for media data that starts at file offset `start`.
  void place(uint64_t start);
  // Where a source byte lands, from the start of the new media data. Only
  // for bytes inside a range that was added; the first byte of a range with
  // a prefix lands where its prefix starts.
  uint64_t map(size_t source, uint64_t offset) const;
  const std::vector<uint8_t>& prefixOf(const Block& block) const {
    return prefixes_[block.prefixIndex];
  }

  const std::vector<Block>& blocks() const { return blocks_; }
  uint64_t length() const { return length_; }
  uint64_t copied() const { return copied_; }  // the length less the padding
  // The most the length can be, wherever the media data starts.
  uint64_t longest() const { return copied_ + gaps_ + (kAlign - 1) * blocks_.size(); }

  // The largest gap whose length is kept (as zeros) rather than dropped.
  static constexpr uint64_t kMaxGap = 64 * 1024;
  static constexpr uint64_t kPage = 4096;
  static constexpr uint64_t kAlign = 64 * 1024;
  // Blocks from this size on are aligned; the padding is then under 0.4%.
  static constexpr uint64_t kAligned = 16 << 20;

 private:
  // Whether `block` keeps its distance to `before`, the block ahead of it.
  static bool keepsDistance(const Block& before, const Block& block);

  std::vector<Block> blocks_;
  std::vector<std::vector<uint8_t>> prefixes_{{}};  // 0: none
  uint64_t copied_ = 0;
  uint64_t gaps_ = 0;
  uint64_t length_ = 0;
};

// "mdat" written from a layout: the blocks are read from their sources and
// written in pieces of bounded size, never held whole.
class CopyMdatAtom : public Atom {
 public:
  CopyMdatAtom(const Layout& layout, std::vector<IOStream*> sources,
               std::function<bool(uint64_t, uint64_t)> progress);
  int writeData(IOStream* stream) override;

  // The length of the box's header for this layout.
  static unsigned headerLengthFor(const Layout& layout);

 private:
  const Layout& layout_;
  std::vector<IOStream*> sources_;
  std::function<bool(uint64_t, uint64_t)> progress_;
};

}  // namespace mp4stbl::edit
