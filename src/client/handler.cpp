// The worker thread of an event base: a FIFO of tasks executed one at a time.
// taskMutex is held only to append and notify or to take one task.
#include <utility>

#include "client/event_base.h"

namespace korvel {

Handler::Handler() = default;

// The derived destructor has normally stopped the worker already; this is the safety net
// for a derived class that did not.
Handler::~Handler() {
    stop_worker();
}

void Handler::start_worker() {
    running = 1;
    workerThread.reset(new std::thread(threadEntrance, this));
}

void Handler::threadEntrance(Handler* h) {
    if (h == nullptr) {
        return;
    }
    while (h->running) {
        HandlerTask task;
        {
            std::unique_lock<std::mutex> lock(h->taskMutex);
            h->taskCond.wait(lock, [h] { return !h->taskQueue.empty(); });
            task = std::move(h->taskQueue.front());
            h->taskQueue.pop_front();
        }
        if (task.type != TASK_STOP) {
            h->process(task);
        }
    }
    // Tasks still queued are dropped unexecuted; their payload copies go with them.
    std::deque<HandlerTask> dropped;
    {
        std::lock_guard<std::mutex> lock(h->taskMutex);
        dropped.swap(h->taskQueue);
    }
}

void Handler::queue_task(HandlerTask task) {
    std::lock_guard<std::mutex> lock(taskMutex);
    taskQueue.push_back(std::move(task));
    taskCond.notify_all();
}

void Handler::stop_worker() {
    if (!workerThread) {
        return;
    }
    if (running) {
        running = 0;  // cleared before the marker, so the worker ends after taking it
        HandlerTask stop;
        stop.type = TASK_STOP;
        queue_task(std::move(stop));
    }
    workerThread->join();
    workerThread.reset();
}

}  // namespace korvel
