#include "Mount/internal/Channel.h"
#include "Mount/internal/TlsFiles.h"
#include "Mount/internal/TlsPeer.h"

#include "Vel/base/Exception.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

namespace Mount {

using Vel::RangeException;

namespace {

// The most bytes that one call reads from the socket: those of the largest record. Records without data may come
// without end, and one call must not read them all, since other handlers must have their turn. If bytes are left, the
// socket is readable again at once.
constexpr std::size_t maxRead = 18 * 1024;
static_assert(maxRead >= SSL3_RT_MAX_PACKET_SIZE);
constexpr std::size_t maxWrite = SSL3_RT_MAX_PLAIN_LENGTH;  // bytes of data in one record

constexpr char const* closedEarly = "the connection was closed during the TLS handshake";

// What all channels of a context share; they may outlive the context.
struct Rules {
    TlsContext::Side side;
    std::vector<String> names;  // common names that are admitted; if empty, all that the authority has signed
    TlsFiles files;             // named in errors
};

bool isIn(std::vector<String> const& names, String const& name) {
    return !name.empty() && std::find(names.begin(), names.end(), name) != names.end();
}

// Whether OpenSSL's error is an alert of the other side, which says what that refused.
bool isAlert(unsigned long error) {
    return ERR_GET_LIB(error) == ERR_LIB_SSL && ERR_GET_REASON(error) > SSL_AD_REASON_OFFSET;
}

bool isAboutCertificate(int alert) {
    return (alert >= SSL_AD_BAD_CERTIFICATE && alert <= SSL_AD_CERTIFICATE_UNKNOWN) || alert == SSL_AD_UNKNOWN_CA ||
           alert == SSL_AD_ACCESS_DENIED || alert == SSL_AD_CERTIFICATE_REQUIRED;
}

class TlsChannel final : public Channel {
public:
    TlsChannel(std::shared_ptr<Rules const> rules, SSL_CTX* context, int socket, String const& host);

    Outcome handshake() override;
    Outcome receive(std::span<U8> into) override;
    Outcome send(std::span<U8 const> bytes) override;
    void finish() override;

    // Called by OpenSSL.
    int verify(X509_STORE_CTX* verification) noexcept;
    static int readSocket(BIO* bio, char* into, int size);
    static int writeSocket(BIO* bio, char const* bytes, int size);
    static long control(BIO* bio, int command, long number, void* pointer);

private:
    enum class Stage : U8 { handshake, open, failed };

    void begin();
    Outcome unfinished(int returned);
    Outcome fail(String const& why);
    String failure(int sslError);
    String alertText(unsigned long alert) const;
    void preferAlert();

    std::shared_ptr<Rules const> rules_;
    String host_;
    std::unique_ptr<SSL, Release<&SSL_free>> ssl_;
    String verifiedName_;
    String refusal_;           // why the other side's certificate is refused; empty if it is not
    std::size_t started_ = 0;  // bytes that OpenSSL has begun to send, and must be passed again
    std::size_t mayRead_ = 0;  // bytes that the call under way may still read from the socket
    int systemError_ = 0;      // errno of the socket, in the call under way
    Stage stage_ = Stage::handshake;
    bool isVerified_ = false;
    bool isAtEnd_ = false;  // the socket is at its end
    bool hasFinished_ = false;
};

// Replaces OpenSSL's own socket BIO, which calls write(2): on a closed connection that kills the process by SIGPIPE.
BIO_METHOD const* socketMethod() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* const made = ::BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket without signals");
        if (made) {
            ::BIO_meth_set_read(made, &TlsChannel::readSocket);
            ::BIO_meth_set_write(made, &TlsChannel::writeSocket);
            ::BIO_meth_set_ctrl(made, &TlsChannel::control);
        }
        return made;
    }();
    return method;
}

[[noreturn]] void failSetup(char const* what) { throw RangeException(String(what) + ": " + takeTlsErrors()); }

