// control.cpp - the control operations of a running kvn-sim: modem restart,
// services up and down, faults, journal, properties, log, NV and EFS access,
// scenario loading, status and stop.
#include "control.h"

#include <unistd.h>

#include <functional>
#include <map>
#include <optional>

#include "scenario.h"

namespace kvn_sim {

using nlohmann::json;

namespace {

struct Failure {
    std::string text;
};
[[noreturn]] void fail(const std::string &t) { throw Failure{t}; }

// Contents a client sends ahead of the request that uses them (a scenario
// document, an EFS file): kvn-sim never opens a host file for a client, so
// anything larger than one packet comes in chunks. Bounded in size and
// number; the oldest is dropped for a new one past kMaxUploads.
struct Uploads {
    static constexpr size_t kMaxUploads = 4;
    static constexpr size_t kMaxChunkHex = 2 * kControlPageBytes;
    std::map<uint64_t, std::string> live; // by id, oldest first
    uint64_t next = 1;
};

// The request and the handset an op works on. Every field is read through a
// typed accessor: a missing field, a field of the wrong type or a number out
// of range fails the request with an error naming the field.
struct Ctx {
    Handset &h;
    Router &r;
    const DaemonInfo &info;
    const json &req;
    Uploads &up;

    const json *find(const char *name, bool required) const
    {
        auto it = req.find(name);
        if (it == req.end()) {
            if (required)
                fail(std::string("missing field \"") + name + "\"");
            return nullptr;
        }
        return &*it;
    }
    std::string str(const char *name) const { return str_or(name, nullptr); }
    std::string str_or(const char *name, const char *dflt) const
    {
        const json *j = find(name, dflt == nullptr);
        if (!j)
            return dflt;
        if (!j->is_string())
            fail(std::string("field \"") + name + "\" must be a string");
        return j->get<std::string>();
    }
    // An integer from min to max; a fraction, a huge float or a negative
    // number for an unsigned field is refused rather than converted.
    uint64_t num_or(const char *name, std::optional<uint64_t> dflt, uint64_t min, uint64_t max) const
    {
        const json *j = find(name, !dflt);
        if (!j)
            return *dflt;
        bool in_range = j->is_number_unsigned() && j->get<uint64_t>() >= min && j->get<uint64_t>() <= max;
        if (!in_range && j->is_number_integer() && !j->is_number_unsigned() && j->get<int64_t>() >= 0)
            in_range = static_cast<uint64_t>(j->get<int64_t>()) >= min &&
                       static_cast<uint64_t>(j->get<int64_t>()) <= max;
        if (!in_range)
            fail(std::string("field \"") + name + "\" must be an integer from " + std::to_string(min) + " to " +
                 std::to_string(max));
        return j->is_number_unsigned() ? j->get<uint64_t>() : static_cast<uint64_t>(j->get<int64_t>());
    }
    uint64_t num(const char *name, uint64_t min, uint64_t max) const { return num_or(name, std::nullopt, min, max); }
    bool flag(const char *name) const
    {
        const json *j = find(name, true);
        if (!j->is_boolean())
            fail(std::string("field \"") + name + "\" must be true or false");
        return j->get<bool>();
    }

    // The contents a request carries: inline (field `inline_field`) or a
    // finished upload (field "upload", consumed). A `file` field is refused:
    // the daemon reads no host file on a client's behalf.
    std::string contents(const char *inline_field, size_t max) const
    {
        if (req.contains("file"))
            fail("field \"file\" is refused: kvn-sim opens no host file for a client; send the contents "
                 "(\"" + std::string(inline_field) + "\" or \"upload\")");
        std::string text;
        if (req.contains("upload")) {
            auto it = up.live.find(num("upload", 1, UINT64_MAX));
            if (it == up.live.end())
                fail("no upload " + std::to_string(num("upload", 1, UINT64_MAX)) + " (finished, or dropped for newer ones)");
            text = std::move(it->second);
            up.live.erase(it);
        } else {
            text = str(inline_field);
        }
        if (text.size() > max)
            fail("the contents are " + std::to_string(text.size()) + " bytes, over the bound of " +
                 std::to_string(max) + " bytes");
        return text;
    }

