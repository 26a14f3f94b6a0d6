// Helpers for tests that run inside the SocketCAN VM: read what candump
// prints once it is known to listen.
#pragma once

#include "ChildProcess.h"

#include <chrono>
#include <optional>
#include <string>

namespace vmtest
{

using Milliseconds = std::chrono::milliseconds;
constexpr Milliseconds kPatience{10000}; // generous: the VM is emulated and slow

// Runs cansend; true when it wrote the frame ("123#1122").
bool cansend(const std::string& interface, const std::string& frame);

// candump -L on one interface, stopped when the object goes.
class CanDump
{
public:
    explicit CanDump(const std::string& interface);

    // Sends probe frames with cansend until candump prints one, so that every
    // frame sent afterwards is seen. False if candump never listened.
    bool waitUntilListening();
    // The next frame that is not a probe as candump logs it, without time stamp
    // and interface (e.g. "123#1122", "1F334455#R"), or nothing within the limit.
    std::optional<std::string> nextFrame(Milliseconds limit = kPatience);

private:
    std::string interface_;
    OrvaneTest::CChildProcess candump_;
    size_t done_ = 0; // how much of candump's output has been read
};

} // namespace vmtest
