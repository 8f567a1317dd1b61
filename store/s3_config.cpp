#include "store/s3_config.h"

#include <pwd.h>
#include <unistd.h>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "store/s3_text.h"
#include "store/store_error.h"

namespace zxblk {
namespace {

using boost::property_tree::ptree;
using s3::oneLine;

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

std::string homeDir() {
    std::string home = env("HOME");
    if (home.empty()) {
        if (const passwd* pw = getpwuid(getuid())) home = pw->pw_dir ? pw->pw_dir : "";
    }
    return home;
}

// One of the AWS tools' INI files: a section per profile, a tree without
// any where the file does not exist. An indented line belongs to a nested
// block (the lines under "s3 =") that nothing here reads; it is blanked out
// before parsing (so that line numbers stay right), since the parser would
// take it for a key of the section and refuse one that comes twice.
ptree readAwsFile(const std::string& path) {
    ptree tree;
    std::error_code ec;
    if (path.empty() || !std::filesystem::exists(path, ec)) return tree;
    std::ifstream in(path);
    if (!in) throw StoreError(path + ": cannot be read");
    std::string text, line;
    while (std::getline(in, line)) {
        if (!line.empty() && (line[0] == ' ' || line[0] == '\t')) line.clear();
        text += line + '\n';
    }
    if (in.bad()) throw StoreError(path + ": cannot be read");
    std::istringstream flat(text);
    try {
        boost::property_tree::ini_parser::read_ini(flat, tree);
    } catch (const boost::property_tree::ini_parser_error& e) {
        throw StoreError(path + ":" + std::to_string(e.line()) + ": " + e.message());
    }
    return tree;
}

// A section or key by its exact name (a profile's name may hold dots,
// which a ptree path would split at).
const ptree* child(const ptree* tree, const std::string& name) {
    if (!tree) return nullptr;
    auto it = tree->find(name);
    return it == tree->not_found() ? nullptr : &it->second;
}

}  // namespace

bool isS3Url(const std::string& text) { return text.size() >= 5 && s3::lower(text.substr(0, 5)) == "s3://"; }

bool S3Location::parse(const std::string& url, S3Location& out, std::string& why) {
    if (!isS3Url(url)) {
        why = "'" + oneLine(url, 200) + "' is not an s3://BUCKET/PREFIX URL";
        return false;
    }
    std::string rest = url.substr(5);
    size_t slash = rest.find('/');
    std::string bucket = rest.substr(0, slash);
    std::string prefix = slash == std::string::npos ? "" : rest.substr(slash + 1);
    if (bucket.empty()) {
        why = "'" + oneLine(url, 200) + "' names no bucket (s3://BUCKET/PREFIX)";
        return false;
    }
    bool ok = bucket.size() >= 3 && bucket.size() <= 63;
    for (char c : bucket)
        ok = ok && ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-');
    ok = ok && std::isalnum(static_cast<unsigned char>(bucket.front())) &&
         std::isalnum(static_cast<unsigned char>(bucket.back())) && bucket.find("..") == std::string::npos;
    if (!ok) {
        why = "'" + oneLine(bucket, 100) +
              "' is not a valid bucket name (3 to 63 lower-case letters, digits, dots and hyphens, "
              "beginning and ending with a letter or digit)";
        return false;
    }
    for (char c : prefix) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            why = "the prefix of '" + oneLine(url, 200) + "' holds a control character";
            return false;
        }
    }
    size_t first = prefix.find_first_not_of('/');
    prefix = first == std::string::npos ? "" : prefix.substr(first);
    if (!prefix.empty() && prefix.back() != '/') prefix += '/';
    out.bucket = bucket;
    out.prefix = prefix;
    return true;
}

std::string S3Location::url() const { return "s3://" + bucket + "/" + prefix; }

