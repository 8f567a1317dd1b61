// Where an S3 store and its credentials come from: s3:// URLs, the AWS
// tools' environment variables and files, and which clients share a
// transport. No server needed.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "store/s3_client.h"
#include "store/store_error.h"

namespace {

using zxblk::S3Config;
using zxblk::S3Location;

TEST(S3Location, Parse) {
    const struct {
        std::string url;
        bool ok;
        std::string bucket, prefix, why;
    } cases[] = {
        {"s3://backups", true, "backups", "", ""},
        {"s3://backups/", true, "backups", "", ""},
        {"s3://backups/site1", true, "backups", "site1/", ""},
        {"s3://backups//site1/disks/", true, "backups", "site1/disks/", ""},
        {"S3://my.bucket-2/a b/c", true, "my.bucket-2", "a b/c/", ""},
        {"s3://", false, "", "", "'s3://' names no bucket (s3://BUCKET/PREFIX)"},
        {"s3:///prefix", false, "", "", "'s3:///prefix' names no bucket (s3://BUCKET/PREFIX)"},
        {"/data/store", false, "", "", "'/data/store' is not an s3://BUCKET/PREFIX URL"},
        {"http://host/b", false, "", "", "'http://host/b' is not an s3://BUCKET/PREFIX URL"},
        {"s3://ab/x", false, "", "", "'ab' is not a valid bucket name (3 to 63 lower-case letters, digits, dots and "
                                     "hyphens, beginning and ending with a letter or digit)"},
        {"s3://Backups", false, "", "", "'Backups' is not a valid bucket name (3 to 63 lower-case letters, digits, "
                                        "dots and hyphens, beginning and ending with a letter or digit)"},
        {"s3://-abc", false, "", "", "'-abc' is not a valid bucket name (3 to 63 lower-case letters, digits, dots and "
                                     "hyphens, beginning and ending with a letter or digit)"},
        {"s3://a_bc", false, "", "", "'a_bc' is not a valid bucket name (3 to 63 lower-case letters, digits, dots and "
                                     "hyphens, beginning and ending with a letter or digit)"},
        {"s3://" + std::string(64, 'a'), false, "", "",
         "'" + std::string(64, 'a') + "' is not a valid bucket name (3 to 63 lower-case letters, digits, dots and "
                                      "hyphens, beginning and ending with a letter or digit)"},
        {"s3://abc/x\ny", false, "", "", "the prefix of 's3://abc/x y' holds a control character"},
    };
    for (const auto& c : cases) {
        S3Location loc;
        std::string why;
        EXPECT_EQ(S3Location::parse(c.url, loc, why), c.ok) << c.url;
        EXPECT_EQ(why, c.why) << c.url;
        if (c.ok) {
            EXPECT_EQ(loc.bucket, c.bucket) << c.url;
            EXPECT_EQ(loc.prefix, c.prefix) << c.url;
            EXPECT_EQ(loc.url(), "s3://" + c.bucket + "/" + c.prefix);
        }
    }
    EXPECT_TRUE(zxblk::isS3Url("s3://b"));
    EXPECT_TRUE(zxblk::isS3Url("S3://b"));
    EXPECT_FALSE(zxblk::isS3Url("s3:/b"));
    EXPECT_FALSE(zxblk::isS3Url("/s3://b"));
}

class S3Environment : public ::testing::Test {
protected:
    std::filesystem::path home;
    void SetUp() override {
        char tmpl[] = "/tmp/zxblk-s3-config-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        home = tmpl;
        std::filesystem::create_directories(home / ".aws");
    }
    void TearDown() override { std::filesystem::remove_all(home); }
};

TEST_F(S3Environment, FromEnvironment) {
    const std::string creds = "[default]\naws_access_key_id = FILEKEY\naws_secret_access_key = filesecret\n"
                              "[work]\naws_access_key_id=WORKKEY\naws_secret_access_key=worksecret\n"
                              "aws_session_token=worktoken\n";
    const std::string conf = "[default]\nregion = ap-south-1\n"
                             "[profile work]\nregion = eu-central-1\nendpoint_url = http://work.example:9000\n"
                             "s3 =\n  addressing_style = virtual\n"
                             "[profile cfgonly]\naws_access_key_id = CFGKEY\naws_secret_access_key = cfgsecret\n";
    const std::string none = "-";  // no such file
    const struct {
        std::string name;
        std::map<std::string, std::string> vars;
        std::string creds, conf;
        std::string endpoint, region, key, secret, token;
        bool pathStyle;
        std::string error;
    } cases[] = {
        {"keys in the environment", {{"AWS_ACCESS_KEY_ID", "ENVKEY"}, {"AWS_SECRET_ACCESS_KEY", "envsecret"}}, none,
         none, "https://s3.us-east-1.amazonaws.com", "us-east-1", "ENVKEY", "envsecret", "", false, ""},
        {"an endpoint of our own",
         {{"AWS_ACCESS_KEY_ID", "K"}, {"AWS_SECRET_ACCESS_KEY", "S"}, {"AWS_ENDPOINT_URL", "http://127.0.0.1:7480/"}},
         none, none, "http://127.0.0.1:7480", "us-east-1", "K", "S", "", true, ""},
        {"the S3 endpoint before the general one",
         {{"AWS_ACCESS_KEY_ID", "K"}, {"AWS_SECRET_ACCESS_KEY", "S"}, {"AWS_ENDPOINT_URL", "http://a:1"},
          {"AWS_ENDPOINT_URL_S3", "https://b:2"}},
         none, none, "https://b:2", "us-east-1", "K", "S", "", true, ""},
        {"AWS_REGION first",
         {{"AWS_ACCESS_KEY_ID", "K"}, {"AWS_SECRET_ACCESS_KEY", "S"}, {"AWS_REGION", "eu-west-1"},
          {"AWS_DEFAULT_REGION", "us-west-2"}, {"AWS_SESSION_TOKEN", "T"}},
         none, conf, "https://s3.eu-west-1.amazonaws.com", "eu-west-1", "K", "S", "T", false, ""},
        {"then AWS_DEFAULT_REGION", {{"AWS_DEFAULT_REGION", "us-west-2"}}, creds, conf,
         "https://s3.us-west-2.amazonaws.com", "us-west-2", "FILEKEY", "filesecret", "", false, ""},
        {"the default profile", {}, creds, conf, "https://s3.ap-south-1.amazonaws.com", "ap-south-1", "FILEKEY",
         "filesecret", "", false, ""},
        {"a named profile", {{"AWS_PROFILE", "work"}}, creds, conf, "http://work.example:9000", "eu-central-1",
         "WORKKEY", "worksecret", "worktoken", true, ""},
        {"keys in the environment before the profile's",
         {{"AWS_PROFILE", "work"}, {"AWS_ACCESS_KEY_ID", "K"}, {"AWS_SECRET_ACCESS_KEY", "S"}}, creds, conf,
         "http://work.example:9000", "eu-central-1", "K", "S", "", true, ""},
        {"keys in the config file", {{"AWS_PROFILE", "cfgonly"}}, creds, conf, "https://s3.us-east-1.amazonaws.com",
         "us-east-1", "CFGKEY", "cfgsecret", "", false, ""},
        {"no keys at all", {}, none, none, "", "", "", "", "", false,
         "no S3 credentials: set AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY, or give them in the [default] section "
         "of HOME/.aws/credentials"},
        {"half a pair", {{"AWS_ACCESS_KEY_ID", "K"}}, creds, conf, "", "", "", "", "", false,
         "AWS_ACCESS_KEY_ID is set but AWS_SECRET_ACCESS_KEY is not"},
        {"the other half", {{"AWS_SECRET_ACCESS_KEY", "envsecret"}}, creds, conf, "", "", "", "", "", false,
         "AWS_SECRET_ACCESS_KEY is set but AWS_ACCESS_KEY_ID is not"},
        {"half a pair in the file", {}, "[default]\naws_secret_access_key = filesecret\n", none, "", "", "", "", "",
         false,
         "HOME/.aws/credentials: the profile 'default' needs both aws_access_key_id and aws_secret_access_key"},
        {"an unknown profile", {{"AWS_PROFILE", "nope"}, {"AWS_ACCESS_KEY_ID", "K"}, {"AWS_SECRET_ACCESS_KEY", "S"}},
         creds, conf, "", "", "", "", "", false,
         "the AWS profile 'nope' (AWS_PROFILE) is in neither HOME/.aws/credentials nor HOME/.aws/config"},
        {"an endpoint that is no URL",
         {{"AWS_ACCESS_KEY_ID", "K"}, {"AWS_SECRET_ACCESS_KEY", "S"}, {"AWS_ENDPOINT_URL", "127.0.0.1:7480"}}, none,
         none, "", "", "", "", "", false,
         "the S3 endpoint '127.0.0.1:7480' (AWS_ENDPOINT_URL) is not an http:// or https:// URL"},
        {"a region that is no name", {{"AWS_REGION", "eu west:1"}}, creds, none, "", "", "", "", "", false,
         "the AWS region 'eu west:1' is not a region name (such as eu-west-1)"},
        {"nested blocks with the same keys, comments, a dotted profile", {{"AWS_PROFILE", "site.b"}}, none,
         "# mine\n[profile site.b]\n; keys\nregion = eu-north-1\ns3 =\n  addressing_style = path\n"
         "  max_concurrent_requests = 4\ns3api =\n\taddressing_style = path\n"
         "aws_access_key_id = DOTKEY\naws_secret_access_key = dotsecret\n",
         "https://s3.eu-north-1.amazonaws.com", "eu-north-1", "DOTKEY", "dotsecret", "", false, ""},
        {"a section left open", {}, "[default\naws_access_key_id = K\n", none, "", "", "", "", "", false,
         "HOME/.aws/credentials:1: unmatched '['"},
        {"a line that is no key", {}, creds, "[default]\n\nregion eu-west-1\n", "", "", "", "", "", false,
         "HOME/.aws/config:3: '=' character not found in line"},
        {"a key twice", {}, "[default]\naws_access_key_id = A\naws_access_key_id = B\n", none, "", "", "", "", "",
         false, "HOME/.aws/credentials:3: duplicate key name"},
    };
    const char* all[] = {"AWS_PROFILE", "AWS_DEFAULT_PROFILE", "AWS_ACCESS_KEY_ID", "AWS_SECRET_ACCESS_KEY",
                         "AWS_SESSION_TOKEN", "AWS_REGION", "AWS_DEFAULT_REGION", "AWS_ENDPOINT_URL",
                         "AWS_ENDPOINT_URL_S3", "AWS_SHARED_CREDENTIALS_FILE", "AWS_CONFIG_FILE"};
    for (const auto& c : cases) {
        for (const char* v : all) unsetenv(v);
        setenv("HOME", home.c_str(), 1);
        for (const auto& [k, v] : c.vars) setenv(k.c_str(), v.c_str(), 1);
        std::filesystem::remove(home / ".aws/credentials");
        std::filesystem::remove(home / ".aws/config");
        if (c.creds != none) std::ofstream(home / ".aws/credentials") << c.creds;
        if (c.conf != none) std::ofstream(home / ".aws/config") << c.conf;
        std::string error;
        S3Config got;
        try {
            got = S3Config::fromEnvironment();
        } catch (const zxblk::StoreError& e) {
            error = e.what();
        }
        std::string want = c.error;
        for (size_t at; (at = want.find("HOME")) != std::string::npos;) want.replace(at, 4, home.string());
        EXPECT_EQ(error, want) << c.name;
        for (const char* secret : {"envsecret", "filesecret", "worksecret", "cfgsecret", "dotsecret"})
            EXPECT_EQ(error.find(secret), std::string::npos) << c.name;
        if (!want.empty()) continue;
        EXPECT_EQ(got.endpoint, c.endpoint) << c.name;
        EXPECT_EQ(got.region, c.region) << c.name;
        EXPECT_EQ(got.accessKey, c.key) << c.name;
        EXPECT_EQ(got.secretKey, c.secret) << c.name;
        EXPECT_EQ(got.sessionToken, c.token) << c.name;
        EXPECT_EQ(got.pathStyle, c.pathStyle) << c.name;
    }
}

TEST_F(S3Environment, OtherFilesByName) {
    for (const char* v : {"AWS_PROFILE", "AWS_DEFAULT_PROFILE", "AWS_ACCESS_KEY_ID", "AWS_SECRET_ACCESS_KEY",
                          "AWS_SESSION_TOKEN", "AWS_REGION", "AWS_DEFAULT_REGION", "AWS_ENDPOINT_URL",
                          "AWS_ENDPOINT_URL_S3"})
        unsetenv(v);
    setenv("HOME", home.c_str(), 1);
    std::ofstream(home / ".aws/credentials") << "[default]\naws_access_key_id = HOMEKEY\naws_secret_access_key = h\n";
    std::ofstream(home / "creds") << "# elsewhere\n[default]\naws_access_key_id = OTHERKEY\naws_secret_access_key = o\n";
    std::ofstream(home / "conf") << "[default]\nregion = sa-east-1\n";
    setenv("AWS_SHARED_CREDENTIALS_FILE", (home / "creds").c_str(), 1);
    setenv("AWS_CONFIG_FILE", (home / "conf").c_str(), 1);
    S3Config c = S3Config::fromEnvironment();
    EXPECT_EQ(c.accessKey, "OTHERKEY");
    EXPECT_EQ(c.region, "sa-east-1");
}

TEST(S3Connections, OneTransportPerEndpointRegionAndKeys) {
    S3Config base;
    base.endpoint = "http://127.0.0.1:7480";
    base.accessKey = "K";
    base.secretKey = "S";
    zxblk::S3Connections connections;
    const std::shared_ptr<zxblk::S3Transport> first = connections.transport(base);
    const struct {
        std::string name;
        void (*change)(S3Config&);
        bool shared;
        std::string error;  // of a client of the bucket "bucket" with this configuration
    } cases[] = {
        {"the same", [](S3Config&) {}, true, ""},
        {"a trailing slash", [](S3Config& c) { c.endpoint += "/"; }, true, ""},
        {"other timing and style",
         [](S3Config& c) { c.deadlineSeconds = 1, c.requestTimeoutSeconds = 0.5, c.pathStyle = false; }, true, ""},
        {"another endpoint", [](S3Config& c) { c.endpoint = "http://127.0.0.1:7481"; }, false, ""},
        {"another region", [](S3Config& c) { c.region = "eu-west-1"; }, false, ""},
        {"another key", [](S3Config& c) { c.accessKey = "K2"; }, false, ""},
        {"another secret", [](S3Config& c) { c.secretKey = "S2"; }, false, ""},
        {"a session token", [](S3Config& c) { c.sessionToken = "T"; }, false, ""},
        {"no secret", [](S3Config& c) { c.secretKey.clear(); }, false,
         "s3://bucket: no S3 credentials (AWS_ACCESS_KEY_ID/AWS_SECRET_ACCESS_KEY)"},
        {"no region", [](S3Config& c) { c.region = "Mars 1"; }, false,
         "s3://bucket: the region 'Mars 1' is not a region name"},
        {"no URL", [](S3Config& c) { c.endpoint = "127.0.0.1:7480"; }, false,
         "s3://bucket: the endpoint '127.0.0.1:7480' is not a URL"},
    };
    for (const auto& c : cases) {
        S3Config cfg = base;
        c.change(cfg);
        std::string error;
        try {
            zxblk::S3Client client(cfg, "bucket", connections);
            EXPECT_EQ(connections.transport(cfg) == first, c.shared) << c.name;
        } catch (const zxblk::StoreError& e) {
            error = e.what();
        }
        EXPECT_EQ(error, c.error) << c.name;
    }
}

}  // namespace
