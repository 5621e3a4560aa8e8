#include "Mount/internal/TlsFiles.h"

#include "Vel/base/Exception.h"
#include "Vel/base/System.h"

#include <cerrno>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace Mount {

using Vel::format;
using Vel::RangeException;

String takeTlsErrors() {
    std::string text;
    char const* data = nullptr;
    int flags = 0;
    while (unsigned long const error = ::ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags)) {
        if (!text.empty()) text += "; ";
        if (char const* const reason = ::ERR_reason_error_string(error))
            text += reason;
        else
            text += format("error %lx", error).view();
        if ((flags & ERR_TXT_STRING) && data && *data) text.append(" (").append(data).append(")");
    }
    return text;
}

namespace {

constexpr std::size_t maxFileSize = 1 << 20;  // bytes; some hundred certificates

// The bytes of a file. They may be a key, so the destructor wipes them from memory.
class FileBytes {
public:
    explicit FileBytes(String const& path)
        : bytes_(std::make_unique_for_overwrite<char[]>(maxFileSize + 1)), file_{open(path)} {
        while (size_ <= maxFileSize) {
            ssize_t const got = Vel::System::calls().read(file_.number, bytes_.get() + size_, maxFileSize + 1 - size_);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) throw Vel::ErrnoException(errno, path);
            if (got == 0) return;
            size_ += static_cast<std::size_t>(got);
        }
        throw RangeException(path + format(": more than %zu bytes", maxFileSize));
    }
    FileBytes(FileBytes const&) = delete;
    FileBytes& operator=(FileBytes const&) = delete;
    ~FileBytes() { ::OPENSSL_cleanse(bytes_.get(), size_); }

    bool holds(std::string_view text) const {
        return std::string_view(bytes_.get(), size_).find(text) != std::string_view::npos;
    }
    BioHolder reader() const { return BioHolder(::BIO_new_mem_buf(bytes_.get(), static_cast<int>(size_))); }

private:
    struct File {
        int number;
        ~File() { Vel::System::calls().close(number); }
    };
    static int open(String const& path) {
        int const file = Vel::System::calls().open(path.charPtr(), O_RDONLY);
        if (file < 0) throw Vel::ErrnoException(errno, path);
        return file;
    }

    std::unique_ptr<char[]> bytes_;
    File file_;
    std::size_t size_ = 0;
};

[[noreturn]] void fail(String const& path, char const* what) {
    String const why = takeTlsErrors();
    throw RangeException(path + ": " + what + (why.empty() ? String() : ": " + why));
}

void requireName(String const& path, char const* of) {
    if (path.empty()) throw RangeException(format("TLS needs the file of %s, and none is given", of));
}

// Replaces OpenSSL's callback, which would ask for a password at the terminal, and wait.
int noPassword(char*, int, int, void* asked) {
    *static_cast<bool*>(asked) = true;
    return -1;
}

void releaseParts(STACK_OF(X509_INFO) * parts) { sk_X509_INFO_pop_free(parts, &::X509_INFO_free); }
using Parts = std::unique_ptr<STACK_OF(X509_INFO), Release<&releaseParts>>;

Parts readParts(String const& path) {
    ::ERR_clear_error();
    FileBytes const file(path);
    bool asked = false;
    Parts parts(::PEM_X509_INFO_read_bio(file.reader().get(), nullptr, &noPassword, &asked));
    if (!parts) fail(path, "not what a PEM file holds");
    return parts;
}

}  // namespace

void useCertificate(SSL_CTX& context, String const& path) {
    requireName(path, "a certificate");
    Parts const parts = readParts(path);
    bool found = false;
    for (int i = 0; i < sk_X509_INFO_num(parts.get()); ++i) {
        X509* const certificate = sk_X509_INFO_value(parts.get(), i)->x509;
        if (!certificate) continue;
        bool const taken = found ? ::SSL_CTX_add1_chain_cert(&context, certificate) == 1
                                 : ::SSL_CTX_use_certificate(&context, certificate) == 1;
        if (!taken) fail(path, "the certificate is of no use");
        found = true;
    }
    if (!found) fail(path, "no certificate in PEM form");
}

void useKey(SSL_CTX& context, TlsFiles const& files) {
    requireName(files.key, "a key");
    ::ERR_clear_error();
    FileBytes const file(files.key);
    bool asked = false;
    std::unique_ptr<EVP_PKEY, Release<&EVP_PKEY_free>> const key(
        ::PEM_read_bio_PrivateKey(file.reader().get(), nullptr, &noPassword, &asked));
    if (asked) {
        ::ERR_clear_error();
        fail(files.key, "the key is encrypted; nobody is asked for a password, so one without it is needed");
    }
    if (!key && !file.holds("PRIVATE KEY-----")) {
        ::ERR_clear_error();
        fail(files.key, "no key in PEM form");
    }
    if (!key) fail(files.key, "not what a key in PEM form looks like");
    if (::X509_check_private_key(::SSL_CTX_get0_certificate(&context), key.get()) != 1) {
        ::ERR_clear_error();
        fail(files.key, ("not the key of the certificate in " + files.certificate).charPtr());
    }
    if (::SSL_CTX_use_PrivateKey(&context, key.get()) != 1) fail(files.key, "the key is of no use");
}

void useAuthority(SSL_CTX& context, String const& path) {
    requireName(path, "an authority");
    Parts const parts = readParts(path);
    X509_STORE* const store = ::SSL_CTX_get_cert_store(&context);
    bool found = false;
    for (int i = 0; i < sk_X509_INFO_num(parts.get()); ++i) {
        X509_INFO const& part = *sk_X509_INFO_value(parts.get(), i);
        if (part.x509) {
            if (::X509_STORE_add_cert(store, part.x509) != 1) fail(path, "the certificate is of no use");
            found = true;
        }
        if (part.crl) {
            if (::X509_STORE_add_crl(store, part.crl) != 1) fail(path, "the list of revoked certificates is of no use");
            ::X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
        }
    }
    if (!found) fail(path, "no certificate in PEM form");
    // Trusts each certificate in the file by itself, even an intermediate one whose own issuer is not in the file.
    ::X509_STORE_set_flags(store, X509_V_FLAG_PARTIAL_CHAIN);
}

}  // namespace Mount
