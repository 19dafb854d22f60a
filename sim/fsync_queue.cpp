// fsync_queue.cpp - the flushing thread of FsyncQueue.
#include "fsync_queue.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

namespace kvn_sim {

// The thread starts with every signal blocked: the daemon takes its stop
// signals through a signalfd on the loop, and a signal handed to this thread
// instead would kill the process without its clean stop.
FsyncQueue::FsyncQueue(size_t max_pending) : max_pending_(max_pending)
{
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    thread_ = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

FsyncQueue::~FsyncQueue()
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        stopping_ = true;
    }
    work_cv_.notify_one();
    thread_.join(); // the thread empties the queue before it stops
}

void FsyncQueue::flush(Job &job)
{
    if (job.file)
        fsync(job.file.get());
    if (job.dir)
        fsync(job.dir.get());
}

void FsyncQueue::push(UniqueFd file, UniqueFd dir)
{
    Job job{std::move(file), std::move(dir)};
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (jobs_.size() < max_pending_) {
            jobs_.push_back(std::move(job));
            ++queued_;
            work_cv_.notify_one();
            return;
        }
        ++inline_;
    }
    flush(job);
}

void FsyncQueue::drain()
{
    std::unique_lock<std::mutex> lock(mu_);
    done_cv_.wait(lock, [&] { return jobs_.empty() && busy_ == 0; });
}

size_t FsyncQueue::queued() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return queued_;
}

size_t FsyncQueue::ran_inline() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return inline_;
}

void FsyncQueue::run()
{
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
        work_cv_.wait(lock, [&] { return stopping_ || !jobs_.empty(); });
        if (jobs_.empty())
            return; // stopping, and nothing left to flush
        Job job = std::move(jobs_.front());
        jobs_.pop_front();
        ++busy_;
        lock.unlock();
        flush(job);
        job.file.reset(); // close the descriptors outside the lock
        job.dir.reset();
        lock.lock();
        --busy_;
        if (jobs_.empty() && busy_ == 0)
            done_cv_.notify_all();
    }
}

} // namespace kvn_sim
