// Keys, certificates and sums by OpenSSL.
#include "fleet/protocol/certificates.h"

#include <memory>
#include <stdexcept>

#include <fmt/chrono.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

namespace vsfleet {

namespace {

template<class Type, void (*FREE)(Type *)> struct Free {
    void operator()(Type *object) const { FREE(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY, EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Free<X509, X509_free>>;
using Memory = std::unique_ptr<BIO, Free<BIO, BIO_free_all>>;

constexpr long VERSION_3 = 2;

template<class Value> Value Need(Value value)
{
    if (!value) throw std::runtime_error("OpenSSL can't make a certificate");
    return value;
}

std::string Text(BIO *memory)
{
    char *data = nullptr;
    const long length = BIO_get_mem_data(memory, &data);
    return {data, static_cast<size_t>(length)};
}

Memory Bytes(const std::string &text)
{
    return Memory(Need(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))));
}

X509Ptr ReadCertificate(const std::string &pem)
{
    return X509Ptr(Need(PEM_read_bio_X509(Bytes(pem).get(), nullptr, nullptr, nullptr)));
}

Key ReadKey(const std::string &pem)
{
    return Key(Need(PEM_read_bio_PrivateKey(Bytes(pem).get(), nullptr, nullptr, nullptr)));
}

void AddExtension(X509 *certificate, X509 *issuer, int kind, const std::string &value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION *extension = Need(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

// A certificate of the present hour and a random number, not yet signed.
X509Ptr Begin(const std::string &name, EVP_PKEY *key, int days)
{
    X509Ptr certificate(Need(X509_new()));
    X509_set_version(certificate.get(), VERSION_3);
    uint64_t number = 0;
    Need(RAND_bytes(reinterpret_cast<unsigned char *>(&number), sizeof(number)) == 1);
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), number >> 1 | 1);
    // An hour ago, as the clocks of a fleet differ.
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_time_adj_ex(X509_getm_notAfter(certificate.get()), days, 0, nullptr);
    X509_set_pubkey(certificate.get(), key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char *>(name.c_str()), -1, -1, 0);
    return certificate;
}

Certificate Sign(X509 *certificate, EVP_PKEY *key, EVP_PKEY *authority)
{
    Need(X509_sign(certificate, authority, EVP_sha256()) > 0);
    Memory pem(Need(BIO_new(BIO_s_mem()))), secret(Need(BIO_new(BIO_s_mem())));
    Need(PEM_write_bio_X509(pem.get(), certificate) == 1);
    Need(PEM_write_bio_PrivateKey(secret.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1);
    return {Text(pem.get()), Text(secret.get())};
}

bool IsNumeric(const std::string &address)
{
    return address.find_first_not_of("0123456789.") == std::string::npos ||
           address.find(':') != std::string::npos;
}

}

Certificate MakeAuthority(const std::string &name)
{
    const Key key(Need(EVP_EC_gen("P-256")));
    const X509Ptr certificate = Begin(name, key.get(), AUTHORITY_DAYS);
    X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate.get()));
    AddExtension(certificate.get(), certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(certificate.get(), certificate.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    AddExtension(certificate.get(), certificate.get(), NID_subject_key_identifier, "hash");
    return Sign(certificate.get(), key.get(), key.get());
}

Certificate MakeCertificate(const Certificate &authority, const std::string &name,
                            const std::vector<std::string> &addresses)
{
    const X509Ptr issuer = ReadCertificate(authority.certificate);
    const Key issuerKey = ReadKey(authority.key), key(Need(EVP_EC_gen("P-256")));
    const X509Ptr certificate = Begin(name, key.get(), CERTIFICATE_DAYS);
    X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer.get()));
    AddExtension(certificate.get(), issuer.get(), NID_basic_constraints, "critical,CA:FALSE");
    AddExtension(certificate.get(), issuer.get(), NID_ext_key_usage,
                 addresses.empty() ? "clientAuth" : "serverAuth,clientAuth");
    AddExtension(certificate.get(), issuer.get(), NID_authority_key_identifier, "keyid");
    std::string names;
    for (const std::string &address : addresses)
        names += fmt::format("{}{}:{}", names.empty() ? "" : ",", IsNumeric(address) ? "IP" : "DNS", address);
    if (!names.empty()) AddExtension(certificate.get(), issuer.get(), NID_subject_alt_name, names);
    return Sign(certificate.get(), key.get(), issuerKey.get());
}

std::string EndOf(const std::string &certificate)
{
    tm end = {};
    Need(ASN1_TIME_to_tm(X509_get0_notAfter(ReadCertificate(certificate).get()), &end) == 1);
    return fmt::format("{:%Y-%m-%d}", end);
}

std::string Sha256(const std::string &text)
{
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    Need(EVP_Digest(text.data(), text.size(), sum, &length, EVP_sha256(), nullptr) == 1);
    std::string digits;
    for (unsigned i = 0; i < length; i++)
        digits += fmt::format("{:02x}", sum[i]);
    return digits;
}

std::string RandomId()
{
    unsigned char bytes[16];
    Need(RAND_bytes(bytes, sizeof(bytes)) == 1);
    std::string digits;
    for (const unsigned char byte : bytes)
        digits += fmt::format("{:02x}", byte);
    return digits;
}

}
