// process.cpp - child processes with captured output for the tests.
#include "process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <thread>

extern char **environ;

namespace kvn_test {
namespace {

std::vector<std::string> build_env(const ProcessOptions &opt)
{
    std::vector<std::string> out;
    for (char **e = environ; *e; ++e)
        if (const char *eq = strchr(*e, '='); eq && !opt.env.count(std::string(*e, static_cast<size_t>(eq - *e))))
            out.push_back(*e);
    for (const auto &[k, v] : opt.env)
        if (v)
            out.push_back(k + "=" + *v);
    return out;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

} // namespace

// The child writes to files in a directory of its own, read once it has exited: no pipe to drain while it runs.
ProcessResult run_process(const std::vector<std::string> &argv, const ProcessOptions &opt)
{
    ProcessResult res;
    TempDir dir;
    const std::string out = dir.path() + "/out", err = dir.path() + "/err";
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<std::string> env_strings = build_env(opt);
    std::vector<char *> args, envp;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    for (auto &e : env_strings)
        envp.push_back(e.data());
    args.push_back(nullptr);
    envp.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) {
        res.err = std::string("spawn failed: ") + strerror(rc);
        return res;
    }
    int status = 0;
    for (auto deadline = std::chrono::steady_clock::now() + opt.timeout; waitpid(pid, &status, WNOHANG) == 0;) {
        if (std::chrono::steady_clock::now() > deadline) {
            res.timed_out = true;
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    res.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
    res.out = read_file(out);
    res.err = read_file(err);
    return res;
}

TempDir::TempDir()
{
    const char *base = getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/kvn-test-XXXXXX";
    if (!mkdtemp(tmpl.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string mask_trace_lines(const std::string &text)
{
    static const std::regex line(R"(((?:RIL|SUB\[[^\]]*\])\[[^\]:]*:)\d+\])");
    return std::regex_replace(text, line, "$1N]");
}

std::string masked_out(const ProcessResult &r)
{
    static const std::regex handle(R"(handle = -?\d+, client_handle)");
    return std::regex_replace(mask_trace_lines(r.out), handle, "handle = H, client_handle");
}

bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout)
{
    for (auto end = std::chrono::steady_clock::now() + timeout; std::chrono::steady_clock::now() < end;)
        if (pred())
            return true;
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return pred();
}

} // namespace kvn_test
