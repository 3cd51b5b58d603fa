#pragma once
// Result<T>: a value, or a one-line reason why there is none. Failures in this library are values;
// exceptions are left for bugs.

#include <optional>
#include <string>
#include <utility>

namespace quill::rill {

// The reason of a failed Result; converts to a Result of any type.
struct Failure {
  std::string reason;
};

template <class T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  Result(Failure failure) : error_(std::move(failure.reason)) {}  // NOLINT

  bool ok() const { return value_.has_value(); }
  explicit operator bool() const { return ok(); }

  // The value; only valid when ok().
  const T& value() const& { return *value_; }
  T& value() & { return *value_; }
  T&& value() && { return std::move(*value_); }

  // The reason; empty when ok().
  const std::string& error() const { return error_; }

 private:
  std::optional<T> value_;
  std::string error_;
};

// Writes `reason` into `*error` when the caller asked for it; returns false for use in
// `return fail(error, ...)`.
inline bool fail(std::string* error, std::string reason) {
  if (error) *error = std::move(reason);
  return false;
}

}  // namespace quill::rill
