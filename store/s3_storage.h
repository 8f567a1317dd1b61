// A store kept on S3: the catalog, snapshot and checksum files are objects
// under s3://BUCKET/PREFIX, reached through S3Client.
#pragma once
#include <memory>
#include <string>

#include "store/storage.h"

namespace zxblk {

// Throws StoreError for a malformed URL or when no credentials are found.
std::shared_ptr<Storage> openS3Storage(const std::string& location);

}  // namespace zxblk
