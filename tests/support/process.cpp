// process.cpp - child processes with captured output for the tests.
#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>
#include <stdexcept>
#include <thread>

extern char **environ;

namespace kvn_test {
namespace {

std::vector<std::string> build_env(const ProcessOptions &opt)
{
    std::map<std::string, std::string> env;
    for (char **e = environ; *e; ++e)
        if (const char *eq = strchr(*e, '='))
            env[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
    for (const auto &[k, v] : opt.env)
        if (v)
            env[k] = *v;
        else
            env.erase(k);
    std::vector<std::string> out;
    for (const auto &[k, v] : env)
        out.push_back(k + "=" + v);
    return out;
}

// Both ends of a pipe, closed when it goes away.
struct Pipe {
    int fd[2] = {-1, -1};
    Pipe()
    {
        if (pipe2(fd, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2 failed");
    }
    ~Pipe()
    {
        close_end(0);
        close_end(1);
    }
    void close_end(int i)
    {
        if (fd[i] >= 0)
            close(fd[i]);
        fd[i] = -1;
    }
};

} // namespace

ProcessResult run_process(const std::vector<std::string> &argv, const ProcessOptions &opt)
{
    ProcessResult res;
    Pipe out, err;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, out.fd[1], 1);
    posix_spawn_file_actions_adddup2(&fa, err.fd[1], 2);
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
    out.close_end(1);
    err.close_end(1);

    auto deadline = std::chrono::steady_clock::now() + opt.timeout;
    bool open[2] = {true, true};
    char buf[65536];
    while (open[0] || open[1]) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            res.timed_out = true;
            kill(pid, SIGKILL);
            break;
        }
        pollfd fds[2] = {{open[0] ? out.fd[0] : -1, POLLIN, 0}, {open[1] ? err.fd[0] : -1, POLLIN, 0}};
        if (poll(fds, 2, static_cast<int>(std::min<long>(left.count(), 1000))) < 0 && errno != EINTR)
            break;
        for (int i = 0; i < 2; ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            ssize_t r = read(fds[i].fd, buf, sizeof(buf));
            if (r > 0)
                (i == 0 ? res.out : res.err).append(buf, static_cast<size_t>(r));
            else
                open[i] = false;
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    res.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
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
    static const std::regex ril(R"((RIL\[[^\]:]*:)\d+\])");
    static const std::regex sub(R"((SUB\[[^\]]*\]\[[^\]:]*:)\d+\])");
    return std::regex_replace(std::regex_replace(text, ril, "$1N]"), sub, "$1N]");
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
