// cli.cpp - the kvn-sim command line: starting and stopping a simulated
// handset, and the control commands that talk to a running one through
// CONTROL packets. Parsing is CLI11's: every command and sub-command has its
// own --help, every one takes --socket PATH. Bad usage exits 2, a failed
// command prints why on stderr and exits 1, success exits 0.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <deque>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "control.h"
#include "daemon.h"
#include "faults.h"
#include "kvn_wire.h"
#include "scenario.h"
#include "service.h"
#include "util.h"

#ifndef KVN_VERSION
#define KVN_VERSION "unknown"
#endif

namespace fs = std::filesystem;
using nlohmann::json;
using namespace kvn_sim;

namespace {

// A usage error found after parsing: exits 2 with the command's usage.
struct Usage {
    std::string text;
};

std::string default_state_dir()
{
    if (const char *s = getenv("KVN_SIM_STATE"); s && *s)
        return s;
    if (const char *x = getenv("XDG_STATE_HOME"); x && *x)
        return std::string(x) + "/kvn-sim";
    const char *home = getenv("HOME");
    return std::string(home && *home ? home : "/tmp") + "/.local/state/kvn-sim";
}

/* ---- talking to the daemon ---- */

class Client {
public:
    explicit Client(std::string socket) : socket_(std::move(socket)) {}

    // One control request; the reply object, or nullopt with err set.
    std::optional<json> call(const json &req, std::string *err) const
    {
        kvn_wire::Header h;
        h.kind = kvn_wire::Kind::Control;
        // JSON carries only UTF-8: an argument with other bytes is refused
        // here with a message instead of aborting the program.
        std::string text;
        try {
            text = req.dump();
        } catch (const json::type_error &) {
            *err = "an argument is not valid UTF-8";
            return std::nullopt;
        }
        auto reply = kvn_wire::exchange(socket_, h, std::vector<uint8_t>(text.begin(), text.end()), 30000);
        if (!reply || reply->hdr.kind != kvn_wire::Kind::ControlReply) {
            *err = "no kvn-sim answers on " + socket_;
            return std::nullopt;
        }
        auto j = json::parse(reply->payload.begin(), reply->payload.end(), nullptr, false);
        if (!j.is_object()) {
            *err = "malformed reply from kvn-sim";
            return std::nullopt;
        }
        if (reply->hdr.status != 0) {
            *err = j.value("error", std::string("command failed"));
            return std::nullopt;
        }
        return j;
    }
    const std::string &socket() const { return socket_; }

private:
    std::string socket_;
};

int failed(const std::string &err)
{
    std::cerr << "kvn-sim: " << err << "\n";
    return 1;
}

// Runs one request and prints nothing: 0 or a failure.
int simple(const Client &c, const json &req)
{
    std::string err;
    return c.call(req, &err) ? 0 : failed(err);
}

// The bytes of a request's content: carried inline when the whole request
// fits one packet (and `inline_field` is given), otherwise staged as an
// upload in chunks and consumed by the request through its number. An empty
// result with err set on failure.
constexpr size_t kUploadChunk = 24000;

bool attach_content(const Client &c, json *req, const std::string &data, const char *inline_field, bool hex_inline,
                    std::string *err)
{
    if (inline_field) {
        json try_req = *req;
        try_req[inline_field] = hex_inline ? to_hex(reinterpret_cast<const uint8_t *>(data.data()), data.size())
                                           : data;
        std::string text;
        try {
            text = try_req.dump();
        } catch (const json::type_error &) {
            *err = "the document is not valid UTF-8";
            return false;
        }
        if (text.size() <= kvn_wire::kMaxPayload) {
            *req = std::move(try_req);
            return true;
        }
    }
    std::optional<uint64_t> id;
    for (size_t at = 0; at == 0 || at < data.size(); at += kUploadChunk) {
        size_t n = std::min(kUploadChunk, data.size() - at);
        json up = {{"op", "upload"}, {"hex", to_hex(reinterpret_cast<const uint8_t *>(data.data()) + at, n)}};
        if (id)
            up["upload"] = *id;
        auto r = c.call(up, err);
        if (!r)
            return false;
        if (!id) {
            if (!r->contains("upload") || !(*r)["upload"].is_number_unsigned()) {
                *err = "malformed reply from kvn-sim to an upload";
                return false;
            }
            id = (*r)["upload"].get<uint64_t>();
        }
    }
    (*req)["upload"] = *id;
    return true;
}

// Reads at most `max` bytes of a regular file or of standard input (path
// "-"); nullopt with err set when it is longer or cannot be read. A FIFO or
// device named as FILE is refused at once rather than waited on.
std::optional<std::string> read_bounded(const std::string &path, size_t max, const std::string &what, std::string *err)
{
    const std::string name = path == "-" ? std::string("standard input") : path;
    int fd = 0;
    if (path != "-") {
        fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        struct stat st {};
        if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            *err = fd < 0 ? "cannot read " + path : path + ": not a regular file";
            if (fd >= 0)
                close(fd);
            return std::nullopt;
        }
    }
    std::string data(max + 1, '\0');
    size_t got = 0;
    bool read_failed = false;
    while (got < data.size()) {
        ssize_t n = read(fd, data.data() + got, data.size() - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            read_failed = n < 0;
            break;
        }
        got += static_cast<size_t>(n);
    }
    if (fd != 0)
        close(fd);
    if (read_failed) {
        *err = "cannot read " + name;
        return std::nullopt;
    }
    if (got > max) {
        *err = name + " is larger than " + std::to_string(max) + " bytes, " + what;
        return std::nullopt;
    }
    data.resize(got);
    return data;
}

