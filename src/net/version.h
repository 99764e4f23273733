// The library's version, in the one form it is ever shown: the User-Agent of the requests to
// proxies (the CONNECT exchange) and the first line of `corvane --version`.
#pragma once

namespace net {

inline constexpr char kUserAgent[] = "corvane/2.0.1.34";

}  // namespace net
