#include "edit/media_copy.h"

#include <algorithm>
#include <utility>

#include "box/file_stream.h"
#include "box/log.h"

namespace mp4stbl::edit {

namespace {

// How much is copied between two reports of progress.
constexpr uint64_t kCopyPiece = 64u << 20;

bool before(const Layout::Block& a, const Layout::Block& b) {
  return a.source != b.source ? a.source < b.source : a.from < b.from;
}

}  // namespace

void Layout::add(size_t source, uint64_t offset, uint64_t length) {
  if (!blocks_.empty()) {
    Block& last = blocks_.back();
    if (last.source == source && last.from + last.length == offset) {
      last.length += length;  // the next sample of a chunk
      return;
    }
  }
  blocks_.push_back({source, offset, length, 0, 0, 0});
}

void Layout::add(size_t source, uint64_t offset, uint64_t length, std::vector<uint8_t> prefix) {
  if (prefix.empty()) return add(source, offset, length);
  blocks_.push_back({source, offset, length, 0, prefix.size(), prefixes_.size()});
  prefixes_.push_back(std::move(prefix));
}

bool Layout::keepsDistance(const Block& before, const Block& block) {
  const uint64_t end = before.from + before.length;
  return before.source == block.source && block.prefix == 0 && block.from >= end &&
         block.from - end <= kMaxGap;
}

void Layout::finish() {
  // Each track adds its chunks in file order, so the blocks come as a few
  // interleaved ascending runs; on such input std::sort fell back to heap
  // sort and took a quarter of a gigabyte's trim. A merge sort takes runs
  // in its stride and stays n log n on any order.
  std::stable_sort(blocks_.begin(), blocks_.end(), before);
  std::vector<Block> joined;
  for (const Block& block : blocks_) {
    if (!joined.empty() && block.prefix == 0) {
      Block& last = joined.back();
      const uint64_t end = last.from + last.length;
      if (last.source == block.source && block.from <= end) {
        last.length = std::max(end, block.from + block.length) - last.from;
        continue;
      }
    }
    joined.push_back(block);
  }
  blocks_ = std::move(joined);
  copied_ = 0;
  gaps_ = 0;
  for (size_t b = 0; b < blocks_.size(); ++b) {
    copied_ += blocks_[b].prefix + blocks_[b].length;
    if (b > 0 && keepsDistance(blocks_[b - 1], blocks_[b])) {
      gaps_ += blocks_[b].from - (blocks_[b - 1].from + blocks_[b - 1].length);
    }
  }
  place(0);
}

void Layout::place(uint64_t start) {
  length_ = 0;
  for (size_t b = 0; b < blocks_.size(); ++b) {
    Block& block = blocks_[b];
    if (b > 0 && keepsDistance(blocks_[b - 1], block)) {
      length_ += block.from - (blocks_[b - 1].from + blocks_[b - 1].length);
    } else if (block.length >= kAligned) {
      const uint64_t head = (kPage - block.from % kPage) % kPage;  // before its first page
      // Unsigned arithmetic wraps on purpose: only the remainder counts.
      length_ += (0 - (start + length_ + block.prefix + head)) % kAlign;
    }
    block.out = length_;
    length_ += block.prefix + block.length;
  }
}

uint64_t Layout::map(size_t source, uint64_t offset) const {
  const Block key{source, offset, 0, 0, 0, 0};
  auto after = std::upper_bound(blocks_.begin(), blocks_.end(), key, before);
  if (after == blocks_.begin()) return 0;
  const Block& block = *(after - 1);
  return offset == block.from ? block.out : block.out + block.prefix + (offset - block.from);
}

// Decided on the longest placement, so that the header's width never
// depends on where the media data starts.
unsigned CopyMdatAtom::headerLengthFor(const Layout& layout) {
  return layout.longest() > UINT32_MAX - 8 ? 16 : 8;
}

CopyMdatAtom::CopyMdatAtom(const Layout& layout, std::vector<IOStream*> sources,
                           std::function<bool(uint64_t, uint64_t)> progress)
    : Atom(AtomHeader()), layout_(layout), sources_(std::move(sources)),
      progress_(std::move(progress)) {
  header.type = "mdat";
  if (headerLengthFor(layout) == 16) header.size = 1;
}

int CopyMdatAtom::writeData(IOStream* stream) {
  static const unsigned char kZeros[Layout::kAlign] = {};
  const auto start = static_cast<uint64_t>(stream->getOffset());
  if (auto* sink = dynamic_cast<RangeSink*>(stream)) sink->reserve(layout_.length());
  uint64_t done = 0;
  uint64_t written = 0;
  for (const Layout::Block& block : layout_.blocks()) {
    const auto padding = static_cast<unsigned>(block.out - written);
    if (static_cast<unsigned>(stream->writeBytes(kZeros, padding)) != padding) {
      logStreamFailure(stream, "writeBytes");
      return -1;
    }
    const std::vector<uint8_t>& prefix = layout_.prefixOf(block);
    if (!prefix.empty() && static_cast<uint64_t>(stream->writeBytes(
                               prefix.data(), static_cast<unsigned>(prefix.size()))) != prefix.size()) {
      logStreamFailure(stream, "writeBytes");
      return -1;
    }
    written = block.out + block.prefix + block.length;
    for (uint64_t at = 0; at < block.length;) {
      // Pieces end on the new file's 64 KiB boundaries, which are page
      // boundaries of an aligned block's source too.
      const uint64_t to = start + block.out + block.prefix + at;
      const uint64_t end = (to + kCopyPiece) / Layout::kAlign * Layout::kAlign;
      const uint64_t piece = std::min(block.length - at, end - to);
      if (copyRange(sources_.at(block.source), block.from + at, piece, stream) != 0) return -1;
      at += piece;
      done += piece;
      if (progress_ && !progress_(done, layout_.copied())) {
        QX_LOG_Printf("MP4", 3, "stopped\n");
        return -1;
      }
    }
  }
  return 0;
}

}  // namespace mp4stbl::edit
