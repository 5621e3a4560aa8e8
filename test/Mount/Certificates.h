#pragma once

#include "Mount/Options.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace MountTest {

// Authorities and certificates, made in a temporary folder that goes with this object.
class Certificates {
public:
    struct Request {
        std::string name;                // the common name
        std::vector<std::string> hosts;  // "DNS:..." or "IP:..."
        int days = 1;                    // that it is still valid; negative: since when it is not
        std::string use = {};            // "serverAuth" or "clientAuth"; either if empty
        std::string secondName = {};     // a second common name
        int bits = 0;                    // of an RSA key; 0: one on an elliptic curve
    };

    Certificates();
    Certificates(Certificates const&) = delete;
    Certificates& operator=(Certificates const&) = delete;
    ~Certificates();

    // The files of a new certificate that the authority of that name has signed; it is made when first named. What is
    // in `authority` of the result is the same one.
    Mount::TlsFiles issue(Request const& request, std::string const& authority = "authority");
    // One that is signed by another, which signs in its turn: `files.certificate` then holds both.
    Mount::TlsFiles issueBehind(
        Request const& request, std::string const& between, std::string const& authority, bool mayBetweenSign = true);

    std::string authorityPath(std::string const& name = "authority");
    // A copy of the key, protected by a password.
    std::string encryptedKey(Mount::TlsFiles const& files);
    // An authority's certificate and the list of those of its certificates that are revoked.
    std::string authorityRevoking(std::string const& authority, std::vector<Mount::TlsFiles> const& revoked);

    std::string path(std::string const& file) const { return folder_ + "/" + file; }
    std::string write(std::string const& file, std::string_view text) const;  // returns its path

private:
    struct Issuer;
    Issuer& issuer(std::string const& name, Issuer* signedBy = nullptr, bool maySign = true);
    Mount::TlsFiles issue(Request const& request, Issuer& by, std::string const& authority);

    std::string folder_;
    std::vector<std::unique_ptr<Issuer>> issuers_;
    long serial_ = 0;
};

std::string readFile(std::string const& path);

}  // namespace MountTest
