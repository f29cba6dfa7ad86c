#include "record_input.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace mp4stbl::cli {

namespace {

// The window being visited, for the SIGBUS a file cut shorter under its
// mapping raises: the pages from the fault on are mapped again as zeros and
// the visit goes on; the cut is reported once it returns.
std::atomic<uintptr_t> windowStart{0};
std::atomic<uintptr_t> windowEnd{0};
std::atomic<bool> windowCut{false};
uintptr_t pageSize = 4096;
struct sigaction previousBus {};

void onBus(int signal, siginfo_t* info, void* context) {
  const auto at = reinterpret_cast<uintptr_t>(info->si_addr);
  const uintptr_t start = windowStart.load(), end = windowEnd.load();
  if (at >= start && at < end) {
    const uintptr_t page = at & ~(pageSize - 1);
    if (mmap(reinterpret_cast<void*>(page), end - page, PROT_READ,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED) {
      windowCut = true;
      return;
    }
  }
  // Not ours: what was there before decides, the default ends the process.
  sigaction(SIGBUS, &previousBus, nullptr);
  if ((previousBus.sa_flags & SA_SIGINFO) != 0 && previousBus.sa_sigaction != nullptr) {
    previousBus.sa_sigaction(signal, info, context);
  } else if (previousBus.sa_handler != SIG_DFL && previousBus.sa_handler != SIG_IGN) {
    previousBus.sa_handler(signal);
  }
}

void catchBus() {
  static const bool caught = [] {
    pageSize = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    struct sigaction bus {};
    bus.sa_sigaction = &onBus;
    bus.sa_flags = SA_SIGINFO;
    sigemptyset(&bus.sa_mask);
    return sigaction(SIGBUS, &bus, &previousBus) == 0;
  }();
  static_cast<void>(caught);
}

}  // namespace

Inputs::~Inputs() {
  for (size_t index = 0; index < inputs_.size(); ++index) close(index);
}

std::string Inputs::add(const std::string& path) {
  Input input;
  input.path = path;
  if (path == "-") {
    input.fd = STDIN_FILENO;
    input.restoreFlags = fcntl(STDIN_FILENO, F_GETFL);
    if (input.restoreFlags < 0 ||
        fcntl(STDIN_FILENO, F_SETFL, input.restoreFlags | O_NONBLOCK) < 0) {
      return std::strerror(errno);
    }
  } else {
    // Not blocking: a pipe's writer may open our inputs in any order.
    input.fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (input.fd < 0) return std::strerror(errno);
  }
  struct stat info {};
  input.regular = fstat(input.fd, &info) == 0 && S_ISREG(info.st_mode);
  if (input.regular) catchBus();
  inputs_.push_back(input);
  return "";
}

bool Inputs::allEnded() const {
  for (const Input& input : inputs_) {
    if (!input.ended) return false;
  }
  return true;
}

void Inputs::close(size_t index) {
  Input& input = inputs_[index];
  input.ended = true;
  if (input.fd < 0) return;
  if (input.fd == STDIN_FILENO) {
    fcntl(STDIN_FILENO, F_SETFL, input.restoreFlags);
  } else {
    ::close(input.fd);
  }
  input.fd = -1;
}

std::string Inputs::read(int timeoutMs, const Wanted& wanted, const Visit& visit, size_t* failed) {
  std::vector<pollfd> waits;
  std::vector<size_t> owners;
  for (const bool all : {false, true}) {
    for (size_t index = 0; index < inputs_.size(); ++index) {
      const Input& input = inputs_[index];
      if (input.ended || (!all && input.regular && !wanted(index))) continue;
      waits.push_back({input.fd, POLLIN, 0});
      owners.push_back(index);
    }
    if (!waits.empty()) break;
  }
  if (waits.empty()) return "";
  // A named pipe reports nothing until its first writer has come and, once
  // every writer has gone, a hang-up: a read of 0 bytes is its end.
  if (poll(waits.data(), waits.size(), timeoutMs) < 0) {
    return errno == EINTR ? "" : std::strerror(errno);
  }
  for (size_t at = 0; at < waits.size(); ++at) {
    if ((waits[at].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
    const size_t index = owners[at];
    if (inputs_[index].regular) {
      const std::string reason = readMapped(index, visit);
      if (!reason.empty()) {
        *failed = index;
        return reason;
      }
      continue;
    }
    const ssize_t got = ::read(inputs_[index].fd, block_.data(), block_.size());
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (got < 0) {
      *failed = index;
      return std::strerror(errno);
    }
    if (got == 0) close(index);
    visit(index, block_.data(), static_cast<size_t>(got));
  }
  return "";
}

void Inputs::pace(size_t index, uint64_t bytes) {
  inputs_[index].piece = static_cast<size_t>(std::clamp<uint64_t>(bytes, kBlock, kMaxPiece));
}

// The file is read to the length it has now: bytes it gains later are read
// as they come, the end is where a visit finds no more.
std::string Inputs::readMapped(size_t index, const Visit& visit) {
  Input& input = inputs_[index];
  struct stat info {};
  if (fstat(input.fd, &info) != 0) return std::strerror(errno);
  const auto length = static_cast<uint64_t>(info.st_size);
  if (length < input.position) {
    return "the file became shorter while it was read (" + std::to_string(length) + " bytes, " +
           std::to_string(input.position) + " read)";
  }
  if (length == input.position) {
    close(index);
    visit(index, nullptr, 0);
    return "";
  }
  const uint64_t start = input.position & ~static_cast<uint64_t>(pageSize - 1);
  const auto skip = static_cast<size_t>(input.position - start);
  const auto size = static_cast<size_t>(std::min<uint64_t>(input.piece, length - input.position));
  void* mapped = mmap(nullptr, skip + size, PROT_READ, MAP_PRIVATE, input.fd,
                      static_cast<off_t>(start));
  if (mapped == MAP_FAILED) return std::strerror(errno);
  madvise(mapped, skip + size, MADV_SEQUENTIAL);
  const auto* bytes = static_cast<const uint8_t*>(mapped);
  windowCut = false;
  windowStart = reinterpret_cast<uintptr_t>(bytes);
  windowEnd = reinterpret_cast<uintptr_t>(bytes + skip + size);
  visit(index, bytes + skip, size);
  windowStart = windowEnd = 0;
  munmap(mapped, skip + size);
  input.position += size;
  if (windowCut) return "the file became shorter while it was read";
  return "";
}

}  // namespace mp4stbl::cli
