#include "Bytes.h"

#include "KelMsg.h"

#include <cstdio>
#include <cstdlib>

namespace OrvaneTest
{

std::string MakeMsg(unsigned short nCommand, unsigned short nNumber, const std::string& sData)
{
    std::string sBytes;
    CKelMsg(nCommand, nNumber, sData.data(), static_cast<unsigned short>(sData.size())).GetMessageData(sBytes);
    return sBytes;
}

std::string ConnectRequest(unsigned char nId)
{
    return MakeMsg(CKelMsg::Command(nId, CKelMsg::eConnectReq), 1);
}

std::string ConnectConfirmation(unsigned char nId, unsigned char nResult)
{
    const unsigned short nCode = CKelMsg::eConnectReq | CKelMsg::eConfirmation;
    return MakeMsg(CKelMsg::Command(nId, nCode), 1, Byte(nResult));
}

std::string Frame(const std::string& sPayload)
{
    std::string sBytes(2, '\0');
    CKelMsg::PutU16(&sBytes[0], static_cast<unsigned short>(sPayload.size()));
    return sBytes + sPayload;
}

std::string Pattern(std::size_t nCount, unsigned char nSeed)
{
    std::string sBytes(nCount, '\0');
    for (std::size_t i = 0; i < nCount; ++i)
        sBytes[i] = static_cast<char>((nSeed + i * 7 + i / 251) & 0xFF);
    return sBytes;
}

std::string U32(unsigned int nValue)
{
    std::string sBytes(4, '\0');
    CKelMsg::PutU32(&sBytes[0], nValue);
    return sBytes;
}

std::string Byte(unsigned char nValue)
{
    return std::string(1, static_cast<char>(nValue));
}

std::string FromHex(const std::string& sHex)
{
    std::string sBytes;
    for (std::size_t i = sHex.find_first_not_of(' '); i < sHex.size(); i = sHex.find_first_not_of(' ', i + 2))
        sBytes.push_back(static_cast<char>(std::strtoul(sHex.substr(i, 2).c_str(), nullptr, 16)));
    return sBytes;
}

std::string ToHex(const std::string& sBytes)
{
    std::string sHex;
    char acByte[4];
    for (unsigned char c : sBytes)
    {
        std::snprintf(acByte, sizeof(acByte), sHex.empty() ? "%02X" : " %02X", c);
        sHex += acByte;
    }
    return sHex;
}

} // namespace OrvaneTest