void expectHost(SSL& ssl, String const& host) {
    if (host.empty()) throw RangeException("TLS needs to know which host it connects to");
    X509_VERIFY_PARAM* const rules = ::SSL_get0_param(&ssl);
    // Only subjectAltName says for which hosts a certificate is. The common name names a person or a program.
    ::X509_VERIFY_PARAM_set_hostflags(
        rules, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);

    std::string_view const text = host;
    String const address(text.substr(0, text.find('%')));  // without the interface of fe80::1%eth0
    bool const isText = text.find('\0') == std::string_view::npos;
    if (isText && ::X509_VERIFY_PARAM_set1_ip_asc(rules, address.charPtr()) == 1) return;
    ::ERR_clear_error();
    if (!isText || ::X509_VERIFY_PARAM_set1_host(rules, text.data(), text.size()) != 1 ||
        SSL_set_tlsext_host_name(&ssl, host.charPtr()) != 1) {
        ::ERR_clear_error();
        throw RangeException(valueToStrep(host) + " is no name of a host");
    }
}

TlsChannel::TlsChannel(std::shared_ptr<Rules const> rules, SSL_CTX* context, int socket, String const& host)
    : Channel(socket), rules_(std::move(rules)), host_(host), ssl_(::SSL_new(context)) {
    if (!ssl_) failSetup("a TLS connection can't be made");
    SSL_set_app_data(ssl_.get(), this);
    if (rules_->side == TlsContext::Side::client) {
        expectHost(*ssl_, host);
        ::SSL_set_connect_state(ssl_.get());
    } else {
        ::SSL_set_accept_state(ssl_.get());
    }
    BIO* const bio = ::BIO_new(socketMethod());
    if (!bio) failSetup("a TLS connection can't be made");
    ::BIO_set_data(bio, this);
    ::BIO_set_init(bio, 1);
    ::SSL_set_bio(ssl_.get(), bio, bio);
}

// --- what OpenSSL calls ---

