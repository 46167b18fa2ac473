// Deadlines for the simulator's blocking connections.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace gwsim
{

// Shuts down the sockets of connections that overstay their deadline, so
// that a blocked handshake, read or write on them returns with an error.
class watchdog
{
  public:
    using clock = std::chrono::steady_clock;

    watchdog();
    ~watchdog();
    watchdog(const watchdog &) = delete;
    watchdog &operator=(const watchdog &) = delete;

    // Shuts `fd` down (both ways) once `limit` has passed from now, unless
    // disarmed or armed again first. One deadline per descriptor.
    void arm(int fd, std::chrono::milliseconds limit);
    // Forgets `fd`'s deadline; once this returns, `fd` may be closed and
    // its number reused safely.
    void disarm(int fd);

  private:
    void run();

    std::mutex mu_;
    std::condition_variable cv_;
    std::map<int, clock::time_point> deadlines_;
    bool stop_ = false;
    std::thread thread_;
};

} // namespace gwsim
