// The system certificate stores as a trust source: a walk over a store's certificates that
// skips expired ones and adds the rest to a context's trust store. On Linux the store named
// "ROOT" is the system CA bundle and "CA" the hashed system certificate directories, each
// located the way OpenSSL locates its defaults, environment overrides included.
#include <dirent.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "common/logging.h"
#include "tls/sslcontext.h"
#include "tls/sslexception.h"

namespace tools {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.tools.SSLContext");

// One certificate of a store, as its DER encoding.
using Encoded = std::vector<unsigned char>;

// Appends every certificate block of a PEM file. Other blocks (keys, CRLs) are not part of
// a certificate store. Returns false if the file cannot be opened.
bool readPEMCertificates(const std::string & path, std::vector<Encoded> & certificates) {
    BIO * bio = BIO_new_file(path.c_str(), "r");
    if (bio == nullptr) {
        ERR_clear_error();
        return false;
    }
    char * name = nullptr;
    char * header = nullptr;
    unsigned char * data = nullptr;
    long length = 0;
    while (PEM_read_bio(bio, &name, &header, &data, &length) == 1) {
        if (std::strcmp(name, PEM_STRING_X509) == 0 || std::strcmp(name, PEM_STRING_X509_OLD) == 0 ||
            std::strcmp(name, PEM_STRING_X509_TRUSTED) == 0) {
            certificates.emplace_back(data, data + length);
        }
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }
    // The end of the file shows as "no start line"; a damaged block ends the store there.
    ERR_clear_error();
    BIO_free(bio);
    return true;
}

// The names that OpenSSL's hashed directory lookup reads: 8 hex digits, ".", a number.
bool isHashName(const char * name) {
    std::size_t i = 0;
    for (; i < 8; ++i) {
        if (std::strchr("0123456789abcdef", name[i]) == nullptr || name[i] == '\0') {
            return false;
        }
    }
    if (name[i++] != '.' || name[i] == '\0') {
        return false;
    }
    for (; name[i] != '\0'; ++i) {
        if (name[i] < '0' || name[i] > '9') {
            return false;
        }
    }
    return true;
}

std::string defaultLocation(const char * environmentName, const char * builtIn) {
    const char * fromEnvironment = std::getenv(environmentName);
    return fromEnvironment != nullptr ? fromEnvironment : builtIn;
}

// Opens a store: reads all its certificates. False if the store cannot be opened.
bool openSystemStore(const std::string & name, std::vector<Encoded> & certificates) {
    if (name == "ROOT") {
        return readPEMCertificates(defaultLocation(X509_get_default_cert_file_env(), X509_get_default_cert_file()),
                                   certificates);
    }
    if (name != "CA") {
        return false;
    }
    // A list of directories, as OpenSSL reads it; the store opens if one of them does.
    const std::string list = defaultLocation(X509_get_default_cert_dir_env(), X509_get_default_cert_dir());
    bool opened = false;
    std::size_t begin = 0;
    while (begin <= list.size()) {
        std::size_t end = list.find(':', begin);
        if (end == std::string::npos) {
            end = list.size();
        }
        const std::string directory = list.substr(begin, end - begin);
        begin = end + 1;
        DIR * handle = directory.empty() ? nullptr : opendir(directory.c_str());
        if (handle == nullptr) {
            continue;
        }
        opened = true;
        std::vector<std::string> files;
        while (const dirent * entry = readdir(handle)) {
            if (isHashName(entry->d_name)) {
                files.emplace_back(entry->d_name);
            }
        }
        closedir(handle);
        std::sort(files.begin(), files.end());
        for (const auto & file : files) {
            readPEMCertificates(directory + "/" + file, certificates);
        }
    }
    return opened;
}

// The subject as "C=.., O=.., CN=..", in the order of the encoding, at most 255 bytes.
std::string subjectText(const X509 * certificate) {
    BIO * bio = BIO_new(BIO_s_mem());
    if (bio == nullptr) {
        return std::string();
    }
    const unsigned long flags = (ASN1_STRFLGS_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) | XN_FLAG_SEP_CPLUS_SPC | XN_FLAG_FN_SN;
    std::string text;
    if (X509_NAME_print_ex(bio, X509_get_subject_name(certificate), 0, flags) > 0) {
        char * data = nullptr;
        long length = BIO_get_mem_data(bio, &data);
        text.assign(data, static_cast<std::size_t>(std::min(length, 255L)));
    }
    BIO_free(bio);
    return text;
}
}  // namespace

void SSL_CTX_add_CryptoAPI_certificate_store(SSL_CTX * ctx, const char * storeName) {
    LOG4CXX_TRACE(logger, "SSL_CTX_add_CryptoAPI_certificate_store( " << static_cast<const void *>(ctx) << ", '"
                                                                      << storeName << "')");
    std::vector<Encoded> certificates;
    if (!openSystemStore(storeName, certificates)) {
        LOG4CXX_WARN(logger, "Unable to open System Store '" << storeName << "'");
        return;
    }
    // One reading of the clock for the whole walk.
    const std::time_t now = std::time(nullptr);
    X509_STORE * store = SSL_CTX_get_cert_store(ctx);
    for (const Encoded & encoded : certificates) {
        const unsigned char * cursor = encoded.data();
        X509 * certificate = d2i_X509(nullptr, &cursor, static_cast<long>(encoded.size()));
        const std::string subject = certificate != nullptr ? subjectText(certificate) : std::string();
        // A certificate that cannot be decoded has no known expiry and goes on as valid, to
        // be reported below. Expiry exactly now is not expired (ASN1_TIME_cmp_time_t(3)).
        if (certificate != nullptr) {
            const int expiry = ASN1_TIME_cmp_time_t(X509_get0_notAfter(certificate), now);
            if (expiry == -2) {
                LOG4CXX_WARN(logger, "Unable to convert FileTime to SystemTime for certificate with subject '"
                                         << subject << "', return now as expiry time");
            } else if (expiry < 0) {
                LOG4CXX_WARN(logger, "not adding expired certificate with subject ='" << subject << "'");
                X509_free(certificate);
                continue;
            }
        } else {
            LOG4CXX_WARN(logger, "unable to decode to x509 certificate for '" << subject << "': " << openSSLErrorText());
        }
        LOG4CXX_TRACE(logger, "Adding root certificate for '" << subject << "'");
        // A certificate that failed to decode arrives here as null and is reported again.
        if (X509_STORE_add_cert(store, certificate) == 0) {
            LOG4CXX_WARN(logger, "unable to add certificate '" << subject << "': " << openSSLErrorText());
        }
        X509_free(certificate);
    }
}

}  // namespace tools
