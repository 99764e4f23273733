#include "proxy/base64.h"

namespace socketio {

namespace {
const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The value of an alphabet character, or -1 for any other character.
int valueOf(char c) {
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    if (c == '/') {
        return 63;
    }
    return -1;
}
}  // namespace

void base64Encode(const char * data, unsigned length, std::string & text) {
    text.clear();
    text.reserve((length + 2) / 3 * 4);
    const auto * bytes = reinterpret_cast<const unsigned char *>(data);
    unsigned i = 0;
    for (; i + 3 <= length; i += 3) {
        const unsigned group = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        text += kAlphabet[(group >> 18) & 0x3F];
        text += kAlphabet[(group >> 12) & 0x3F];
        text += kAlphabet[(group >> 6) & 0x3F];
        text += kAlphabet[group & 0x3F];
    }
    const unsigned rest = length - i;
    if (rest > 0) {
        const unsigned group = (bytes[i] << 16) | (rest == 2 ? bytes[i + 1] << 8 : 0);
        text += kAlphabet[(group >> 18) & 0x3F];
        text += kAlphabet[(group >> 12) & 0x3F];
        text += rest == 2 ? kAlphabet[(group >> 6) & 0x3F] : '=';
        text += '=';
    }
}

void base64Decode(const std::string & text, std::vector<char> & data) {
    data.clear();
    data.reserve(text.size() / 4 * 3 + 2);
    unsigned group = 0;
    int count = 0;
    for (char c : text) {
        const int value = valueOf(c);
        if (value < 0) {
            break;
        }
        group = (group << 6) | static_cast<unsigned>(value);
        if (++count == 4) {
            data.push_back(static_cast<char>((group >> 16) & 0xFF));
            data.push_back(static_cast<char>((group >> 8) & 0xFF));
            data.push_back(static_cast<char>(group & 0xFF));
            group = 0;
            count = 0;
        }
    }
    if (count == 2) {
        data.push_back(static_cast<char>((group >> 4) & 0xFF));
    } else if (count == 3) {
        data.push_back(static_cast<char>((group >> 10) & 0xFF));
        data.push_back(static_cast<char>((group >> 2) & 0xFF));
    }
}

}  // namespace socketio
