#include "SimCounters.h"

#include <sstream>

namespace GatewaySim
{

std::string SSimCounters::Format() const
{
    std::ostringstream oOut;
    oOut << "telegrams=" << nTelegrams << " confirmations=" << nConfirmations << " frames_in=" << nFramesIn
         << " frames_out=" << nFramesOut << " frames_dropped=" << nFramesDropped << " errors=" << InputErrors()
         << " (crc=" << nBadCrc << " length=" << nBadLength << " unknown_command=" << nUnknownCommands
         << ") injected_errors=" << nInjectedErrors << " ignored_frozen=" << nIgnoredFrozen
         << " connections=" << nConnections << " refused=" << nRefused << " send_errors=" << nSendErrors;
    return oOut.str();
}

} // namespace GatewaySim
