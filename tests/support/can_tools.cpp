#include "can_tools.h"

#include "Wait.h"

namespace vmtest
{
namespace
{

constexpr const char* kProbe = "1FFFFFFF#5EED";

} // namespace

bool cansend(const std::string& interface, const std::string& frame)
{
    return OrvaneTest::RunProgram({"cansend", interface, frame}).nExit == 0;
}

CanDump::CanDump(const std::string& interface) : interface_(interface), candump_({"candump", "-L", interface}) {}

bool CanDump::waitUntilListening()
{
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    // A probe sent before candump bound its socket is never printed: send
    // another one whenever candump stays quiet for a while.
    while (std::chrono::steady_clock::now() < deadline)
    {
        if (!cansend(interface_, kProbe))
            return false;
        const std::string line = std::string(kProbe) + "\n";
        size_t at = std::string::npos;
        if (OrvaneTest::WaitUntil([&] { return (at = candump_.Output().find(line, done_)) != std::string::npos; }, 200))
        {
            done_ = at + line.size();
            return true;
        }
    }
    return false;
}

std::optional<std::string> CanDump::nextFrame(Milliseconds limit)
{
    std::optional<std::string> frame;
    OrvaneTest::WaitUntil(
        [&] {
            // Lines look like "(time) vcan0 123#11".
            const std::string output = candump_.Output();
            for (size_t end; !frame && (end = output.find('\n', done_)) != std::string::npos; done_ = end + 1)
            {
                const std::string line = output.substr(done_, end - done_);
                if (line.substr(line.rfind(' ') + 1) != kProbe)
                    frame = line.substr(line.rfind(' ') + 1);
            }
            return frame.has_value();
        },
        static_cast<unsigned int>(limit.count()));
    return frame;
}

} // namespace vmtest
