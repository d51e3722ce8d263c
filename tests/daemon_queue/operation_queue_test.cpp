#include "daemon/operation_queue.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "daemon/operation_request.hpp"
#include "daemon/operation_results.hpp"
#include "daemon_fixture.hpp"
#include "pkgd/datamodel.hpp"
#include "poll.hpp"
#include "recorded_workers.hpp"
#include "ubus/loop.hpp"

namespace pkgd {
namespace {

std::shared_ptr<operation_info> op(std::int32_t request_id) {
    auto o = std::make_shared<operation_info>();
    o->request_id = request_id;
    o->operate_id = 1;
    o->operate_mid = 1;
    o->pkg = std::make_shared<pkg_info>();
    o->pkg->id = std::to_string(request_id);
    return o;
}

class Queue : public ::testing::Test {
protected:
    operation_queue queue;
    RecordedWorkers workers;

    int add(std::int32_t request_id) { return enqueue_operation(queue, workers, op(request_id)); }
};

TEST_F(Queue, OneWorkerAtATimeOldestFirstWhateverTheWorkerEndedWith) {
    for (int id : {1, 2, 3}) ASSERT_EQ(add(id), kQueueOk);
    EXPECT_EQ(workers.started, (std::vector<std::int32_t>{1}));
    workers.exit(100);  // an exit by a signal or with status 1 is reported the same way
    EXPECT_EQ(workers.started, (std::vector<std::int32_t>{1, 2}));
    workers.exit(101);
    workers.exit(102);
    EXPECT_EQ(workers.started, (std::vector<std::int32_t>{1, 2, 3}));
    EXPECT_TRUE(queue._info.empty());
    EXPECT_FALSE(queue.is_pending);
}

// Cancelling through the operations object, and what it kills, is in the requests test.
TEST_F(Queue, AFailedStartWithdrawsOnlyTheNewRequestAndTheOldestRunsNextTime) {
    add(1);
    workers.fail_start = true;
    add(2);                                // waits behind 1: nothing to start, accepted
    workers.exit(100);                     // 2 cannot start: it stays for the next attempt
    EXPECT_EQ(add(3), kQueueStartFailed);  // this request's operation goes, 2 stays
    ASSERT_EQ(queue._info.size(), 1u);
    EXPECT_EQ(queue._info.front()->request_id, 2);
    EXPECT_FALSE(queue.is_pending);
    workers.fail_start = false;
    EXPECT_EQ(add(4), kQueueOk);
    EXPECT_EQ(workers.started, (std::vector<std::int32_t>{1, 2}));
}

TEST_F(Queue, AWorkerThatCannotBeWatchedIsKilledAndNeverHoldsTheQueue) {
    workers.fail_watch = true;
    EXPECT_EQ(add(1), kQueueStartFailed);
    EXPECT_EQ(workers.killed, (std::vector<pid_t>{100}));
    EXPECT_TRUE(queue._info.empty());
    EXPECT_FALSE(queue.is_pending);
    workers.fail_watch = false;
    EXPECT_EQ(add(2), kQueueOk);
    EXPECT_EQ(workers.started.back(), 2);
}

// The daemon's side of the journal, the recorded workers playing the worker's side.
class JournaledQueue : public daemon_test::DaemonTest {
protected:
    JournaledQueue() {
        d_.journal.emplace(d_.files.journal_dir());
        EXPECT_TRUE(d_.journal->prepare());
        d_.workers = std::make_unique<RecordedWorkers>();
        d_.queue.settle = [this](operation_info& o, int status) { return settle_operation(d_, o, status); };
    }
    RecordedWorkers& workers() { return static_cast<RecordedWorkers&>(*d_.workers); }
    bool kept(std::int32_t seq) const { return std::filesystem::exists(d_.journal->path(seq)); }
    // What a worker does when it reports.
    void record_result(std::int32_t seq, bool sent) {
        journal_entry entry = *d_.journal->read(seq);
        entry.started = true;
        entry.result = R"({"RequestID":)" + std::to_string(entry.op.request_id) + R"(,"FaultCode":0})";
        entry.sent = sent;
        ASSERT_TRUE(d_.journal->write(entry));
    }
};

TEST_F(JournaledQueue, EveryOperationEndsWithOneResultWhateverKillsItsWorker) {
    for (int id : {1, 2}) ASSERT_EQ(queue_operation(d_, op(id)), kQueueOk);
    ASSERT_TRUE(kept(1) && kept(2));
    workers().exit(100);  // killed from outside: its recovery runs before anything newer
    EXPECT_EQ(workers().started, (std::vector<std::int32_t>{1, 1}));
    EXPECT_EQ(d_.queue._info.front()->recover_fault, 9002);
    for (pid_t recovery : {101, 102, 103}) workers().exit(recovery);  // recoveries that die too
    EXPECT_FALSE(kept(1));                                             // the daemon sent its failure

    EXPECT_EQ(pkgd::opkg_cancel(d_.queue, workers(), 2, 1, 1), kQueueOk);
    EXPECT_EQ(workers().killed, std::vector<pid_t>{104});
    workers().exit(104);
    EXPECT_EQ(workers().started, (std::vector<std::int32_t>{1, 1, 1, 1, 2, 2}));
    EXPECT_EQ(d_.queue._info.front()->recover_fault, 9001);

    // A result the worker recorded but could not send waits for the bus.
    record_result(2, false);
    d_.ctx.close();
    workers().exit(105);
    EXPECT_TRUE(d_.queue._info.empty() && kept(2));
    ASSERT_EQ(d_.ctx.connect(broker_.socket()), ubus::kOk);
    std::vector<std::string> results;
    ASSERT_EQ(client_.listen(kOperationResultEvent, [&](std::string_view, ubus::Bytes m) {
        results.emplace_back();
        ubus::json_format_list(results.back(), m, false);
    }).status, ubus::kOk);
    send_pending_results(d_);
    send_pending_results(d_);
    EXPECT_TRUE(testsupport::poll_until(std::chrono::seconds(10), [&] { return client_.dispatch(10), !results.empty(); }));
    client_.dispatch(100);
    EXPECT_EQ(results, std::vector<std::string>{R"({"RequestID":2,"FaultCode":0})"});
    EXPECT_FALSE(kept(2));
}

// Whether `pid` is a live process (not gone, not a zombie waiting to be reaped).
bool alive(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const std::size_t paren = text.rfind(')');
    return paren != std::string::npos && paren + 2 < text.size() && text[paren + 2] != 'Z';
}

// A real worker that starts a process of its own: a cancel leaves neither of them alive, and the
// queue goes on with the next operation, whose exit the loop reports.
TEST(ForkedWorkers, CancelEndsTheWholeProcessGroupAndTheQueueGoesOn) {
    ubus::Loop loop;
    int pipe_fds[2];
    ASSERT_EQ(::pipe(pipe_fds), 0);
    ForkedWorkers workers(loop, [&](const operation_info& o) {
        if (o.request_id != 1) return 0;
        const pid_t grandchild = ::fork();
        if (grandchild == 0) {
            ::execlp("sleep", "sleep", "600", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        (void)!::write(pipe_fds[1], &grandchild, sizeof grandchild);
        ::pause();
        return 0;
    });
    operation_queue queue;
    ASSERT_EQ(enqueue_operation(queue, workers, op(1)), kQueueOk);
    pid_t grandchild = 0;
    ASSERT_EQ(::read(pipe_fds[0], &grandchild, sizeof grandchild), static_cast<ssize_t>(sizeof grandchild));
    ::close(pipe_fds[0]);
    ::close(pipe_fds[1]);

    ASSERT_EQ(opkg_cancel(queue, workers, 1, 1, 1), kQueueOk);
    EXPECT_TRUE(testsupport::poll_until(std::chrono::seconds(10), [&] { return !alive(grandchild); }));
    ASSERT_EQ(enqueue_operation(queue, workers, op(2)), kQueueOk);

    std::function<void()> until_empty = [&] {
        if (queue._info.empty() && !queue.is_pending)
            loop.stop();
        else
            loop.add_timer(std::chrono::milliseconds(5), until_empty);
    };
    loop.add_timer(std::chrono::milliseconds(0), until_empty);
    loop.run();
    EXPECT_TRUE(queue._info.empty());
}

}  // namespace
}  // namespace pkgd
