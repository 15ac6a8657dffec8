// A fixed set of threads that run posted tasks in order of arrival.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace agent {

class WorkerPool {
public:
    explicit WorkerPool(size_t threads);
    // Finishes every posted task, then joins the threads.
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void Post(std::function<void()> task);
    // Runs what is queued to the end and joins the threads.
    void Finish();

private:
    void Work();

    std::mutex _mutex;
    std::condition_variable _ready;
    std::deque<std::function<void()>> _tasks;
    bool _finishing = false;
    std::vector<std::thread> _threads;
};

}  // namespace agent
