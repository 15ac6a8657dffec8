// The worker threads.
#include "workerPool.h"

namespace agent {

WorkerPool::WorkerPool(size_t threads)
{
    for (size_t i = 0; i < threads; ++i) _threads.emplace_back([this] { Work(); });
}

WorkerPool::~WorkerPool()
{
    Finish();
}

void WorkerPool::Post(std::function<void()> task)
{
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _tasks.push_back(std::move(task));
    }
    _ready.notify_one();
}

void WorkerPool::Finish()
{
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _finishing = true;
    }
    _ready.notify_all();
    for (auto& thread : _threads)
        if (thread.joinable()) thread.join();
}

void WorkerPool::Work()
{
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock<std::mutex> lock(_mutex);
            _ready.wait(lock, [this] { return _finishing || !_tasks.empty(); });
            if (_tasks.empty()) return;
            task = std::move(_tasks.front());
            _tasks.pop_front();
        }
        task();
    }
}

}  // namespace agent
