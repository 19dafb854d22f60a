// control.cpp - the control operations of a running kvn-sim: modem restart,
// services up and down, faults, journal, properties, log, NV and EFS access,
// scenario loading, status and stop.
#include "control.h"

#include <unistd.h>

#include <functional>

#include "scenario.h"

namespace kvn_sim {

using nlohmann::json;

namespace {

struct Failure {
    std::string text;
};
[[noreturn]] void fail(const std::string &t) { throw Failure{t}; }

struct Ctx {
    Handset &h;
    Router &r;
    const DaemonInfo &info;
    const json &req;

    unsigned sub() const
    {
        unsigned s = req.at("sub").get<unsigned>();
        if (s >= ModemStore::kSubs)
            fail("subscription must be 0 or 1");
        return s;
    }
    uint16_t nv_id() const
    {
        auto id = req.at("id").get<uint32_t>();
        if (id > 0xFFFF)
            fail("NV id must be 0 to 65535");
        return static_cast<uint16_t>(id);
    }
    std::string path() const
    {
        std::string p = req.at("path").get<std::string>(), why;
        if (!ModemStore::efs_path_ok(p, &why))
            fail(p + ": " + why);
        return p;
    }
};

using Op = std::function<json(Ctx &)>;

json devices_of(Handset &h)
{
    json out = json::array();
    for (auto &[name, d] : h.devices)
        out.push_back({{"name", name}, {"up", d->up()}, {"path", d->host_path()}});
    return out;
}

json page_of(SeqRing &ring, uint64_t after)
{
    uint64_t last = 0;
    bool more = false;
    auto lines = ring.page(after, kControlPageBytes, &last, &more);
    return {{"lines", lines}, {"last", last}, {"more", more}};
}

const std::pair<const char *, Op> kOps[] = {
    {"status", [](Ctx &c) {
         json services = json::array();
         for (auto &e : c.h.services.entries())
             services.push_back({{"name", e.name}, {"id", e.id}, {"instance", e.instance}, {"up", e.up}});
         return json{{"pid", getpid()},
                     {"socket", c.info.socket},
                     {"state", c.info.state_dir},
                     {"pty", c.info.pty},
                     {"clients", c.r.client_count() - 1},
                     {"journal", c.h.journal.ring().size()},
                     {"faults", c.h.faults.all().size()},
                     {"services", services},
                     {"devices", devices_of(c.h)},
                     {"restarts", c.h.counters.restarts},
                     {"full_dumps", c.h.counters.full_dumps},
                     {"nv_syncs", c.h.counters.nv_syncs}};
     }},
    {"stop", [](Ctx &c) {
         c.r.stop();
         return json::object();
     }},
    {"load", [](Ctx &c) {
         std::string err;
         if (!apply_scenario_file(c.h, c.req.at("file").get<std::string>(), &err))
             fail(err);
         return json::object();
     }},
    {"ssr", [](Ctx &c) {
         c.r.restart_modem(std::chrono::milliseconds(c.req.at("ms").get<uint32_t>()));
         return json::object();
     }},
    {"service", [](Ctx &c) {
         std::string name = c.req.at("name").get<std::string>();
         bool up = c.req.at("up").get<bool>();
         bool found = false;
         if (auto d = c.h.devices.find(name); d != c.h.devices.end()) {
             d->second->set_up(up);
             found = true;
         }
         for (auto &e : c.h.services.entries())
             if (name == "all" || e.name == name) {
                 c.r.set_service(e, up);
                 found = true;
             }
         if (!found)
             fail("no service " + name);
         return json::object();
     }},
    {"fault", [](Ctx &c) {
         auto id = service_id_from_text(c.req.at("service").get<std::string>());
         auto f = parse_fault_kind(c.req.at("kind").get<std::string>());
         if (!id)
             fail("no service " + c.req.at("service").get<std::string>());
         if (!f)
             fail("bad fault kind " + c.req.at("kind").get<std::string>());
         if (*id == kServiceDiag && f->kind != FaultKind::NoReply && f->kind != FaultKind::Delay)
             fail("diag faults are no-reply or delay=MS");
         f->service = *id;
         f->msg_id = c.req.at("msg").get<uint16_t>();
         f->count = c.req.value("count", 1u);
         f->after = c.req.value("after", 0u);
         if (f->count == 0)
             fail("count must be at least 1");
         c.h.faults.add(*f);
         return json::object();
     }},
    {"indicate", [](Ctx &c) {
         auto id = service_id_from_text(c.req.at("service").get<std::string>());
         if (!id)
             fail("no service " + c.req.at("service").get<std::string>());
         auto tlvs = from_hex(c.req.at("hex").get<std::string>());
         if (!tlvs || tlvs->size() > 0xFFFF)
             fail("the TLV area is not hex, or longer than 65535 bytes");
         size_t n = c.r.indicate(*id, c.req.at("msg").get<uint16_t>(), *tlvs);
         return json{{"clients", n}};
     }},
    {"fault_clear", [](Ctx &c) {
         c.h.faults.clear();
         return json::object();
     }},
    {"journal", [](Ctx &c) { return page_of(c.h.journal.ring(), c.req.value("after", uint64_t{0})); }},
    {"journal_clear", [](Ctx &c) {
         c.h.journal.ring().clear_upto(c.req.value("upto", UINT64_MAX));
         return json::object();
     }},
    {"logcat", [](Ctx &c) { return page_of(c.h.log.ring(), c.req.value("after", uint64_t{0})); }},
    {"prop_get", [](Ctx &c) {
         auto key = c.req.at("key").get<std::string>();
         auto v = c.h.props.get(key);
         if (!v)
             fail("property " + key + " is not set");
         return json{{"value", *v}};
     }},
    {"prop_set", [](Ctx &c) {
         std::string err;
         if (!c.h.props.set(c.req.at("key").get<std::string>(), c.req.at("value").get<std::string>(), &err))
             fail(err);
         return json::object();
     }},
    {"prop_list", [](Ctx &c) { return json{{"props", c.h.props.all()}}; }},
    {"nv_get", [](Ctx &c) {
         auto v = c.h.store.nv_get(c.sub(), c.nv_id());
         if (!v)
             fail("NV item " + std::to_string(c.nv_id()) + " of subscription " + std::to_string(c.sub()) +
                  " is not set");
         return json{{"hex", to_hex(*v)}};
     }},
    {"nv_set", [](Ctx &c) {
         auto data = from_hex(c.req.at("hex").get<std::string>());
         std::string err;
         if (!data)
             fail("NV data is not hex");
         if (!c.h.store.nv_set(c.sub(), c.nv_id(), *data, &err))
             fail(err);
         return json::object();
     }},
    {"nv_rm", [](Ctx &c) {
         if (!c.h.store.nv_rm(c.sub(), c.nv_id()))
             fail("NV item " + std::to_string(c.nv_id()) + " is not set");
         return json::object();
     }},
    {"efs_ls", [](Ctx &c) {
         std::string p = c.req.value("path", std::string("/"));
         if (p != "/")
             p = c.path();
         json files = json::array();
         for (auto &[name, size] : c.h.store.efs_ls(c.sub(), p))
             files.push_back({{"path", name}, {"size", size}});
         return json{{"files", files}};
     }},
    {"efs_get", [](Ctx &c) {
         auto sub = c.sub();
         auto p = c.path();
         auto offset = c.req.value("offset", uint64_t{0});
         auto size = c.h.store.efs_size(sub, p);
         if (!size)
             fail(p + ": no such file");
         auto data = c.h.store.efs_read(sub, p, offset, kControlPageBytes);
         if (!data)
             fail(p + ": cannot be read");
         return json{{"size", *size}, {"hex", to_hex(*data)}};
     }},
    {"efs_put", [](Ctx &c) {
         std::optional<Bytes> data;
         std::string err;
         if (c.req.contains("file"))
             data = read_file(c.req.at("file").get<std::string>(), ModemStore::kMaxEfsFile, &err);
         else if (!(data = from_hex(c.req.at("hex").get<std::string>())))
             err = "file data is not hex";
         if (!data || !c.h.store.efs_put(c.sub(), c.path(), *data, &err))
             fail(err);
         return json::object();
     }},
    {"efs_rm", [](Ctx &c) {
         if (!c.h.store.efs_rm(c.sub(), c.path()))
             fail(c.req.at("path").get<std::string>() + ": no such file");
         return json::object();
     }},
};

} // namespace

Router::ControlHandler make_control_handler(Handset &h, Router &r, DaemonInfo info)
{
    return [&h, &r, info](const json &req, bool *ok) -> json {
        *ok = false;
        std::string op = req.value("op", std::string());
        for (const auto &[name, fn] : kOps) {
            if (op != name)
                continue;
            Ctx c{h, r, info, req};
            try {
                json reply = fn(c);
                *ok = true;
                return reply;
            } catch (const Failure &f) {
                return {{"error", f.text}};
            } catch (const json::exception &e) {
                return {{"error", "malformed control request: " + std::string(e.what())}};
            }
        }
        return {{"error", "unknown control operation \"" + op + "\""}};
    };
}

} // namespace kvn_sim
