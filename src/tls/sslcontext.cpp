#include "tls/sslcontext.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pkcs12.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "common/logging.h"
#include "net/optionmap.h"
#include "socketio/socketfunctions.h"
#include "tls/sslexception.h"
#include "tls/toolsinternalexception.h"

namespace tools {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.tools.SSLContext");

// The keys that seal the session tickets of every context of the same settings, made when
// those settings are first set up. A port served by several reactors has one context per
// reactor: with keys of their own, a ticket would resume only on the one that issued it.
// Settings that differ in anything keep apart, so that no session crosses into a server that
// would have judged its client differently.
std::mutex g_ticketKeysMutex;
std::map<std::string, std::array<unsigned char, 80>> g_ticketKeys;  // GUARDED_BY(g_ticketKeysMutex)

void shareTicketKeys(SSL_CTX * ctx, const std::string & settings) {
    std::lock_guard<std::mutex> guard(g_ticketKeysMutex);
    auto found = g_ticketKeys.find(settings);
    if (found == g_ticketKeys.end()) {
        std::array<unsigned char, 80> keys{};
        if (RAND_priv_bytes(keys.data(), static_cast<int>(keys.size())) != 1) {
            ERR_clear_error();
            return;  // the context keeps the keys of its own
        }
        found = g_ticketKeys.emplace(settings, keys).first;
    }
    static_cast<void>(SSL_CTX_set_tlsext_ticket_keys(ctx, found->second.data(), static_cast<long>(found->second.size())));
}

// The fixed Diffie-Hellman group for DHE suites: a 2236-bit safe prime (made once with
// "openssl dhparam 2236"), big-endian, and generator 2. A fixed group spares every context
// the cost of generating one; 2236 bits clear OpenSSL's default security level 2.
const unsigned char dhPrime[280] = {
    0x0B, 0xC2, 0x3D, 0xC0, 0xF6, 0xBE, 0xB5, 0x88, 0xBC, 0x7B, 0xEF, 0xF5,
    0x21, 0x7E, 0x5B, 0xD6, 0xFF, 0x5F, 0x51, 0x91, 0x1C, 0x4E, 0xAB, 0xD9,
    0x71, 0x7D, 0x84, 0x8C, 0x74, 0xCE, 0x6C, 0x36, 0x8B, 0x55, 0x8E, 0x7D,
    0x1E, 0xB2, 0xC3, 0xC8, 0x3C, 0x9E, 0x48, 0x84, 0xE2, 0x9C, 0xD4, 0x08,
    0x90, 0x44, 0xC7, 0xE3, 0x61, 0x1B, 0x42, 0x02, 0x99, 0xB0, 0xC6, 0x6B,
    0xAD, 0x3E, 0x13, 0xA4, 0x45, 0x1F, 0xB9, 0x3F, 0xAC, 0xD9, 0x08, 0xE0,
    0x22, 0xC5, 0x3C, 0x37, 0x11, 0x00, 0xCB, 0xEC, 0x41, 0x59, 0xE6, 0x5A,
    0xEF, 0xA1, 0xA2, 0x47, 0x54, 0x41, 0x57, 0xC9, 0x44, 0xF1, 0x9B, 0xED,
    0xC8, 0xB9, 0x61, 0x06, 0x72, 0x68, 0x5B, 0xD7, 0x61, 0xBF, 0x1D, 0xE2,
    0x4E, 0xD5, 0x5B, 0x26, 0x85, 0x3D, 0xFD, 0x87, 0xB0, 0x9A, 0x7A, 0x65,
    0x5F, 0x89, 0x88, 0x8B, 0x8F, 0x0D, 0x46, 0x3C, 0x4A, 0x3D, 0xF9, 0x40,
    0xDF, 0x1D, 0xED, 0xD9, 0xCE, 0x4A, 0x13, 0x92, 0x2D, 0x44, 0x39, 0xF5,
    0xEA, 0x3F, 0xFF, 0x8C, 0xBC, 0x70, 0x99, 0x54, 0x62, 0xB7, 0xDD, 0x19,
    0xA5, 0x5E, 0x0B, 0xAB, 0xE6, 0xE0, 0xD8, 0xEE, 0x97, 0x92, 0xDE, 0xEB,
    0x01, 0x11, 0x02, 0x56, 0x58, 0x0D, 0x93, 0xFC, 0xBB, 0x17, 0x72, 0xB2,
    0xF2, 0x6B, 0x29, 0xBC, 0x23, 0x69, 0xFD, 0x68, 0xC7, 0xF7, 0xAF, 0x87,
    0x8C, 0x82, 0xD3, 0x1E, 0xA4, 0x81, 0x9B, 0x15, 0xD8, 0x1B, 0x6E, 0xA7,
    0x3A, 0x87, 0x6E, 0x26, 0x12, 0xEA, 0x83, 0x37, 0xF7, 0xA7, 0x90, 0x52,
    0x29, 0x5F, 0x00, 0xA9, 0x39, 0xDC, 0x3D, 0x81, 0x86, 0x16, 0x7E, 0x68,
    0x53, 0xD7, 0xBD, 0xF8, 0x85, 0xCF, 0x9B, 0x1F, 0x4F, 0x85, 0xDC, 0x2F,
    0x8D, 0x54, 0xE8, 0x41, 0xC0, 0x06, 0x9E, 0xB6, 0x6E, 0xA1, 0x5A, 0xE5,
    0xC6, 0xCF, 0x9A, 0x25, 0xBE, 0xDD, 0x2C, 0x95, 0x76, 0x45, 0xB5, 0x87,
    0xD5, 0x2A, 0x4B, 0xFE, 0x5C, 0x3E, 0x31, 0x52, 0x06, 0x2B, 0x2C, 0x7A,
    0x64, 0xF7, 0x3E, 0xEF,
};
const unsigned char dhGenerator[1] = {0x02};

// The DH group as an EVP_PKEY of domain parameters; null if a conversion fails.
EVP_PKEY * makeDHParameters() {
    BIGNUM * p = BN_bin2bn(dhPrime, sizeof dhPrime, nullptr);
    BIGNUM * g = BN_bin2bn(dhGenerator, sizeof dhGenerator, nullptr);
    OSSL_PARAM_BLD * builder = OSSL_PARAM_BLD_new();
    OSSL_PARAM * params = nullptr;
    EVP_PKEY_CTX * keyContext = nullptr;
    EVP_PKEY * key = nullptr;
    if (p != nullptr && g != nullptr && builder != nullptr && OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_FFC_P, p) == 1 &&
        OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_FFC_G, g) == 1 &&
        (params = OSSL_PARAM_BLD_to_param(builder)) != nullptr &&
        (keyContext = EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr)) != nullptr &&
        EVP_PKEY_fromdata_init(keyContext) == 1) {
        if (EVP_PKEY_fromdata(keyContext, &key, EVP_PKEY_KEY_PARAMETERS, params) != 1) {
            key = nullptr;
        }
    }
    EVP_PKEY_CTX_free(keyContext);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(builder);
    BN_free(g);
    BN_free(p);
    return key;
}

