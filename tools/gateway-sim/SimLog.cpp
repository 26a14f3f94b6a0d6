#include "SimLog.h"

namespace GatewaySim
{

void CSimLog::Line(const std::string& sText)
{
    if (m_pOut == nullptr)
        return;
    CKelLockGuard oLock(m_oMutex);
    std::fprintf(m_pOut, "gateway-sim: %s\n", sText.c_str());
    std::fflush(m_pOut);
}

} // namespace GatewaySim
