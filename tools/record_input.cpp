#include "record_input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace mp4stbl::cli {

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

}  // namespace mp4stbl::cli