// Holds what PKCS#12 loading opens and parses, and releases it on every way out.
struct PKCS12Guard {
    FILE * file = nullptr;
    PKCS12 * bundle = nullptr;
    EVP_PKEY * key = nullptr;
    X509 * certificate = nullptr;
    STACK_OF(X509) * chain = nullptr;

    PKCS12Guard() = default;
    PKCS12Guard(const PKCS12Guard &) = delete;
    PKCS12Guard & operator=(const PKCS12Guard &) = delete;
    ~PKCS12Guard() {
        EVP_PKEY_free(key);
        sk_X509_pop_free(chain, X509_free);
        X509_free(certificate);
        PKCS12_free(bundle);
        if (file != nullptr) {
            std::fclose(file);
        }
    }
};

std::string nameText(const X509_NAME * name) {
    char buffer[256] = {};
    X509_NAME_oneline(name, buffer, sizeof buffer);
    return buffer;
}
}  // namespace

SSLContext::SSLContext()
    : m_LoadCryptoCertStore("true"),
      m_CipherList(defaultCipherList),
      m_EnableWeakMethods("false"),
      m_SessionResumption("true") {}

SSLContext::SSLContext(const net::OptionMap & options) : SSLContext() {
    const std::pair<const char *, std::string SSLContext::*> keys[] = {
        {"CertificateFile", &SSLContext::m_CertificateFile},
        {"PrivateKeyFile", &SSLContext::m_PrivateKeyFile},
        {"PrivatePassword", &SSLContext::m_PrivatePassword},
        {"NoCertify", &SSLContext::m_NoCertify},
        {"LoadCryptoCertStore", &SSLContext::m_LoadCryptoCertStore},
        {"CAFile", &SSLContext::m_CAFile},
        {"CAPath", &SSLContext::m_CAPath},
        {"PKCS12File", &SSLContext::m_PKCS12File},
        {"CipherList", &SSLContext::m_CipherList},
        {"EnableWeakMethods", &SSLContext::m_EnableWeakMethods},
        {"SessionResumption", &SSLContext::m_SessionResumption},
    };
    for (const auto & key : keys) {
        auto found = options.find(key.first);
        if (found != options.end()) {
            this->*key.second = found->second;
        }
    }
}