    unsigned sub() const { return static_cast<unsigned>(num("sub", 0, ModemStore::kSubs - 1)); }
    uint16_t nv_id() const { return static_cast<uint16_t>(num("id", 0, 0xFFFF)); }
    std::string path() const
    {
        std::string p = str("path"), why;
        if (!ModemStore::efs_path_ok(p, &why))
            fail(p + ": " + why);
        return p;
    }
};

// The longest modem restart `ssr` accepts (one hour).
constexpr uint64_t kMaxRestartMs = 3600000;

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
                     {"accept_errors", c.r.stats().accept_errors},
                     {"refused", c.r.stats().refused},
                     {"evicted", c.r.stats().evicted},
                     {"backlog_drops", c.r.stats().backlog_drops},
                     {"output_bytes", c.r.stats().output_bytes},
                     {"services", services},
                     {"devices", devices_of(c.h)},
                     {"restarts", c.h.counters.restarts},
                     {"full_dumps", c.h.counters.full_dumps},
                     {"nv_syncs", c.h.counters.nv_syncs},
                     {"qmux_cids", c.h.counters.qmux_cids},
                     {"qmux_queued", c.h.counters.qmux_queued},
                     {"qmux_dropped", c.h.counters.qmux_dropped}};
     }},
    {"stop", [](Ctx &c) {
         c.r.stop();
         return json::object();
     }},
    {"load", [](Ctx &c) {
         std::string err;
         if (!apply_scenario_text(c.h, c.contents("document", kMaxScenarioBytes), &err))
             fail(err);
         return json::object();
     }},
    {"upload", [](Ctx &c) {
         std::string hex = c.str("hex");
         if (hex.size() > Uploads::kMaxChunkHex)
             fail("field \"hex\" holds more than " + std::to_string(Uploads::kMaxChunkHex / 2) + " bytes");
         auto bytes = from_hex(hex);
         if (!bytes)
             fail("field \"hex\" is not hex");
         uint64_t id = c.req.contains("upload") ? c.num("upload", 1, UINT64_MAX) : 0;
         if (id == 0) {
             if (c.up.live.size() >= Uploads::kMaxUploads)
                 c.up.live.erase(c.up.live.begin());
             id = c.up.next++;
             c.up.live[id];
         }
         auto it = c.up.live.find(id);
         if (it == c.up.live.end())
             fail("no upload " + std::to_string(id) + " (finished, or dropped for newer ones)");
         if (it->second.size() + bytes->size() > kMaxScenarioBytes) {
             c.up.live.erase(it);
             fail("upload " + std::to_string(id) + " is over the bound of " + std::to_string(kMaxScenarioBytes) +
                  " bytes; dropped");
         }
         it->second.append(bytes->begin(), bytes->end());
         return json{{"upload", id}};
     }},
    {"ssr", [](Ctx &c) {
         c.r.restart_modem(std::chrono::milliseconds(c.num("ms", 0, kMaxRestartMs)));
         return json::object();
     }},
    {"service", [](Ctx &c) {
         std::string name = c.str("name");
         bool up = c.flag("up");
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
         auto service = c.str("service"), kind = c.str("kind");
         auto id = service_id_from_text(service);
         auto f = parse_fault_kind(kind);
         if (!id)
             fail("no service " + service);
         if (!f)
             fail("bad fault kind " + kind);
         if (*id == kServiceDiag && f->kind != FaultKind::NoReply && f->kind != FaultKind::Delay)
             fail("diag faults are no-reply or delay=MS");
         if (c.h.faults.all().size() >= Faults::kMaxFaults)
             fail("the handset holds " + std::to_string(Faults::kMaxFaults) + " faults, the bound on faults; clear some first");
         f->service = *id;
         f->msg_id = static_cast<uint16_t>(c.num("msg", 0, 0xFFFF));
         f->count = static_cast<uint32_t>(c.num_or("count", 1, 1, UINT32_MAX));
         f->after = static_cast<uint32_t>(c.num_or("after", 0, 0, UINT32_MAX));
         c.h.faults.add(*f);
         return json::object();
     }},
    {"indicate", [](Ctx &c) {
         auto service = c.str("service");
         auto id = service_id_from_text(service);
         if (!id)
             fail("no service " + service);
         auto tlvs = from_hex(c.str("hex"));
         if (!tlvs || tlvs->size() > 0xFFFF)
             fail("the TLV area is not hex, or longer than 65535 bytes");
         size_t n = c.r.indicate(*id, static_cast<uint16_t>(c.num("msg", 0, 0xFFFF)), *tlvs);
         return json{{"clients", n}};
     }},
    {"fault_clear", [](Ctx &c) {
         c.h.faults.clear();
         return json::object();
     }},
    {"journal", [](Ctx &c) { return page_of(c.h.journal.ring(), c.num_or("after", 0, 0, UINT64_MAX)); }},
    {"journal_clear", [](Ctx &c) {
         c.h.journal.ring().clear_upto(c.num_or("upto", UINT64_MAX, 0, UINT64_MAX));
         return json::object();
     }},
    {"logcat", [](Ctx &c) { return page_of(c.h.log.ring(), c.num_or("after", 0, 0, UINT64_MAX)); }},
    {"logcat_clear", [](Ctx &c) {
         c.h.log.ring().clear_upto(c.h.log.ring().last_seq());
         return json::object();
     }},
    {"prop_get", [](Ctx &c) {
         auto key = c.str("key");
         auto v = c.h.props.get(key);
         if (!v)
             fail("property " + key + " is not set");
         return json{{"value", *v}};
     }},
    {"prop_set", [](Ctx &c) {
         std::string err;
         if (!c.h.props.set(c.str("key"), c.str("value"), &err)) {
             c.h.note(kLogInfo, "property refused: " + err);
             fail(err);
         }
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
         auto data = from_hex(c.str("hex"));
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
         std::string p = c.str_or("path", "/");
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
         auto offset = c.num_or("offset", 0, 0, ModemStore::kMaxEfsFile);
         uint64_t size = 0;
         auto data = c.h.store.efs_read(sub, p, offset, kControlPageBytes, &size);
         if (!data)
             fail(p + ": no such file");
         return json{{"size", size}, {"hex", to_hex(*data)}};
     }},
    {"efs_put", [](Ctx &c) {
         std::optional<Bytes> data;
         std::string err;
         if (c.req.contains("upload")) {
             std::string raw = c.contents("hex", ModemStore::kMaxEfsFile);
             data = Bytes(raw.begin(), raw.end());
         } else if (!(data = from_hex(c.contents("hex", 2 * ModemStore::kMaxEfsFile)))) {
             err = "file data is not hex";
         }
         if (!data || !c.h.store.efs_put(c.sub(), c.path(), *data, &err))
             fail(err);
         return json::object();
     }},
    {"efs_rm", [](Ctx &c) {
         if (!c.h.store.efs_rm(c.sub(), c.path()))
             fail(c.str("path") + ": no such file");
         return json::object();
     }},
};

} // namespace

Router::ControlHandler make_control_handler(Handset &h, Router &r, DaemonInfo info)
{
    auto uploads = std::make_shared<Uploads>();
    return [&h, &r, info, uploads](const json &req, bool *ok) -> json {
        *ok = false;
        auto op_field = req.find("op");
        if (op_field == req.end() || !op_field->is_string())
            return {{"error", "field \"op\" must be a string"}};
        const std::string &op = op_field->get_ref<const std::string &>();
        for (const auto &[name, fn] : kOps) {
            if (op != name)
                continue;
            Ctx c{h, r, info, req, *uploads};
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
