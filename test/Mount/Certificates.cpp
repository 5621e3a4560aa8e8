#include "Certificates.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

namespace MountTest {

namespace {

template <auto release> struct Release {
    template <class T> void operator()(T* p) const { release(p); }
};
using Key = std::unique_ptr<EVP_PKEY, Release<&EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Release<&X509_free>>;
using Bio = std::unique_ptr<BIO, Release<&BIO_free>>;
using Crl = std::unique_ptr<X509_CRL, Release<&X509_CRL_free>>;

constexpr long day = 24 * 60 * 60;

void require(bool ok) {
    if (!ok) throw std::runtime_error("OpenSSL made no certificate");
}

Key newKey(int bits = 0) {
    Key key(bits ? EVP_RSA_gen(static_cast<unsigned>(bits)) : EVP_EC_gen("P-256"));
    require(key != nullptr);
    return key;
}

template <class F> std::string pem(F write) {
    Bio const out(BIO_new(BIO_s_mem()));
    require(write(out.get()) == 1);
    char* data = nullptr;
    long const size = BIO_get_mem_data(out.get(), &data);
    return std::string(data, static_cast<std::size_t>(size));
}

std::string pem(X509* certificate) {
    return pem([&](BIO* out) { return PEM_write_bio_X509(out, certificate); });
}

void addName(X509* certificate, std::string const& name) {
    require(X509_NAME_add_entry_by_NID(X509_get_subject_name(certificate), NID_commonName, MBSTRING_UTF8,
                reinterpret_cast<unsigned char const*>(name.data()), static_cast<int>(name.size()), -1, 0) == 1);
}

void addExtension(X509* certificate, int kind, std::string const& value) {
    std::unique_ptr<X509_EXTENSION, Release<&X509_EXTENSION_free>> const extension(
        X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str()));
    require(extension && X509_add_ext(certificate, extension.get(), -1) == 1);
}

Certificate newCertificate(std::string const& name, EVP_PKEY* key, long serial, int days) {
    Certificate certificate(X509_new());
    require(X509_set_version(certificate.get(), X509_VERSION_3) == 1);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -30 * day);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), days * day);
    X509_set_pubkey(certificate.get(), key);
    if (!name.empty()) addName(certificate.get(), name);
    return certificate;
}

}  // namespace

std::string readFile(std::string const& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Certificates::Issuer {
    std::string name;
    Key key;
    Certificate certificate;

    void sign(X509* other) const {
        X509_set_issuer_name(other, X509_get_subject_name(certificate.get()));
        require(X509_sign(other, key.get(), EVP_sha256()) != 0);
    }
};

Certificates::Certificates() {
    folder_ = (std::filesystem::temp_directory_path() / "mount-test-XXXXXX").string();
    if (!::mkdtemp(folder_.data())) throw std::runtime_error("no temporary folder");
}

Certificates::~Certificates() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

std::string Certificates::write(std::string const& file, std::string_view text) const {
    std::ofstream(path(file)) << text;
    return path(file);
}

Certificates::Issuer& Certificates::issuer(std::string const& name, Issuer* signedBy, bool maySign) {
    for (auto const& known : issuers_)
        if (known->name == name) return *known;
    Key key = newKey();
    Certificate certificate = newCertificate(name, key.get(), ++serial_, 30);
    if (maySign) {
        addExtension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
        addExtension(certificate.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    }
    auto& made = *issuers_.emplace_back(std::make_unique<Issuer>(Issuer{name, std::move(key), std::move(certificate)}));
    (signedBy ? *signedBy : made).sign(made.certificate.get());
    write(name + ".pem", pem(made.certificate.get()));
    return made;
}

std::string Certificates::authorityPath(std::string const& name) {
    issuer(name);
    return path(name + ".pem");
}

Mount::TlsFiles Certificates::issue(Request const& request, std::string const& authority) {
    return issue(request, issuer(authority), authority);
}

Mount::TlsFiles Certificates::issueBehind(
    Request const& request, std::string const& between, std::string const& authority, bool mayBetweenSign) {
    Issuer& by = issuer(between, &issuer(authority), mayBetweenSign);
    Mount::TlsFiles const files = issue(request, by, authority);
    std::ofstream(files.certificate.stdString(), std::ios::app) << pem(by.certificate.get());
    return files;
}

Mount::TlsFiles Certificates::issue(Request const& request, Issuer& by, std::string const& authority) {
    Key const key = newKey(request.bits);
    Certificate const certificate = newCertificate(request.name, key.get(), ++serial_, request.days);
    if (!request.secondName.empty()) addName(certificate.get(), request.secondName);
    std::string hosts;
    for (auto const& host : request.hosts) hosts += (hosts.empty() ? "" : ",") + host;
    if (!hosts.empty()) addExtension(certificate.get(), NID_subject_alt_name, hosts);
    if (!request.use.empty()) addExtension(certificate.get(), NID_ext_key_usage, request.use);
    by.sign(certificate.get());

    std::string const file = std::to_string(serial_);
    return {write(file + ".pem", pem(certificate.get())), write(file + ".key", pem([&](BIO* out) {
                return PEM_write_bio_PrivateKey(out, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
            })),
        authorityPath(authority)};
}

std::string Certificates::encryptedKey(Mount::TlsFiles const& files) {
    std::string const plain = readFile(files.key.stdString());
    Bio const in(BIO_new_mem_buf(plain.data(), static_cast<int>(plain.size())));
    Key const key(PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr));
    unsigned char const password[] = "secret";
    return write("encrypted.key", pem([&](BIO* out) {
        return PEM_write_bio_PrivateKey(out, key.get(), EVP_aes_128_cbc(), password, 6, nullptr, nullptr);
    }));
}

std::string Certificates::authorityRevoking(std::string const& authority, std::vector<Mount::TlsFiles> const& revoked) {
    Issuer const& by = issuer(authority);
    Crl const list(X509_CRL_new());
    X509_CRL_set_version(list.get(), X509_CRL_VERSION_2);
    X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(by.certificate.get()));
    std::unique_ptr<ASN1_TIME, Release<&ASN1_TIME_free>> const time(ASN1_TIME_new());
    X509_gmtime_adj(time.get(), -day);
    X509_CRL_set1_lastUpdate(list.get(), time.get());
    X509_gmtime_adj(time.get(), day);
    X509_CRL_set1_nextUpdate(list.get(), time.get());
    X509_gmtime_adj(time.get(), -day);
    for (auto const& files : revoked) {
        std::string const text = readFile(files.certificate.stdString());
        Bio const in(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
        Certificate const certificate(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
        X509_REVOKED* const entry = X509_REVOKED_new();
        X509_REVOKED_set_serialNumber(entry, X509_get_serialNumber(certificate.get()));
        X509_REVOKED_set_revocationDate(entry, time.get());
        require(X509_CRL_add0_revoked(list.get(), entry) == 1);
    }
    require(X509_CRL_sign(list.get(), by.key.get(), EVP_sha256()) != 0);
    return write(authority + "-revoking.pem",
        pem(by.certificate.get()) + pem([&](BIO* out) { return PEM_write_bio_X509_CRL(out, list.get()); }));
}

}  // namespace MountTest
