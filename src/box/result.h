// The outcome of an operation above the sample tables: success, or a
// failure that carries a message saying what failed and why.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace mp4stbl {

class [[nodiscard]] Status {
 public:
  Status() = default;  // success
  static Status failure(std::string message) { return Status(std::move(message)); }

  bool ok() const { return !failed_; }
  const std::string& message() const { return message_; }

 private:
  explicit Status(std::string message) : failed_(true), message_(std::move(message)) {}
  bool failed_ = false;
  std::string message_;
};

// A value, or the failure that stood in its way.
template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : value_(std::move(value)) {}            // NOLINT: implicit on purpose
  Result(Status failure) : status_(std::move(failure)) {}  // NOLINT: a failed Status

  bool ok() const { return value_.has_value(); }
  const std::string& message() const { return status_.message(); }
  const Status& status() const { return status_; }
  // Only when ok().
  T& operator*() { return *value_; }
  const T& operator*() const { return *value_; }
  T* operator->() { return &*value_; }
  const T* operator->() const { return &*value_; }

 private:
  Status status_;
  std::optional<T> value_;
};

}  // namespace mp4stbl
