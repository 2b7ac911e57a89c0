#include "support/WorkerPool.h"

#include <malloc.h>
#include <pthread.h>

namespace Kestrel::Private {

namespace {

pthread_key_t trimKey()
{
    static const pthread_key_t key = [] {
        pthread_key_t made;
        pthread_key_create(&made, [](void*) { malloc_trim(0); });
        return made;
    }();
    return key;
}

} // namespace

// The key's destructor runs after the thread's C++ thread-locals (its
// scheduler connection) and, the key being made late, after the libraries'
// own per-thread keys, so the trim gives all of those back too.
void WorkerPool::trimWhenThisThreadEnds()
{
    static int marker;
    pthread_setspecific(trimKey(), &marker);
}

WorkerPool::WorkerPool(size_t maxThreads, size_t backlog, Clock::duration idleLimit)
    : maxThreads(maxThreads)
    , backlog(backlog)
    , idleLimit(idleLimit)
{
}

WorkerPool::~WorkerPool()
{
    // Tasks hold references into their owners: nothing may outlive the pool.
    stop(Clock::time_point::max());
}

bool WorkerPool::post(Task task, Task refuse)
{
    std::vector<std::thread> done;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping || waiting.size() >= backlog)
            return false;
        waiting.push_back({std::move(task), std::move(refuse)});
        done.swap(ended);
        if (idle < waiting.size() && threads.size() < maxThreads) {
            std::thread thread([this] { work(); });
            const auto id = thread.get_id();
            threads.emplace(id, std::move(thread));
        }
    }
    changed.notify_one();
    joinEnded(std::move(done));
    return true;
}

bool WorkerPool::stop(Clock::time_point deadline)
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
    std::vector<std::thread> done;
    {
        std::unique_lock<std::mutex> lock(mutex);
        const auto idleNow = [this] { return running == 0; };
        if (deadline == Clock::time_point::max())
            changed.wait(lock, idleNow);
        else if (!changed.wait_until(lock, deadline, idleNow))
            return false;
        done.swap(ended);
        for (auto& [id, thread] : threads)
            done.push_back(std::move(thread));
        threads.clear();
    }
    joinEnded(std::move(done));
    return true;
}

bool WorkerPool::stopped()
{
    std::lock_guard<std::mutex> lock(mutex);
    return stopping;
}

size_t WorkerPool::threadCount()
{
    std::lock_guard<std::mutex> lock(mutex);
    return threads.size();
}

void WorkerPool::joinEnded(std::vector<std::thread> done)
{
    for (auto& thread : done)
        thread.join();
}

void WorkerPool::work()
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        ++idle;
        const bool woken = changed.wait_for(lock, idleLimit, [this] { return stopping || !waiting.empty(); });
        --idle;
        if (stopping && waiting.empty())
            return;
        if (!woken) {
            // Ends on its own; its thread-local connection and buffers go with it.
            const auto self = threads.find(std::this_thread::get_id());
            std::thread me = std::move(self->second);
            threads.erase(self);
            if (!threads.empty()) {
                ended.push_back(std::move(me));
                return;
            }
            // The last one out waits for the others to be gone, then gives
            // back what they and it freed.
            std::vector<std::thread> others;
            others.swap(ended);
            ended.push_back(std::move(me));
            lock.unlock();
            joinEnded(std::move(others));
            trimWhenThisThreadEnds();
            return;
        }
        Entry entry = std::move(waiting.front());
        waiting.pop_front();
        ++running;
        lock.unlock();
        entry.task();
        entry = {};
        lock.lock();
        --running;
        if (running == 0 && waiting.empty())
            changed.notify_all();
    }
}

} // namespace Kestrel::Private
