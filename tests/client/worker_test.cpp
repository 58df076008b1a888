// The worker thread: tasks one at a time in order, and queued tasks dropped at shutdown.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "client/event_base.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

class CountingHandler : public Handler {
public:
    CountingHandler() { start_worker(); }
    ~CountingHandler() override { stop_worker(); }
    void process(HandlerTask& t) override {
        if (t.offset == 1) {
            entered = true;
            testsupport::eventually([this] { return release.load(); });
        }
        int now = ++inside;
        maxInside = std::max(maxInside.load(), now);
        {
            std::lock_guard<std::mutex> g(m);
            order.push_back(t.offset);
        }
        --inside;
    }
    void stop() { stop_worker(); }
    bool stopping() const { return running == 0; }
    size_t done() {
        std::lock_guard<std::mutex> g(m);
        return order.size();
    }
    std::atomic<bool> entered{false}, release{false};
    std::atomic<int> inside{0}, maxInside{0};
    std::mutex m;
    std::vector<uint32_t> order;
};

HandlerTask task(uint32_t id) {
    HandlerTask t;
    t.type = TASK_STREAM3;
    t.offset = id;
    return t;
}

TEST(Worker, RunsTasksOneAtATimeInOrder) {
    CountingHandler h;
    h.release = true;
    for (uint32_t i = 2; i < 40; ++i) {
        h.queue_task(task(i));
    }
    ASSERT_TRUE(testsupport::eventually([&] { return h.done() == 38; }));
    std::lock_guard<std::mutex> g(h.m);
    for (uint32_t i = 0; i < 38; ++i) {
        EXPECT_EQ(h.order[i], i + 2);
    }
    EXPECT_EQ(h.maxInside.load(), 1);
}

// The task already taken finishes; those behind it, the stop marker included, are
// dropped, and a dropped delete task's text is freed with it (ASan checks the leak).
TEST(Worker, StoppingFinishesTheTakenTaskAndDropsTheRest) {
    CountingHandler h;
    h.queue_task(task(1));  // blocks until released
    ASSERT_TRUE(testsupport::eventually([&] { return h.entered.load(); }));
    h.queue_task(task(2));
    HandlerTask del = task(3);
    del.type = TASK_DELETE;
    del.payload.reset(new char[64]());
    h.queue_task(std::move(del));
    std::thread stopper([&] { h.stop(); });
    EXPECT_TRUE(testsupport::eventually([&] { return h.stopping(); }));
    h.release = true;
    stopper.join();
    std::lock_guard<std::mutex> g(h.m);
    EXPECT_EQ(h.order, std::vector<uint32_t>{1});
}

}  // namespace
}  // namespace korvel