/* ---- journal and log pages ---- */

volatile std::sig_atomic_t g_stop = 0;

// The largest scenario document sent (the daemon's own bound is the same).
constexpr size_t kScenarioLimit = kMaxScenarioBytes;

// Pages through the journal or the log after line `*after`, handing each line
// to `each`; *after becomes the last line seen.
int read_pages(const Client &c, const char *op, uint64_t *after, const std::function<void(std::string)> &each)
{
    for (;;) {
        std::string err;
        auto r = c.call({{"op", op}, {"after", *after}}, &err);
        if (!r)
            return failed(err);
        for (const auto &l : (*r)["lines"])
            each(l.get<std::string>());
        *after = (*r)["last"].get<uint64_t>();
        if (!(*r)["more"].get<bool>())
            return 0;
    }
}

// Prints what exists (the last `last` lines when given), then, when
// following, every new line as it comes until interrupted or stdout closes.
int print_lines(const Client &c, const char *op, std::optional<uint64_t> last, bool follow,
                const std::function<bool(const std::string &)> &keep, uint64_t *last_seen = nullptr)
{
    uint64_t after = 0;
    std::deque<std::string> tail;
    int rc = read_pages(c, op, &after, [&](std::string l) {
        if (!keep(l))
            return;
        if (!last) {
            std::cout << l << "\n";
            return;
        }
        tail.push_back(std::move(l));
        if (tail.size() > *last)
            tail.pop_front();
    });
    if (rc)
        return rc;
    for (const auto &l : tail)
        std::cout << l << "\n";
    if (last_seen)
        *last_seen = after;
    if (follow) {
        // Ctrl-C or a TERM ends following with status 0 after the lines so far.
        struct sigaction sa {};
        sa.sa_handler = [](int) { g_stop = 1; };
        sigaction(SIGINT, &sa, nullptr);
        sigaction(SIGTERM, &sa, nullptr);
    }
    while (follow && !g_stop && std::cout.flush()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if ((rc = read_pages(c, op, &after, [&](const std::string &l) {
                 if (keep(l))
                     std::cout << l << "\n";
             })))
            return g_stop ? 0 : rc;
    }
    return 0;
}

// A log line reads "MM-DD hh:mm:ss.mmm P TAG: text"; its TAG.
std::string log_tag(const std::string &line)
{
    constexpr size_t kTagAt = 21;
    if (line.size() < kTagAt)
        return {};
    size_t end = line.find(": ", kTagAt);
    return line.substr(kTagAt, end == std::string::npos ? std::string::npos : end - kTagAt);
}

/* ---- argument checks ---- */

std::string join(const std::vector<std::string> &v)
{
    std::string out;
    for (const auto &s : v)
        out += (out.empty() ? "" : ", ") + s;
    return out;
}

unsigned need_sub(const std::string &s)
{
    auto v = parse_number(s, ModemStore::kSubs - 1);
    if (!v)
        throw Usage{"subscription '" + s + "' is not 0 or 1"};
    return static_cast<unsigned>(*v);
}

