#include "tunnel/directconnect.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <typeinfo>

#include "common/logging.h"
#include "common/timedelta.h"
#include "net/optionmap.h"
#include "socketio/internalexception.h"
#include "socketio/selectreactor.h"
#include "socketio/socketfunctions.h"
#include "tcp/tcpchannel.h"
#include "tcp/tcptransportprotocol.h"
#include "tunnel/tunnelendpoint.h"
#include "tunnel/tunnelstore.h"

namespace net {

namespace {
// The lines of a connection opened here are the ones a creator worker would log.
const log4cxx::LoggerPtr creatorLogger = Common::GetLogger("corvane.net.TunnelCreatorThread");
const log4cxx::LoggerPtr tcpLogger = Common::GetLogger("corvane.tcp.TCPTransportProtocol");
const log4cxx::LoggerPtr storeLogger = Common::GetLogger("corvane.net.TunnelStore");
}  // namespace

std::shared_ptr<const DirectConnect::Target> DirectConnect::TargetOf(IChannelEndpoint * endpoint,
                                                                      IChannelFactory * factory) {
    auto * fixed = dynamic_cast<FixedEndpoint *>(endpoint);
    if (fixed == nullptr || factory == nullptr) {
        return nullptr;
    }
    // The module's own tcp transport, not a host's replacement (nor http, which derives from it).
    auto * protocol = factory->getTransportProtocol("tcp");
    if (protocol == nullptr || typeid(*protocol) != typeid(tcp::TCPTransportProtocol)) {
        return nullptr;
    }
    try {
        std::shared_ptr<Target> target(new Target);
        target->uri = fixed->uri();
        target->options = fixed->options();
        target->parsed = URI::FromString(target->uri);
        if (target->parsed.getScheme() != "tcp" || !socketio::IsAddressLiteral(target->parsed.getHost().c_str())) {
            return nullptr;
        }
        OptionMap options;
        options.parse(target->options.c_str());
        for (const auto & option : options) {
            const bool noProxy = option.first == "EnableProxy" && !OptionMap::isTrue(option.second);
            if (option.first != "ConnectTimeout" && !noProxy) {
                return nullptr;
            }
        }
        target->connectTimeout = static_cast<std::int64_t>(options.getMilliseconds("ConnectTimeout"));
        target->socketOptions = static_cast<tcp::TCPTransportProtocol *>(protocol)->socketOptions();
        // An address resolves without asking anyone; once, for every connection of the tunnel.
        URI::SocketAddress addresses;
        target->parsed.ToSockAddress(addresses, true);
        const addrinfo * entry = addresses.get();
        if (entry == nullptr || entry->ai_next != nullptr || entry->ai_addrlen > sizeof target->address) {
            return nullptr;
        }
        std::memcpy(&target->address, entry->ai_addr, entry->ai_addrlen);
        target->length = entry->ai_addrlen;
        target->peer = URI::FromSockAddr(entry->ai_addr, entry->ai_addrlen, true, "tcp");
        return target;
    } catch (const std::exception &) {
        return nullptr;  // the workers meet the same failure and report it
    }
}

bool DirectConnect::Start(const std::shared_ptr<const Target> & target, TunnelStore * store, TunnelEndPoint * client) {
    auto * reactor = dynamic_cast<socketio::SelectReactor *>(store->getReactor());
    if (reactor == nullptr) {
        return false;
    }
    const int fd = socket(target->address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        return false;
    }
    try {
        target->socketOptions.configureConnectedSocket(static_cast<unsigned int>(fd));
    } catch (const std::exception &) {
        close(fd);
        return false;
    }
    Common::SmartPtr<DirectConnect> opening(new DirectConnect(target, store, client, static_cast<unsigned int>(fd)));
    // Registered before the connect, so that a refusal at the reactor's limit leaves no
    // connection behind at the target; the worker's own attempt meets the limit and reports it.
    // On this thread the reactor asks for the mask only after this dispatch, connect included.
    try {
        reactor->registerSubscriber(opening.get());
    } catch (const std::exception &) {
        opening->closeSocket();
        return false;
    }
    if (connect(fd, reinterpret_cast<const sockaddr *>(&target->address), target->length) != 0 && errno != EINPROGRESS) {
        // Refused at once, say: a worker tries again and reports it as it always does.
        reactor->unregisterSubscriber(opening.get());
        opening->closeSocket();
        return false;
    }
    LOG4CXX_DEBUG(storeLogger, "initiating connection to '" << target->parsed.ToString() << "' on behalf of '"
                                                            << client->getDescription() << "'");
    LOG4CXX_INFO(tcpLogger, "openChannel(uri='" << target->uri << "', options='" << target->options << "')");
    return true;
}

DirectConnect::DirectConnect(const std::shared_ptr<const Target> & target, TunnelStore * store,
                             TunnelEndPoint * client, unsigned int socket)
    : m_target(target), m_store(store), m_client(client), m_socket(socket) {
    if (target->connectTimeout > 0) {
        m_deadline = Common::GetTickCount64() + static_cast<std::uint64_t>(target->connectTimeout);
    }
}

DirectConnect::~DirectConnect() {
    // A reactor stopped while the connect ran drops it without a word.
    if (m_socket != socketio::INVALID_SOCKET_HANDLE) {
        socketio::SocketClose(m_socket);
    }
}

socketio::SelectReactor * DirectConnect::getReactor() const {
    return m_reactor.get();
}

void DirectConnect::setReactor(socketio::SelectReactor * reactor, const std::uint64_t & now) {
    m_reactor = reactor;
    m_lastEventTime = now;
}

short DirectConnect::getEventMask() noexcept {
    if (m_socket == socketio::INVALID_SOCKET_HANDLE) {
        return 0;
    }
    // Asked at least once per wait time-out: a client that has gone or a limit that has passed
    // is seen then, without an event of the socket's own.
    if (m_client->m_closed.load() || (m_deadline != 0 && Common::GetTickCount64() >= m_deadline)) {
        return socketio::SELECT_EVENT_PENDING;
    }
    return socketio::SELECT_EVENT_WRITE;
}

bool DirectConnect::onEvents(const short & events, const std::uint64_t & now) noexcept {
    m_lastEventTime = now;
    // A client that has gone needs no target (as a worker skips its job).
    if (m_client->m_closed.load()) {
        return false;
    }
    int error = 0;
    if (m_socket == socketio::INVALID_SOCKET_HANDLE) {
        error = ETIMEDOUT;  // the reactor's sweep of silent sockets closed it
    } else if ((events & socketio::SELECT_EVENT_WRITE) != 0) {
        socklen_t size = sizeof error;
        if (getsockopt(static_cast<int>(m_socket), SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
            error = errno;
        }
    } else if (m_deadline != 0 && Common::GetTickCount64() >= m_deadline) {
        error = ETIMEDOUT;
    } else {
        return true;
    }
    if (error != 0) {
        // The text and the WARN line that a failed SocketConnect gives.
        errno = error;
        const socketio::InternalException failure(("while connecting to " + m_target->parsed.ToString()).c_str(), true);
        failed(failure.what());
        return false;
    }
    connected();
    return false;  // the channel owns the socket now
}

void DirectConnect::connected() {
    const std::string description = m_client->getDescription();
    // This one leaves the reactor before the channel comes in (its slot and its descriptor's
    // interest go): at the reactor's limit the pair needs no third slot for a moment.
    Common::SmartPtr<socketio::SelectReactor> reactor = m_reactor;
    reactor->unregisterSubscriber(this);
    try {
        Common::SmartPtr<TunnelEndPoint> newEndPoint(
            new TunnelEndPoint(m_client->getLock().get(), m_store.get(), m_store->getBufferSize()));
        Common::SmartPtr<IChannel> channel;
        {
            Common::SmartPtr<tcp::TCPChannel> tcpChannel(
                new tcp::TCPChannel(m_socket, nullptr, &m_target->peer, nullptr, true));
            m_socket = socketio::INVALID_SOCKET_HANDLE;
            tcpChannel->setAbortiveLinger(m_target->socketOptions.linger);
            tcpChannel->setChannelHandler(newEndPoint.get());
            try {
                reactor->registerSubscriber(tcpChannel.get());
            } catch (...) {
                tcpChannel->closeSocket();
                tcpChannel->setChannelHandler(nullptr);
                throw;
            }
            channel = tcpChannel.get();
        }
        m_store->joinTarget(m_client.get(), newEndPoint.get(), channel, m_target->uri);
    } catch (const std::exception & e) {
        failed(e.what());
    } catch (...) {
        LOG4CXX_WARN(creatorLogger,
                     "while creating a connection on behalf of '" << description << "' an unknown exception was caught");
        m_client->closeFailedConnect(m_target->uri, "an unknown exception");
    }
}

void DirectConnect::failed(const std::string & failure) {
    LOG4CXX_WARN(creatorLogger, "while creating a connection on behalf of '" << m_client->getDescription()
                                                                              << "' exception caught:" << failure);
    m_client->closeFailedConnect(m_target->uri, failure);
}

}  // namespace net
