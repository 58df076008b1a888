// The worker thread's shutdown: queued tasks are dropped. The order tasks run in is the
// dispatch tests' (they record what the worker ran).
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
        std::lock_guard<std::mutex> g(m);
        order.push_back(t.offset);
    }
    void stop() { stop_worker(); }
    bool stopping() const { return running == 0; }
    std::atomic<bool> entered{false}, release{false};
    std::mutex m;
    std::vector<uint32_t> order;
};

HandlerTask task(uint32_t id) {
    HandlerTask t;
    t.type = TASK_STREAM3;
    t.offset = id;
    return t;
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
