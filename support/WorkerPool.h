#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace Kestrel::Private {

// At most a fixed number of threads taking tasks from a bounded backlog in
// arrival order; with one thread, tasks run one at a time in that order.
// Bus calls that wait on a peer run here, so the bus thread never waits on
// one. Threads start when work arrives and end after a while without any,
// so an idle daemon keeps no thread's stack, connection or buffers.
class WorkerPool {
public:
    using Task = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    // How long a thread without work waits before it ends.
    static constexpr auto DefaultIdleLimit = std::chrono::seconds(5);

    WorkerPool(size_t maxThreads, size_t backlog, Clock::duration idleLimit = DefaultIdleLimit);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Queues the task, or, when the backlog is full or the pool has
    // stopped, returns false at once and keeps nothing. `refuse` runs
    // instead of `task` when the pool stops before the task started.
    bool post(Task task, Task refuse);

    // Takes no more tasks and refuses the waiting ones; then waits until
    // the running ones end or the deadline passes. True when none is left
    // running (the threads are then joined).
    bool stop(Clock::time_point deadline);
    bool stopped();

    // Threads alive now, working or waiting for work.
    size_t threadCount();

    // Gives the heap's free memory back once the calling thread has ended,
    // its thread-local buffers included: for the last of a group of threads.
    static void trimWhenThisThreadEnds();

private:
    struct Entry {
        Task task;
        Task refuse;
    };
    void work();
    // Joins the threads that ended; called without the lock held.
    void joinEnded(std::vector<std::thread> ended);

    const size_t maxThreads;
    const size_t backlog;
    const Clock::duration idleLimit;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Entry> waiting;
    size_t running = 0;
    size_t idle = 0;
    bool stopping = false;
    std::map<std::thread::id, std::thread> threads;
    // Threads that ended on their own, to be joined by the next caller.
    std::vector<std::thread> ended;
};

} // namespace Kestrel::Private
