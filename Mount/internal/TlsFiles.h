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

// What OpenSSL has noted of its last failure, the oldest first; takes it out of its queue.
String takeTlsErrors();

// Give `context` what the files hold. All throw ErrnoException or RangeException, which name the file.
void useCertificate(SSL_CTX& context, String const& path);
void useKey(SSL_CTX& context, TlsFiles const& files);  // after the certificate, which it must be the key of
// Whoever is in the file may sign. Once it holds a list of revoked certificates, certificates are looked up there.
void useAuthority(SSL_CTX& context, String const& path);

}  // namespace Mount
