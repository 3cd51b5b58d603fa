#include "http/request_framing.h"

#include <cctype>

namespace quill::http {

namespace beast = boost::beast;
namespace asio = boost::asio;

void limitHead(HeadParser& head, const ServerOptions& options) {
  head.header_limit(static_cast<std::uint32_t>(options.headerLimit));
  head.body_limit(options.bodyLimit);
}

std::optional<unsigned> headFailureStatus(const beast::error_code& ec) {
  if (ec == bhttp::error::body_limit) return 413;
  if (ec == bhttp::error::header_limit) return 431;
  if (ec == bhttp::error::end_of_stream || ec == beast::error::timeout ||
      ec == asio::error::operation_aborted || ec == asio::error::connection_reset ||
      ec == asio::error::eof) {
    return std::nullopt;
  }
  return 400;
}

std::string lastCoding(std::string_view list) {
  std::size_t comma = list.rfind(',');
  std::string_view last = comma == std::string_view::npos ? list : list.substr(comma + 1);
  std::size_t first = last.find_first_not_of(" \t");
  std::size_t end = last.find_last_not_of(" \t");
  if (first == std::string_view::npos) return {};
  std::string coding(last.substr(first, end - first + 1));
  for (char& c : coding) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return coding;
}

bool framingIsSound(const HeadParser& head) {
  const auto& msg = head.get();
  auto codings = msg.equal_range(bhttp::field::transfer_encoding);
  if (codings.first == codings.second) return true;
  if (msg.count(bhttp::field::content_length) != 0) return false;
  std::string_view lastField;
  for (auto it = codings.first; it != codings.second; ++it) lastField = it->value();
  return lastCoding(lastField) == "chunked";
}

std::optional<unsigned> bodyFailureStatus(const beast::error_code& ec) {
  if (ec == bhttp::error::body_limit) return 413;
  if (ec.category() == bhttp::make_error_code(bhttp::error::bad_chunk).category() &&
      ec != bhttp::error::partial_message) {
    return 400;
  }
  return std::nullopt;
}

}  // namespace quill::http
