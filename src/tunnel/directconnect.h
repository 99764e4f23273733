// net::DirectConnect: a tunnel's connection to a fixed tcp target given by address, opened on
// the reactor thread without a creator worker. The connect runs non-blocking; the reactor
// watches the socket until it is writable (or ConnectTimeout passes, or the client goes), and
// the target's channel is then made and joined to the client's end point on that thread.
// Nothing of this can block: no name to resolve, no proxy, no handshake, and the store's own
// fixed endpoint instead of a host's getEndpoint. Every other target keeps the creator
// workers. Failures read as the workers' do: the same lines, the same end of the client.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <string>

#include "corvane/channel.h"
#include "corvane/uri.h"
#include "socketio/iselecteventsubscriber.h"
#include "socketio/socketoptions.h"

namespace socketio {
class SelectReactor;
}

namespace net {

class TunnelEndPoint;
class TunnelStore;

// A fixed target, as TunnelStore::startTunnel names it.
class FixedEndpoint : public IChannelEndpoint {
public:
    FixedEndpoint(const char * uri, const char * options)
        : m_uri(uri != nullptr ? uri : ""), m_options(options != nullptr ? options : "") {}
    void getEndpoint(std::string & uri, std::string & options) override {
        uri = m_uri;
        options = m_options;
    }
    const std::string & uri() const { return m_uri; }
    const std::string & options() const { return m_options; }

private:
    const std::string m_uri;
    const std::string m_options;
};

class DirectConnect : public socketio::ISelectEventSubscriber {
public:
    // A target that may be opened this way, fixed when its tunnel starts.
    struct Target {
        std::string uri;
        std::string options;
        net::URI parsed;
        sockaddr_storage address{};
        socklen_t length = 0;
        net::URI peer;  // the channel's peer URI, as the socket would give it
        socketio::socket_options socketOptions;
        std::int64_t connectTimeout = 0;  // ms; 0: none
    };
    // Any thread. The target of `endpoint` when it is the store's fixed one, names a tcp address
    // and asks for nothing but ConnectTimeout and EnableProxy=false, and `factory` opens tcp with
    // the module's own transport; null otherwise.
    static std::shared_ptr<const Target> TargetOf(IChannelEndpoint * endpoint, IChannelFactory * factory);
    // Reactor thread (the accept of `client`). False when the connect could not be started
    // here (the caller hands the client to a creator worker, which reports any failure).
    static bool Start(const std::shared_ptr<const Target> & target, TunnelStore * store, TunnelEndPoint * client);

    ~DirectConnect() override;

    short getEventMask() noexcept override;
    bool onEvents(const short & events, const std::uint64_t & now) noexcept override;
    unsigned int & getSocket() override { return m_socket; }
    socketio::SelectReactor * getReactor() const override;
    void setReactor(socketio::SelectReactor * reactor, const std::uint64_t & now) override;
    std::uint64_t getLastEventTime() const override { return m_lastEventTime; }

private:
    DirectConnect(const std::shared_ptr<const Target> & target, TunnelStore * store, TunnelEndPoint * client,
                  unsigned int socket);
    // Reactor thread: the connection is up; makes the channel and joins the pair.
    void connected();
    // Reactor thread: the worker's lines for a failed connection, and the client's end.
    void failed(const std::string & failure);

    const std::shared_ptr<const Target> m_target;  // shared with the tunnel's service
    Common::SmartPtr<TunnelStore> m_store;
    Common::SmartPtr<TunnelEndPoint> m_client;
    unsigned int m_socket;
    Common::SmartPtr<socketio::SelectReactor> m_reactor;
    std::uint64_t m_lastEventTime = 0;
    std::uint64_t m_deadline = 0;  // tick; 0: none
};

}  // namespace net
