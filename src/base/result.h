#pragma once
// Failures as values. A Failure is a one-line reason for people and, where there is one, the cause
// for programs: the errno of the system call that failed, or the status a remote service answered
// with. Result<T> is a value or the Failure why there is none. Exceptions are left for bugs.

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quill::base {

struct Failure {
  explicit Failure(std::string why, int errnoValue = 0, long status = 0)
      : reason(std::move(why)), sysErrno(errnoValue), httpStatus(status) {}

  // A failed system call: `why` and the errno it left (taken now unless given).
  static Failure fromErrno(std::string why, int errnoValue = errno) {
    return Failure(std::move(why), errnoValue);
  }
  // A remote service's refusal: `why` and the HTTP status it answered with.
  static Failure fromStatus(std::string why, long status) {
    return Failure(std::move(why), 0, status);
  }

  // The same cause, with `context` written before the reason.
  Failure prefixed(std::string_view context) const {
    std::string text(context);
    text += reason;
    return Failure(std::move(text), sysErrno, httpStatus);
  }

  std::string reason;   // one line, the text shown to people
  int sysErrno = 0;     // 0 when no system call failed
  long httpStatus = 0;  // 0 when no remote answer caused it
};

// A value, or the Failure why there is none; converts from either.
template <class T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}              // NOLINT(google-explicit-constructor)
  Result(Failure failure) : failure_(std::move(failure)) {}  // NOLINT

  bool ok() const { return value_.has_value(); }
  explicit operator bool() const { return ok(); }

  // The value; only valid when ok().
  const T& value() const& { return *value_; }
  T& value() & { return *value_; }
  T&& value() && { return std::move(*value_); }

  // The reason; empty when ok().
  const std::string& error() const { return failure_.reason; }
  // The whole failure (reason and cause); an empty one when ok().
  const Failure& failure() const { return failure_; }

 private:
  std::optional<T> value_;
  Failure failure_{std::string()};
};

}  // namespace quill::base
