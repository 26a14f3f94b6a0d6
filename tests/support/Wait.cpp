#include "Wait.h"

#include <chrono>
#include <thread>

namespace OrvaneTest
{

bool WaitUntil(const std::function<bool()>& fCondition, unsigned int nTimeoutMs)
{
    const auto oEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeoutMs);
    while (!fCondition())
    {
        if (std::chrono::steady_clock::now() >= oEnd)
            return fCondition();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace OrvaneTest
