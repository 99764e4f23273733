// An authentication helper for squid that checks Negotiate and NTLM tokens with GSSAPI
// acceptors: gss-ntlmssp against NTLM_USER_FILE, Kerberos against KRB5_KTNAME. It speaks
// squid's stateful helper protocol, one line each way: "YR <token>" starts a handshake,
// "KK <token>" continues it; answers are "TT <token>" (continue), "AF ..." (done) or
// "NA ..." (refused), and "BH ..." for a line that makes no sense. "-n" selects the reply
// forms of the negotiate scheme, where "AF" carries the final token (or "=") and the user.
#include <gssapi/gssapi.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string toBase64(const unsigned char * data, std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; i += 3) {
        unsigned long group = static_cast<unsigned long>(data[i]) << 16;
        if (i + 1 < length) group |= static_cast<unsigned long>(data[i + 1]) << 8;
        if (i + 2 < length) group |= data[i + 2];
        text += kAlphabet[(group >> 18) & 63];
        text += kAlphabet[(group >> 12) & 63];
        text += i + 1 < length ? kAlphabet[(group >> 6) & 63] : '=';
        text += i + 2 < length ? kAlphabet[group & 63] : '=';
    }
    return text;
}

std::string fromBase64(const std::string & text) {
    std::string data;
    unsigned long group = 0;
    int bits = 0;
    for (char c : text) {
        const char * position = std::strchr(kAlphabet, c);
        if (c == '\0' || position == nullptr) {
            break;
        }
        group = (group << 6) | static_cast<unsigned long>(position - kAlphabet);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            data += static_cast<char>((group >> bits) & 0xFF);
        }
    }
    return data;
}

std::string displayName(gss_name_t name) {
    OM_uint32 minor = 0;
    gss_buffer_desc buffer = GSS_C_EMPTY_BUFFER;
    if (GSS_ERROR(gss_display_name(&minor, name, &buffer, nullptr))) {
        return "unknown";
    }
    // gss-ntlmssp counts the name's terminating NUL in its length.
    std::string text(static_cast<char *>(buffer.value), strnlen(static_cast<char *>(buffer.value), buffer.length));
    gss_release_buffer(&minor, &buffer);
    return text;
}

}  // namespace

int main(int argc, char ** argv) {
    const bool negotiate = argc > 1 && std::strcmp(argv[1], "-n") == 0;
    gss_ctx_id_t context = GSS_C_NO_CONTEXT;
    std::string line;
    while (std::getline(std::cin, line)) {
        OM_uint32 minor = 0;
        if (line.size() < 3 || (line.compare(0, 3, "YR ") != 0 && line.compare(0, 3, "KK ") != 0)) {
            std::cout << "BH unexpected line" << std::endl;
            continue;
        }
        if (line[0] == 'Y' && context != GSS_C_NO_CONTEXT) {
            gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
        }
        std::string token = fromBase64(line.substr(3));
        gss_buffer_desc input = {token.size(), &token[0]};
        gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
        gss_name_t source = GSS_C_NO_NAME;
        const OM_uint32 major = gss_accept_sec_context(&minor, &context, GSS_C_NO_CREDENTIAL, &input,
                                                       GSS_C_NO_CHANNEL_BINDINGS, &source, nullptr, &output, nullptr,
                                                       nullptr, nullptr);
        const std::string answer = toBase64(static_cast<unsigned char *>(output.value), output.length);
        gss_release_buffer(&minor, &output);
        if (GSS_ERROR(major)) {
            std::cout << (negotiate ? "NA = " : "NA ") << "refused 0x" << std::hex << major << std::dec << std::endl;
            if (context != GSS_C_NO_CONTEXT) {
                gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
            }
        } else if ((major & GSS_S_CONTINUE_NEEDED) != 0) {
            std::cout << "TT " << answer << std::endl;
        } else if (negotiate) {
            std::cout << "AF " << (answer.empty() ? "=" : answer) << " " << displayName(source) << std::endl;
        } else {
            std::cout << "AF " << displayName(source) << std::endl;
        }
        if (source != GSS_C_NO_NAME) {
            gss_release_name(&minor, &source);
        }
    }
    return 0;
}
