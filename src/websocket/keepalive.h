// websocket::KeepAlive: the clock of PingInterval and PingTimeout for one WebSocket channel.
// It only decides; its channel sends the ping and ends the connection. Owned by its channel;
// reactor thread only (the channel calls it from the callbacks of its reactor cycle, which
// come at least every selectTimeout).
#pragma once

#include <cstdint>
#include <string>

#include "common/logging.h"
#include "net/optionmap.h"

namespace websocket {

class KeepAlive {
public:
    // Milliseconds; 0 turns the part off. Set before the connection opens.
    struct Settings {
        std::uint64_t interval = 0;
        std::uint64_t timeout = 0;
    };
    enum class Due { Nothing, Ping, Dead };

    // PingInterval and PingTimeout in seconds (fractions allowed), both 0 unless set. Throws
    // websocket::InternalException naming the option when a value is not a number >= 0.
    static Settings FromOptions(const net::OptionMap & options);

    void configure(const Settings & settings) { m_settings = settings; }
    bool enabled() const { return m_settings.interval != 0; }
    // Bytes from the peer (a pong or any other data): the connection lives, the silence
    // starts again and an unanswered ping is forgiven. Also the start of the clock.
    void heard(std::uint64_t now) {
        m_lastHeard = now;
        m_lastPing = 0;
        m_unansweredSince = 0;
    }
    // What is due at `now`: Dead once PingTimeout has passed after a ping with nothing
    // heard since; otherwise Ping after PingInterval of silence (again each interval while
    // the silence lasts). Nothing before the clock started.
    Due check(std::uint64_t now) const {
        if (!enabled() || m_lastHeard == 0) {
            return Due::Nothing;
        }
        if (m_settings.timeout != 0 && m_unansweredSince != 0 && now - m_unansweredSince >= m_settings.timeout) {
            return Due::Dead;
        }
        const std::uint64_t since = m_lastPing > m_lastHeard ? m_lastPing : m_lastHeard;
        return now - since >= m_settings.interval ? Due::Ping : Due::Nothing;
    }
    void pinged(std::uint64_t now) {
        m_lastPing = now;
        if (m_unansweredSince == 0) {
            m_unansweredSince = now;
        }
    }
    // check, and what goes with its answer: on Ping the ping counts as sent (the caller
    // sends it), on Dead the WARN line that names the channel and the seconds is written.
    Due next(std::uint64_t now, const log4cxx::LoggerPtr & log, const std::string & description);

private:
    Settings m_settings;
    std::uint64_t m_lastHeard = 0;
    std::uint64_t m_lastPing = 0;
    std::uint64_t m_unansweredSince = 0;
};

}  // namespace websocket
