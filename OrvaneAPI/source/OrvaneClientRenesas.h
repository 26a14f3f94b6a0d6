// COrvaneClientRenesas: programs the flash memory of a Renesas
// microcontroller through a gateway's boot interface. Each operation is one
// request telegram (command codes in OrvaneProtocol.h); the programming
// sequence is the caller's. Every operation returns the request's return
// code (OrvaneClient.h); pages are 256 bytes.
#ifndef ORVANE_CLIENT_RENESAS_H
#define ORVANE_CLIENT_RENESAS_H

#include "OrvaneClient.h"

class COrvaneClientRenesas : public COrvaneClient
{
public:
    explicit COrvaneClientRenesas(int nTimeout);
    ~COrvaneClientRenesas() override;

    int Init();
    // Sends at most the first 7 bytes of the ID code.
    int CheckID(const unsigned char* pnId, unsigned char nLength);
    int SetBaudrate(unsigned char nIndex);
    // nReceived and pcBuffer are written once a confirmation arrived (also
    // on a device error): at most nSize bytes.
    int ReadPage(unsigned short nPage, char* pcBuffer, unsigned short nSize, unsigned short& nReceived);
    int EraseAll();
    // Sends exactly one page: the first 256 data bytes, padded with zeros.
    int WritePage(unsigned short nPage, const char* pcData, unsigned short nLength);
    // Copies up to nSize bytes of the version on result 0.
    int GetVersion(char* pcBuffer, unsigned char nSize);
    int Complete();
    // nResult is written on result 0 when the confirmation carries it.
    int VerifyCheck(unsigned short nStart, unsigned short nEnd, unsigned short& nResult);
    int BlockErase(unsigned short nBlock);

    int ReadDigital(unsigned int& nInputs, unsigned int& nOutputs) { return BaseReadDigital(nInputs, nOutputs); }
    int WriteDigital(unsigned int nOutputs) { return BaseWriteDigital(nOutputs); }
};

#endif // ORVANE_CLIENT_RENESAS_H