uint64_t need_number(const std::string &s, uint64_t max, const char *what)
{
    auto v = parse_number(s, max);
    if (!v)
        throw Usage{std::string(what) + " '" + s + "' is not a number from 0 to " + std::to_string(max)};
    return *v;
}

const std::vector<std::string> kFaultServices = {"extend", "uim", "vs", "sar", "nas", "diag"};
const std::vector<std::string> kServiceNames = {"extend", "uim", "vs", "sar", "nas", "all", "at", "diag"};

/* ---- the commands ---- */

struct Args {
    std::string socket = kvn_wire::default_socket_path();
    std::string state_dir, scenario, replay, group;
    std::vector<std::string> pos; // positionals of the command that runs
    std::vector<std::string> tags;
    uint64_t count = 1, after = 0, last = 0;
    bool json_out = false, follow = false, clear = false;
    bool last_given = false;
};

int cmd_start(const Args &o, bool foreground)
{
    DaemonOptions d;
    d.socket = fs::absolute(o.socket).string();
    d.state_dir = fs::absolute(o.state_dir.empty() ? default_state_dir() : o.state_dir).lexically_normal().string();
    if (!o.scenario.empty())
        d.scenario = fs::absolute(o.scenario).string();
    d.group = o.group;
    if (daemon_answers(d.socket))
        return failed("a kvn-sim already answers on " + d.socket);
    std::string err;
    if (!check_start(d, &err))
        return failed(err);
    if (foreground) {
        d.on_serving = [&d] { std::cout << "kvn-sim running: socket " << d.socket << ", state " << d.state_dir << std::endl; };
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            return failed("pipe failed");
        int rc = run_daemon(d, fds[1]);
        char buf[512];
        ssize_t n = read(fds[0], buf, sizeof buf - 1);
        close(fds[0]);
        if (rc != 0 && n > 4)
            std::cerr << "kvn-sim: " << std::string(buf + 4, static_cast<size_t>(n - 4));
        return rc;
    }
    int log_fd = open_daemon_log(d.state_dir, &err);
    if (log_fd < 0)
        return failed(err);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return failed("pipe failed");
    std::cout.flush();
    pid_t pid = fork();
    if (pid < 0)
        return failed("fork failed");
    if (pid == 0) {
        close(fds[0]);
        setsid();
        int null_fd = open("/dev/null", O_RDONLY);
        if (null_fd >= 0)
            dup2(null_fd, 0);
        if (log_fd >= 0) {
            dup2(log_fd, 1);
            dup2(log_fd, 2);
        }
        if (null_fd > 2)
            close(null_fd);
        if (log_fd > 2)
            close(log_fd);
        return run_daemon(d, fds[1]);
    }
    close(fds[1]);
    close(log_fd);
    std::string msg;
    char buf[512];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) != 0;) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            break;
        msg.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    if (msg.rfind("OK", 0) == 0) {
        std::cout << "kvn-sim started: socket " << d.socket << ", state " << d.state_dir << "\n";
        return 0;
    }
    waitpid(pid, nullptr, 0);
    while (!msg.empty() && msg.back() == '\n')
        msg.pop_back();
    return failed(msg.rfind("ERR ", 0) == 0 ? msg.substr(4) : "the daemon did not start");
}

