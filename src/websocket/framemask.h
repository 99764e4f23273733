// Frame masking of the engine, a machine word at a time. The engine masks and unmasks payloads
// one byte per step, which costs more CPU than everything else on a WebSocket hop in bulk; the
// result here is byte for byte the same (the same key, the same rotation from one piece of a
// frame to the next), only computed eight bytes per step. A key of 0 (what this system's own
// client sends) makes masking a plain copy.
//
// loggerconfig.h puts it in place of the engine's own, for this system's configuration only.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include <websocketpp/frame.hpp>

namespace websocket {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the word-wise masking assumes little-endian words");
static_assert(sizeof(std::size_t) == 8, "the word-wise masking assumes 64-bit words");

// XORs `length` bytes of `input` into `output` (which may be `input`) with the engine's
// prepared key (the 4-byte key repeated over a 64-bit word, rotated to where the previous
// piece of the payload ended); returns the key rotated past this piece.
inline std::size_t MaskPayload(const std::uint8_t * input, std::uint8_t * output, std::size_t length,
                               std::size_t preparedKey) {
    if (preparedKey == 0) {
        if (input != output && length != 0) {
            std::memmove(output, input, length);
        }
        return 0;
    }
    std::size_t i = 0;
    for (; i + sizeof(std::uint64_t) <= length; i += sizeof(std::uint64_t)) {
        std::uint64_t word;
        std::memcpy(&word, input + i, sizeof word);
        word ^= preparedKey;
        std::memcpy(output + i, &word, sizeof word);
    }
    // The tail: byte k of the word applies to byte i + k.
    for (std::size_t k = 0; i < length; ++i, ++k) {
        output[i] = static_cast<std::uint8_t>(input[i] ^ static_cast<std::uint8_t>(preparedKey >> (8 * k)));
    }
    return websocketpp::frame::circshift_prepared_key(preparedKey, length % 4);
}

}  // namespace websocket
