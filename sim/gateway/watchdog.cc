// The connections' deadline thread.
#include "watchdog.h"

#include <sys/socket.h>

namespace gwsim
{

watchdog::watchdog() : thread_([this] { run(); }) {}

watchdog::~watchdog()
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        stop_ = true;
    }
    cv_.notify_all();
    thread_.join();
}

void watchdog::arm(int fd, std::chrono::milliseconds limit)
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        deadlines_[fd] = clock::now() + limit;
    }
    cv_.notify_all();
}

void watchdog::disarm(int fd)
{
    std::lock_guard<std::mutex> lock(mu_);
    deadlines_.erase(fd);
}

void watchdog::run()
{
    std::unique_lock<std::mutex> lock(mu_);
    while (!stop_) {
        auto next = clock::time_point::max();
        auto now = clock::now();
        for (auto it = deadlines_.begin(); it != deadlines_.end();) {
            if (it->second <= now) {
                // Under the lock: disarm waits, so the descriptor is still ours.
                shutdown(it->first, SHUT_RDWR);
                it = deadlines_.erase(it);
            } else {
                next = std::min(next, it->second);
                ++it;
            }
        }
        if (next == clock::time_point::max())
            cv_.wait(lock);
        else
            cv_.wait_until(lock, next);
    }
}

} // namespace gwsim
