// websocket::LoggerConfig: the engine configuration of the WebSocket channels. It is the
// engine's core configuration (iostream transport without a stream, real mutexes, the null
// random generator, no compression) with both log streams replaced by the log4cxx-bound
// loggers, for the endpoint and for the transport inside it.
//
// The null generator is deliberate: every client handshake carries the same
// Sec-WebSocket-Key and every client frame is masked with the key 0, so the payload goes out
// as it is. The transport has no timers, so the engine's open, close and pong time-outs never
// fire; the channels bring their own limits or have none.
#pragma once

#include <websocketpp/config/core.hpp>

#include "websocket/logoutputstream.h"

namespace websocket {

template <typename Base>
struct LoggerConfig : public Base {
    typedef LoggerConfig type;
    typedef AccessLogger<websocketpp::log::alevel> alog_type;
    typedef ErrorLogger<websocketpp::log::elevel> elog_type;

    struct transport_config : public Base::transport_config {
        typedef type::alog_type alog_type;
        typedef type::elog_type elog_type;
    };
    typedef websocketpp::transport::iostream::endpoint<transport_config> transport_type;
};

// The log4cxx categories of the engine's two streams.
constexpr const char * kEngineAccessCategory = "com.ventrel.websocketpp.access";
constexpr const char * kEngineErrorCategory = "com.ventrel.websocketpp.error";

}  // namespace websocket