S3Config S3Config::fromEnvironment() {
    S3Config c;
    std::string profile = env("AWS_PROFILE");
    if (profile.empty()) profile = env("AWS_DEFAULT_PROFILE");
    const bool namedProfile = !profile.empty();
    if (!namedProfile) profile = "default";
    const std::string home = homeDir();
    std::string credPath = env("AWS_SHARED_CREDENTIALS_FILE");
    if (credPath.empty() && !home.empty()) credPath = home + "/.aws/credentials";
    std::string confPath = env("AWS_CONFIG_FILE");
    if (confPath.empty() && !home.empty()) confPath = home + "/.aws/config";
    const ptree cred = readAwsFile(credPath);
    const ptree conf = readAwsFile(confPath);

    const ptree* credSection = child(&cred, profile);
    const ptree* confSection = child(&conf, "profile " + profile);
    if (!confSection && profile == "default") confSection = child(&conf, profile);
    if (namedProfile && !credSection && !confSection)
        throw StoreError("the AWS profile '" + oneLine(profile, 100) + "' (AWS_PROFILE) is in neither " + credPath +
                         " nor " + confPath);
    auto fromConf = [&](const char* key) {
        const ptree* v = child(confSection, key);
        return v ? v->data() : std::string();
    };

    c.region = env("AWS_REGION");
    if (c.region.empty()) c.region = env("AWS_DEFAULT_REGION");
    if (c.region.empty()) c.region = fromConf("region");
    if (c.region.empty()) c.region = "us-east-1";
    if (!s3::validRegion(c.region))
        throw StoreError("the AWS region '" + oneLine(c.region, 100) + "' is not a region name (such as eu-west-1)");

    const std::string awsEndpoint = "https://s3." + c.region + ".amazonaws.com";
    c.endpoint = env("AWS_ENDPOINT_URL_S3");
    if (c.endpoint.empty()) c.endpoint = env("AWS_ENDPOINT_URL");
    if (c.endpoint.empty()) c.endpoint = fromConf("endpoint_url");
    if (c.endpoint.empty()) c.endpoint = awsEndpoint;
    while (c.endpoint.size() > 8 && c.endpoint.back() == '/') c.endpoint.pop_back();
    const std::string scheme = s3::lower(c.endpoint.substr(0, 8));
    if (scheme.rfind("http://", 0) != 0 && scheme.rfind("https://", 0) != 0)
        throw StoreError("the S3 endpoint '" + oneLine(c.endpoint, 200) +
                         "' (AWS_ENDPOINT_URL) is not an http:// or https:// URL");
    c.pathStyle = c.endpoint != awsEndpoint;

    const std::string key = env("AWS_ACCESS_KEY_ID"), secret = env("AWS_SECRET_ACCESS_KEY");
    if (!key.empty() || !secret.empty()) {
        if (key.empty()) throw StoreError("AWS_SECRET_ACCESS_KEY is set but AWS_ACCESS_KEY_ID is not");
        if (secret.empty()) throw StoreError("AWS_ACCESS_KEY_ID is set but AWS_SECRET_ACCESS_KEY is not");
        c.accessKey = key;
        c.secretKey = secret;
        c.sessionToken = env("AWS_SESSION_TOKEN");
        return c;
    }
    // The credentials file first, then the config file, as the AWS tools do.
    const std::pair<const ptree*, std::string> places[] = {{credSection, credPath}, {confSection, confPath}};
    for (const auto& [section, path] : places) {
        const ptree *k = child(section, "aws_access_key_id"), *s = child(section, "aws_secret_access_key");
        if (!k && !s) continue;
        if (!k || !s || k->data().empty() || s->data().empty())
            throw StoreError(path + ": the profile '" + oneLine(profile, 100) +
                             "' needs both aws_access_key_id and aws_secret_access_key");
        c.accessKey = k->data();
        c.secretKey = s->data();
        if (const ptree* t = child(section, "aws_session_token")) c.sessionToken = t->data();
        return c;
    }
    throw StoreError("no S3 credentials: set AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY, or give them in the [" +
                     oneLine(profile, 100) + "] section of " + (credPath.empty() ? "~/.aws/credentials" : credPath));
}

}  // namespace zxblk
