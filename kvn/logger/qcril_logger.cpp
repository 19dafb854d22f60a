/*
 * qcril_logger.cpp - the RIL logger: factory registry, stdout back end and
 * the Logger facade. The facade's state is built at start-up, after the
 * allocator unit's lock, so the allocator can always report through it; each
 * thread formats into its own buffer, so logging takes no lock.
 */
#include "qcril_logger.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

/* Optional start-up observer: left undefined in the tool, defined by a test
 * that checks the order in which the process-wide objects are built. */
extern "C" void kvn_static_init_note(const char *unit) __attribute__((weak));

namespace qti::ril::logger {

namespace {

/* Size of each thread's message buffer; messages are cut to one less. */
constexpr size_t k_message_max = 1024;

/* Size of each thread's name buffer (the kernel's names take 16 bytes). */
constexpr size_t k_thread_name_max = 43;

/* Number of valid levels; index into k_level_labels. */
constexpr unsigned k_level_count = 8;

/* Level labels, each padded to ten characters: the padding keeps the
 * columns of the output aligned and is part of it. */
const char *const k_level_labels[k_level_count] = {
    "ESSENTIAL ", "VERBOSE   ", "DEBUG     ", "INFO      ", "WARN      ", "HIGH      ", "FATAL     ", "MAX       ",
};

thread_local char t_message[k_message_max];
alignas(1) thread_local char t_thread_name[k_thread_name_max];

} // namespace

/* ---- process-wide logger state, built in this order at start-up ---- */

/* The back end in use; empty until Logger::init succeeds. */
static std::shared_ptr<LoggerImpl> s_logger_impl __attribute__((init_priority(1030)));
/* Text put before every message; nothing sets it, so it stays empty. */
static std::string s_logger_prefix __attribute__((init_priority(1031)));
/* The facade; its constructor installs the back end. */
static Logger s_logger __attribute__((init_priority(1032)));

/* ---- back ends ---- */

LoggerImpl::LoggerImpl(const std::string &name) : name_(name)
{
    registerParam("level", "Set the maximum level to log at.");
}

LoggerImpl::~LoggerImpl() = default;

int LoggerImpl::registerParam(const std::string &name, const std::string &description)
{
    (void)name;
    (void)description;
    return 0;
}

StdoutLogger::StdoutLogger() : LoggerImpl("stdout") {}

int StdoutLogger::vlog(LogLevel level, const char *tag, const char *message)
{
    unsigned index = static_cast<unsigned>(level);
    /* An out-of-range level is a programming error; stop hard rather than
     * print a message with a made-up severity. */
    if (index >= k_level_count)
        std::abort();
    return std::printf("[%s:%s]: %s\n", k_level_labels[index], tag, message);
}

/* ---- factories ---- */

LoggerFactory::LoggerFactory(const std::string &name) : name_(name)
{
    loggerFactories().emplace(name_, this); /* keeps an existing entry */
}

LoggerFactory::~LoggerFactory() { loggerFactories().erase(name_); }

std::map<std::string, LoggerFactory *> &LoggerFactory::loggerFactories()
{
    static std::map<std::string, LoggerFactory *> registry;
    return registry;
}

StdoutLoggerFactory::StdoutLoggerFactory() : LoggerFactory("stdout") {}

std::shared_ptr<LoggerImpl> StdoutLoggerFactory::getLoggerImpl()
{
    static std::shared_ptr<LoggerImpl> instance = std::make_shared<StdoutLogger>();
    return instance;
}

/* ---- the facade ---- */

Logger::Logger()
{
    init();
    if (kvn_static_init_note)
        kvn_static_init_note("logger");
}

void Logger::init()
{
    std::shared_ptr<LoggerFactory> factory = std::make_shared<StdoutLoggerFactory>();
    if (factory) {
        s_logger_impl = factory->getLoggerImpl();
    } else {
        std::fputs("QCRIL Logger Initialization failure", stderr);
    }
}

int Logger::log(LogLevel level, const char *tag, const char *format, ...)
{
    if (!s_logger_impl)
        return 0;

    size_t used = 0;
    if (!s_logger_prefix.empty()) {
        std::snprintf(t_message, k_message_max, "%s", s_logger_prefix.c_str());
        used = s_logger_prefix.size();
    }
    /* A prefix that fills the whole buffer leaves no room for the message;
     * only the cut prefix is passed on then. */
    if (used < k_message_max) {
        va_list ap;
        va_start(ap, format);
        std::vsnprintf(t_message + used, k_message_max - used, format, ap);
        va_end(ap);
    }
    return s_logger_impl->vlog(level, tag, t_message);
}

/* ---- thread helpers ---- */

pid_t my_gettid() { return ::gettid(); }

char *qcril_get_thread_name()
{
    /* The kernel writes at most 16 bytes, terminator included. */
    if (prctl(PR_GET_NAME, t_thread_name, 0, 0, 0) != 0)
        t_thread_name[0] = '\0';
    return t_thread_name;
}

} // namespace qti::ril::logger
