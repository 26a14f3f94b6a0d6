#include "can_tools.h"

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <linux/can/raw.h>

#include <cstring>

extern char **environ;

namespace vmtest {
namespace {

using Clock = std::chrono::steady_clock;

constexpr canid_t kProbeId = CAN_EFF_FLAG | 0x1FFFFFFF;
constexpr const char *kProbeText = "1FFFFFFF#5EED";

std::vector<char *> argvPointers(const std::vector<std::string> &argv) {
    std::vector<char *> pointers;
    for (const std::string &arg : argv) pointers.push_back(const_cast<char *>(arg.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

int millisecondsLeft(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

} // namespace

RawCanSocket::RawCanSocket(const std::string &interface, bool receiveErrorFrames) {
    fd_ = socket(PF_CAN, SOCK_RAW, CAN_RAW);
    if (fd_ < 0) return;
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    const can_err_mask_t mask = receiveErrorFrames ? CAN_ERR_MASK : 0;
    if (address.can_ifindex == 0 || bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0 ||
        setsockopt(fd_, SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &mask, sizeof mask) < 0) {
        close(fd_);
        fd_ = -1;
    }
}

RawCanSocket::~RawCanSocket() {
    if (fd_ >= 0) close(fd_);
}

bool RawCanSocket::send(const can_frame &frame) {
    return write(fd_, &frame, sizeof frame) == static_cast<ssize_t>(sizeof frame);
}

std::optional<can_frame> RawCanSocket::receive(Milliseconds limit) {
    pollfd waiting{fd_, POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(limit.count())) <= 0) return std::nullopt;
    can_frame frame{};
    if (read(fd_, &frame, sizeof frame) != static_cast<ssize_t>(sizeof frame)) return std::nullopt;
    return frame;
}

can_frame makeFrame(canid_t id, std::vector<unsigned char> data) {
    can_frame frame{};
    frame.can_id = id;
    frame.can_dlc = static_cast<__u8>(data.size());
    if (!data.empty()) memcpy(frame.data, data.data(), data.size());
    return frame;
}

int runProgram(const std::vector<std::string> &argv) {
    std::vector<char *> pointers = argvPointers(argv);
    pid_t pid = -1;
    if (posix_spawnp(&pid, pointers[0], nullptr, nullptr, pointers.data(), environ) != 0) return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

ChildProcess::ChildProcess(const std::vector<std::string> &argv) {
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
    std::vector<char *> pointers = argvPointers(argv);
    if (posix_spawnp(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);
    out_ = pipeEnds[0];
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) close(out_);
}

std::optional<std::string> ChildProcess::readLine(Milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    for (;;) {
        const auto newline = buffered_.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffered_.substr(0, newline);
            buffered_.erase(0, newline + 1);
            return line;
        }
        pollfd waiting{out_, POLLIN, 0};
        if (poll(&waiting, 1, millisecondsLeft(deadline)) <= 0) return std::nullopt;
        char chunk[512];
        const ssize_t count = read(out_, chunk, sizeof chunk);
        if (count <= 0) return std::nullopt; // the program ended
        buffered_.append(chunk, static_cast<size_t>(count));
    }
}

CanDump::CanDump(const std::string &interface)
    : process_({"candump", "-L", interface}) {}

bool CanDump::waitUntilListening(RawCanSocket &prober) {
    if (!process_.running()) return false;
    const can_frame probe = makeFrame(kProbeId, {0x5E, 0xED});
    const auto deadline = Clock::now() + kPatience;
    while (Clock::now() < deadline) {
        if (!prober.send(probe)) return false;
        // A probe sent before candump bound its socket is never printed: send
        // another one whenever candump stays quiet for a while.
        while (auto line = process_.readLine(Milliseconds(200))) {
            if (frameText(*line) == kProbeText) return true;
        }
    }
    return false;
}

std::optional<std::string> CanDump::nextFrame(Milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (auto line = process_.readLine(Milliseconds(millisecondsLeft(deadline)))) {
        auto text = frameText(*line);
        if (text && *text != kProbeText) return text;
    }
    return std::nullopt;
}

// "(1795237461.783208) vcan0 123#1122" -> "123#1122"
std::optional<std::string> CanDump::frameText(const std::string &line) {
    const auto space = line.rfind(' ');
    if (space == std::string::npos) return std::nullopt;
    return line.substr(space + 1);
}

} // namespace vmtest
