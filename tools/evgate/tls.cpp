#include "tls.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <stdexcept>

namespace evgate {
namespace {

constexpr char CIPHERS[] = "TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256:"
                           "TLS_AES_128_GCM_SHA256";

// Certificates between a peer's and the authority.
constexpr int LONGEST_CHAIN = 4;

std::string takeError() {
    const unsigned long error = ERR_peek_last_error();
    ERR_clear_error();
    const char* reason = ERR_reason_error_string(error);
    if (reason != nullptr) {
        return reason;
    }
    return error != 0 && ERR_SYSTEM_ERROR(error) ? strerror(ERR_GET_REASON(error))
                                                 : "it cannot be used";
}

void require(bool isDone, const std::string& what) {
    if (!isDone) {
        throw std::runtime_error(what + ": " + takeError());
    }
}

// Nobody is there who could be asked for it.
int noPassphrase(char* /*buffer*/, int /*size*/, int /*forWriting*/, void* /*unused*/) {
    return 0;
}

std::string textOf(const ASN1_STRING* text) {
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
            static_cast<std::size_t>(ASN1_STRING_length(text))};
}

void addAlternativeNames(const X509* certificate, std::vector<std::string>& names) {
    auto* all = static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; i < sk_GENERAL_NAME_num(all); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(all, i);
        if (name->type == GEN_DNS) {
            names.push_back("DNS:" + textOf(name->d.dNSName));
        } else if (name->type == GEN_URI) {
            names.push_back("URI:" + textOf(name->d.uniformResourceIdentifier));
        }
    }
    GENERAL_NAMES_free(all);
}

void addCommonNames(const X509* certificate, std::vector<std::string>& names) {
    const X509_NAME* subject = X509_get_subject_name(certificate);
    for (int at = -1; (at = X509_NAME_get_index_by_NID(subject, NID_commonName, at)) >= 0;) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(subject, at);
        names.push_back("CN:" + textOf(X509_NAME_ENTRY_get_data(entry)));
    }
}

void useOwn(SSL_CTX* context, const TlsFiles& files) {
    require(SSL_CTX_use_certificate_chain_file(context, files.certificate.c_str()) == 1,
            files.certificate);
    require(SSL_CTX_use_PrivateKey_file(context, files.key.c_str(), SSL_FILETYPE_PEM) == 1,
            files.key);
    require(SSL_CTX_check_private_key(context) == 1, files.key + " and " + files.certificate);
}

bool isAddress(const std::string& name) {
    in6_addr parsed{};
    return inet_pton(AF_INET, name.c_str(), &parsed) == 1 ||
           inet_pton(AF_INET6, name.c_str(), &parsed) == 1;
}

} // namespace

void TlsContext::Free::operator()(SSL_CTX* context) const {
    SSL_CTX_free(context);
}

void TlsStream::Free::operator()(SSL* stream) const {
    SSL_free(stream);
}

TlsContext::TlsContext(TlsSide side, const TlsFiles& files)
    : side_(side),
      context_(SSL_CTX_new(side == TlsSide::SERVER ? TLS_server_method() : TLS_client_method())) {
    SSL_CTX* context = context_.get();
    ERR_clear_error();
    require(context != nullptr, "TLS");
    require(SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) == 1, "TLS 1.3");
    require(SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION) == 1, "TLS 1.3");
    require(SSL_CTX_set_ciphersuites(context, CIPHERS) == 1, "ciphers");
    SSL_CTX_set_security_level(context, 2);
    // Nothing is resumed: each link shows its certificate.
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION);
    require(SSL_CTX_set_num_tickets(context, 0) == 1, "tickets");
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                  SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_default_passwd_cb(context, noPassphrase);
    if (side == TlsSide::SERVER || !files.certificate.empty()) {
        useOwn(context, files);
    }
    require(SSL_CTX_load_verify_file(context, files.ca.c_str()) == 1, files.ca);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    SSL_CTX_set_verify_depth(context, LONGEST_CHAIN);
}

int TlsContext::daysLeft() const {
    int days = 0;
    int seconds = 0;
    const X509* certificate = SSL_CTX_get0_certificate(context_.get());
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    return seconds < 0 ? days - 1 : days;
}

