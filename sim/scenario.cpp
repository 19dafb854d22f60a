// scenario.cpp - checking and applying scenario documents. Each level of the
// document is a table of {key, parser}; a parser checks its value and adds
// the changes it stands for to a plan, which runs only when the whole
// document has been checked. Adding a key is adding a row.
#include "scenario.h"

#include <malloc.h>

#include <functional>
#include <memory>
#include <set>
#include <unordered_set>

namespace kvn_sim {

using nlohmann::json;

namespace {

/* ---- the table walker ---- */

struct Plan {
    std::vector<std::function<bool(Handset &, std::string *)>> steps;
    // Checks against the handset's present state, all run before any step.
    std::vector<std::function<bool(const Handset &, std::string *)>> checks;
    // EFS files the document writes, per subscription, as component lists.
    std::set<std::vector<std::string>> efs_files[ModemStore::kSubs];
    size_t faults = 0;
};

struct Error {
    std::string text;
};

using Parser = std::function<void(const json &value, const std::string &where, Plan &)>;

struct KeyRow {
    const char *key;
    Parser parse;
};

[[noreturn]] void fail(const std::string &text) { throw Error{text}; }

constexpr size_t kMaxDiagBytes = 16384; // a diag request or canned reply

// Entries one document may hold per collection: each applied entry is a
// write or a table row, and a document far beyond these is a mistake that
// would hold every client up while it is applied.
struct Bound {
    const char *what;
    size_t max;
};
constexpr Bound kMaxProperties{"properties", 100}; // each persist.* one rewrites a file
constexpr Bound kMaxNvItems{"NV items", 2000};
constexpr Bound kMaxEfsFiles{"EFS files", 1000};
constexpr Bound kMaxExtendReplies{"extend replies", 1000};
constexpr Bound kMaxFaults{"faults", 1000};
constexpr Bound kMaxDiagReplies{"diag replies", 1000};
constexpr Bound kMaxVsStats{"statistics", 1000};

// Counts one more entry of `b` (per document); fails past the bound.
void count(size_t &n, const Bound &b, const std::string &where)
{
    if (++n > b.max)
        throw Error{"\"" + where + "\": more than " + std::to_string(b.max) + " " + b.what + " in one document (the bound on " + b.what + ")"};
}

std::string join(const std::string &where, const std::string &key) { return where.empty() ? key : where + "." + key; }

// Walks an object against its key table; an unknown key is an error.
template <size_t N>
void parse_object(const json &v, const std::string &where, const KeyRow (&rows)[N], Plan &plan)
{
    if (!v.is_object())
        fail((where.empty() ? std::string("the scenario") : "\"" + where + "\"") + " must be a JSON object");
    for (auto &[k, val] : v.items()) {
        const KeyRow *row = nullptr;
        for (const auto &r : rows)
            if (k == r.key)
                row = &r;
        if (!row)
            fail("unknown key \"" + join(where, k) + "\"");
        row->parse(val, join(where, k), plan);
    }
}

uint64_t number(const json &v, const std::string &where, uint64_t max)
{
    if (v.is_number_unsigned() && v.get<uint64_t>() <= max)
        return v.get<uint64_t>();
    if (v.is_string())
        if (auto n = parse_number(v.get<std::string>(), max))
            return *n;
    fail("\"" + where + "\" must be a number from 0 to " + std::to_string(max));
}

std::string string(const json &v, const std::string &where)
{
    if (!v.is_string())
        fail("\"" + where + "\" must be a string");
    return v.get<std::string>();
}

unsigned sub_key(const std::string &k, const std::string &where)
{
    if (k != "0" && k != "1")
        fail("unknown key \"" + join(where, k) + "\" (subscriptions are \"0\" and \"1\")");
    return k == "1" ? 1u : 0u;
}

// A content value: "hex" text, or an object {"hex": ...} / {"text": ...} /
// {"imei": ...} (NV items only).
Bytes content(const json &v, const std::string &where, bool allow_imei)
{
    if (v.is_string()) {
        auto b = from_hex(v.get<std::string>());
        if (!b)
            fail("\"" + where + "\" is not hex");
        return *b;
    }
    auto shapes = std::string("a hex string or one of {\"hex\"}, {\"text\"}") + (allow_imei ? ", {\"imei\"}" : "");
    if (!v.is_object())
        fail("\"" + where + "\" must be " + shapes);
    for (auto &[key, unused] : v.items())
        if (key != "hex" && key != "text" && !(allow_imei && key == "imei"))
            fail("unknown key \"" + join(where, key) + "\"");
    if (v.size() != 1)
        fail("\"" + where + "\" must be " + shapes);
    auto [k, val] = *v.items().begin();
    std::string s = string(val, join(where, k));
    if (k == "hex") {
        if (auto b = from_hex(s))
            return *b;
        fail("\"" + join(where, k) + "\" is not hex");
    }
    if (k == "text")
        return Bytes(s.begin(), s.end());
    if (k == "imei" && allow_imei) {
        if (auto b = encode_imei(s))
            return *b;
        fail("\"" + join(where, k) + "\" must be 15 decimal digits");
    }
    fail("unknown key \"" + join(where, k) + "\"");
}

/* ---- one parser per key ---- */

void parse_properties(const json &v, const std::string &where, Plan &plan)
{
    if (!v.is_object())
        fail("\"" + where + "\" must be a JSON object");
    size_t n = 0;
    for (auto &[k, val] : v.items()) {
        count(n, kMaxProperties, where);
        std::string value = string(val, join(where, k)), why;
        if (!Properties::valid(k, value, &why))
            fail("\"" + join(where, k) + "\": " + why);
        plan.steps.push_back([key = std::string(k), value](Handset &h, std::string *err) { return h.props.set(key, value, err); });
    }
}

void parse_nv(const json &v, const std::string &where, Plan &plan)
{
    if (!v.is_object())
        fail("\"" + where + "\" must be a JSON object");
    size_t n = 0;
    for (auto &[sk, items] : v.items()) {
        unsigned sub = sub_key(sk, where);
        std::string w = join(where, sk);
        if (!items.is_object())
            fail("\"" + w + "\" must be a JSON object of NV id: content");
        for (auto &[ik, val] : items.items()) {
            count(n, kMaxNvItems, where);
            auto id = parse_number(ik, 0xFFFF);
            if (!id)
                fail("unknown key \"" + join(w, ik) + "\" (NV ids are numbers up to 65535)");
            Bytes data = content(val, join(w, ik), true);
            if (data.empty() || data.size() > ModemStore::kMaxNvItem)
                fail("\"" + join(w, ik) + "\" must hold 1 to 424 bytes");
            plan.steps.push_back([sub, id = static_cast<uint16_t>(*id), data](Handset &h, std::string *err) {
                return h.store.nv_set(sub, id, data, err);
            });
        }
    }
}

// An EFS path as its components ("/a//b/" -> a, b).
std::vector<std::string> components(const std::string &path)
{
    std::vector<std::string> out;
    for (size_t pos = 0; pos < path.size();) {
        size_t end = std::min(path.find('/', pos), path.size());
        if (end > pos)
            out.push_back(path.substr(pos, end - pos));
        pos = end + 1;
    }
    return out;
}

void parse_efs(const json &v, const std::string &where, Plan &plan)
{
    if (!v.is_object())
        fail("\"" + where + "\" must be a JSON object");
    size_t n = 0;
    for (auto &[sk, files] : v.items()) {
        unsigned sub = sub_key(sk, where);
        std::string w = join(where, sk);
        if (!files.is_object())
            fail("\"" + w + "\" must be a JSON object of path: content");
        for (auto &[path, val] : files.items()) {
            count(n, kMaxEfsFiles, where);
            std::string why;
            if (!ModemStore::efs_path_ok(path, &why))
                fail("\"" + join(w, path) + "\": " + why);
            Bytes data = content(val, join(w, path), false);
            if (data.size() > ModemStore::kMaxEfsFile)
                fail("\"" + join(w, path) + "\" is larger than 102410 bytes");
            // A file of this document where another one's directory goes
            // (either way round) could only fail half-way through.
            auto comps = components(path);
            auto &mine = plan.efs_files[sub];
            for (size_t k = 1; k < comps.size(); ++k)
                if (mine.count({comps.begin(), comps.begin() + static_cast<long>(k)}))
                    fail("\"" + join(w, path) + "\": a directory on the way is a file of this document");
            if (auto it = mine.lower_bound(comps); it != mine.end() && it->size() > comps.size() &&
                                                   std::equal(comps.begin(), comps.end(), it->begin()))
                fail("\"" + join(w, path) + "\": is a directory of this document");
            mine.insert(comps);
            plan.checks.push_back([sub, file = std::string(path)](const Handset &h, std::string *err) {
                return h.store.efs_can_put(sub, file, err);
            });
            plan.steps.push_back([sub, file = std::string(path), data](Handset &h, std::string *err) {
                return h.store.efs_put(sub, file, data, err);
            });
        }
    }
}

void parse_read_chunk(const json &v, const std::string &where, Plan &plan)
{
    std::optional<uint64_t> n;
    if (v.is_number_unsigned())
        n = v.get<uint64_t>();
    else if (v.is_string())
        n = parse_number(v.get<std::string>());
    if (!n || *n == 0 || *n > NvEfsCommand::kMaxChunk)
        fail("\"" + where + "\" must be a number from 1 to " + std::to_string(NvEfsCommand::kMaxChunk));
    plan.steps.push_back([n = *n](Handset &h, std::string *) {
        h.nvefs.set_read_chunk(static_cast<size_t>(n));
        return true;
    });
}

void parse_extend_replies(const json &v, const std::string &where, Plan &plan)
{
    if (!v.is_object())
        fail("\"" + where + "\" must be a JSON object of command id: reply");
    size_t n = 0;
    for (auto &[ck, rv] : v.items()) {
        count(n, kMaxExtendReplies, where);
        auto cmd = parse_number(ck, UINT32_MAX);
        if (!cmd)
            fail("unknown key \"" + join(where, ck) + "\" (command ids are numbers)");
        auto reply = std::make_shared<CannedReply>();
        const KeyRow rows[] = {
            {"result", [reply](const json &x, const std::string &w, Plan &) {
                 reply->result = static_cast<uint32_t>(number(x, w, UINT32_MAX));
             }},
            {"data", [reply](const json &x, const std::string &w, Plan &) {
                 reply->data = content(x, w, false);
                 if (reply->data.size() > 512)
                     fail("\"" + w + "\" is longer than 512 bytes");
             }},
        };
        parse_object(rv, join(where, ck), rows, plan);
        plan.steps.push_back([id = static_cast<uint32_t>(*cmd), reply](Handset &h, std::string *) {
            h.extend_replies[id] = *reply;
            return true;
        });
    }
}

void parse_faults(const json &v, const std::string &where, Plan &plan)
{
    if (!v.is_array())
        fail("\"" + where + "\" must be an array of faults");
    if (v.size() > kMaxFaults.max)
        fail("\"" + where + "\": more than " + std::to_string(kMaxFaults.max) +
             " faults in one document (the bound on faults)");
    plan.faults += v.size();
    for (size_t i = 0; i < v.size(); ++i) {
        std::string w = where + "[" + std::to_string(i) + "]";
        auto f = std::make_shared<Fault>();
        bool has_service = false, has_msg = false, has_kind = false;
        const KeyRow rows[] = {
            {"service", [&](const json &x, const std::string &wk, Plan &) {
                 auto id = x.is_number_unsigned() ? std::optional<uint32_t>(static_cast<uint32_t>(number(x, wk, UINT32_MAX)))
                                                  : service_id_from_text(string(x, wk));
                 if (!id)
                     fail("\"" + wk + "\" is not a service");
                 f->service = *id;
                 has_service = true;
             }},
            {"msg", [&](const json &x, const std::string &wk, Plan &) {
                 f->msg_id = static_cast<uint16_t>(number(x, wk, 0xFFFF));
                 has_msg = true;
             }},
            {"kind", [&](const json &x, const std::string &wk, Plan &) {
                 auto k = parse_fault_kind(string(x, wk));
                 if (!k)
                     fail("\"" + wk + "\" must be no-reply, delay=MS, qmi-error=N, drop or truncate");
                 f->kind = k->kind;
                 f->value = k->value;
                 has_kind = true;
             }},
            {"count", [&](const json &x, const std::string &wk, Plan &) {
                 f->count = static_cast<uint32_t>(number(x, wk, UINT32_MAX));
                 if (f->count == 0)
                     fail("\"" + wk + "\" must be at least 1");
             }},
            {"after", [&](const json &x, const std::string &wk, Plan &) {
                 f->after = static_cast<uint32_t>(number(x, wk, UINT32_MAX));
             }},
        };
        parse_object(v[i], w, rows, plan);
        if (!has_service || !has_msg || !has_kind)
            fail("\"" + w + "\" needs service, msg and kind");
        if (f->service == kServiceDiag && f->kind != FaultKind::NoReply && f->kind != FaultKind::Delay)
            fail("\"" + w + "\": diag faults are no-reply or delay=MS");
        plan.steps.push_back([f](Handset &h, std::string *) {
            h.faults.add(*f);
            return true;
        });
    }
}

// An i32, negative allowed (a JSON integer).
int32_t signed_number(const json &v, const std::string &where)
{
    if (v.is_number_integer() && v.get<int64_t>() >= INT32_MIN && v.get<int64_t>() <= INT32_MAX)
        return static_cast<int32_t>(v.get<int64_t>());
    fail("\"" + where + "\" must be a number from -2147483648 to 2147483647");
}

// Each sub-key is optional and replaces only its own answer.
void parse_modem_stats(const json &v, const std::string &where, Plan &plan)
{
    using A = ModemStatsAnswers;
    auto set = [&plan](std::function<void(A &)> apply) {
        plan.steps.push_back([apply](Handset &h, std::string *) {
            apply(h.modem_stats);
            return true;
        });
    };
    const KeyRow rows[] = {
        {"debug_info", [&](const json &x, const std::string &w, Plan &) {
             Bytes b = content(x, w, false);
             if (b.empty() || b.size() > A::kMaxDebugInfo)
                 fail("\"" + w + "\" must hold 1 to 500 bytes");
             set([b](A &a) { a.debug_info = b; });
         }},
        {"debug_info_result", [&](const json &x, const std::string &w, Plan &) {
             int32_t r = signed_number(x, w);
             set([r](A &a) { a.debug_info_result = r; });
         }},
        {"unsupported_log_ids", [&](const json &x, const std::string &w, Plan &) {
             if (!x.is_array() || x.size() > A::kMaxLogIds)
                 fail("\"" + w + "\" must be an array of at most 249 log ids");
             std::vector<uint16_t> ids;
             for (size_t i = 0; i < x.size(); ++i)
                 ids.push_back(static_cast<uint16_t>(number(x[i], w + "[" + std::to_string(i) + "]", 0xFFFF)));
             set([ids](A &a) { a.unsupported_log_ids = ids; });
         }},
        {"unsupported_log_ids_result", [&](const json &x, const std::string &w, Plan &) {
             int32_t r = signed_number(x, w);
             set([r](A &a) { a.unsupported_log_ids_result = r; });
         }},
    };
    parse_object(v, where, rows, plan);
}

// {"<request hex>": CONTENT}: the diag responder's answer to exactly that
// request, ahead of its built-in one.
void parse_diag_replies(const json &v, const std::string &where, Plan &plan)
{
    if (!v.is_object())
        fail("\"" + where + "\" must be a JSON object of request hex: reply");
    size_t n = 0;
    for (auto &[rk, rv] : v.items()) {
        count(n, kMaxDiagReplies, where);
        auto rq = from_hex(rk);
        if (!rq || rq->empty() || rq->size() > kMaxDiagBytes)
            fail("unknown key \"" + join(where, rk) + "\" (requests are 1 to 16384 bytes in hex)");
        Bytes reply = content(rv, join(where, rk), false);
        if (reply.size() > kMaxDiagBytes)
            fail("\"" + join(where, rk) + "\" is longer than 16384 bytes");
        plan.steps.push_back([rq = *rq, reply](Handset &h, std::string *) {
            h.diag_replies[rq] = reply;
            return true;
        });
    }
}

void parse_description(const json &v, const std::string &where, Plan &) { string(v, where); }

// One statistic: CONTENT (the data of the one record answered, 1..700 bytes),
// or {"records": [{"sub": n, "id": n, "data": CONTENT}, ...]} (0..16 records
// of 0..1000 bytes, sent as given, so that a misbehaving modem can be played).
std::vector<VsRecord> vs_value(const json &v, const std::string &where, uint16_t sub, uint32_t id)
{
    if (!v.is_object() || !v.contains("records")) {
        Bytes data = content(v, where, false);
        if (data.empty() || data.size() > 700)
            fail("\"" + where + "\" must hold 1 to 700 bytes");
        return {VsRecord{sub, id, data}};
    }
    std::vector<VsRecord> out;
    const KeyRow rows[] = {
        {"records", [&](const json &list, const std::string &w, Plan &) {
             if (!list.is_array() || list.size() > 16)
                 fail("\"" + w + "\" must be an array of 0 to 16 records");
             for (size_t i = 0; i < list.size(); ++i) {
                 std::string wr = w + "[" + std::to_string(i) + "]";
                 VsRecord r;
                 bool has_sub = false, has_id = false, has_data = false;
                 const KeyRow rec_rows[] = {
                     {"sub", [&](const json &x, const std::string &wk, Plan &) {
                          r.sub = static_cast<uint16_t>(number(x, wk, 0xFFFF));
                          has_sub = true;
                      }},
                     {"id", [&](const json &x, const std::string &wk, Plan &) {
                          r.id = static_cast<uint32_t>(number(x, wk, UINT32_MAX));
                          has_id = true;
                      }},
                     {"data", [&](const json &x, const std::string &wk, Plan &) {
                          r.data = content(x, wk, false);
                          if (r.data.size() > 1000)
                              fail("\"" + wk + "\" is longer than 1000 bytes");
                          has_data = true;
                      }},
                 };
                 Plan unused;
                 parse_object(list[i], wr, rec_rows, unused);
                 if (!has_sub || !has_id || !has_data)
                     fail("\"" + wr + "\" needs sub, id and data");
                 out.push_back(std::move(r));
             }
         }},
    };
    Plan unused;
    parse_object(v, where, rows, unused);
    return out;
}

void parse_vs_stats(const json &v, const std::string &where, Plan &plan)
{
    if (!v.is_object())
        fail("\"" + where + "\" must be a JSON object");
    size_t n = 0;
    for (auto &[sk, stats] : v.items()) {
        unsigned sub = sub_key(sk, where);
        std::string w = join(where, sk);
        if (!stats.is_object())
            fail("\"" + w + "\" must be a JSON object of statistic id: value");
        for (auto &[ik, val] : stats.items()) {
            count(n, kMaxVsStats, where);
            bool decimal = !ik.empty() && ik.size() <= 10 && ik.find_first_not_of("0123456789") == std::string::npos;
            auto id = decimal ? parse_number(ik, UINT32_MAX) : std::nullopt;
            if (!id)
                fail("unknown key \"" + join(w, ik) + "\" (statistic ids are decimal numbers)");
            auto records = vs_value(val, join(w, ik), static_cast<uint16_t>(sub), static_cast<uint32_t>(*id));
            plan.steps.push_back([sub, id = static_cast<uint32_t>(*id), records](Handset &h, std::string *) {
                h.radio.vs_stats[sub][id] = records;
                return true;
            });
        }
    }
}

void parse_sar_dsi(const json &v, const std::string &where, Plan &plan)
{
    std::optional<uint32_t> dsi;
    if (!v.is_null())
        dsi = static_cast<uint32_t>(number(v, where, UINT32_MAX));
    plan.steps.push_back([dsi](Handset &h, std::string *) {
        h.radio.sar_dsi = dsi;
        return true;
    });
}

const KeyRow kTopLevel[] = {
    {"description", parse_description},
    {"properties", parse_properties},
    {"nv", parse_nv},
    {"efs", parse_efs},
    {"efs_read_chunk", parse_read_chunk},
    {"extend_replies", parse_extend_replies},
    {"faults", parse_faults},
    {"diag_replies", parse_diag_replies},
    {"uim",
     [](const json &v, const std::string &where, Plan &plan) {
         std::string err;
         auto change = parse_uim_scenario(v, where, &err);
         if (!change)
             fail(err);
         plan.steps.push_back([change = std::move(*change)](Handset &h, std::string *) {
             change(h.uim);
             return true;
         });
     }},
    {"vs_stats", parse_vs_stats},
    {"sar_dsi", parse_sar_dsi},
    {"modem_stats", parse_modem_stats},
    {"replay",
     [](const json &v, const std::string &where, Plan &plan) {
         auto replay = std::make_shared<Replay>();
         std::string err;
         if (!replay->parse(v, &err))
             fail("\"" + where + "\" " + err);
         plan.steps.push_back([replay](Handset &h, std::string *) {
             h.replay = std::move(*replay);
             return true;
         });
     }},
};

} // namespace

/* ---- entry points ---- */

std::optional<Bytes> encode_imei(const std::string &digits)
{
    if (digits.size() != 15)
        return std::nullopt;
    for (char c : digits)
        if (c < '0' || c > '9')
            return std::nullopt;
    // Nibbles in order: the type marker 0xA, then the 15 digits; each byte
    // holds the earlier nibble in its low half.
    uint8_t nib[16];
    nib[0] = 0xA;
    for (size_t i = 0; i < 15; ++i)
        nib[i + 1] = static_cast<uint8_t>(digits[i] - '0');
    Bytes out{0x08};
    for (size_t i = 0; i < 16; i += 2)
        out.push_back(static_cast<uint8_t>(nib[i] | nib[i + 1] << 4));
    return out;
}

namespace {

// The plan of a document, or nullopt with err set.
std::optional<Plan> plan_of(const json &doc, std::string *err)
{
    Plan plan;
    try {
        parse_object(doc, "", kTopLevel, plan);
    } catch (const Error &e) {
        *err = e.text;
        return std::nullopt;
    }
    return plan;
}

// Line and column (from 1) of the byte at `offset` (counted from 1) of text.
std::string position(std::string_view text, size_t offset)
{
    size_t line = 1, col = 1;
    for (size_t i = 0; i + 1 < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            col = 1;
        } else {
            ++col;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(col);
}

} // namespace

std::optional<json> parse_scenario_text(std::string_view text, std::string *err)
{
    if (text.size() > kMaxScenarioBytes) {
        *err = "the document is " + std::to_string(text.size()) + " bytes, over the bound of " +
               std::to_string(kMaxScenarioBytes) + " bytes";
        return std::nullopt;
    }
    // The keys met so far in each object being read, and the path to it, so
    // that a repeated key is named where it is.
    std::vector<std::unordered_set<std::string>> seen;
    std::vector<std::string> path;
    std::string duplicate;
    json::parser_callback_t cb = [&](int, json::parse_event_t ev, json &parsed) {
        switch (ev) {
        case json::parse_event_t::object_start:
            seen.emplace_back();
            path.emplace_back();
            break;
        case json::parse_event_t::object_end:
            seen.pop_back();
            path.pop_back();
            break;
        case json::parse_event_t::key:
            if (!seen.back().insert(parsed.get<std::string>()).second && duplicate.empty()) {
                for (size_t i = 0; i + 1 < path.size(); ++i)
                    duplicate += path[i] + ".";
                duplicate += parsed.get<std::string>();
            }
            path.back() = parsed.get<std::string>();
            break;
        default:
            break;
        }
        return true;
    };
    try {
        json doc = json::parse(text.begin(), text.end(), cb);
        if (!duplicate.empty()) {
            *err = "duplicate key \"" + duplicate + "\"";
            return std::nullopt;
        }
        return doc;
    } catch (const json::parse_error &e) {
        std::string what = e.what();
        if (size_t colon = what.find(": "); colon != std::string::npos)
            what = what.substr(colon + 2); // the parser's own reason, without its prefix
        *err = position(text, e.byte) + ": not valid JSON (" + what + ")";
    } catch (const json::exception &e) {
        *err = std::string("not valid JSON (") + e.what() + ")";
    }
    return std::nullopt;
}

bool check_scenario(const json &doc, std::string *err) { return plan_of(doc, err).has_value(); }

bool apply_scenario(Handset &h, const json &doc, std::string *err)
{
    auto plan = plan_of(doc, err);
    if (!plan)
        return false;
    for (auto &check : plan->checks)
        if (!check(h, err))
            return false;
    if (plan->faults && h.faults.all().size() + plan->faults > Faults::kMaxFaults) {
        *err = "\"faults\": the handset would hold more than " + std::to_string(Faults::kMaxFaults) +
               " faults (the bound on faults); clear some first";
        return false;
    }
    for (auto &step : plan->steps)
        if (!step(h, err))
            return false;
    return true;
}

bool apply_scenario_text(Handset &h, std::string_view text, std::string *err)
{
    bool ok = false;
    {
        auto doc = parse_scenario_text(text, err);
        ok = doc && apply_scenario(h, *doc, err);
    }
    // A parsed document takes several times its text in small blocks; once
    // it is gone, hand the freed pages back rather than keep them for good.
    if (text.size() > (256u << 10))
        malloc_trim(0);
    return ok;
}

std::optional<std::string> read_scenario_file(const std::string &path, std::string *err)
{
    auto data = read_file(path, kMaxScenarioBytes, err);
    if (!data)
        return std::nullopt;
    std::string text(data->begin(), data->end());
    auto doc = parse_scenario_text(text, err);
    if (!doc || !check_scenario(*doc, err)) {
        *err = path + ": " + *err;
        return std::nullopt;
    }
    return text;
}

bool apply_scenario_file(Handset &h, const std::string &path, std::string *err)
{
    auto data = read_file(path, kMaxScenarioBytes, err);
    if (!data)
        return false;
    if (!apply_scenario_text(h, std::string_view(reinterpret_cast<const char *>(data->data()), data->size()), err)) {
        *err = path + ": " + *err;
        return false;
    }
    return true;
}

} // namespace kvn_sim
