#include "app/access_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace quill {

namespace {

// Query parameters whose values say what was asked for and never hold a credential.
constexpr std::array<std::string_view, 13> kHarmless = {
    "build", "channels", "days", "engine",  "groups", "hours", "machine",
    "path",  "port",     "role", "service", "ttl",    "value"};

bool isHarmless(std::string_view name) {
  return std::find(kHarmless.begin(), kHarmless.end(), name) != kHarmless.end();
}

// Client text made safe inside a quoted field: quotes, backslashes, control and non-ASCII bytes
// become \xHH.
std::string escaped(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7F || c == '"' || c == '\\') {
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    } else {
      out += c;
    }
  }
  return out;
}

std::string orDash(const std::string& text) { return text.empty() ? "-" : escaped(text); }

std::string timeField(std::time_t when) {
  std::tm tm{};
  ::gmtime_r(&when, &tm);
  static constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char text[40];
  std::snprintf(text, sizeof text, "[%02d/%s/%04d:%02d:%02d:%02d +0000]", tm.tm_mday,
                kMonths[static_cast<std::size_t>(tm.tm_mon) % 12], tm.tm_year + 1900, tm.tm_hour,
                tm.tm_min, tm.tm_sec);
  return text;
}

}  // namespace

std::string loggableTarget(std::string_view target) {
  const auto question = target.find('?');
  if (question == std::string_view::npos) return std::string(target);
  std::string out(target.substr(0, question + 1));
  const std::string_view query = target.substr(question + 1);
  for (std::size_t start = 0;;) {
    const auto amp = query.find('&', start);
    const std::string_view pair = query.substr(start, amp - start);
    const auto equals = pair.find('=');
    const std::string_view name = pair.substr(0, equals);
    if (equals == std::string_view::npos || isHarmless(name)) {
      out += pair;
    } else {
      out += std::string(name) + "=-";
    }
    if (amp == std::string_view::npos) break;
    out += '&';
    start = amp + 1;
  }
  return out;
}

std::string formatAccessLine(const AccessEntry& e) {
  std::string request = "-";
  if (!e.method.empty()) {
    request = escaped(e.method) + " " + escaped(loggableTarget(e.target)) + " HTTP/" +
              std::to_string(e.version / 10) + "." + std::to_string(e.version % 10);
  }
  char took[32];
  std::snprintf(took, sizeof took, "%.3f", static_cast<double>(e.took.count()) / 1e6);
  return orDash(e.client) + " - " + orDash(e.user) + " " + timeField(e.when) + " \"" + request +
         "\" " + std::to_string(e.status) + " " + std::to_string(e.bytes) + " \"-\" \"" +
         orDash(e.userAgent) + "\" " + took;
}

AccessLog::~AccessLog() {
  if (fd_ > STDOUT_FILENO) ::close(fd_);
}

base::Result<bool> AccessLog::open(const std::string& path) {
  std::lock_guard lock(mutex_);
  path_ = path;
  if (path == "-") {
    fd_ = STDOUT_FILENO;
    return true;
  }
  const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    return base::Failure::fromErrno("cannot open access log " + path + ": " + std::strerror(errno));
  }
  fd_ = fd;
  return true;
}

void AccessLog::reopen() {
  std::lock_guard lock(mutex_);
  if (fd_ <= STDOUT_FILENO) return;
  const int fd = ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    std::fprintf(stderr, "cannot reopen access log %s: %s\n", path_.c_str(), std::strerror(errno));
    return;
  }
  ::close(fd_);
  fd_ = fd;
}

void AccessLog::write(std::string line) {
  line += '\n';
  std::lock_guard lock(mutex_);
  if (fd_ < 0) return;
  std::size_t done = 0;
  while (done < line.size()) {
    const ssize_t n = ::write(fd_, line.data() + done, line.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // a full disk loses log lines, never requests
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace quill
