#include "OrvaneCanIndication.h"

#include "KelPayload.h"

namespace OrvaneCan
{

bool GetTime(int nFlags, const char* pcData, int& nLength, timeval& oTime)
{
    if ((nFlags & FRAME_FLAG_TIMESTAMP) == 0)
    {
        oTime.tv_sec = 0;
        oTime.tv_usec = 0;
        return false;
    }
    if (nLength < static_cast<int>(FRAME_TIMESTAMP_SIZE))
    {
        nLength = 0;
        return true;
    }
    nLength -= FRAME_TIMESTAMP_SIZE;
    CKelPayloadReader oStamp(pcData + nLength, FRAME_TIMESTAMP_SIZE);
    oTime.tv_sec = oStamp.S32(0);
    oTime.tv_usec = oStamp.S32(4);
    return true;
}

bool DecodeFrame(const COrvaneMsg& oMsg, SFrameInd& oInd)
{
    const std::string& sPayload = oMsg.GetData();
    if (sPayload.size() < FRAME_HEADER)
        return false;
    CKelPayloadReader oIn(sPayload);
    oInd.nIdentifier = oIn.U32(0);
    oInd.nFlags = oIn.S8(4);
    oInd.pcData = sPayload.data() + FRAME_HEADER;
    oInd.nRawLength = static_cast<int>(sPayload.size() - FRAME_HEADER);
    oInd.nLength = oInd.nRawLength;
    oInd.bHasTimeStamp = GetTime(oInd.nFlags, oInd.pcData, oInd.nLength, oInd.oTime);
    return oInd.nLength <= static_cast<int>(MAX_FRAME_DATA);
}

void DecodePDO(const COrvaneMsg& oMsg, SPDOInd& oInd)
{
    const std::string& sPayload = oMsg.GetData();
    CKelPayloadReader oIn(sPayload);
    oInd.nNodeID = oIn.U8(0);
    oInd.nPDOType = oIn.U8(1);
    const std::size_t nPresent = sPayload.size() > 3 ? sPayload.size() - 3 : 0; // data bytes from offset 3
    std::size_t nLength = oIn.U8(2);
    if (nLength > MAX_PDO_DATA)
        nLength = MAX_PDO_DATA;
    if (nLength > nPresent)
        nLength = nPresent;
    oInd.nLength = static_cast<unsigned char>(nLength);
    oInd.pcData = sPayload.data() + (sPayload.size() - nPresent);
}

void DecodeSYNC(const COrvaneMsg& oMsg, SSYNCInd& oInd)
{
    oInd.nCounter = CKelPayloadReader(oMsg.GetData()).U8(0);
}

void DecodeEMCY(const COrvaneMsg& oMsg, SEMCYInd& oInd)
{
    CKelPayloadReader oIn(oMsg.GetData());
    oInd.nNodeID = oIn.U8(0);
    oInd.nErrorCode = oIn.U16(1);
    oInd.nErrorRegister = oIn.U8(3);
    for (unsigned int i = 0; i < EMCY_DATA; ++i)
        oInd.anData[i] = oIn.U8(4 + i);
}

void DecodeGUARD(const COrvaneMsg& oMsg, SGUARDInd& oInd)
{
    CKelPayloadReader oIn(oMsg.GetData());
    oInd.nNodeID = oIn.U8(0);
    oInd.nState = oIn.U8(1);
}

bool DecodeUndefined(const COrvaneMsg& oMsg, SUndefinedInd& oInd)
{
    if (!DecodeFrame(oMsg, oInd.oFrame))
        return false;
    oInd.nIdentifier = static_cast<int>(oInd.oFrame.nIdentifier);
    oInd.nByte0 = static_cast<unsigned char>(oInd.oFrame.nIdentifier & 0xFF);
    oInd.nByte1 = static_cast<unsigned char>((oInd.oFrame.nIdentifier >> 8) & 0xFF);
    return true;
}

} // namespace OrvaneCan
