// SSLLibraryGuard: its lifetime stands for OpenSSL being ready for use. Each transport
// protocol that speaks TLS owns one, made on its first openChannel or startChannelServer
// and deleted with the protocol. Caller's thread; holds no state.
#pragma once

class SSLLibraryGuard {
public:
    // Loads the error strings of libcrypto and libssl (OPENSSL_init_ssl(3)); throws
    // tools::SSLException if OpenSSL cannot be initialised.
    SSLLibraryGuard();
    // Tears nothing down: OpenSSL 3 releases its global state at process exit by itself and
    // each thread's state at that thread's exit, and other protocol instances may still be
    // using TLS while this one dies.
    ~SSLLibraryGuard();

    SSLLibraryGuard(const SSLLibraryGuard &) = delete;
    SSLLibraryGuard & operator=(const SSLLibraryGuard &) = delete;
};
