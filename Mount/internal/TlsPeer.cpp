#include "Mount/internal/TlsPeer.h"

#include "Mount/internal/TlsFiles.h"

#include <string>
#include <string_view>

#include <openssl/err.h>
#include <openssl/x509v3.h>

namespace Mount {

namespace {

constexpr std::size_t maxText = 200;  // most bytes of the other side's text that are quoted

bool isControl(std::string_view text, std::size_t i) {
    auto const byte = static_cast<unsigned char>(text[i]);
    if (byte == 0xC2 && i + 1 < text.size()) return static_cast<unsigned char>(text[i + 1]) < 0xA0;  // U+0080 to U+009F
    return byte < 0x20 || byte == 0x7F;
}

// Returns what `print` writes, cut to maxText bytes, with a '?' for each byte that is not printable ASCII.
template <class F> String printed(F print) {
    BioHolder const out(::BIO_new(::BIO_s_mem()));
    if (!out || !print(out.get())) {
        ::ERR_clear_error();
        return "(unreadable)";
    }
    char* data = nullptr;
    long const size = BIO_get_mem_data(out.get(), &data);
    std::string text(data, size > 0 ? static_cast<std::size_t>(size) : 0);
    if (text.size() > maxText) text.replace(maxText - 3, std::string::npos, "...");
    for (char& c : text)
        if (c < ' ' || c > '~') c = '?';
    return text;
}

String timeText(ASN1_TIME const* time) {
    return printed([&](BIO* out) { return ::ASN1_TIME_print(out, time) == 1; });
}

String hostsText(X509 const& certificate) {
    int const index = ::X509_get_ext_by_NID(&certificate, NID_subject_alt_name, -1);
    if (index < 0) return "no host at all (it has no subjectAltName)";
    return printed([&](BIO* out) {
        return ::X509V3_EXT_print(out, ::X509_get_ext(&certificate, index), X509V3_EXT_ERROR_UNKNOWN, 0) == 1;
    });
}

// Returns what the text of the reason does not say: the hosts, the date, or the file at fault.
String detail(int reason, X509 const& certificate, String const& host, String const& authorityPath) {
    switch (reason) {
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
        return "; it is for " + hostsText(certificate) + ", and this is " + host;
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return " on " + timeText(::X509_get0_notAfter(&certificate));
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return " before " + timeText(::X509_get0_notBefore(&certificate));
    case X509_V_ERR_INVALID_PURPOSE:
        return "; its extendedKeyUsage is for the other side of a connection";
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
        return "; it is signed by " + nameText(::X509_get_issuer_name(&certificate)) + ", which is no authority in " +
               authorityPath;
    case X509_V_ERR_CERT_REVOKED:
    case X509_V_ERR_UNABLE_TO_GET_CRL:
    case X509_V_ERR_CRL_HAS_EXPIRED:
        return "; the lists of revoked certificates are in " + authorityPath;
    default:
        return {};
    }
}

}  // namespace

String commonName(X509 const& certificate) {
    X509_NAME const* const name = ::X509_get_subject_name(&certificate);
    int const index = ::X509_NAME_get_index_by_NID(name, NID_commonName, -1);
    if (index < 0 || ::X509_NAME_get_index_by_NID(name, NID_commonName, index) >= 0) return {};

    unsigned char* bytes = nullptr;
    int const size = ::ASN1_STRING_to_UTF8(&bytes, ::X509_NAME_ENTRY_get_data(::X509_NAME_get_entry(name, index)));
    if (size < 0) {
        ::ERR_clear_error();
        return {};
    }
    std::string_view const text(reinterpret_cast<char const*>(bytes), static_cast<std::size_t>(size));
    bool clean = text.size() <= maxText;
    for (std::size_t i = 0; clean && i < text.size(); ++i) clean = !isControl(text, i);
    String const result = clean ? String(text) : String();
    ::OPENSSL_free(bytes);
    return result;
}

String nameText(X509_NAME const* name) {
    String const text = printed([&](BIO* out) { return ::X509_NAME_print_ex(out, name, 0, XN_FLAG_ONELINE) >= 0; });
    return text.empty() ? String("(no name)") : text;
}

String refusalText(X509_STORE_CTX& verification, String const& host, String const& authorityPath) {
    int const reason = ::X509_STORE_CTX_get_error(&verification);
    X509 const* const shown = ::X509_STORE_CTX_get0_cert(&verification);
    X509 const* const faulty = ::X509_STORE_CTX_get_current_cert(&verification);
    String text = "the certificate of " + (shown ? nameText(::X509_get_subject_name(shown)) : String("(nobody)"));
    if (faulty && shown && ::X509_cmp(faulty, shown) != 0)
        text += ", signed by " + nameText(::X509_get_subject_name(faulty)) + ",";
    text += String(" is refused: ") + ::X509_verify_cert_error_string(reason);
    X509 const* const about = faulty ? faulty : shown;
    return about ? text + detail(reason, *about, host, authorityPath) : text;
}

}  // namespace Mount
