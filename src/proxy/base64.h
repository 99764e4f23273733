// The base64 coding of the tokens in Proxy-Authenticate and Proxy-Authorization headers
// (RFC 4648 section 4, standard alphabet, "=" padding, no line breaks). Pure functions, any
// thread.
#pragma once

#include <string>
#include <vector>

namespace socketio {

// Replaces `text` by the encoding of `length` bytes at `data`.
void base64Encode(const char * data, unsigned length, std::string & text);

// Replaces `data` by the bytes of `text`. Decoding stops silently at the first "=", at the
// first character outside the alphabet (a blank, a line end) or at the end of the text; a
// last group of two or three characters gives one or two bytes, a single one nothing. A
// proxy's header value thus decodes to the token in front of any parameters behind it.
void base64Decode(const std::string & text, std::vector<char> & data);

}  // namespace socketio
