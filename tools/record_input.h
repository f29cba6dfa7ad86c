// The inputs of mp4stbl record read side by side: regular files, named
// pipes and stdin, each read without blocking as its bytes come, so that a
// producer writing several of them is never held up by one we are not
// reading.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace mp4stbl::cli {

class Inputs {
 public:
  Inputs() = default;
  ~Inputs();
  Inputs(const Inputs&) = delete;
  Inputs& operator=(const Inputs&) = delete;

  // Opens `path` ("-" for stdin) for reading; on failure the system's
  // reason. A named pipe opens at once, before a writer has come.
  std::string add(const std::string& path);
  size_t size() const { return inputs_.size(); }
  const std::string& path(size_t index) const { return inputs_[index].path; }
  bool ended(size_t index) const { return inputs_[index].ended; }
  bool allEnded() const;
  // Stops reading `index`, as if it had ended.
  void close(size_t index);

  // Bytes read, or the end of an input (size 0).
  using Visit = std::function<void(size_t index, const uint8_t* bytes, size_t size)>;
  // Whether the bytes of an input are needed now.
  using Wanted = std::function<bool(size_t index)>;
  // Waits up to `timeoutMs` for inputs that have bytes or end, and reads
  // one block from each. A regular file is read only when wanted (or when
  // no input is): its bytes wait on the disk, where they take no memory,
  // while a pipe's writer waits for us. A signal ends the wait early. A
  // failing read gives the system's reason and the index of its input.
  //
  // A regular file is mapped a window at a time and visited where it lies,
  // without a copy. A file cut shorter while it is read fails with a reason
  // rather than a crash: the pages past its new end read as zeros until the
  // window is left, and the visit's bytes should then be taken as cut.
  std::string read(int timeoutMs, const Wanted& wanted, const Visit& visit, size_t* failed);

  // How many bytes of a file to visit at a time: about as many as the
  // stream gives in a second or two, so that one visit puts it no further
  // ahead of the others in time than a pipe's block would (64 KiB up to
  // 8 MiB).
  void pace(size_t index, uint64_t bytes);

 private:
  struct Input {
    std::string path;
    int fd = -1;
    bool ended = false;
    bool regular = false;  // a file, not a pipe
    uint64_t position = 0;  // of a file: the bytes visited
    size_t piece = kBlock;  // of a file: the bytes visited at a time
    int restoreFlags = -1;  // stdin's flags before it was made non-blocking
  };
  // Visits the next window of a file; "" or the reason it failed.
  std::string readMapped(size_t index, const Visit& visit);

  static constexpr size_t kBlock = size_t{1} << 16;
  static constexpr size_t kMaxPiece = size_t{8} << 20;

  std::vector<Input> inputs_;
  std::vector<uint8_t> block_ = std::vector<uint8_t>(kBlock);
};

}  // namespace mp4stbl::cli
