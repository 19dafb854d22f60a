// service.cpp - the service registry and the answer of unsupported messages.
#include "service.h"

#include "tlv.h"
#include "util.h"

namespace kvn_sim {

std::vector<uint8_t> Service::error_reply(uint16_t, uint16_t error)
{
    TlvWriter w;
    w.add_result(1, error);
    return w.take();
}

std::vector<uint8_t> UnsupportedService::handle(const QmiRequest &rq)
{
    return error_reply(rq.msg_id, kQmiErrInvalidQmiCommand);
}

void ServiceRegistry::add(std::string name, uint32_t id, std::unique_ptr<Service> service, uint16_t instance)
{
    entries_.push_back(Entry{std::move(name), id, instance, true, std::move(service)});
}

ServiceRegistry::Entry *ServiceRegistry::find(uint32_t id)
{
    for (auto &e : entries_)
        if (e.id == id)
            return &e;
    return nullptr;
}

ServiceRegistry::Entry *ServiceRegistry::find(const std::string &name)
{
    for (auto &e : entries_)
        if (e.name == name)
            return &e;
    return nullptr;
}

std::optional<uint32_t> service_id_from_text(const std::string &text)
{
    static const std::pair<const char *, uint32_t> names[] = {
        {"extend", kServiceExtend}, {"uim", kServiceUim}, {"vs", kServiceVs}, {"sar", kServiceSar},
        {"nas", kServiceNas}, {"diag", kServiceDiag},
    };
    for (const auto &[n, id] : names)
        if (text == n)
            return id;
    if (auto v = parse_number(text, UINT32_MAX))
        return static_cast<uint32_t>(*v);
    return std::nullopt;
}

} // namespace kvn_sim
