// connection.cpp - a socket connection to the simulated handset (see
// connection.h).
#include "connection.h"

#include <sys/socket.h>
#include <unistd.h>

namespace kvn_qmi {

std::unique_ptr<Connection> Connection::open()
{
    int fd = kvn_wire::connect_unix(kvn_wire::default_socket_path());
    if (fd < 0)
        return nullptr;
    return std::unique_ptr<Connection>(new Connection(fd));
}

Connection::~Connection() { ::close(fd_); }

bool Connection::send(const kvn_wire::Header &h, const std::vector<uint8_t> &payload)
{
    std::lock_guard<std::mutex> lock(write_mu_);
    return kvn_wire::write_packet(fd_, h, payload);
}

std::optional<kvn_wire::Packet> Connection::receive(int timeout_ms) { return kvn_wire::read_packet(fd_, timeout_ms); }

void Connection::shutdown() { ::shutdown(fd_, SHUT_RDWR); }

} // namespace kvn_qmi
