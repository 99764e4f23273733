// A running reactor and both WebSocket transport protocols, for the tests that open or serve
// ws and wss channels with a parameter of their own.
#pragma once

#include <gtest/gtest.h>

#include "socketio/selectreactor.h"
#include "websocket/websockettransportprotocol.h"

namespace corvane_test {

template <typename Param>
class WebSocketFixture : public ::testing::TestWithParam<Param> {
protected:
    void SetUp() override {
        m_reactor = new socketio::SelectReactor(1000, 600000, 50);
        m_reactor->startProcessing();
        m_ws = new websocket::WebSocketTransportProtocol(m_options);
        m_wss = new websocket::WebSocketSecureTransportProtocol(m_options);
    }
    void TearDown() override { m_reactor->stopProcessing(); }

    socketio::socket_options m_options;
    Common::SmartPtr<socketio::SelectReactor> m_reactor;
    Common::SmartPtr<websocket::WebSocketTransportProtocol> m_ws;
    Common::SmartPtr<websocket::WebSocketSecureTransportProtocol> m_wss;
};

}  // namespace corvane_test
