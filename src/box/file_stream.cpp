#include "box/file_stream.h"

#include <algorithm>
#include <climits>

#include "box/log.h"

namespace mp4stbl {

namespace {

// One call moves at most this much, so its int result never wraps.
constexpr unsigned kMaxCall = INT_MAX;

// std::filebuf reports some system errors (reading a directory, say) by
// throwing; a stream reports them as a failed call.
template <class Call>
auto guarded(Call call, decltype(call()) failure) -> decltype(call()) {
  try {
    return call();
  } catch (const std::exception&) {
    return failure;
  }
}

}  // namespace

FileStream::FileStream() = default;

FileStream::~FileStream() { close(); }

int FileStream::open(const std::string& path, Mode mode) {
  close();
  // The buffer is taken at the first open, so that a stream never opened
  // costs nothing.
  if (buffer_ == nullptr) {
    constexpr std::streamsize kBuffer = 1 << 20;
    buffer_.reset(new char[kBuffer]);
    file_.pubsetbuf(buffer_.get(), kBuffer);
  }
  std::ios_base::openmode how = std::ios_base::binary;
  how |= mode == Mode::Read ? std::ios_base::in : std::ios_base::out | std::ios_base::trunc;
  if (!file_.open(path, how)) {
    QX_LOG_Printf("IO", 3, "open %s for %s failed\n", path.c_str(),
                  mode == Mode::Read ? "reading" : "writing");
    return -1;
  }
  mode_ = mode;
  position_ = 0;
  length_ = 0;
  if (mode == Mode::Read) {
    const std::streampos failed(-1);
    const std::streampos end = guarded(
        [this] { return file_.pubseekoff(0, std::ios_base::end, std::ios_base::in); }, failed);
    if (end == failed ||
        guarded([this] { return file_.pubseekpos(0, std::ios_base::in); }, failed) == failed) {
      QX_LOG_Printf("IO", 3, "seek in %s failed\n", path.c_str());
      file_.close();
      return -1;
    }
    length_ = static_cast<long long>(end);
  }
  return 0;
}

int FileStream::close() {
  if (!file_.is_open()) return 0;
  return guarded([this] { return file_.close() != nullptr; }, false) ? 0 : -1;
}

bool FileStream::isOpen() const { return file_.is_open(); }

int FileStream::read(unsigned char* buffer, unsigned count) {
  if (!file_.is_open() || mode_ != Mode::Read) return -1;
  const std::streamsize got = guarded(
      [&] { return file_.sgetn(reinterpret_cast<char*>(buffer), std::min(count, kMaxCall)); },
      std::streamsize{-1});
  if (got < 0) return -1;
  position_ += got;
  return static_cast<int>(got);
}

int FileStream::write(const unsigned char* buffer, unsigned count) {
  if (!file_.is_open() || mode_ != Mode::Write) return -1;
  const std::streamsize put = guarded(
      [&] { return file_.sputn(reinterpret_cast<const char*>(buffer), std::min(count, kMaxCall)); },
      std::streamsize{-1});
  if (put <= 0 && count > 0) return -1;
  position_ += put;
  length_ = std::max(length_, position_);
  return static_cast<int>(put);
}

int FileStream::seek(long long offset) {
  if (!file_.is_open() || offset < 0) return -1;
  // A seek of the file buffer drops what it holds; staying put keeps it.
  if (offset == position_) return 0;
  if (mode_ == Mode::Read && offset > length_) return -1;
  std::ios_base::openmode which = mode_ == Mode::Read ? std::ios_base::in : std::ios_base::out;
  const std::streampos failed(-1);
  if (guarded([&] { return file_.pubseekpos(std::streampos(offset), which); }, failed) == failed) {
    return -1;
  }
  position_ = offset;
  length_ = std::max(length_, position_);
  return 0;
}

long long FileStream::getOffset() { return position_; }

long long FileStream::getLength() { return file_.is_open() ? length_ : -1; }

}  // namespace mp4stbl
