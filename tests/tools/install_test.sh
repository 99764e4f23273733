#!/usr/bin/env bash
# cmake --install into a scratch prefix: the installed host finds the installed module by its
# own location (no build path, no environment), and a host program built with pkg-config loads
# the module and lists its transports. The unit template runs `corvane run` on /etc/corvane.
set -uo pipefail
build=${1:?the build directory}
source "$(dirname "$0")/harness.sh" "$build"
unset CORVANE_MODULE

prefix="$tmp/prefix"
cmake --install "$build" --prefix "$prefix" > "$tmp/install.log" 2>&1
check "cmake --install into a scratch prefix" test "$?" -eq 0
host="$prefix/bin/corvane"
# Run from elsewhere, and with the build tree out of sight of the relative lookup.
(cd / && "$host" info) > "$tmp/info" 2>&1
check "the installed host loads the installed module" grep -q "^module: $prefix/lib.*/libcorvane.so$" "$tmp/info"
check "and lists the transports" grep -q "^transports: tcp http https ssl ws wss$" "$tmp/info"
check "the headers are installed" test -f "$prefix/include/corvane/corvane.h"

pc_dir=$(dirname "$(find "$prefix" -name corvane.pc | head -n1)")
cat > "$tmp/host.cpp" <<'CPP'
#include <dlfcn.h>
#include <cstdio>
#include <corvane/corvane.h>

int main(int argc, char ** argv) {
    void * so = dlopen(argc > 1 ? argv[1] : "libcorvane.so", RTLD_NOW | RTLD_LOCAL);
    if (so == nullptr) {
        std::printf("dlopen: %s\n", dlerror());
        return 1;
    }
    auto getModule = reinterpret_cast<net::GetModuleFunction>(dlsym(so, "GetModule"));
    Common::SmartPtr<net::IChannelFactory> factory(getModule()->createChannelFactory(net::SocketOptions()));
    for (const char * scheme : {"tcp", "ssl", "wss"}) {
        std::printf("%s=%d\n", scheme, factory->getTransportProtocol(scheme) != nullptr);
    }
    return 0;
}
CPP
export PKG_CONFIG_PATH="$pc_dir"
# shellcheck disable=SC2046
c++ -std=c++17 -o "$tmp/host" "$tmp/host.cpp" $(pkg-config --cflags --libs corvane) 2> "$tmp/cc.err"
check "a host builds with pkg-config --cflags --libs corvane" test "$?" -eq 0 -a -x "$tmp/host"
"$tmp/host" "$(pkg-config --variable=module corvane)" > "$tmp/host.out" 2>&1
check "it loads the module that pkg-config names" test "$(tr '\n' ' ' < "$tmp/host.out")" = "tcp=1 ssl=1 wss=1 "
LD_LIBRARY_PATH="$(pkg-config --variable=libdir corvane)" "$tmp/host" > "$tmp/host2.out" 2>&1
check "and by name from the library directory" test "$(tr '\n' ' ' < "$tmp/host2.out")" = "tcp=1 ssl=1 wss=1 "

unit="$prefix/lib/systemd/system/corvane@.service"
check "the unit template runs corvane run" grep -qx "ExecStart=$prefix/bin/corvane run /etc/corvane/%i.conf" "$unit"
check "the unit is hardened" bash -c "grep -qx 'ProtectSystem=strict' '$unit' && grep -qx 'NoNewPrivileges=yes' '$unit' && grep -qx 'DynamicUser=yes' '$unit'"
if command -v systemd-analyze > /dev/null 2>&1; then
    cp "$unit" "$tmp/corvane@test.service"
    check "systemd-analyze knows every key of the unit" \
        bash -c "! systemd-analyze verify '$tmp/corvane@test.service' 2>&1 | grep -i 'unknown'"
fi
summary
