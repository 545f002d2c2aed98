// The fleet's own certificate authority: enough of one that a fleet can be set up without another program.
#pragma once

#include <string>
#include <vector>

namespace vsfleet {

// A certificate and its private key, as PEM.
struct Certificate {
    std::string certificate;
    std::string key;
};

inline constexpr int AUTHORITY_DAYS = 3650;
inline constexpr int CERTIFICATE_DAYS = 365;

Certificate MakeAuthority(const std::string &name);
// `name` is the user that etcd takes the holder for. A server is reached by its addresses.
Certificate MakeCertificate(const Certificate &authority, const std::string &name,
                            const std::vector<std::string> &addresses = {});
// The day on which the certificate ends, like "2027-03-01".
std::string EndOf(const std::string &certificate);

// In hexadecimal digits.
std::string Sha256(const std::string &text);
// Of 16 random bytes, in hexadecimal digits.
std::string RandomId();

}