SSLContext::SSLContext(SSLContext && other) noexcept
    : m_ctx(std::exchange(other.m_ctx, nullptr)),
      m_CertificateFile(std::exchange(other.m_CertificateFile, std::string())),
      m_PrivateKeyFile(std::exchange(other.m_PrivateKeyFile, std::string())),
      m_PrivatePassword(std::exchange(other.m_PrivatePassword, std::string())),
      m_NoCertify(std::exchange(other.m_NoCertify, std::string())),
      m_LoadCryptoCertStore(std::exchange(other.m_LoadCryptoCertStore, std::string())),
      m_CAFile(std::exchange(other.m_CAFile, std::string())),
      m_CAPath(std::exchange(other.m_CAPath, std::string())),
      m_PKCS12File(std::exchange(other.m_PKCS12File, std::string())),
      m_CipherList(std::exchange(other.m_CipherList, std::string())),
      m_EnableWeakMethods(std::exchange(other.m_EnableWeakMethods, std::string())),
      m_SessionResumption(std::exchange(other.m_SessionResumption, std::string())) {
    // The password callback finds the password through the object that set it up.
    if (m_ctx != nullptr && SSL_CTX_get_default_passwd_cb_userdata(m_ctx) == &other) {
        SSL_CTX_set_default_passwd_cb_userdata(m_ctx, this);
    }
}

SSLContext::~SSLContext() {
    if (m_ctx != nullptr) {
        SSL_CTX_free(m_ctx);
    }
}

SSL_CTX * SSLContext::context() {
    if (m_ctx == nullptr) {
        setup(false);
    }
    return m_ctx;
}

void SSLContext::fail(const std::string & text) {
    LOG4CXX_ERROR(logger, text);
    // One line that a host can show as it stands: what was being done, with which file, and
    // the first cause OpenSSL or the system gave.
    throw SSLException(text);
}

void SSLContext::requireServerIdentity() {
    SSL_CTX * ctx = context();
    std::string missing;
    if (SSL_CTX_get0_certificate(ctx) == nullptr) {
        missing = "a TLS server needs a certificate: set CertificateFile and PrivateKeyFile, or PKCS12File";
    } else if (SSL_CTX_check_private_key(ctx) != 1) {
        ERR_clear_error();
        missing = "a TLS server needs the private key of its certificate: set PrivateKeyFile";
    }
    if (!missing.empty()) {
        // Without these every handshake would fail later, one client at a time and unexplained.
        throw InternalException(missing.c_str(), true);
    }
}

