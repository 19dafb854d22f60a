// cli.cpp - the kvn-sim command line: starting and stopping a simulated
// handset, and the control commands that talk to a running one through
// CONTROL packets. One table of {name, usage, summary, handler}; every command
// takes `--socket PATH` anywhere among its arguments. Bad usage exits 2, a
// failed command prints why on stderr and exits 1.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <thread>
#include <tuple>

#include <nlohmann/json.hpp>

#include "control.h"
#include "daemon.h"
#include "faults.h"
#include "kvn_wire.h"
#include "scenario.h"
#include "util.h"

namespace fs = std::filesystem;
using nlohmann::json;
using namespace kvn_sim;

namespace {

struct Usage {
    std::string text;
};

struct Options {
    std::string socket;
    std::string state_dir;
    std::string scenario;
    std::vector<std::string> args; // what is left after the options
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

// Sends `req` with `data` attached: inline in `inline_field` (as is, or as
// hex) when it fits one packet, else staged through "upload" chunks.
int send_with(const Client &c, json req, const char *inline_field, const Bytes &data, bool as_hex)
{
    std::string err;
    if (data.size() <= kControlPageBytes) {
        req[inline_field] = as_hex ? to_hex(data) : std::string(data.begin(), data.end());
        return simple(c, req);
    }
    std::optional<json> up;
    for (size_t at = 0; at < data.size(); at += kControlPageBytes) {
        json chunk = {{"op", "upload"}, {"hex", to_hex(data.data() + at, std::min(kControlPageBytes, data.size() - at))}};
        if (up)
            chunk["upload"] = (*up)["upload"];
        if (!(up = c.call(chunk, &err)))
            return failed(err);
    }
    req["upload"] = (*up)["upload"];
    return simple(c, req);
}

// Pages through the journal or the log, printing each line.
int print_pages(const Client &c, const char *op, uint64_t *last_seen)
{
    uint64_t after = 0;
    for (;;) {
        std::string err;
        auto r = c.call({{"op", op}, {"after", after}}, &err);
        if (!r)
            return failed(err);
        for (const auto &l : (*r)["lines"])
            std::cout << l.get<std::string>() << "\n";
        after = (*r)["last"].get<uint64_t>();
        if (!(*r)["more"].get<bool>())
            break;
    }
    if (last_seen)
        *last_seen = after;
    return 0;
}

unsigned need_sub(const std::string &s)
{
    auto v = parse_number(s, 1);
    if (!v)
        throw Usage{"SUB must be 0 or 1"};
    return static_cast<unsigned>(*v);
}

uint64_t need_number(const std::string &s, uint64_t max, const char *what)
{
    auto v = parse_number(s, max);
    if (!v)
        throw Usage{std::string(what) + " must be a number up to " + std::to_string(max)};
    return *v;
}

/* ---- daemon life ---- */

int cmd_start(const Options &o, bool foreground)
{
    if (!o.args.empty())
        throw Usage{"unexpected argument " + o.args[0]};
    DaemonOptions d;
    d.socket = fs::absolute(o.socket).string();
    d.state_dir = fs::absolute(o.state_dir.empty() ? default_state_dir() : o.state_dir).lexically_normal().string();
    if (!o.scenario.empty())
        d.scenario = fs::absolute(o.scenario).string();
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

int cmd_stop(const Client &c, const Options &o)
{
    if (!o.args.empty())
        throw Usage{"unexpected argument " + o.args[0]};
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

int cmd_status(const Client &c, const Options &o)
{
    if (!o.args.empty())
        throw Usage{"unexpected argument " + o.args[0]};
    std::string err;
    auto r = c.call({{"op", "status"}}, &err);
    if (!r)
        return failed(err);
    std::cout << "kvn-sim running: pid " << (*r)["pid"] << ", socket " << (*r)["socket"].get<std::string>()
              << ", state " << (*r)["state"].get<std::string>() << "\n"
              << "clients " << (*r)["clients"] << ", journal " << (*r)["journal"] << " requests, faults "
              << (*r)["faults"] << "\n"
              << "pty " << r->value("pty", std::string()) << "\n";
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

/* ---- control commands ---- */

int cmd_load(const Client &c, const Options &o)
{
    if (o.args.size() != 1)
        throw Usage{"load FILE"};
    std::string err;
    auto data = read_file(o.args[0], kMaxScenarioBytes, &err);
    return data ? send_with(c, {{"op", "load"}}, "document", *data, false) : failed(err);
}

int cmd_ssr(const Client &c, const Options &o)
{
    if (o.args.size() > 1)
        throw Usage{"ssr [MS]"};
    uint64_t ms = o.args.empty() ? 2000 : need_number(o.args[0], 3600000, "MS");
    return simple(c, {{"op", "ssr"}, {"ms", ms}});
}

int cmd_service(const Client &c, const Options &o)
{
    static const char *names[] = {"extend", "uim", "vs", "sar", "nas", "all", "at", "diag"};
    if (o.args.size() != 2 || (o.args[1] != "up" && o.args[1] != "down") ||
        std::find(std::begin(names), std::end(names), o.args[0]) == std::end(names))
        throw Usage{"service extend|uim|vs|sar|nas|all|at|diag down|up"};
    return simple(c, {{"op", "service"}, {"name", o.args[0]}, {"up", o.args[1] == "up"}});
}

int cmd_fault(const Client &c, const Options &o)
{
    if (o.args.size() == 1 && o.args[0] == "clear")
        return simple(c, {{"op", "fault_clear"}});
    std::vector<std::string> a = o.args;
    uint64_t count = 1, after = 0;
    for (auto [opt, value, what] : {std::tuple{"--count", &count, "N"}, std::tuple{"--after", &after, "M"}}) {
        for (size_t i = 0; i < a.size(); ++i) {
            if (a[i] == opt && i + 1 < a.size()) {
                *value = need_number(a[i + 1], UINT32_MAX, what);
                a.erase(a.begin() + static_cast<std::ptrdiff_t>(i), a.begin() + static_cast<std::ptrdiff_t>(i) + 2);
                break;
            }
        }
    }
    if (a.size() != 3 || count == 0 || !service_id_from_text(a[0]) || !parse_fault_kind(a[2]))
        throw Usage{"fault SERVICE MSG no-reply|delay=MS|qmi-error=N|drop|truncate [--count N] [--after M] | "
                    "fault diag CODE no-reply|delay=MS [--count N] | fault clear"};
    uint64_t msg = need_number(a[1], 0xFFFF, "MSG");
    return simple(c, {{"op", "fault"}, {"service", a[0]}, {"msg", msg}, {"kind", a[2]}, {"count", count},
                      {"after", after}});
}

int cmd_journal(const Client &c, const Options &o)
{
    bool clear = o.args.size() == 1 && o.args[0] == "--clear";
    if (!o.args.empty() && !clear)
        throw Usage{"journal [--clear]"};
    uint64_t last = 0;
    if (int rc = print_pages(c, "journal", &last))
        return rc;
    return clear ? simple(c, {{"op", "journal_clear"}, {"upto", last}}) : 0;
}

int cmd_indicate(const Client &c, const Options &o)
{
    if (o.args.size() != 3)
        throw Usage{"indicate SERVICE MSG HEX"};
    uint64_t msg = need_number(o.args[1], 0xFFFF, "MSG");
    std::string err;
    auto r = c.call({{"op", "indicate"}, {"service", o.args[0]}, {"msg", msg}, {"hex", o.args[2]}}, &err);
    if (!r)
        return failed(err);
    std::cout << "indication sent to " << (*r)["clients"].get<uint64_t>() << " client(s)\n";
    return 0;
}

int cmd_logcat(const Client &c, const Options &o)
{
    if (!o.args.empty())
        throw Usage{"logcat"};
    return print_pages(c, "logcat", nullptr);
}

int cmd_prop(const Client &c, const Options &o)
{
    const auto &a = o.args;
    std::string err;
    if (a.size() == 2 && a[0] == "get") {
        auto r = c.call({{"op", "prop_get"}, {"key", a[1]}}, &err);
        if (!r)
            return failed(err);
        std::cout << (*r)["value"].get<std::string>() << "\n";
        return 0;
    }
    if (a.size() == 3 && a[0] == "set")
        return simple(c, {{"op", "prop_set"}, {"key", a[1]}, {"value", a[2]}});
    if (a.size() == 1 && a[0] == "list") {
        auto r = c.call({{"op", "prop_list"}}, &err);
        if (!r)
            return failed(err);
        for (auto &[k, v] : (*r)["props"].items())
            std::cout << "[" << k << "]: [" << v.get<std::string>() << "]\n";
        return 0;
    }
    throw Usage{"prop get KEY | prop set KEY VALUE | prop list"};
}

int cmd_nv(const Client &c, const Options &o)
{
    const auto &a = o.args;
    if (a.size() < 3 || !((a[0] == "get" && a.size() == 3) || (a[0] == "set" && a.size() == 4) ||
                          (a[0] == "rm" && a.size() == 3)))
        throw Usage{"nv get SUB ID | nv set SUB ID HEX | nv rm SUB ID"};
    json req = {{"op", "nv_" + a[0]}, {"sub", need_sub(a[1])}, {"id", need_number(a[2], 0xFFFF, "ID")}};
    if (a[0] == "set") {
        if (!from_hex(a[3]))
            throw Usage{"HEX must be hex bytes"};
        req["hex"] = a[3];
    }
    std::string err;
    auto r = c.call(req, &err);
    if (!r)
        return failed(err);
    if (a[0] == "get") {
        auto b = from_hex((*r)["hex"].get<std::string>());
        std::cout << to_hex(*b, ' ') << "\n";
    }
    return 0;
}

int cmd_efs(const Client &c, const Options &o)
{
    const auto &a = o.args;
    const char *usage = "efs ls SUB [PATH] | efs get SUB PATH [FILE] | efs put SUB PATH [FILE] | efs rm SUB PATH";
    if (a.size() < 2)
        throw Usage{usage};
    unsigned sub = need_sub(a[1]);
    std::string err;
    if (a[0] == "ls" && a.size() <= 3) {
        auto r = c.call({{"op", "efs_ls"}, {"sub", sub}, {"path", a.size() == 3 ? a[2] : "/"}}, &err);
        if (!r)
            return failed(err);
        for (const auto &f : (*r)["files"])
            std::cout << f["size"] << " " << f["path"].get<std::string>() << "\n";
        return 0;
    }
    if (a.size() < 3)
        throw Usage{usage};
    if (a[0] == "rm" && a.size() == 3)
        return simple(c, {{"op", "efs_rm"}, {"sub", sub}, {"path", a[2]}});
    if (a[0] == "get" && a.size() <= 4) {
        Bytes all;
        for (uint64_t size = 1; all.size() < size;) {
            auto r = c.call({{"op", "efs_get"}, {"sub", sub}, {"path", a[2]}, {"offset", all.size()}}, &err);
            if (!r)
                return failed(err);
            size = (*r)["size"].get<uint64_t>();
            auto chunk = from_hex((*r)["hex"].get<std::string>());
            if (!chunk || (chunk->empty() && all.size() < size))
                return failed(a[2] + ": changed while being read");
            all.insert(all.end(), chunk->begin(), chunk->end());
        }
        if (a.size() == 4) {
            std::ofstream out(a[3], std::ios::binary);
            out.write(reinterpret_cast<const char *>(all.data()), static_cast<std::streamsize>(all.size()));
            if (!out)
                return failed("cannot write " + a[3]);
        } else {
            std::cout.write(reinterpret_cast<const char *>(all.data()), static_cast<std::streamsize>(all.size()));
        }
        return 0;
    }
    if (a[0] == "put" && a.size() <= 4) {
        json req = {{"op", "efs_put"}, {"sub", sub}, {"path", a[2]}};
        if (a.size() == 4) {
            std::string err;
            auto data = read_file(a[3], ModemStore::kMaxEfsFile, &err);
            return data ? send_with(c, req, "hex", *data, true) : failed(err);
        }
        std::string in((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
        if (in.size() > ModemStore::kMaxEfsFile)
            return failed("file larger than 102410 bytes");
        req["hex"] = to_hex(reinterpret_cast<const uint8_t *>(in.data()), in.size());
        return simple(c, req);
    }
    throw Usage{usage};
}

/* ---- the command table ---- */

struct Command {
    const char *name;
    const char *usage;
    const char *summary;
    int (*handler)(const Client &, const Options &);
};

const Command kCommands[] = {
    {"start", "start [--state DIR] [--scenario FILE] [--socket PATH]", "start a simulated handset in the background",
     [](const Client &, const Options &o) { return cmd_start(o, false); }},
    {"run", "run [--state DIR] [--scenario FILE] [--socket PATH]", "run a simulated handset in the foreground",
     [](const Client &, const Options &o) { return cmd_start(o, true); }},
    {"stop", "stop", "stop the handset and wait until it is gone", cmd_stop},
    {"status", "status", "show whether it runs, its clients and services", cmd_status},
    {"load", "load FILE", "merge a scenario into the running handset", cmd_load},
    {"ssr", "ssr [MS]", "restart the modem: every service down, back after MS ms (2000)", cmd_ssr},
    {"service", "service NAME down|up",
     "take one service (extend, uim, vs, sar, nas, all modem services; at, diag) down or up", cmd_service},
    {"fault", "fault SERVICE MSG KIND [--count N] [--after M] | fault clear",
     "misbehave on the N requests after the next M: no-reply, delay=MS, qmi-error=N, drop, truncate", cmd_fault},
    {"journal", "journal [--clear]", "print the QMI requests received, as JSON lines (then clear)", cmd_journal},
    {"prop", "prop get KEY | prop set KEY VALUE | prop list", "the handset's properties", cmd_prop},
    {"indicate", "indicate SERVICE MSG HEX",
     "send one indication with the TLV area HEX to every client of SERVICE", cmd_indicate},
    {"logcat", "logcat", "print the handset's log buffer", cmd_logcat},
    {"nv", "nv get|set|rm SUB ID [HEX]", "NV items of subscription SUB", cmd_nv},
    {"efs", "efs ls|get|put|rm SUB PATH [FILE]", "EFS files of subscription SUB", cmd_efs},
};

void print_help(std::ostream &out)
{
    out << "usage: kvn-sim COMMAND [ARGS...] [--socket PATH]\n\n";
    for (const auto &c : kCommands)
        out << "  " << c.usage << "\n      " << c.summary << "\n";
}

// Takes `--name VALUE` or `--name=VALUE` out of args; false when the value is missing.
bool take_option(std::vector<std::string> &args, const std::string &name, std::string *value)
{
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == name) {
            if (i + 1 >= args.size())
                return false;
            *value = args[i + 1];
            args.erase(args.begin() + static_cast<std::ptrdiff_t>(i), args.begin() + static_cast<std::ptrdiff_t>(i) + 2);
            return take_option(args, name, value);
        }
        if (args[i].rfind(name + "=", 0) == 0) {
            *value = args[i].substr(name.size() + 1);
            args.erase(args.begin() + static_cast<std::ptrdiff_t>(i));
            return take_option(args, name, value);
        }
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    if (argc < 2 || std::string(argv[1]) == "help" || std::string(argv[1]) == "--help") {
        print_help(argc < 2 ? std::cerr : std::cout);
        return argc < 2 ? 2 : 0;
    }
    std::string name = argv[1];
    const Command *cmd = nullptr;
    for (const auto &c : kCommands)
        if (name == c.name)
            cmd = &c;
    if (!cmd) {
        std::cerr << "kvn-sim: unknown command " << name << "\n";
        print_help(std::cerr);
        return 2;
    }
    Options o;
    o.args.assign(argv + 2, argv + argc);
    o.socket = kvn_wire::default_socket_path();
    bool ok = take_option(o.args, "--socket", &o.socket);
    bool daemon_cmd = name == "start" || name == "run";
    if (daemon_cmd)
        ok = ok && take_option(o.args, "--state", &o.state_dir) && take_option(o.args, "--scenario", &o.scenario);
    try {
        if (!ok)
            throw Usage{"an option lacks its value"};
        return cmd->handler(Client(o.socket), o);
    } catch (const Usage &u) {
        std::cerr << "kvn-sim: " << u.text << "\nusage: kvn-sim " << cmd->usage << " [--socket PATH]\n";
        return 2;
    }
}
