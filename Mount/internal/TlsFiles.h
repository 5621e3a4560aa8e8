#pragma once

#include "Mount/Options.h"

#include <memory>

#include <openssl/ssl.h>

namespace Mount {

template <auto release> struct Release {
    template <class T> void operator()(T* p) const { release(p); }
};
using ContextHolder = std::unique_ptr<SSL_CTX, Release<&SSL_CTX_free>>;
using BioHolder = std::unique_ptr<BIO, Release<&BIO_free>>;

// Takes all errors out of OpenSSL's queue of this thread. Returns their texts, the oldest first.
String takeTlsErrors();

// Load the files into `context`. All throw ErrnoException or RangeException, which name the file.
void useCertificate(SSL_CTX& context, String const& path);
void useKey(SSL_CTX& context, TlsFiles const& files);  // REQUIRES: the certificate is loaded. The key must fit it.
// The certificates in the file may sign the other side's. If the file also holds a list of revoked certificates, every
// certificate is checked against it.
void useAuthority(SSL_CTX& context, String const& path);

}  // namespace Mount