bool SSLContext::sessionResumption() const {
    return net::OptionMap::isTrue(m_SessionResumption);
}

void SSLContext::setup(bool /*unused*/) {
    const bool weakMethods = net::OptionMap::isTrue(m_EnableWeakMethods);
    const bool noCertify = net::OptionMap::isTrue(m_NoCertify);

    // A second setup starts afresh; SSL objects made from the old context keep it alive.
    if (m_ctx != nullptr) {
        SSL_CTX_free(std::exchange(m_ctx, nullptr));
    }
    // 1, 2. One method for both roles: whether the context serves a client or a server is
    // settled by SSL_connect or SSL_accept later.
    const SSL_METHOD * method = TLS_method();
    if (method == nullptr) {
        throw SSLException();
    }
    m_ctx = SSL_CTX_new(method);
    if (m_ctx == nullptr) {
        throw SSLException();
    }

    // 3, 4. OpenSSL 3 knows no SSLv2 (the option is 0), and TLS 1.0 and later stay allowed.
    if (weakMethods) {
        LOG4CXX_WARN(logger, "leaving SSLv2 and SSLv3 enabled");
    } else {
        LOG4CXX_INFO(logger, "disabling SSLv2 and SSLv3");
        SSL_CTX_set_options(m_ctx, SSL_OP_NO_SSLv2);
        SSL_CTX_set_options(m_ctx, SSL_OP_NO_SSLv3);
    }
    SSL_CTX_set_options(m_ctx, SSL_OP_CIPHER_SERVER_PREFERENCE);

    // 5.
    if (!m_CertificateFile.empty() && SSL_CTX_use_certificate_chain_file(m_ctx, m_CertificateFile.c_str()) != 1) {
        fail("unable to load certificate file '" + m_CertificateFile + "'");
    }
    // 6. After the certificate file on purpose: only keys and the PKCS#12 file draw on the
    // password.
    if (!m_PrivatePassword.empty()) {
        SSL_CTX_set_default_passwd_cb(m_ctx, &SSLContext::passwordCallback);
        SSL_CTX_set_default_passwd_cb_userdata(m_ctx, this);
    }
    // 7.
    if (!m_PKCS12File.empty()) {
        loadPKCS12();
    }
    // 8.
    if (!m_PrivateKeyFile.empty() && SSL_CTX_use_PrivateKey_file(m_ctx, m_PrivateKeyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        fail("unable to load private key file '" + m_PrivateKeyFile + "'");
    }
    // 9. A PKCS#12 bundle alone is not checked here.
    if (!m_CertificateFile.empty() && !m_PrivateKeyFile.empty() && SSL_CTX_check_private_key(m_ctx) != 1) {
        fail("private key file '" + m_PrivateKeyFile + "' does not match certificate file '" + m_CertificateFile + "'");
    }
    // 10. An empty location goes to OpenSSL as null: an empty directory name is an error there.
    if (m_CAFile.empty() && m_CAPath.empty()) {
        if (SSL_CTX_set_default_verify_paths(m_ctx) != 1) {
            fail("unable to set default paths for verifying CA's");
        }
    } else if (SSL_CTX_load_verify_locations(m_ctx, m_CAFile.empty() ? nullptr : m_CAFile.c_str(),
                                             m_CAPath.empty() ? nullptr : m_CAPath.c_str()) != 1) {
        fail("unable to load CA file '" + m_CAFile + "' or the path '" + m_CAPath + "' is not valid");
    }
    // 11. An explicitly empty list keeps OpenSSL's default.
    if (!m_CipherList.empty() && SSL_CTX_set_cipher_list(m_ctx, m_CipherList.c_str()) != 1) {
        fail("unable to set cipher list to '" + m_CipherList + "'");
    }
    // 12. Without SSL_VERIFY_FAIL_IF_NO_PEER_CERT a server asks a client for a certificate,
    // does not insist on one, and rejects one that fails. OpenSSL's default depth holds.
    if (noCertify) {
        SSL_CTX_set_verify(m_ctx, SSL_VERIFY_NONE, nullptr);
    } else {
        SSL_CTX_set_verify(m_ctx, SSL_VERIFY_PEER, &SSLContext::verifyCallback);
    }
    // 13.
    if (net::OptionMap::isTrue(m_LoadCryptoCertStore)) {
        SSL_CTX_add_CryptoAPI_certificate_store(m_ctx, "ROOT");
        SSL_CTX_add_CryptoAPI_certificate_store(m_ctx, "CA");
    }
    // 14, 15. A resumed session costs a fraction of a full handshake. As a server the context
    // keeps a session cache and issues tickets; a client context's sessions are kept by its
    // owner per target. The session id context is the same for every context of this module:
    // a server that asks for client certificates may not resume without one. Off, every
    // connection is a full handshake.
    // A TLS 1.3 server sends its tickets after every handshake, two unless told: one is
    // enough for a client that keeps one session per target, and none is sent where nothing
    // may be resumed (each would cost a session copy and a record for nothing).
    if (sessionResumption()) {
        static const unsigned char sessionContext[] = "corvane";
        SSL_CTX_set_session_cache_mode(m_ctx, SSL_SESS_CACHE_SERVER);
        SSL_CTX_set_session_id_context(m_ctx, sessionContext, sizeof sessionContext - 1);
        SSL_CTX_set_num_tickets(m_ctx, 1);
        shareTicketKeys(m_ctx, m_CertificateFile + '\n' + m_PrivateKeyFile + '\n' + m_NoCertify + '\n' +
                                   m_LoadCryptoCertStore + '\n' + m_CAFile + '\n' + m_CAPath + '\n' + m_PKCS12File +
                                   '\n' + m_CipherList + '\n' + m_EnableWeakMethods);
    } else {
        SSL_CTX_set_session_cache_mode(m_ctx, SSL_SESS_CACHE_OFF);
        SSL_CTX_set_options(m_ctx, SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(m_ctx, 0);
    }
    SSL_CTX_set_options(m_ctx, SSL_OP_NO_SESSION_RESUMPTION_ON_RENEGOTIATION);
    // 16. Automatic ECDH curves; always on in OpenSSL 3, where this call only returns 1.
    static_cast<void>(SSL_CTX_set_ecdh_auto(m_ctx, 1));
    // 17. On success the context owns the key (SSL_CTX_set0_tmp_dh_pkey(3)).
    EVP_PKEY * dh = makeDHParameters();
    if (dh == nullptr || SSL_CTX_set0_tmp_dh_pkey(m_ctx, dh) != 1) {
        EVP_PKEY_free(dh);
        fail("unable to set Diffie-Hellman key");
    }
    // 18. This side's own chain, completed from the trust store once here rather than on every
    // handshake (where it would look through the system's certificate directory each time).
    // The chain of the certificate file stays part of it; one that cannot be completed is sent
    // as far as it goes, as before. A PKCS#12 chain is sent as it stands and is left alone.
    STACK_OF(X509) * extraChain = nullptr;
    SSL_CTX_get_extra_chain_certs_only(m_ctx, &extraChain);
    if (SSL_CTX_get0_certificate(m_ctx) != nullptr && sk_X509_num(extraChain) <= 0) {
        static_cast<void>(SSL_CTX_build_cert_chain(m_ctx, SSL_BUILD_CHAIN_FLAG_UNTRUSTED | SSL_BUILD_CHAIN_FLAG_IGNORE_ERROR |
                                                              SSL_BUILD_CHAIN_FLAG_CLEAR_ERROR));
        ERR_clear_error();
    }
}

int SSLContext::passwordCallback(char * buffer, int size, int /*rwflag*/, void * userdata) {
    const std::string & password = static_cast<const SSLContext *>(userdata)->m_PrivatePassword;
    // A password that does not fit with its terminator is not cut short: none is given.
    if (size < 0 || static_cast<std::size_t>(size) < password.size() + 1) {
        return 0;
    }
    std::memcpy(buffer, password.c_str(), password.size() + 1);
    return static_cast<int>(password.size());
}

void SSLContext::loadPKCS12() {
    PKCS12Guard guard;
    guard.file = std::fopen(m_PKCS12File.c_str(), "rb");
    if (guard.file == nullptr) {
        const int error = errno;
        throw InternalException(
            ("Error opening PKCS#12 file '" + m_PKCS12File + "': " + std::strerror(error)).c_str(), true);
    }
    guard.bundle = d2i_PKCS12_fp(guard.file, nullptr);
    if (guard.bundle == nullptr) {
        throw SSLException("unable to read PKCS#12 file '" + m_PKCS12File + "'");
    }
    if (PKCS12_parse(guard.bundle, m_PrivatePassword.c_str(), &guard.key, &guard.certificate, &guard.chain) == 0) {
        throw SSLException("unable to open PKCS#12 file '" + m_PKCS12File + "' with PrivatePassword");
    }
    if (guard.certificate != nullptr && SSL_CTX_use_certificate(m_ctx, guard.certificate) != 1) {
        throw SSLException();
    }
    // In the bundle's order; each certificate belongs to the context once it is added.
    while (guard.chain != nullptr && sk_X509_num(guard.chain) > 0) {
        X509 * extra = sk_X509_shift(guard.chain);
        if (SSL_CTX_add_extra_chain_cert(m_ctx, extra) != 1) {
            X509_free(extra);
            throw SSLException();
        }
    }
    if (guard.key != nullptr && SSL_CTX_use_PrivateKey(m_ctx, guard.key) != 1) {
        throw SSLException();
    }
}

int SSLContext::verifyCallback(int preverifyOk, X509_STORE_CTX * storeContext) {
    if (preverifyOk != 0) {
        return preverifyOk;
    }
    if (logger->isWarnEnabled()) {
        X509 * certificate = X509_STORE_CTX_get_current_cert(storeContext);
        LOG4CXX_WARN(logger, "SSL verify error or warning with certificate at depth "
                                 << X509_STORE_CTX_get_error_depth(storeContext) << ": "
                                 << X509_verify_cert_error_string(X509_STORE_CTX_get_error(storeContext)));
        LOG4CXX_WARN(logger, "certificate issuer " << nameText(certificate ? X509_get_issuer_name(certificate) : nullptr));
        LOG4CXX_WARN(logger, "certificate subject " << nameText(certificate ? X509_get_subject_name(certificate) : nullptr));
    }
    return 0;
}

void SSLContext::validateCertificates(SSL * ssl, const char * hostName) {
    LOG4CXX_INFO(logger, "validateCertificates( " << static_cast<const void *>(ssl) << ", '"
                                                 << (hostName != nullptr ? hostName : "") << "')");
    if (SSL_get_verify_result(ssl) != X509_V_OK) {
        throw InternalException("validateCertificates: Certificate doesn't verify", true);
    }
    X509 * certificate = SSL_get1_peer_certificate(ssl);
    if (certificate == nullptr) {
        throw SSLException();
    }
    // An address is judged by the certificate's IP address entries, a name by its DNS names.
    // Only a clear "no" fails: the error results -1 and -2 of X509_check_host(3) pass.
    const int match = socketio::IsAddressLiteral(hostName) ? X509_check_ip_asc(certificate, hostName, 0)
                                                 : X509_check_host(certificate, hostName, 0, 0, nullptr);
    X509_free(certificate);
    if (match == 0) {
        throw InternalException("validateCertificates: Common name doesn't match host name", true);
    }
}

}  // namespace tools
