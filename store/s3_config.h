// Where an S3 store lies (s3://BUCKET/PREFIX) and how to reach its service:
// endpoint, region and keys, found where the AWS command line tools find
// them.
#pragma once
#include <string>

namespace zxblk {

// True when `text` names an S3 location ("s3://...").
bool isS3Url(const std::string& text);

// Where a store lies in S3: "s3://BUCKET/PREFIX".
struct S3Location {
    std::string bucket;
    std::string prefix;  // empty, or no leading '/' and one trailing '/': "backups/site1/"

    // Parses `url`; false with the reason in `why` when it is not a valid
    // s3:// URL or the bucket name breaks S3's naming rules.
    static bool parse(const std::string& url, S3Location& out, std::string& why);
    std::string url() const;  // "s3://bucket/prefix"
};

// How long one call keeps trying.
struct S3Timing {
    double deadlineSeconds = 20;        // one call, all its attempts
    double requestTimeoutSeconds = 10;  // one attempt
    double connectTimeoutSeconds = 3;
};

// How to reach the service, and how long to keep trying.
struct S3Config : S3Timing {
    std::string endpoint;  // "http://127.0.0.1:7480", "https://s3.eu-west-1.amazonaws.com"
    std::string region = "us-east-1";
    std::string accessKey;
    std::string secretKey;
    std::string sessionToken;  // sent as x-amz-security-token when not empty
    // http(s)://ENDPOINT/BUCKET/KEY rather than http(s)://BUCKET.ENDPOINT/KEY.
    bool pathStyle = true;

    // What the AWS command line tools would use: AWS_ENDPOINT_URL_S3 or
    // AWS_ENDPOINT_URL; AWS_REGION, AWS_DEFAULT_REGION or the profile's
    // region (else us-east-1); AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY and
    // AWS_SESSION_TOKEN, or the profile's keys. The profile is AWS_PROFILE's
    // or "default": [NAME] in ~/.aws/credentials, [profile NAME] (or
    // [default]) in ~/.aws/config; AWS_SHARED_CREDENTIALS_FILE and
    // AWS_CONFIG_FILE name other files. Without an endpoint it is AWS's for
    // the region, addressed virtual-host style; any other endpoint is
    // addressed path style. Throws StoreError when no credentials are found,
    // or naming the file and line where a file cannot be read as INI.
    static S3Config fromEnvironment();
};

}  // namespace zxblk