int TlsChannel::readSocket(BIO* bio, char* into, int size) {
    auto& channel = *static_cast<TlsChannel*>(::BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (channel.mayRead_ == 0) {
        BIO_set_retry_read(bio);
        return -1;
    }
    auto const most = std::min(static_cast<std::size_t>(size), channel.mayRead_);
    ssize_t got = 0;
    do got = ::recv(channel.socket_, into, most, 0);
    while (got < 0 && errno == EINTR);
    if (got > 0) {
        channel.mayRead_ -= static_cast<std::size_t>(got);
    } else if (got == 0) {
        channel.isAtEnd_ = true;
    } else if (errno == EAGAIN) {
        BIO_set_retry_read(bio);
    } else {
        channel.systemError_ = errno;
    }
    return static_cast<int>(got);
}

int TlsChannel::writeSocket(BIO* bio, char const* bytes, int size) {
    auto& channel = *static_cast<TlsChannel*>(::BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    ssize_t sent = 0;
    do sent = ::send(channel.socket_, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        if (errno == EAGAIN)
            BIO_set_retry_write(bio);
        else
            channel.systemError_ = errno;
    }
    return static_cast<int>(sent);
}

long TlsChannel::control(BIO* bio, int command, long, void*) {
    switch (command) {
    case BIO_CTRL_FLUSH:
        return 1;  // success: writes are not buffered
    case BIO_CTRL_EOF:
        return static_cast<TlsChannel*>(::BIO_get_data(bio))->isAtEnd_;
    default:
        return 0;
    }
}

// Refuses a certificate during the handshake, and not after it, so that the other side is told why.
int TlsChannel::verify(X509_STORE_CTX* verification) noexcept {
    if (::X509_verify_cert(verification) != 1) {
        refusal_ = refusalText(*verification, host_, rules_->files.authority);
        return 0;
    }
    X509 const* const certificate = ::X509_STORE_CTX_get0_cert(verification);
    verifiedName_ = commonName(*certificate);
    if (!rules_->names.empty() && !isIn(rules_->names, verifiedName_)) {
        refusal_ = "the certificate of " + nameText(::X509_get_subject_name(certificate)) +
                   " is refused: its common name is none of those that are let in";
        ::X509_STORE_CTX_set_error(verification, X509_V_ERR_CERT_REJECTED);
        return 0;
    }
    isVerified_ = true;
    return 1;
}

int verifyPeer(X509_STORE_CTX* verification, void*) {
    auto* const ssl =
        static_cast<SSL*>(::X509_STORE_CTX_get_ex_data(verification, ::SSL_get_ex_data_X509_STORE_CTX_idx()));
    return static_cast<TlsChannel*>(SSL_get_app_data(ssl))->verify(verification);
}

// --- the channel ---

// To be called before each call of OpenSSL. SSL_get_error() also looks at the thread's queue of errors, in which other
// code may have left some.
void TlsChannel::begin() {
    ::ERR_clear_error();
    mayRead_ = maxRead;
    systemError_ = 0;
}

Channel::Outcome TlsChannel::handshake() {
    if (stage_ == Stage::failed) return {Result::failed};
    if (stage_ == Stage::open) return {Result::done};
    begin();
    int const returned = ::SSL_do_handshake(ssl_.get());
    if (returned != 1) {
        Outcome const outcome = unfinished(returned);
        return outcome.result == Result::end ? fail(closedEarly) : outcome;
    }
    if (!isVerified_)
        return fail("the other side's certificate was not verified");  // defensive: no known path leads here
    peerName_ = verifiedName_;
    stage_ = Stage::open;
    return {Result::done};
}

Channel::Outcome TlsChannel::receive(std::span<U8> into) {
    if (stage_ == Stage::failed) return {Result::failed};
    if (into.empty()) return {Result::done};
    begin();
    std::size_t bytes = 0;
    int const returned = ::SSL_read_ex(ssl_.get(), into.data(), into.size(), &bytes);
    return returned == 1 ? Outcome{Result::done, bytes} : unfinished(returned);
}

Channel::Outcome TlsChannel::send(std::span<U8 const> bytes) {
    if (stage_ == Stage::failed) return {Result::failed};
    if (bytes.empty()) return {Result::done};
    // A record that was begun is finished with the same size, as OpenSSL requires. The bytes behind it wait for the
    // next call.
    std::size_t const size = started_ ? started_ : std::min(bytes.size(), maxWrite);
    if (size > bytes.size()) return fail("fewer bytes are to be sent than when it was tried before");
    begin();
    std::size_t sent = 0;
    int const returned = ::SSL_write_ex(ssl_.get(), bytes.data(), size, &sent);
    started_ = 0;
    if (returned == 1) return {Result::done, sent};
    Outcome const outcome = unfinished(returned);
    if (outcome.result == Result::failed)
        preferAlert();
    else
        started_ = size;
    return outcome;
}

void TlsChannel::finish() {
    if (stage_ != Stage::open || hasFinished_) return;
    hasFinished_ = true;
    begin();
    ::SSL_shutdown(ssl_.get());
    ::ERR_clear_error();
}

Channel::Outcome TlsChannel::unfinished(int returned) {
    int const sslError = ::SSL_get_error(ssl_.get(), returned);
    switch (sslError) {
    case SSL_ERROR_WANT_READ:
        return {Result::wantsRead};
    case SSL_ERROR_WANT_WRITE:
        return {Result::wantsWrite};
    case SSL_ERROR_ZERO_RETURN:
        return {Result::end};
    default:
        return fail(failure(sslError));
    }
}

Channel::Outcome TlsChannel::fail(String const& why) {
    stage_ = Stage::failed;
    error_ = why;
    ::ERR_clear_error();
    return {Result::failed};
}

// Says why a call failed. A connection that ends without the other side's close_notify was cut, perhaps by an attacker,
// so it is reported as an error. No data depend on that: a message that was cut shows by its length.
String TlsChannel::failure(int sslError) {
    if (!refusal_.empty()) return refusal_;
    bool const isHandshake = stage_ == Stage::handshake;
    if (isAtEnd_) return isHandshake ? closedEarly : "the connection was cut";
    String const text = isHandshake ? "the TLS handshake failed: " : "the TLS connection failed: ";
    if (sslError == SSL_ERROR_SYSCALL && systemError_ != 0) return text + Vel::ErrnoException(systemError_).text();

    unsigned long const error = ::ERR_peek_error();
    if (isAlert(error)) return alertText(error);
    if (ERR_GET_LIB(error) == ERR_LIB_SSL && ERR_GET_REASON(error) == SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE)
        return "the other side shows no certificate";
    String const why = takeTlsErrors();
    return text + (why.empty() ? String("OpenSSL does not say why") : why);
}

String TlsChannel::alertText(unsigned long alert) const {
    std::string_view reason = ::ERR_reason_error_string(alert) ? ::ERR_reason_error_string(alert) : "unknown alert";
    if (auto const at = reason.find("alert "); at != std::string_view::npos) reason.remove_prefix(at + 6);
    return isAboutCertificate(ERR_GET_REASON(alert) - SSL_AD_REASON_OFFSET)
               ? "the other side refuses the certificate in " + rules_->files.certificate + ": " + String(reason)
               : "the other side ended the TLS connection: " + String(reason);
}

// If sending fails because the connection is closed, looks for an alert that came before: it says why the other side
// refuses this one, which helps more than the error of the send.
void TlsChannel::preferAlert() {
    if (systemError_ != EPIPE && systemError_ != ECONNRESET) return;
    begin();
    U8 ignored[1024];
    std::size_t bytes = 0;
    while (::SSL_read_ex(ssl_.get(), ignored, sizeof ignored, &bytes) == 1) {}
    if (unsigned long const error = ::ERR_peek_error(); isAlert(error)) error_ = alertText(error);
    ::ERR_clear_error();
}

}  // namespace

// --- the context ---

struct TlsContext::Impl {
    ContextHolder context;
    std::shared_ptr<Rules const> rules;
};

TlsContext::TlsContext(Side side, PeerOptions const& options) : impl_(std::make_unique<Impl>()) {
    impl_->context.reset(::SSL_CTX_new(side == Side::server ? ::TLS_server_method() : ::TLS_client_method()));
    impl_->rules = std::make_shared<Rules const>(Rules{side, options.names, options.tls});
    SSL_CTX* const context = impl_->context.get();
    // Both sides are this library, so no older version is needed. TLS 1.3 has no renegotiation.
    if (!context || SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) != 1) failSetup("TLS can't be set up");
    // Level 2 refuses keys and ciphers of less than 112 bits of security; most systems have it set anyway.
    if (::SSL_CTX_get_security_level(context) < 2) ::SSL_CTX_set_security_level(context, 2);
    // No sessions are resumed: that would skip the verification.
    ::SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
    ::SSL_CTX_set_num_tickets(context, 0);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    // PARTIAL_WRITE: the other side may ask for short records; then send() returns after each of them.
    // NO_AUTO_CHAIN: sends the certificates of the certificate's file only, none of the authority's file.
    SSL_CTX_set_mode(
        context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_NO_AUTO_CHAIN);
    SSL_CTX_set_read_ahead(context, 1);  // one system call for one or more records, instead of two for each
    ::SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    ::SSL_CTX_set_cert_verify_callback(context, &verifyPeer, nullptr);

    useCertificate(*context, options.tls.certificate);
    useKey(*context, options.tls);
    useAuthority(*context, options.tls.authority);
}

TlsContext::~TlsContext() = default;

std::unique_ptr<Channel> TlsContext::channel(int socket, String const& host) const {
    return std::make_unique<TlsChannel>(impl_->rules, impl_->context.get(), socket, host);
}

}  // namespace Mount
