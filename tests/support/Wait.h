// Limits for what loopback tests wait on, and waiting for a condition.
#ifndef ORVANE_TEST_WAIT_H
#define ORVANE_TEST_WAIT_H

#include <functional>

namespace OrvaneTest
{

const char* const LOOPBACK = "127.0.0.1"; // every test peer lives here
const unsigned int WAIT_MS = 5000;        // generous limit for anything awaited

// Polls fCondition until it holds or nTimeoutMs have passed; its last answer.
bool WaitUntil(const std::function<bool()>& fCondition, unsigned int nTimeoutMs = WAIT_MS);

} // namespace OrvaneTest

#endif
