#pragma once
// The bucket itself: each operation is one signed request (listings one per page).

#include "rill/transport/s3_client.h"
#include "rill/providers/storage_provider.h"

namespace quill::rill {

// Any 2xx answer is success. A failed request reports describeFailure("<METHOD> <key>", ...):
// the status with the store's Code and Message, never its whole error document; a transport
// failure reports "curl: <reason>". `exists` treats 404 as absent and other non-2xx as failure.
class S3Provider final : public StorageProvider {
 public:
  explicit S3Provider(S3Settings settings);

  Result<bool> put(const std::string& key, std::string_view body) override;
  Result<std::string> get(const std::string& key, std::uint64_t maxBytes = kAnySize) override;
  Result<ObjectInfo> exists(const std::string& key) override;
  Result<std::vector<ObjectEntry>> list(const std::string& prefix) override;
  Result<bool> remove(const std::string& key) override;

  const S3Client& client() const { return client_; }

 private:
  S3Client client_;
};

}  // namespace quill::rill
