// One-line log of the simulator: connection events, bad input, start and
// stop. Lines from different threads never interleave.
#ifndef GATEWAY_SIM_LOG_H
#define GATEWAY_SIM_LOG_H

#include "libKelMutex.h"

#include <cstdio>
#include <string>

namespace GatewaySim
{

class CSimLog
{
public:
    // pOut null: quiet (tests).
    explicit CSimLog(FILE* pOut) : m_pOut(pOut) {}

    CSimLog(const CSimLog&) = delete;
    CSimLog& operator=(const CSimLog&) = delete;

    // Writes "gateway-sim: <text>\n".
    void Line(const std::string& sText);

private:
    FILE* m_pOut;
    CKelMutex m_oMutex;
};

} // namespace GatewaySim

#endif
