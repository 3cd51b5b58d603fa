#include "http/response.h"

#include <unistd.h>

namespace quill::http {

Response Response::json(std::string serialized, unsigned status) {
  Response r;
  r.status = status;
  r.contentType = kJsonType;
  r.body = std::move(serialized);
  return r;
}

Response Response::html(std::string page) {
  Response r;
  r.contentType = kHtmlType;
  r.body = std::move(page);
  return r;
}

Response Response::text(std::string content) {
  Response r;
  r.contentType = kTextType;
  r.body = std::move(content);
  return r;
}

Response Response::redirect(std::string location, unsigned status) {
  Response r;
  r.status = status;
  r.withHeader("Location", std::move(location));
  return r;
}

Response Response::fromOpenFile(int fd, std::string contentType) {
  Response r;
  r.contentType = std::move(contentType);
  r.openedFile = std::make_shared<const OpenFile>(fd);
  return r;
}

Response Response::fromFile(std::filesystem::path path, std::string contentType) {
  Response r;
  r.contentType = std::move(contentType);
  r.file = std::move(path);
  return r;
}

}  // namespace quill::http
