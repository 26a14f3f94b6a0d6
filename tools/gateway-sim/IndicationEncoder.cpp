#include "IndicationEncoder.h"

#include "SimTypes.h"

namespace GatewaySim
{

namespace
{

// Indications carry no request to answer; their message ID is 0.
constexpr short INDICATION_ID = 0;

COrvaneMsg MakeIndication(unsigned short nCode, const std::string& sPayload)
{
    return COrvaneMsg(nCode, INDICATION_ID, sPayload.data(), static_cast<unsigned short>(sPayload.size()));
}

COrvaneMsg FrameIndication(unsigned short nCode, const SCanFrame& oFrame, const STimeStamp& oTime, bool bTimeStamps)
{
    CKelPayloadWriter oOut;
    const unsigned char nFlags = static_cast<unsigned char>(oFrame.nFlags | (bTimeStamps ? FRAME_FLAG_TIMESTAMP : 0));
    oOut.U32(oFrame.nIdentifier).U8(nFlags).Bytes(oFrame.sData);
    if (bTimeStamps)
        oOut.S32(oTime.nSeconds).S32(oTime.nMicroseconds);
    return MakeIndication(nCode, oOut.Data());
}

unsigned char DataByte(const SCanFrame& oFrame, std::size_t nIndex)
{
    return nIndex < oFrame.sData.size() ? static_cast<unsigned char>(oFrame.sData[nIndex]) : 0;
}

} // namespace

COrvaneMsg EncodeIndication(const SCanFrame& oFrame, const STimeStamp& oTime, bool bTimeStamps, bool bCANopen)
{
    if (!bCANopen)
        return FrameIndication(eIndFrame, oFrame, oTime, bTimeStamps);

    const bool bService = (oFrame.nFlags & (FRAME_FLAG_EXTENDED | FRAME_FLAG_REMOTE)) == 0;
    const unsigned int nId = oFrame.nIdentifier;
    const unsigned char nNode = static_cast<unsigned char>(nId & 0x7F);
    CKelPayloadWriter oOut;
    if (bService && nId == 0x080)
    {
        // SYNC: the counter byte, when the frame carries one.
        oOut.U8(DataByte(oFrame, 0));
        return MakeIndication(eIndSYNC, oOut.Data());
    }
    if (bService && nId > 0x080 && nId <= 0x0FF)
    {
        // EMCY: node, u16 error code, u8 error register, 5 manufacturer bytes.
        oOut.U8(nNode).U8(DataByte(oFrame, 0)).U8(DataByte(oFrame, 1)).U8(DataByte(oFrame, 2));
        for (std::size_t i = 3; i < 8; ++i)
            oOut.U8(DataByte(oFrame, i));
        return MakeIndication(eIndEMCY, oOut.Data());
    }
    if (bService && nId >= 0x180 && nId <= 0x4FF && (nId & 0x7F) != 0 && (nId & 0x80) != 0)
    {
        // Transmit PDO n of a node: 0x180 + 0x100 * (n - 1) + node.
        const unsigned char nType = static_cast<unsigned char>(((nId - 0x180) >> 8) + 1);
        oOut.U8(nNode).U8(nType).U8(static_cast<unsigned char>(oFrame.sData.size())).Bytes(oFrame.sData);
        return MakeIndication(eIndPDO, oOut.Data());
    }
    if (bService && nId > 0x700 && nId <= 0x77F)
    {
        // Node guarding / heartbeat: node, state byte.
        oOut.U8(nNode).U8(DataByte(oFrame, 0));
        return MakeIndication(eIndGUARD, oOut.Data());
    }
    return FrameIndication(eIndUndefined, oFrame, oTime, bTimeStamps);
}

} // namespace GatewaySim
