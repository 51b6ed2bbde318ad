#pragma once

/// A child job that has been started: it has ended when this object goes, whatever comes in between.
template<class Task>
class ZqRunningTask {
public:
    explicit ZqRunningTask(Task* task_) : task(task_) { task->start(6); }
    ~ZqRunningTask() {
        if (hasEnded) return;
        task->stop();
        task->wait();
    }
    ZqRunningTask(const ZqRunningTask&) = delete;
    ZqRunningTask& operator=(const ZqRunningTask&) = delete;
    void wait() {
        task->wait();
        hasEnded = true;
    }

private:
    Task* const task;
    bool hasEnded = false;
};
