// The wildcard test of the bypass list: pure logic on bytes, any thread.
#pragma once

#include <string>

namespace ProxyResolver {

// True if `text` matches `pattern`, byte by byte and case-sensitively. "?" takes exactly one
// byte. "*" takes at least one byte (none only at the end of both) and stops for good at the
// first place where the pattern byte behind it could begin: one forward pass, no
// backtracking, so "*ab" does not match "aacab". Bypass lists written for the platform's
// own matcher rely on exactly this reading.
bool wildcardMatch(const std::string & text, const std::string & pattern);

}  // namespace ProxyResolver
