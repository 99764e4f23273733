// The interfaces through which a host uses the module, in their fixed table order.
// A host obtains net::IModule from GetModule (corvane/module.h), creates a reactor and a
// channel factory from it, and then works with channels, servers and its own handlers.
//
// Ownership: counted objects start at 0. Raw pointers returned by create*, openChannel and
// startChannelServer carry no count of their own: put them into a Common::SmartPtr at once.
// A channel holds its handler and its reactor; a server holds its acceptor and its reactor;
// the reactor holds every registered channel and server.
#pragma once

#include <cstdint>
#include <string>

#include "corvane/refcnt.h"
#include "corvane/socketoptions.h"

namespace net {

class IChannelFactory;
class ITransportProtocol;
class IChannel;
class IChannelHandler;
class IChannelServer;
class IChannelAcceptor;
class IReadDataStream;
class IWriteDataStream;
class IReactor;
class ITunnelStore;
class ITunnelService;
class IChannelEndpoint;

// The module's one instance; not counted, never deleted by the host.
class IModule {
public:
    virtual IChannelFactory * createChannelFactory(SocketOptions options) = 0;
    // All three arguments in milliseconds: how often idle subscribers are swept, after how
    // much silence a subscriber is dead, and the longest wait of one cycle. The reactor is
    // created stopped.
    virtual IReactor * createReactor(int deadSocketCheckInterval, int deadSocketTimeout, int selectTimeout) = 0;
    // tunnelParameter: bytes of the buffer of each direction of each tunnel connection.
    // A null factory is replaced by one made from default SocketOptions.
    virtual ITunnelStore * createTunnelStore(IReactor * reactor, IChannelFactory * factory,
                                             unsigned int tunnelParameter) = 0;

protected:
    ~IModule() = default;
};

// Sends openChannel and startChannelServer to the transport protocol named by the URI's
// scheme (exact, case-sensitive). Any thread, as long as no thread changes the registry.
class IChannelFactory : public Common::IRefCnt {
public:
    virtual void registerTransportProtocol(ITransportProtocol * protocol) = 0;
    virtual void unregisterTransportProtocol(const char * name) = 0;
    // Owned by the factory's registry; null for an unknown name.
    virtual ITransportProtocol * getTransportProtocol(const char * name) const = 0;
    // Caller's thread; blocks on name resolution, connect and any handshake. Failures are
    // exceptions below net::RuntimeException.
    virtual IChannel * openChannel(IReactor * reactor, const char * uri, IChannelHandler * handler,
                                   const char * options) = 0;
    // Caller's thread; binds and listens, then registers the server with the reactor.
    virtual IChannelServer * startChannelServer(IReactor * reactor, const char * uri, IChannelAcceptor * acceptor,
                                                const char * options) = 0;
};

class ITransportProtocol : public virtual Common::IRefCnt {
public:
    // The scheme served, in lower case, from static storage.
    virtual const char * getName() const = 0;
    virtual IChannel * openChannel(IReactor * reactor, const char * uri, IChannelHandler * handler,
                                   const char * options) = 0;
    virtual IChannelServer * startChannelServer(IReactor * reactor, const char * uri, IChannelAcceptor * acceptor,
                                                const char * options) = 0;
};

// A bidirectional byte stream. Events reach its handler on the reactor thread.
class IChannel : public virtual Common::IRefCnt {
public:
    virtual const char * getLocalURI() const = 0;
    virtual const char * getPeerURI() const = 0;
    // Local URI, " <-> ", peer URI.
    virtual const char * getDescription() const = 0;
    // Any thread. Unregisters the channel and closes the socket; the handler is not called.
    // A second call, or a call after onClose/onError, does nothing.
    virtual void close() = 0;
    // Any thread; usable at any time, not only inside onWrite.
    virtual IWriteDataStream * getWriteDataStream() = 0;
    virtual IChannelHandler * getChannelHandler() const = 0;
    // Any thread. The channel keeps a counted reference; null drops the old one.
    virtual void setChannelHandler(IChannelHandler * handler) = 0;
};

// Implemented by the host. Every operation runs on the reactor thread and must not throw.
class IChannelHandler : public virtual Common::IRefCnt {
public:
    // Asked once per reactor cycle with the reactor's lock held: cheap, never blocking.
    virtual bool hasPendingWrite() = 0;
    // Data is waiting; read it with stream->recv. The stream is valid during the call only.
    virtual void onRead(IReadDataStream * stream) = 0;
    // The channel can take data; comes only while hasPendingWrite answered true.
    virtual void onWrite(IWriteDataStream * stream) = 0;
    // Orderly end; the last call for this channel.
    virtual void onClose() = 0;
    // The connection failed; the last call for this channel. By default it is an onClose.
    virtual void onError() { onClose(); }
};

// Back-pressure: an optional second base of an IChannelHandler that can run out of room, such
// as a relay whose output channel cannot take more. Not counted, not a separate object: the
// channel finds it with dynamic_cast on its handler each time a handler is set (the
// acceptor's result, setChannelHandler) and drops it with that handler.
//
// While wantsRead answers false the channel leaves reading out of its wait: onRead does not
// come, the peer's bytes stay in the system's buffers, and once those are full the peer's
// sends stall (TCP flow control), so memory stays bounded and no CPU is spent waking for
// bytes nobody takes. Writing goes on as before (hasPendingWrite, onWrite), and a channel
// that has bytes already decoded (TLS, WebSocket) keeps them until reading resumes. An end of
// the connection may be noticed only once reading resumes.
//
// Usual use: a relay answers !outputFull() here and, in the output channel's onWrite, drains
// its buffer; the reactor asks again in the cycle after that dispatch and reading resumes.
class IReadInterest {
public:
    // Reactor thread, asked once per reactor cycle while the channel is registered, with the
    // reactor's lock held: cheap, never blocking, no throw, and no call into a channel, server
    // or reactor (close, send, setChannelHandler). False: do not read for now. A handler whose
    // room frees up on another thread is asked again at the latest after the reactor's
    // selectTimeout (IModule::createReactor).
    virtual bool wantsRead() = 0;

protected:
    ~IReadInterest() = default;
};

class IChannelServer : public virtual Common::IRefCnt {
public:
    virtual const char * getLocalURI() const = 0;
    // Stops listening; channels already accepted live on.
    virtual void close() = 0;
};

class IChannelAcceptor : public virtual Common::IRefCnt {
public:
    // Reactor thread, once per accepted connection, before the channel is registered.
    // The result becomes the channel's handler; null refuses the connection.
    virtual IChannelHandler * accept(IChannel * channel) = 0;
};

class IReadDataStream {
public:
    // Copies at most `length` bytes into `buffer` and returns how many. On a TCP channel 0
    // means the peer closed and a negative value that nothing could be read.
    virtual int recv(int length, void * buffer) = 0;

protected:
    ~IReadDataStream() = default;
};

class IWriteDataStream {
public:
    // Returns the bytes accepted, at most `length`. 0: nothing was taken now, retry on
    // onWrite. Negative: the connection failed.
    virtual int send(int length, const void * buffer) = 0;

protected:
    ~IWriteDataStream() = default;
};

class IReactor : public virtual Common::IRefCnt {
public:
    // Starts the reactor thread; returns when it runs.
    virtual void startProcessing() = 0;
    // Stops and joins the reactor thread. Never from one of its own callbacks.
    virtual void stopProcessing() = 0;
};

// Local port forwarding: each connection on a listening URI is spliced to a new channel
// opened to a target URI.
class ITunnelStore : public virtual Common::IRefCnt {
public:
    virtual ITunnelService * startTunnel(const char * localURI, const char * localOptions, const char * remoteURI,
                                         const char * remoteOptions) = 0;
    virtual void stopTunnels() = 0;
    virtual void shutdown() = 0;
    virtual ITunnelService * startTunnel2(const char * localURI, const char * localOptions,
                                          IChannelEndpoint * endpoint) = 0;
};

class ITunnelService : public virtual Common::IRefCnt {
public:
    virtual const char * getLocalURI() const = 0;
    virtual void close() = 0;
};

// Names the target of a tunnel connection at the moment it is opened.
class IChannelEndpoint : public virtual Common::IRefCnt {
public:
    // On one of the store's creator threads, never on the reactor thread: one call at a time,
    // in the order the connections arrived, before their connections are opened in parallel.
    virtual void getEndpoint(std::string & uri, std::string & options) = 0;
};

}  // namespace net
