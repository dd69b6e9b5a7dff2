#include "ThreadTasks.h"

#include "Platform.h"

#include <QSocketNotifier>

#include <array>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

void makeNonBlocking(int fd) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

} // namespace

ThreadTasks::ThreadTasks() {
    const Platform::Pipe wake = Platform::makePipe();
    wakeReadEnd_ = FileDescriptor(wake.readEnd);
    wakeWriteEnd_ = FileDescriptor(wake.writeEnd);
    makeNonBlocking(wake.readEnd);
    makeNonBlocking(wake.writeEnd);
    notifier_ = std::make_unique<QSocketNotifier>(wake.readEnd, QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, [this] { carryOutAll(); });
}

ThreadTasks::~ThreadTasks() {
    for (Task& task : tasks_)
        if (task.thread.joinable()) task.thread.join();
}

void ThreadTasks::start(Work work, Ending ending) {
    const auto task =
        tasks_.insert(tasks_.end(), {std::move(work), std::move(ending), nullptr, {}});
    try {
        task->thread = std::thread([this, task] { run(task); });
    } catch (const std::system_error&) { // no more threads to be had
        task->error = std::current_exception();
        post([this, task] { end(task); });
    }
}

void ThreadTasks::run(std::list<Task>::iterator task) {
    try {
        task->work();
    } catch (...) { // whatever it is, it is the ending's
        task->error = std::current_exception();
    }
    post([this, task] { end(task); });
}

void ThreadTasks::end(std::list<Task>::iterator task) {
    if (task->thread.joinable()) task->thread.join();
    const Task ended = std::move(*task);
    tasks_.erase(task);
    ended.ending(ended.error);
}

void ThreadTasks::post(std::function<void()> report) {
    const std::lock_guard guard(lock_);
    due_.push_back(std::move(report));
    posted_.notify_one();
    // A full pipe has woken the event loop already.
    [[maybe_unused]] const ssize_t written = ::write(wakeWriteEnd_.get(), "", 1);
}

bool ThreadTasks::carryOutNext() {
    std::function<void()> next;
    {
        const std::lock_guard guard(lock_);
        if (due_.empty()) return false;
        next = std::move(due_.front());
        due_.pop_front();
    }
    next();
    return true;
}

void ThreadTasks::carryOutAll() {
    std::array<char, 64> wakes;
    while (::read(wakeReadEnd_.get(), wakes.data(), wakes.size()) > 0) {
    }
    while (carryOutNext()) {
    }
}

void ThreadTasks::finish() {
    while (true) {
        carryOutAll();
        if (tasks_.empty()) return;
        std::unique_lock guard(lock_);
        posted_.wait(guard, [this] { return !due_.empty(); });
    }
}
