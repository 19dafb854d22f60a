// fake_handset.h - a small stand-in for kvn-sim in the QMI client and
// property tests: it speaks the packet protocol of PROTOCOL.md on a temporary
// socket (announced through KVN_SIM_SOCKET), answers QMI requests through a
// test-supplied handler, and lets a test bring services up and down, send
// indications and cut connections. It records what it was asked.
#pragma once

#include "kvn_wire.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace fake {

using Bytes = std::vector<uint8_t>;

// The socket path of this test process; KVN_SIM_SOCKET points at it from the
// first call on.
const std::string &socket_path();

class Handset {
public:
    // Answers a request (service, message id, request TLVs) with response
    // TLVs, or with nothing (the client then times out). Without a handler
    // every request gets a bare success.
    using Handler = std::function<std::optional<Bytes>(uint32_t service, uint16_t msg_id, const Bytes &tlvs)>;

    Handset();
    ~Handset();
    Handset(const Handset &) = delete;
    Handset &operator=(const Handset &) = delete;

    void set_handler(Handler h);
    // Up: watchers get SERVICE_UP. Down: clients get SERVICE_DOWN and are
    // disconnected, watchers get SERVICE_GONE.
    void set_up(uint32_t service, bool up);
    // Closes the clients of a service without a word.
    void drop_clients(uint32_t service);
    void indicate(uint32_t service, uint16_t msg_id, const Bytes &tlvs);
    size_t clients(uint32_t service);

    std::map<std::string, std::string> properties();
    void set_property(const std::string &key, const std::string &value);
    struct LogLine {
        int prio;
        std::string tag, msg;
    };
    std::vector<LogLine> log();

    // Polls pred until it holds or timeout passes; pred may call the
    // accessors above.
    bool wait_until(const std::function<bool()> &pred,
                    std::chrono::milliseconds timeout = std::chrono::milliseconds(3000));

private:
    struct Conn {
        int fd;
        enum { Unknown, Client, Watcher } role = Unknown;
        uint32_t service = 0;
        std::mutex write_mu;
    };

    void accept_loop();
    void serve(std::shared_ptr<Conn> c);
    bool send(Conn &c, const kvn_wire::Header &h, const Bytes &payload);
    std::vector<std::shared_ptr<Conn>> conns_of(uint32_t service, bool clients_only);

    int listen_fd_ = -1;
    std::thread acceptor_;
    std::mutex mu_;
    bool stopping_ = false;
    std::vector<std::shared_ptr<Conn>> conns_;
    std::vector<std::thread> threads_;
    std::set<uint32_t> up_;
    Handler handler_;
    std::map<std::string, std::string> props_;
    std::vector<LogLine> log_;
    uint16_t next_client_ = 1;
};

} // namespace fake
