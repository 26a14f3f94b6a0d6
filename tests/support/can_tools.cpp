#include "can_tools.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace vmtest
{
namespace
{

using Clock = std::chrono::steady_clock;

constexpr const char* kProbe = "1FFFFFFF#5EED";

// Starts a program with its standard output on `out` (-1: this process's own).
pid_t spawn(const std::vector<std::string>& argv, int out)
{
    std::vector<char*> pointers;
    for (const std::string& arg : argv)
        pointers.push_back(const_cast<char*>(arg.c_str()));
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (out >= 0)
        posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    pid_t pid = -1;
    if (posix_spawnp(&pid, pointers[0], &actions, nullptr, pointers.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

} // namespace

int runProgram(const std::vector<std::string>& argv)
{
    const pid_t pid = spawn(argv, -1);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

CanDump::CanDump(const std::string& interface) : interface_(interface)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return;
    pid_ = spawn({"candump", "-L", interface}, ends[1]);
    close(ends[1]);
    out_ = ends[0];
}

CanDump::~CanDump()
{
    if (pid_ > 0)
    {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0)
        close(out_);
}

bool CanDump::waitUntilListening()
{
    const auto deadline = Clock::now() + kPatience;
    while (pid_ > 0 && Clock::now() < deadline)
    {
        // A probe sent before candump bound its socket is never printed: send
        // another one whenever candump stays quiet for a while.
        if (runProgram({"cansend", interface_, kProbe}) != 0)
            return false;
        while (auto frame = readLine(Clock::now() + Milliseconds(200)))
        {
            if (frame->substr(frame->rfind(' ') + 1) == kProbe)
                return true;
        }
    }
    return false;
}

std::optional<std::string> CanDump::nextFrame(Milliseconds limit)
{
    const auto deadline = Clock::now() + limit;
    while (auto line = readLine(deadline))
    {
        const std::string frame = line->substr(line->rfind(' ') + 1); // "(time) vcan0 123#11"
        if (frame != kProbe)
            return frame;
    }
    return std::nullopt;
}

std::optional<std::string> CanDump::readLine(Clock::time_point deadline)
{
    for (;;)
    {
        const auto newline = buffered_.find('\n');
        if (newline != std::string::npos)
        {
            std::string line = buffered_.substr(0, newline);
            buffered_.erase(0, newline + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()).count();
        pollfd waiting{out_, POLLIN, 0};
        if (left <= 0 || poll(&waiting, 1, static_cast<int>(left)) <= 0)
            return std::nullopt;
        char chunk[512];
        const ssize_t count = read(out_, chunk, sizeof chunk);
        if (count <= 0)
            return std::nullopt; // candump ended
        buffered_.append(chunk, static_cast<size_t>(count));
    }
}

} // namespace vmtest
