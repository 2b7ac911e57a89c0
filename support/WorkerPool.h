#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace Kestrel::Private {

// A fixed set of threads taking tasks from a bounded backlog in arrival
// order; with one thread, tasks run one at a time in that order. Bus calls
// that wait on a peer run here, so the bus thread never waits on one.
class WorkerPool {
public:
    using Task = std::function<void()>;

    WorkerPool(size_t threads, size_t backlog);
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
    bool stop(std::chrono::steady_clock::time_point deadline);
    bool stopped();

private:
    struct Entry {
        Task task;
        Task refuse;
    };
    void work();

    const size_t backlog;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Entry> waiting;
    size_t running = 0;
    bool stopping = false;
    std::vector<std::thread> threads;
};

} // namespace Kestrel::Private