int cmd_stop(const Client &c)
{
    std::string err;
    if (!c.call({{"op", "stop"}}, &err))
        return failed(err);
    // Gone means: nothing answers and the socket file has been removed.
    for (int i = 0; i < 500; ++i) {
        std::error_code ec;
        int fd = kvn_wire::connect_unix(c.socket());
        if (fd >= 0)
            close(fd);
        if (fd < 0 && !fs::exists(c.socket(), ec))
            return 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return failed("kvn-sim on " + c.socket() + " did not stop");
}

int cmd_status(const Client &c, const Args &o)
{
    std::string err;
    auto r = c.call({{"op", "status"}}, &err);
    if (!r)
        return failed(err);
    if (o.json_out) {
        std::cout << r->dump() << "\n";
        return 0;
    }
    std::cout << "kvn-sim running: pid " << (*r)["pid"] << ", socket " << (*r)["socket"].get<std::string>()
              << ", state " << (*r)["state"].get<std::string>() << "\n"
              << "clients " << (*r)["clients"] << ", journal " << (*r)["journal"] << " requests, faults "
              << (*r)["faults"] << "\n"
              << "pty " << r->value("pty", std::string()) << "\n" << "qmux_cids " << r->value("qmux_cids", 0) << "\n";
    for (const auto &s : (*r)["services"]) {
        char id[16];
        std::snprintf(id, sizeof id, "0x%x", s["id"].get<unsigned>());
        std::cout << "service " << s["name"].get<std::string>() << " " << id << " instance " << s["instance"] << ": "
                  << (s["up"].get<bool>() ? "up" : "down") << "\n";
    }
    for (const auto &d : r->value("devices", json::array())) {
        std::string path = d["path"].get<std::string>();
        std::cout << "device " << d["name"].get<std::string>() << ": " << (d["up"].get<bool>() ? "up" : "down")
                  << (path.empty() ? "" : " " + path) << "\n";
    }
    std::cout << "modem restarts " << (*r)["restarts"] << ", full dumps " << (*r)["full_dumps"] << ", nv syncs "
              << (*r)["nv_syncs"] << "\n";
    return 0;
}

// A recorded QMI session (one JSON object per line) as the scenario document
// {"replay": [...]}; a line that is not an object is refused by number.
std::optional<std::string> replay_document(const std::string &path, std::string *err)
{
    auto text = read_bounded(path, kScenarioLimit, "the largest scenario", err);
    if (!text)
        return std::nullopt;
    json records = json::array();
    std::istringstream in(*text);
    std::string line;
    for (size_t n = 1; std::getline(in, line); ++n) {
        if (line.find_first_not_of(" \t\r") == std::string::npos)
            continue;
        auto j = json::parse(line, nullptr, false);
        if (!j.is_object()) {
            *err = path + ":" + std::to_string(n) + ": not a JSON object";
            return std::nullopt;
        }
        records.push_back(std::move(j));
    }
    return json{{"replay", std::move(records)}}.dump();
}

int cmd_load(const Client &c, const Args &o)
{
    if (o.pos.empty() == o.replay.empty())
        throw Usage{"give either FILE or --replay FILE"};
    std::string err;
    json req = {{"op", "load"}};
    if (!o.replay.empty()) {
        auto doc = replay_document(o.replay, &err);
        if (!doc || !attach_content(c, &req, *doc, nullptr, false, &err))
            return failed(err);
        return simple(c, req);
    }
    auto doc = read_bounded(o.pos[0], kScenarioLimit, "the largest scenario", &err);
    if (!doc)
        return failed(err);
    if (attach_content(c, &req, *doc, "document", false, &err) && c.call(req, &err))
        return 0;
    return failed(err);
}

int cmd_ssr(const Client &c, const Args &o)
{
    uint64_t ms = o.pos.empty() ? 2000 : need_number(o.pos[0], 3600000, "MS");
    return simple(c, {{"op", "ssr"}, {"ms", ms}});
}

int cmd_service(const Client &c, const Args &o)
{
    if (std::find(kServiceNames.begin(), kServiceNames.end(), o.pos[0]) == kServiceNames.end())
        throw Usage{"unknown service '" + o.pos[0] + "'; accepted: " + join(kServiceNames)};
    if (o.pos[1] != "up" && o.pos[1] != "down")
        throw Usage{"unknown state '" + o.pos[1] + "'; accepted: up, down"};
    return simple(c, {{"op", "service"}, {"name", o.pos[0]}, {"up", o.pos[1] == "up"}});
}

int cmd_fault(const Client &c, const Args &o)
{
    if (o.pos.size() != 3)
        throw Usage{"fault takes SERVICE MSG KIND (or: fault clear)"};
    if (!service_id_from_text(o.pos[0]))
        throw Usage{"unknown service '" + o.pos[0] + "'; accepted: " + join(kFaultServices) + " or a service number"};
    uint64_t msg = need_number(o.pos[1], 0xFFFF, "MSG");
    if (!parse_fault_kind(o.pos[2]))
        throw Usage{"unknown fault kind '" + o.pos[2] + "'; accepted: no-reply, delay=MS, qmi-error=N, drop, truncate"};
    if (o.count < 1)
        throw Usage{"--count " + std::to_string(o.count) + " is below 1"};
    return simple(c, {{"op", "fault"}, {"service", o.pos[0]}, {"msg", msg}, {"kind", o.pos[2]}, {"count", o.count},
                      {"after", o.after}});
}

int cmd_journal(const Client &c, const Args &o)
{
    uint64_t last = 0;
    auto all = [](const std::string &) { return true; };
    if (int rc = print_lines(c, "journal", o.last_given ? std::optional(o.last) : std::nullopt, o.follow, all, &last))
        return rc;
    return o.clear ? simple(c, {{"op", "journal_clear"}, {"upto", last}}) : 0;
}

int cmd_logcat(const Client &c, const Args &o)
{
    if (o.clear)
        return simple(c, {{"op", "logcat_clear"}});
    std::set<std::string> tags(o.tags.begin(), o.tags.end());
    return print_lines(c, "logcat", std::nullopt, o.follow,
                       [&](const std::string &l) { return tags.empty() || tags.count(log_tag(l)); });
}

int cmd_indicate(const Client &c, const Args &o)
{
    uint64_t msg = need_number(o.pos[1], 0xFFFF, "MSG");
    std::string err;
    auto r = c.call({{"op", "indicate"}, {"service", o.pos[0]}, {"msg", msg}, {"hex", o.pos[2]}}, &err);
    if (!r)
        return failed(err);
    std::cout << "indication sent to " << (*r)["clients"].get<uint64_t>() << " client(s)\n";
    return 0;
}

int cmd_prop(const Client &c, const std::string &what, const Args &o)
{
    std::string err;
    if (what == "set")
        return simple(c, {{"op", "prop_set"}, {"key", o.pos[0]}, {"value", o.pos[1]}});
    auto r = what == "get" ? c.call({{"op", "prop_get"}, {"key", o.pos[0]}}, &err) : c.call({{"op", "prop_list"}}, &err);
    if (!r)
        return failed(err);
    if (what == "get")
        std::cout << (*r)["value"].get<std::string>() << "\n";
    else
        for (auto &[k, v] : (*r)["props"].items())
            std::cout << "[" << k << "]: [" << v.get<std::string>() << "]\n";
    return 0;
}

int cmd_nv(const Client &c, const std::string &what, const Args &o)
{
    json req = {{"op", "nv_" + what}, {"sub", need_sub(o.pos[0])}, {"id", need_number(o.pos[1], 0xFFFF, "ID")}};
    if (what == "set") {
        if (!from_hex(o.pos[2]))
            throw Usage{"'" + o.pos[2] + "' is not hex bytes (like 0801ff)"};
        req["hex"] = o.pos[2];
    }
    std::string err;
    auto r = c.call(req, &err);
    if (!r)
        return failed(err);
    if (what == "get") {
        auto b = from_hex((*r)["hex"].get<std::string>());
        std::cout << to_hex(*b, ' ') << "\n";
    }
    return 0;
}

int efs_get(const Client &c, unsigned sub, const Args &o)
{
    const std::string &path = o.pos[1];
    Bytes all;
    std::string err;
    for (uint64_t size = 1; all.size() < size;) {
        auto r = c.call({{"op", "efs_get"}, {"sub", sub}, {"path", path}, {"offset", all.size()}}, &err);
        if (!r)
            return failed(err);
        size = (*r)["size"].get<uint64_t>();
        auto chunk = from_hex((*r)["hex"].get<std::string>());
        if (!chunk || (chunk->empty() && all.size() < size))
            return failed(path + ": changed while being read");
        all.insert(all.end(), chunk->begin(), chunk->end());
    }
    if (o.pos.size() == 3) {
        std::ofstream out(o.pos[2], std::ios::binary);
        out.write(reinterpret_cast<const char *>(all.data()), static_cast<std::streamsize>(all.size()));
        if (!out)
            return failed("cannot write " + o.pos[2]);
    } else {
        std::cout.write(reinterpret_cast<const char *>(all.data()), static_cast<std::streamsize>(all.size()));
    }
    return 0;
}

int efs_put(const Client &c, unsigned sub, const Args &o)
{
    std::string from = o.pos.size() == 3 ? o.pos[2] : "-", err;
    auto data = read_bounded(from, ModemStore::kMaxEfsFile, "the largest EFS file", &err);
    if (!data)
        return failed(err);
    json req = {{"op", "efs_put"}, {"sub", sub}, {"path", o.pos[1]}};
    if (attach_content(c, &req, *data, "hex", true, &err) && c.call(req, &err))
        return 0;
    return failed(err);
}

int cmd_efs(const Client &c, const std::string &what, const Args &o)
{
    unsigned sub = need_sub(o.pos[0]);
    std::string err;
    if (what == "ls") {
        auto r = c.call({{"op", "efs_ls"}, {"sub", sub}, {"path", o.pos.size() == 2 ? o.pos[1] : "/"}}, &err);
        if (!r)
            return failed(err);
        for (const auto &f : (*r)["files"])
            std::cout << f["size"] << " " << f["path"].get<std::string>() << "\n";
        return 0;
    }
    if (what == "rm")
        return simple(c, {{"op", "efs_rm"}, {"sub", sub}, {"path", o.pos[1]}});
    return what == "get" ? efs_get(c, sub, o) : efs_put(c, sub, o);
}

/* ---- the command tree ---- */

// Usage lines that spell out a command's words ("SUB PATH [FILE]") instead
// of CLI11's count of them.
class UsageFormatter : public CLI::Formatter {
public:
    std::map<const CLI::App *, std::string> usage;
    std::string make_usage(const CLI::App *app, std::string name) const override
    {
        auto it = usage.find(app);
        return it == usage.end() ? CLI::Formatter::make_usage(app, name) : "Usage: " + name + " " + it->second + "\n";
    }
};

struct Cli {
    CLI::App app{"kvn-sim - a simulated handset for kvn on a Linux host", "kvn-sim"};
    Args a;
    // Every command that runs something, with what it runs.
    std::vector<std::pair<CLI::App *, std::function<int(const Client &)>>> runs;
    CLI::Option *last_opt = nullptr;
    std::shared_ptr<UsageFormatter> fmt = std::make_shared<UsageFormatter>();

    CLI::App *command(CLI::App *parent, const char *name, const char *summary, const char *example)
    {
        auto *sub = parent->add_subcommand(name, summary);
        sub->footer(std::string("Example:\n  ") + example);
        sub->add_option("--socket", a.socket, "the handset's control socket (default: $KVN_SIM_SOCKET, else the user's own)")
            ->option_text("PATH");
        return sub;
    }
    // Positional words NAMES (optional ones after `required`), kept as text
    // so that their checks can name the bad word.
    void words(CLI::App *cmd, std::vector<const char *> names, size_t required)
    {
        auto *opt = cmd->add_option("ARGS", a.pos)->expected(static_cast<int>(required), static_cast<int>(names.size()));
        std::string usage;
        for (size_t i = 0; i < names.size(); ++i)
            usage += std::string(" ") + (i < required ? names[i] : "[" + std::string(names[i]) + "]");
        opt->option_text(usage.substr(1));
        if (required)
            opt->required();
        fmt->usage[cmd] = "[OPTIONS]" + usage;
    }
    void runs_as(CLI::App *cmd, std::function<int(const Client &)> fn) { runs.emplace_back(cmd, std::move(fn)); }

    Cli()
    {
        app.formatter(fmt);
        app.set_version_flag("-V,--version", std::string("kvn-sim ") + KVN_VERSION);
        app.require_subcommand(1);
        app.footer("Run 'kvn-sim COMMAND --help' for a command's options and an example.\n"
                   "Example:\n  kvn-sim start --state /tmp/h1 --socket /tmp/h1.sock && kvn 4 1 0 550");

        for (bool fg : {false, true}) {
            auto *s = command(&app, fg ? "run" : "start",
                              fg ? "run a simulated handset in the foreground" : "start a simulated handset in the background",
                              fg ? "kvn-sim run --state /tmp/h1 --scenario /usr/share/kvn-sim/scenarios/no-card.json"
                                 : "kvn-sim start --state /tmp/h1 --socket /tmp/h1.sock");
            s->add_option("--state", a.state_dir, "state directory (default: $KVN_SIM_STATE, "
                                                  "$XDG_STATE_HOME/kvn-sim or ~/.local/state/kvn-sim)")
                ->option_text("DIR");
            s->add_option("--scenario", a.scenario, "scenario applied at start")->option_text("FILE");
            s->add_option("--group", a.group, "let this group's members use the socket too (mode 0660)")
                ->option_text("NAME");
            runs_as(s, [this, fg](const Client &) { return cmd_start(a, fg); });
        }
        runs_as(command(&app, "stop", "stop the handset and wait until it is gone", "kvn-sim stop"), cmd_stop);

        auto *st = command(&app, "status", "show whether it runs, its clients, services and counters",
                           "kvn-sim status --json");
        st->add_flag("--json", a.json_out, "print the status as one JSON object");
        runs_as(st, [this](const Client &c) { return cmd_status(c, a); });

        auto *ld = command(&app, "load", "merge a scenario (or a recorded QMI session) into the running handset",
                           "kvn-sim load /usr/share/kvn-sim/scenarios/faulty-modem.json");
        words(ld, {"FILE"}, 0);
        ld->add_option("--replay", a.replay, "answer requests from a session recorded with KVN_QMI_RECORD=FILE")
            ->option_text("FILE");
        runs_as(ld, [this](const Client &c) { return cmd_load(c, a); });

        auto *ssr = command(&app, "ssr", "restart the modem: every service down, back after MS ms (2000)",
                            "kvn-sim ssr 5000");
        words(ssr, {"MS"}, 0);
        runs_as(ssr, [this](const Client &c) { return cmd_ssr(c, a); });

        auto *svc = command(&app, "service", "take a service (extend, uim, vs, sar, nas, all; at, diag) down or up",
                            "kvn-sim service uim down");
        words(svc, {"NAME", "down|up"}, 2);
        runs_as(svc, [this](const Client &c) { return cmd_service(c, a); });

        auto *f = command(&app, "fault",
                          "misbehave on the N requests after the next M: no-reply, delay=MS, qmi-error=N, drop, "
                          "truncate; 'fault diag CODE' for diag requests",
                          "kvn-sim fault extend 0x0025 qmi-error=3 --count 2");
        words(f, {"SERVICE", "MSG", "KIND"}, 0);
        f->add_option("--count", a.count, "requests it applies to (1)")->option_text("N");
        f->add_option("--after", a.after, "matching requests served normally first (0)")->option_text("M");
        runs_as(f, [this](const Client &c) { return cmd_fault(c, a); });
        runs_as(command(f, "clear", "forget every fault", "kvn-sim fault clear"),
                [](const Client &c) { return simple(c, {{"op", "fault_clear"}}); });
        fmt->usage[f] = "[OPTIONS] SERVICE MSG KIND | clear";

        auto *j = command(&app, "journal", "print the QMI requests received, as JSON lines",
                          "kvn-sim journal --last 5");
        j->add_flag("--clear", a.clear, "clear what was printed");
        last_opt = j->add_option("--last", a.last, "only the last N requests")->option_text("N");
        auto *jf = j->add_flag("-f,--follow", a.follow, "keep printing requests as they come (Ctrl-C stops)");
        jf->excludes(j->get_option("--clear"));
        runs_as(j, [this](const Client &c) { return cmd_journal(c, a); });

        auto *pr = command(&app, "prop", "the handset's properties", "kvn-sim prop get persist.radio.multisim.config");
        pr->require_subcommand(1);
        auto *pg = command(pr, "get", "print one property", "kvn-sim prop get ro.baseband");
        words(pg, {"KEY"}, 1);
        runs_as(pg, [this](const Client &c) { return cmd_prop(c, "get", a); });
        auto *ps = command(pr, "set", "set one property", "kvn-sim prop set persist.vendor.radio.adb_log_on 1");
        words(ps, {"KEY", "VALUE"}, 2);
        runs_as(ps, [this](const Client &c) { return cmd_prop(c, "set", a); });
        runs_as(command(pr, "list", "print every property", "kvn-sim prop list"),
                [this](const Client &c) { return cmd_prop(c, "list", a); });

        auto *ind = command(&app, "indicate", "send one indication with the TLV area HEX to every client of SERVICE",
                            "kvn-sim indicate uim 0x0032 0101000");
        words(ind, {"SERVICE", "MSG", "HEX"}, 3);
        runs_as(ind, [this](const Client &c) { return cmd_indicate(c, a); });

        auto *lc = command(&app, "logcat", "print the handset's log buffer", "kvn-sim logcat -f -s kvn-sim");
        auto *lf = lc->add_flag("-f,--follow", a.follow, "keep printing lines as they come (Ctrl-C stops)");
        auto *lcl = lc->add_flag("-c,--clear", a.clear, "clear the log buffer and print nothing");
        auto *ls = lc->add_option("-s", a.tags, "only lines of TAG (repeatable)")->option_text("TAG")->allow_extra_args(false);
        lcl->excludes(lf)->excludes(ls);
        runs_as(lc, [this](const Client &c) { return cmd_logcat(c, a); });

        auto *nv = command(&app, "nv", "NV items of subscription SUB (data as hex)", "kvn-sim nv get 0 550");
        nv->require_subcommand(1);
        for (auto [what, summary, names] :
             {std::tuple{"get", "print an NV item", std::vector<const char *>{"SUB", "ID"}},
              std::tuple{"set", "write an NV item", std::vector<const char *>{"SUB", "ID", "HEX"}},
              std::tuple{"rm", "remove an NV item", std::vector<const char *>{"SUB", "ID"}}}) {
            std::string ex = std::string("kvn-sim nv ") + what + " 0 550" + (names.size() == 3 ? " 08 3a" : "");
            auto *s = command(nv, what, summary, ex.c_str());
            words(s, names, names.size());
            runs_as(s, [this, w = std::string(what)](const Client &c) { return cmd_nv(c, w, a); });
        }

        auto *efs = command(&app, "efs", "EFS files of subscription SUB", "kvn-sim efs ls 0 /nv/item_files");
        efs->require_subcommand(1);
        for (auto [what, summary, names, req, ex] :
             {std::tuple{"ls", "list the files under PATH (/)", std::vector<const char *>{"SUB", "PATH"}, 1,
                         "kvn-sim efs ls 0 /nv"},
              std::tuple{"get", "print a file, or write it to FILE", std::vector<const char *>{"SUB", "PATH", "FILE"}, 2,
                         "kvn-sim efs get 0 /nv/item_files/modem/mmode/sms_domain_pref out.bin"},
              std::tuple{"put", "write a file from FILE or standard input (at most 102410 bytes)",
                         std::vector<const char *>{"SUB", "PATH", "FILE"}, 2, "printf '\\x01' | kvn-sim efs put 0 /x"},
              std::tuple{"rm", "remove a file", std::vector<const char *>{"SUB", "PATH"}, 2, "kvn-sim efs rm 0 /x"}}) {
            auto *s = command(efs, what, summary, ex);
            words(s, names, static_cast<size_t>(req));
            runs_as(s, [this, w = std::string(what)](const Client &c) { return cmd_efs(c, w, a); });
        }
    }

    // The deepest command given on the command line.
    static CLI::App *deepest(CLI::App *app)
    {
        for (auto *sub : app->get_subcommands())
            return deepest(sub);
        return app;
    }
    static std::string path_of(CLI::App *app)
    {
        std::string p;
        for (; app; app = app->get_parent())
            p = app->get_name() + (p.empty() ? "" : " " + p);
        return p;
    }

    int usage_error(std::string msg)
    {
        CLI::App *at = deepest(&app);
        std::vector<std::string> names;
        for (auto *s : at->get_subcommands([](CLI::App *) { return true; }))
            names.push_back(s->get_name());
        if (at->get_require_subcommand_min() > 0 && at->get_subcommands().empty()) {
            auto rest = at->remaining();
            msg = (rest.empty() ? "a command is missing" : "unknown command '" + rest[0] + "'") + "; accepted: " +
                  join(names);
        }
        // The words of a command are one option named ARGS: name them instead.
        if (auto *words = at->get_option_no_throw("ARGS"); words && msg.find("ARGS") != std::string::npos)
            msg = "expected " + words->get_option_text() + " (got " + std::to_string(words->count()) + " word(s))";
        std::cerr << "kvn-sim: " << msg << "\n"
                  << fmt->make_usage(at, path_of(at)) << "Run '" << path_of(at) << " --help' for more.\n";
        return 2;
    }

    int main(int argc, char **argv)
    {
        if (argc < 2) {
            std::cerr << app.help();
            return 2;
        }
        if (std::string(argv[1]) == "help") {
            std::cout << app.help();
            return 0;
        }
        try {
            app.parse(argc, argv);
        } catch (const CLI::CallForHelp &e) {
            return app.exit(e);
        } catch (const CLI::CallForVersion &e) {
            return app.exit(e);
        } catch (const CLI::ParseError &e) {
            return usage_error(e.what());
        }
        a.last_given = last_opt->count() > 0;
        CLI::App *at = deepest(&app);
        for (auto &[cmd, fn] : runs) {
            if (cmd != at)
                continue;
            try {
                return fn(Client(a.socket));
            } catch (const Usage &u) {
                return usage_error(u.text);
            }
        }
        return usage_error("a command is missing");
    }
};

} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    Cli cli;
    return cli.main(argc, argv);
}
