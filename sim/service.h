// service.h - what a modem service of kvn-sim is: something that answers QMI
// requests of one service id, and the registry of services by id and
// instance that the router routes to and takes down or brings up.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kvn_sim {

struct QmiRequest {
    uint64_t conn = 0; // the client connection it came on
    uint16_t msg_id = 0;
    uint16_t txn = 0;
    std::span<const uint8_t> tlvs;
};

class Service {
public:
    virtual ~Service() = default;
    // The response's TLV area for a request.
    virtual std::vector<uint8_t> handle(const QmiRequest &rq) = 0;
    // The TLV area of a refusal with QMI error `error` (the "qmi-error" fault);
    // by default the standard result TLV 0x02 with result 1.
    virtual std::vector<uint8_t> error_reply(uint16_t msg_id, uint16_t error);
    // A client connection went away.
    virtual void connection_closed(uint64_t /*conn*/) {}
    // The service went down (modem restart, `service NAME down`) or came
    // back up; called after the registry entry changed.
    virtual void availability_changed(bool /*up*/) {}
};

// A service that exists but supports no message yet: every request gets the
// standard failure result (1, INVALID_QMI_COMMAND), as a modem answers a
// message it does not implement.
class UnsupportedService : public Service {
public:
    std::vector<uint8_t> handle(const QmiRequest &rq) override;
};

class ServiceRegistry {
public:
    struct Entry {
        std::string name; // as the command line names it: extend, uim, vs, sar, nas
        uint32_t id = 0;
        uint16_t instance = 0;
        bool up = true;
        std::unique_ptr<Service> service;
    };

    void add(std::string name, uint32_t id, std::unique_ptr<Service> service, uint16_t instance = 0);
    Entry *find(uint32_t id);
    Entry *find(const std::string &name);
    std::vector<Entry> &entries() { return entries_; }

private:
    std::vector<Entry> entries_;
};

// Service ids.
inline constexpr uint32_t kServiceExtend = 0xFFE4;
inline constexpr uint32_t kServiceUim = 11;
inline constexpr uint32_t kServiceVs = 0xE4;
inline constexpr uint32_t kServiceSar = 0x11;
inline constexpr uint32_t kServiceNas = 3;

// Resolves a service given by name (extend, uim, vs, sar, nas) or by number.
std::optional<uint32_t> service_id_from_text(const std::string &text);

} // namespace kvn_sim
