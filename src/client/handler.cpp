// The worker thread of an event base: a FIFO of tasks executed one at a time, and the
// replies the main thread hands over, written before the next task starts.
// taskMutex is held only to append and notify or to take work.
#include <new>
#include <system_error>
#include <utility>

#include "client/event_base.h"
#include "log/log.h"

namespace korvel {

namespace {
thread_local bool tlLoopThread = false;

size_t cost(const HandlerTask& t) {
    return TASK_OVERHEAD_BYTES + (t.payload ? t.payloadLen + 1 : 0);
}
}  // namespace

void Fence::raise() {
    std::lock_guard<std::mutex> lock(m);
    done = true;
    cv.notify_all();
}

void Fence::wait() {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [this] { return done.load(); });
}

void Handler::mark_loop_thread() {
    tlLoopThread = true;
}

bool Handler::on_loop_thread() {
    return tlLoopThread;
}

Handler::Handler() = default;

// The most-derived destructor has stopped the worker; this only covers an object whose
// worker never started or was stopped by its owner, and joins nothing in that case.
// No stop_worker here: by now the derived class is gone, and a worker still running would
// call process() on it. The most-derived destructor stops the worker; one that did not is a
// bug to find at once, not a race to hide.
Handler::~Handler() {
    if (workerThread && workerThread->joinable()) {
        log_fatal(LOG_CODE_ABORT, "[ERROR],%sworker still running\n",
                  "virtual korvel::Handler::~Handler()");
    }
}

bool Handler::start_worker() {
    running = 1;
    try {
        workerThread.reset(new std::thread(threadEntrance, this));
    } catch (const std::system_error&) {
        workerThread.reset();
    } catch (const std::bad_alloc&) {
        workerThread.reset();
    }
    if (!workerThread) {
        running = 0;
        return false;
    }
    return true;
}

void Handler::threadEntrance(Handler* h) {
    if (h == nullptr) {
        return;
    }
    while (h->running) {
        HandlerTask task;
        {
            std::unique_lock<std::mutex> lock(h->taskMutex);
            h->taskCond.wait(lock,
                             [h] { return !h->taskQueue.empty() || !h->replyQueue.empty(); });
            if (h->taskQueue.empty()) {
                lock.unlock();
                h->flush_replies();
                continue;
            }
            task = std::move(h->taskQueue.front());
            h->taskQueue.pop_front();
            h->taskBytes -= cost(task);
        }
        h->flush_replies();  // answers given before this task was queued go first
        if (task.type != TASK_STOP) {
            if (task.fence) {
                task.fence->wait();
            }
            h->process(task);
        }
    }
    h->flush_replies();  // a quit's acknowledgement still goes out
    // Tasks still queued are dropped unexecuted; their payload copies go with them.
    std::deque<HandlerTask> dropped;
    {
        std::lock_guard<std::mutex> lock(h->taskMutex);
        dropped.swap(h->taskQueue);
        h->taskBytes = 0;
    }
}

void Handler::flush_replies() {
    // Called between the packets of every burst: the flag keeps that path free of the lock
    // and of the deque's allocation while the loop has handed nothing over.
    while (repliesPending.load(std::memory_order_acquire)) {
        std::deque<HandlerTask> batch;
        {
            std::lock_guard<std::mutex> lock(taskMutex);
            batch.swap(replyQueue);
            replyBytes = 0;
            repliesPending = false;
        }
        for (HandlerTask& reply : batch) {
            if (reply.fence) {
                reply.fence->wait();
            }
            process(reply);
        }
    }
}

bool Handler::queue_task(HandlerTask task) {
    if (!task.fence && task.type != TASK_STOP) {
        task.fence = dispatchFence;
    }
    std::lock_guard<std::mutex> lock(taskMutex);
    size_t c = cost(task);
    if (task.type != TASK_STOP &&
        (taskQueue.size() >= TASK_QUEUE_MAX || taskBytes + c > TASK_QUEUE_MAX_BYTES)) {
        return false;
    }
    taskQueue.push_back(std::move(task));
    taskBytes += c;
    taskCond.notify_all();
    return true;
}

bool Handler::queue_reply(HandlerTask reply) {
    if (!reply.fence) {
        reply.fence = dispatchFence;
    }
    std::lock_guard<std::mutex> lock(taskMutex);
    size_t c = cost(reply);
    if (replyBytes + c > REPLY_QUEUE_MAX_BYTES) {
        return false;
    }
    replyQueue.push_back(std::move(reply));
    replyBytes += c;
    repliesPending = true;
    taskCond.notify_all();
    return true;
}

void Handler::request_stop() {
    if (workerThread && running) {
        running = 0;  // cleared before the marker, so the worker ends after taking it
        HandlerTask stop;
        stop.type = TASK_STOP;
        queue_task(std::move(stop));
    }
}

void Handler::stop_worker() {
    if (!workerThread) {
        return;
    }
    request_stop();
    workerThread->join();
    workerThread.reset();
}

}  // namespace korvel
