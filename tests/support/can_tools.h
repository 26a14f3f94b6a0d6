// Helpers for tests that run inside the SocketCAN VM: run the can-utils
// programs, and read what candump prints once it is known to listen.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vmtest
{

using Milliseconds = std::chrono::milliseconds;
constexpr Milliseconds kPatience{10000}; // generous: the VM is emulated and slow

// Runs a program to completion; returns its exit status (-1 if it could not run).
int runProgram(const std::vector<std::string>& argv);

// candump -L on one interface, stopped when the object goes.
class CanDump
{
public:
    explicit CanDump(const std::string& interface);
    ~CanDump();
    CanDump(const CanDump&) = delete;
    CanDump& operator=(const CanDump&) = delete;

    // Sends probe frames with cansend until candump prints one, so that every
    // frame sent afterwards is seen. False if candump never listened.
    bool waitUntilListening();
    // The next frame that is not a probe as candump logs it, without time stamp
    // and interface (e.g. "123#1122", "1F334455#R"), or nothing within the limit.
    std::optional<std::string> nextFrame(Milliseconds limit = kPatience);

private:
    std::optional<std::string> readLine(std::chrono::steady_clock::time_point deadline);

    std::string interface_;
    pid_t pid_ = -1;
    int out_ = -1;
    std::string buffered_;
};

} // namespace vmtest
