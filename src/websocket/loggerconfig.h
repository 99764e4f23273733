// websocket::LoggerConfig: the engine configuration of the WebSocket channels. It is the
// engine's core configuration (iostream transport without a stream, real mutexes, the null
// random generator, no compression) with both log streams replaced by the log4cxx-bound
// loggers, for the endpoint and for the transport inside it, and with messages whose payload
// storage is reused (payloadpool.h).
//
// The null generator is deliberate: every client handshake carries the same
// Sec-WebSocket-Key and every client frame is masked with the key 0, so the payload goes out
// as it is. The transport has no timers, so the engine's open, close and pong time-outs never
// fire; the channels bring their own limits or have none.
#pragma once

#include <websocketpp/config/core.hpp>
#include <websocketpp/processors/hybi13.hpp>

#include "websocket/framemask.h"

#include "websocket/logoutputstream.h"
#include "websocket/payloadpool.h"

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

    // Messages draw their payload storage from the thread's pool and give it back when they
    // go (payloadpool.h), instead of a new allocation for every message.
    typedef websocketpp::message_buffer::message<PooledMessageManager> message_type;
    typedef PooledMessageManager<message_type> con_msg_manager_type;
    typedef websocketpp::message_buffer::alloc::endpoint_msg_manager<con_msg_manager_type> endpoint_msg_manager_type;
};

// The log4cxx categories of the engine's two streams.
constexpr const char * kEngineAccessCategory = "com.ventrel.websocketpp.access";
constexpr const char * kEngineErrorCategory = "com.ventrel.websocketpp.error";

// The one configuration the channels instantiate the engine with.
using EngineConfig = LoggerConfig<websocketpp::config::core>;

}  // namespace websocket

// The engine's frame masking, a word at a time (framemask.h), in place of its byte loop:
// declared here, right after the configuration, so that no use can come before them.
namespace websocketpp {
namespace processor {

template <>
inline void hybi13<websocket::EngineConfig>::masked_copy(std::string const & i, std::string & o,
                                                     frame::masking_key_type key) const {
    // o has i's size already (the engine resizes it first).
    websocket::MaskPayload(reinterpret_cast<const std::uint8_t *>(i.data()), reinterpret_cast<std::uint8_t *>(&o[0]),
                           i.size(), frame::prepare_masking_key(key));
}

template <>
inline size_t hybi13<websocket::EngineConfig>::process_payload_bytes(uint8_t * buf, size_t len, lib::error_code & ec) {
    if (frame::get_masked(m_basic_header)) {
        m_current_msg->prepared_key = websocket::MaskPayload(buf, buf, len, m_current_msg->prepared_key);
    }
    std::string & out = m_current_msg->msg_ptr->get_raw_payload();
    const size_t offset = out.size();
    if (m_permessage_deflate.is_enabled() && m_current_msg->msg_ptr->get_compressed()) {
        ec = m_permessage_deflate.decompress(buf, len, out);
        if (ec) {
            return 0;
        }
    } else {
        out.append(reinterpret_cast<char *>(buf), len);
    }
    if (m_current_msg->msg_ptr->get_opcode() == frame::opcode::TEXT &&
        !m_current_msg->validator.decode(out.begin() + static_cast<std::ptrdiff_t>(offset), out.end())) {
        ec = make_error_code(error::invalid_utf8);
        return 0;
    }
    m_bytes_needed -= len;
    return len;
}

}  // namespace processor
}  // namespace websocketpp
