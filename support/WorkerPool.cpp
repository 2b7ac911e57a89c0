#include "support/WorkerPool.h"

#include <malloc.h>

namespace Kestrel::Private {

WorkerPool::WorkerPool(size_t threadCount, size_t backlog)
    : backlog(backlog)
{
    threads.reserve(threadCount);
    for (size_t i = 0; i < threadCount; ++i)
        threads.emplace_back([this] { work(); });
}

WorkerPool::~WorkerPool()
{
    // Tasks hold references into their owners: nothing may outlive the pool.
    stop(std::chrono::steady_clock::time_point::max());
}

bool WorkerPool::post(Task task, Task refuse)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping || waiting.size() >= backlog)
            return false;
        waiting.push_back({std::move(task), std::move(refuse)});
    }
    changed.notify_one();
    return true;
}

bool WorkerPool::stop(std::chrono::steady_clock::time_point deadline)
{
    std::deque<Entry> refused;
    {
        std::unique_lock<std::mutex> lock(mutex);
        stopping = true;
        refused.swap(waiting);
    }
    changed.notify_all();
    for (auto& entry : refused) {
        if (entry.refuse)
            entry.refuse();
    }
    {
        std::unique_lock<std::mutex> lock(mutex);
        const auto idle = [this] { return running == 0; };
        if (deadline == std::chrono::steady_clock::time_point::max())
            changed.wait(lock, idle);
        else if (!changed.wait_until(lock, deadline, idle))
            return false;
    }
    for (auto& thread : threads) {
        if (thread.joinable())
            thread.join();
    }
    return true;
}

bool WorkerPool::stopped()
{
    std::lock_guard<std::mutex> lock(mutex);
    return stopping;
}

void WorkerPool::work()
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return stopping || !waiting.empty(); });
        if (waiting.empty())
            return;
        Entry entry = std::move(waiting.front());
        waiting.pop_front();
        ++running;
        lock.unlock();
        entry.task();
        entry = {};
        lock.lock();
        --running;
        if (running > 0 || !waiting.empty())
            continue;
        changed.notify_all();
        // A burst of calls leaves free memory in the arenas; idle, the pool gives it back.
        lock.unlock();
        malloc_trim(0);
        lock.lock();
    }
}

} // namespace Kestrel::Private