TlsStream::TlsStream(const TlsContext& context, int descriptor, const std::string& peerName)
    : stream_(SSL_new(context.get())) {
    if (!stream_ || SSL_set_fd(stream_.get(), descriptor) != 1) {
        throw std::bad_alloc();
    }
    if (context.side() == TlsSide::SERVER) {
        SSL_set_accept_state(stream_.get());
        return;
    }
    SSL_set_connect_state(stream_.get());
    X509_VERIFY_PARAM* checks = SSL_get0_param(stream_.get());
    X509_VERIFY_PARAM_set_hostflags(checks, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    const int isSet = isAddress(peerName)
                          ? X509_VERIFY_PARAM_set1_ip_asc(checks, peerName.c_str())
                          : X509_VERIFY_PARAM_set1_host(checks, peerName.data(), peerName.size());
    require(isSet == 1, "'" + peerName + "'");
}

Step TlsStream::stepOf(int result) {
    const int saved = errno;
    switch (SSL_get_error(stream_.get(), result)) {
    case SSL_ERROR_NONE:
        return Step::DONE;
    case SSL_ERROR_WANT_READ:
        return Step::READABLE;
    case SSL_ERROR_WANT_WRITE:
        return Step::WRITABLE;
    case SSL_ERROR_ZERO_RETURN:
        return Step::END;
    case SSL_ERROR_SYSCALL:
        failure_ = saved != 0 ? strerror(saved) : "cut off";
        break;
    default:
        failure_ = takeError();
        break;
    }
    if (const long verdict = SSL_get_verify_result(stream_.get()); verdict != X509_V_OK) {
        failure_ = std::string("its certificate: ") + X509_verify_cert_error_string(verdict);
    }
    ERR_clear_error();
    return Step::FAILED;
}

Step TlsStream::handshake() {
    errno = 0;
    return stepOf(SSL_do_handshake(stream_.get()));
}

Step TlsStream::read(std::span<U8_t> space, std::size_t& size) {
    errno = 0;
    return stepOf(SSL_read_ex(stream_.get(), space.data(), space.size(), &size));
}

Step TlsStream::write(View bytes, std::size_t& size) {
    errno = 0;
    return stepOf(SSL_write_ex(stream_.get(), bytes.data(), bytes.size(), &size));
}

Step TlsStream::finish() {
    errno = 0;
    const int result = SSL_shutdown(stream_.get());
    return result >= 0 ? Step::DONE : stepOf(result);
}

std::string TlsStream::objection(const TlsContext& context) const {
    if (SSL_get_SSL_CTX(stream_.get()) == context.get()) {
        return ""; // the handshake has judged by the same files
    }
    const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> checks(
        X509_STORE_CTX_new(), &X509_STORE_CTX_free);
    X509_STORE* believed = SSL_CTX_get_cert_store(context.get());
    if (!checks ||
        X509_STORE_CTX_init(checks.get(), believed, SSL_get0_peer_certificate(stream_.get()),
                            SSL_get_peer_cert_chain(stream_.get())) != 1) {
        throw std::bad_alloc();
    }
    X509_STORE_CTX_set_default(checks.get(),
                               context.side() == TlsSide::SERVER ? "ssl_client" : "ssl_server");
    X509_STORE_CTX_set_depth(checks.get(), LONGEST_CHAIN);
    const bool isGood = X509_verify_cert(checks.get()) == 1;
    ERR_clear_error();
    return isGood ? "" : X509_verify_cert_error_string(X509_STORE_CTX_get_error(checks.get()));
}

S64_t TlsStream::validUntil() const {
    S64_t until = INT64_MAX;
    const auto* chain = SSL_get0_verified_chain(stream_.get());
    for (int i = 0; i < sk_X509_num(chain); ++i) {
        int days = 0;
        int seconds = 0;
        ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(sk_X509_value(chain, i)));
        until = std::min(until, time(nullptr) + S64_t{days} * 86'400 + seconds);
    }
    return until;
}

std::vector<std::string> TlsStream::peerNames() const {
    std::vector<std::string> names;
    if (const X509* certificate = SSL_get0_peer_certificate(stream_.get())) {
        addAlternativeNames(certificate, names);
        addCommonNames(certificate, names);
    }
    return names;
}

} // namespace evgate
