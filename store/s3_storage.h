// A store kept on S3: the catalog, snapshot and checksum files are objects
// under s3://BUCKET/PREFIX, reached through S3Client.
#pragma once
#include <memory>
#include <string>

#include "store/storage.h"

namespace zxblk {

class S3Connections;

// A pool of S3 connections for the stores a program opens: those on one
// endpoint (with one region and one set of keys) share its connections.
std::shared_ptr<S3Connections> makeS3Connections();

// The store at `location` (s3://BUCKET/PREFIX), its requests sent over
// `connections`. What its readers fetch of the catalog and of each
// snapshot's metadata is kept in `metadataDir` ("": in memory only) for the
// next program that opens it. Throws StoreError for a malformed URL or when
// no credentials are found.
std::shared_ptr<Storage> openS3Storage(const std::string& location, const std::shared_ptr<S3Connections>& connections,
                                       const std::string& metadataDir = std::string());

}  // namespace zxblk
