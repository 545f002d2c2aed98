// Documents: compressed for etcd, merged for a host.
#include "fleet/protocol/documents.h"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <zlib.h>

#include "fleet/protocol/certificates.h"

namespace vsfleet {

namespace {

std::string ToBase64(const std::string &bytes)
{
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                                       reinterpret_cast<const unsigned char *>(bytes.data()),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(length));
    return text;
}

// With up to two bytes of padding at the end, which zlib doesn't read.
std::string FromBase64(const std::string &text)
{
    std::string bytes(text.size() / 4 * 3, '\0');
    const int length =
        EVP_DecodeBlock(reinterpret_cast<unsigned char *>(bytes.data()),
                        reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()));
    if (length < 0) return "";
    bytes.resize(static_cast<size_t>(length));
    return bytes;
}

}

StoredDocument Store(const std::string &text)
{
    const Json file = Json::parse(text);
    StoredDocument document;
    document.sum = Sha256(text);
    document.size = static_cast<int64_t>(text.size());
    const Json switches = file.value("switches", Json::object());
    for (const auto &[alias, content] : switches.items())
        document.switches.push_back(alias);

    uLongf length = compressBound(text.size());
    std::string bytes(length, '\0');
    compress2(reinterpret_cast<Bytef *>(bytes.data()), &length, reinterpret_cast<const Bytef *>(text.data()),
              text.size(), Z_BEST_COMPRESSION);
    bytes.resize(length);
    document.compressed = ToBase64(bytes);
    if (const size_t size = ToText(document).size(); size > MAX_STORED_SIZE)
        throw std::runtime_error(fmt::format(
            "the document takes {} bytes in etcd, and at most {} fit; split it", size, MAX_STORED_SIZE));
    return document;
}

std::string Restore(const StoredDocument &document)
{
    const std::string bytes = FromBase64(document.compressed);
    uLongf length = static_cast<uLongf>(document.size);
    std::string text(length, '\0');
    const int result = uncompress(reinterpret_cast<Bytef *>(text.data()), &length,
                                  reinterpret_cast<const Bytef *>(bytes.data()), bytes.size());
    if (result != Z_OK || length != text.size() || Sha256(text) != document.sum)
        throw std::runtime_error("the stored document is damaged: its sum is another one");
    return text;
}

Json Merge(const std::vector<Json> &files)
{
    Json switches = Json::object();
    for (const Json &file : files) {
        if (file.contains("switches")) switches.update(file["switches"]);
    }
    return {{"switches", switches}};
}

bool Matches(const Labels &selector, const Labels &labels)
{
    for (const auto &[name, value] : selector) {
        const auto found = labels.find(name);
        if (found == labels.end() || found->second != value) return false;
    }
    return true;
}

Labels ParseLabels(const std::string &text)
{
    Labels labels;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find(',', begin), text.size());
        const std::string word = text.substr(begin, end - begin);
        const size_t sign = word.find('=');
        if (sign == 0 || sign == std::string::npos)
            throw std::runtime_error(fmt::format("'{}' is not a label; write NAME=VALUE", word));
        labels[word.substr(0, sign)] = word.substr(sign + 1);
        begin = end + 1;
    }
    return labels;
}

}
