// mp4stbl verify: writes the file back and compares it, block by block,
// with the file on disk; memory stays that of the tables.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <vector>

#include <mp4stbl/box/file_stream.h>
#include <mp4stbl/box/new_file.h>
#include <mp4stbl/box/table_reason.h>
#include "command.h"

namespace mp4stbl::cli {

namespace {

using nlohmann::json;

// A write-only stream that compares what is written with the original file
// as it goes. Box headers are written with a size of 0 and patched when
// the box is complete; a short write (a header field) that differs is kept
// aside until the end, so a later patch can settle it. Memory grows only
// with the small writes that differ.
class ComparingStream : public IOStream, public RangeSink {
 public:
  // `source` is the stream the file was read from, a second view of
  // `original`.
  ComparingStream(IOStream* original, IOStream* source) : original_(original), source_(source) {}

  int read(unsigned char*, unsigned) override { return -1; }
  int write(const unsigned char* buffer, unsigned count) override {
    const bool patch = position_ < end_;
    if (patch && (position_ + count > end_ || original_->seek(offset(position_)) != 0)) return -1;
    block_.resize(count);
    const unsigned got =
        static_cast<unsigned>(std::max(original_->readBytes(block_.data(), count), 0));
    if (patch || count <= kShortWrite) {
      for (unsigned i = 0; i < count; ++i) {
        if (i < got && buffer[i] == block_[i]) {
          differing_.erase(position_ + i);
        } else {
          differing_.insert(position_ + i);
        }
      }
    } else if (got < count || std::memcmp(buffer, block_.data(), count) != 0) {
      const auto* differs = std::mismatch(buffer, buffer + got, block_.data()).first;
      firstLong_ = std::min(firstLong_, position_ + static_cast<uint64_t>(differs - buffer));
    }
    position_ += count;
    end_ = std::max(end_, position_);
    if (patch && position_ != end_ && original_->seek(offset(end_)) != 0) return -1;
    return static_cast<int>(count);
  }
  int seek(long long to) override {
    if (to < 0 || static_cast<uint64_t>(to) > end_) return -1;
    if (static_cast<uint64_t>(to) == end_ && original_->seek(offset(end_)) != 0) return -1;
    position_ = static_cast<uint64_t>(to);
    return 0;
  }
  // Media the writer copies from the file to the offset it comes from is
  // equal by construction, so it is skipped unread.
  int copyFrom(IOStream* from, uint64_t at, uint64_t length) override {
    const bool inPlace = from == source_ && at == position_ && position_ == end_;
    if (!inPlace || original_->seek(offset(at + length)) != 0) {
      return copyBytes(from, at, length, this);
    }
    position_ += length;
    end_ = position_;
    return 0;
  }
  long long getOffset() override { return offset(position_); }
  long long getLength() override { return offset(end_); }

  static constexpr uint64_t kNone = UINT64_MAX;
  // The first offset that differs, kNone when none does.
  uint64_t mismatch() const { return mismatchAfter(kNone); }
  // The first offset past `offset` that differs (kNone: from the start);
  // of the long writes, only the first difference is known.
  uint64_t mismatchAfter(uint64_t offset) const {
    const auto next = offset == kNone ? differing_.begin() : differing_.upper_bound(offset);
    const uint64_t longOne = offset == kNone || firstLong_ > offset ? firstLong_ : kNone;
    return next == differing_.end() ? longOne : std::min(longOne, *next);
  }
  uint64_t written() const { return end_; }

 private:
  static constexpr unsigned kShortWrite = 16;
  static long long offset(uint64_t at) { return static_cast<long long>(at); }

  IOStream* original_;
  IOStream* source_;
  std::vector<unsigned char> block_;
  uint64_t position_ = 0;
  uint64_t end_ = 0;
  uint64_t firstLong_ = kNone;
  std::set<uint64_t> differing_;
};

// The path of the deepest box that differs, from the first difference on:
// where that lies in a box's header (its size, when a child grew or shrank),
// the next difference within the box tells which of its children differs.
std::string differingBox(const Atom& root, const ComparingStream& compared, uint64_t offset) {
  std::string path;
  const Atom* parent = &root;
  for (bool deeper = true; deeper;) {
    deeper = false;
    for (const Atom* box : parent->children) {
      const uint64_t start = box->header.headerOffset, length = box->header.boxLength();
      if (offset < start || offset - start >= length) continue;
      const std::string type = printable(box->header.type);
      path = path.empty() ? type : path + "/" + type;
      const uint64_t body = start + box->header.headerLength();
      const uint64_t next = offset < body ? compared.mismatchAfter(body - 1) : offset;
      if (next >= body && next - start < length) offset = next;
      parent = box;
      deeper = true;
      break;
    }
  }
  return path;
}

}  // namespace

int verify(const Options& options) {
  const auto opened = open(options);
  if (!opened) return kFailure;
  FileStream original;
  if (original.open(options.file, FileStream::Mode::Read) != 0) {
    return fail(options,
                "cannot open the file: " + systemReason(original.error(), "no reason given"));
  }
  ComparingStream compared(&original, opened->file.stream());
  const Status written = opened->file.write(&compared);
  if (!written.ok()) return fail(options, "cannot be written back (" + written.message() + ")");
  const uint64_t length = opened->file.length();
  uint64_t mismatch = compared.mismatch();
  if (mismatch == ComparingStream::kNone && compared.written() != length) {
    mismatch = std::min(compared.written(), length);
  }
  const bool same = mismatch == ComparingStream::kNone;
  const std::string box = same ? "" : differingBox(opened->file.root, compared, mismatch);
  if (options.json) {
    json result = {{"file", options.file}, {"identical", same}, {"bytes", length}};
    if (!same) {
      result["firstDifference"] = mismatch;
      result["box"] = box;
    }
    printJson(result);
  } else if (same) {
    std::printf("%s: identical when written back (%llu bytes)\n", options.file.c_str(),
                static_cast<unsigned long long>(length));
  } else {
    std::printf("%s: differs when written back, first at offset %llu, in %s\n",
                options.file.c_str(), static_cast<unsigned long long>(mismatch),
                box.empty() ? "no box" : box.c_str());
  }
  return same ? 0 : kFailure;
}

}  // namespace mp4stbl::cli
