/*
 * qcril_logger.h - the RIL logging framework used by the SIM layer's
 * allocator: a process-wide Logger facade that formats into a per-thread
 * buffer and hands the text to a pluggable back end chosen by a factory. The
 * only back end prints to standard output.
 */
#ifndef QCRIL_LOGGER_H
#define QCRIL_LOGGER_H

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>

namespace qti::ril::logger {

/* Severity of a message. Values from 8 up are invalid and abort the process
 * when they reach the stdout back end. */
enum class LogLevel : unsigned {
    Essential = 0,
    Verbose = 1,
    Debug = 2,
    Info = 3,
    Warn = 4,
    High = 5,
    Fatal = 6,
    Max = 7,
};

/* A log back end. Back ends may hand out shared references to themselves. */
class LoggerImpl : public std::enable_shared_from_this<LoggerImpl> {
public:
    explicit LoggerImpl(const std::string &name);
    virtual int vlog(LogLevel level, const char *tag, const char *message) = 0;
    virtual ~LoggerImpl();

    /* Declares a tunable of the back end. Tunables are not consulted by any
     * back end yet, so this records nothing and returns 0. */
    int registerParam(const std::string &name, const std::string &description);

    const std::string &name() const { return name_; }

private:
    std::string name_; /* back-end name, e.g. "stdout" */
};

/* Prints "[<level label>:<tag>]: <message>" lines to standard output. */
class StdoutLogger : public virtual LoggerImpl {
public:
    StdoutLogger();
    int vlog(LogLevel level, const char *tag, const char *message) override;
};

/* Makes back ends. Every factory enters itself in a process-wide registry
 * under its name; the first one registered under a name keeps it. */
class LoggerFactory {
public:
    explicit LoggerFactory(const std::string &name);
    virtual std::shared_ptr<LoggerImpl> getLoggerImpl() = 0;
    /* Erases the registry entry of its name, whichever factory it points to. */
    virtual ~LoggerFactory();
    LoggerFactory(const LoggerFactory &) = delete;
    LoggerFactory &operator=(const LoggerFactory &) = delete;

    /* The registry, created on first use. */
    static std::map<std::string, LoggerFactory *> &loggerFactories();

    const std::string &name() const { return name_; }

private:
    std::string name_; /* registry key */
};

/* Hands out the one process-wide StdoutLogger. */
class StdoutLoggerFactory : public virtual LoggerFactory {
public:
    StdoutLoggerFactory();
    std::shared_ptr<LoggerImpl> getLoggerImpl() override;
};

/* The facade. One instance is built at start-up; its construction installs
 * the stdout back end. */
class Logger {
public:
    Logger();

    /* Selects the back end from the stdout factory. On failure writes a note
     * to standard error and leaves logging off. */
    static void init();

    /* Formats the message (after the prefix, if any) into the calling
     * thread's 1024-byte buffer, cutting it to 1023 characters, and passes it
     * to the back end. Returns the back end's result, or 0 when there is no
     * back end (nothing is formatted then). */
    static int log(LogLevel level, const char *tag, const char *format, ...)
        __attribute__((format(printf, 3, 4)));
};

/* The kernel thread id of the calling thread. */
pid_t my_gettid();

/* Fills the calling thread's name buffer with the kernel's name of the
 * thread and returns it; the buffer belongs to the thread and stays valid
 * until its next call. */
char *qcril_get_thread_name();

} // namespace qti::ril::logger

#endif /* QCRIL_LOGGER_H */
