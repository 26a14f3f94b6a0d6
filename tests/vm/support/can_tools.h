// Helpers for tests that run inside the SocketCAN VM: a raw CAN socket to
// inject and observe frames, child processes for the can-utils tools, and a
// candump reader that knows when candump is listening.
#pragma once

#include <linux/can.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vmtest {

using Milliseconds = std::chrono::milliseconds;
constexpr Milliseconds kPatience{10000}; // generous: the VM is emulated and slow

// A raw CAN socket bound to one interface, independent of the adapter.
class RawCanSocket {
public:
    // receiveErrorFrames: also deliver error frames (all error classes).
    explicit RawCanSocket(const std::string &interface, bool receiveErrorFrames = false);
    ~RawCanSocket();
    RawCanSocket(const RawCanSocket &) = delete;
    RawCanSocket &operator=(const RawCanSocket &) = delete;

    bool ok() const { return fd_ >= 0; }
    bool send(const can_frame &frame);
    std::optional<can_frame> receive(Milliseconds limit);

private:
    int fd_ = -1;
};

can_frame makeFrame(canid_t id, std::vector<unsigned char> data);

// Runs a program to completion; returns its exit status (-1 if it could not run).
int runProgram(const std::vector<std::string> &argv);

// A program running in the background whose standard output is read line by line.
class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string> &argv);
    ~ChildProcess(); // terminates and reaps the program
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    bool running() const { return pid_ > 0; }
    std::optional<std::string> readLine(Milliseconds limit);

private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string buffered_;
};

// candump -L on one interface. Frames are returned as candump's log text
// without time stamp and interface, e.g. "123#1122" or "00000005#R".
class CanDump {
public:
    explicit CanDump(const std::string &interface);

    // Sends probe frames through `prober` until candump prints one, so that
    // every frame sent afterwards is seen. False if candump never listened.
    bool waitUntilListening(RawCanSocket &prober);
    // The next frame that is not a probe, or nothing within the limit.
    std::optional<std::string> nextFrame(Milliseconds limit = kPatience);

private:
    static std::optional<std::string> frameText(const std::string &line);
    ChildProcess process_;
};

} // namespace vmtest
