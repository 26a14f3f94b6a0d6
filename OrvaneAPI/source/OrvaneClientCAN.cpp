#include "OrvaneClientCAN.h"

COrvaneClientCAN::COrvaneClientCAN(int nTimeout) : COrvaneClient(eOrvaneCAN, nTimeout), m_bConfirmData(false) {}
COrvaneClientCAN::~COrvaneClientCAN() {}
int COrvaneClientCAN::Open(bool, bool)
{
    return 0;
}
int COrvaneClientCAN::StartAlive(unsigned int)
{
    return 0;
}
int COrvaneClientCAN::Write(int, const char*, unsigned char, unsigned char, int*, int*)
{
    return 0;
}
int COrvaneClientCAN::SetConfig(bool, bool)
{
    return 0;
}
int COrvaneClientCAN::GetConfig(bool&, bool&)
{
    return 0;
}
int COrvaneClientCAN::SetGlobals(unsigned int, unsigned char, bool, bool, bool)
{
    return 0;
}
int COrvaneClientCAN::GetGlobals(unsigned int&, unsigned char&, bool&, bool&, bool&)
{
    return 0;
}
int COrvaneClientCAN::SetTime(const timeval&)
{
    return 0;
}
int COrvaneClientCAN::GetTime(bool&, timeval&)
{
    return 0;
}
int COrvaneClientCAN::SetFilter(const SConfigFilter&)
{
    return 0;
}
int COrvaneClientCAN::GetFilter(SConfigFilter&)
{
    return 0;
}
int COrvaneClientCAN::GetPowerStatus(unsigned char, unsigned char&, unsigned char, unsigned char&, unsigned char,
                                     unsigned char&, short&, unsigned short&, unsigned short&, bool&, unsigned short*,
                                     bool*, bool*)
{
    return 0;
}
int COrvaneClientCAN::SetPowerRelais(bool)
{
    return 0;
}
int COrvaneClientCAN::SetActivePowerSupplies(unsigned int)
{
    return 0;
}
int COrvaneClientCAN::SetZCardParameter(unsigned char, unsigned short, unsigned short)
{
    return 0;
}
int COrvaneClientCAN::GetZCardParameter(unsigned char&, unsigned short&, unsigned short&)
{
    return 0;
}
int COrvaneClientCAN::CANopenSetConfig(unsigned char)
{
    return 0;
}
int COrvaneClientCAN::CANopenGetConfig(unsigned char&)
{
    return 0;
}
int COrvaneClientCAN::CANopenSetSYNCMode(unsigned short)
{
    return 0;
}
int COrvaneClientCAN::CANopenSendNMT(unsigned char, unsigned char)
{
    return 0;
}
int COrvaneClientCAN::CANopenSendSYNC()
{
    return 0;
}
int COrvaneClientCAN::CANopenSendTIME(unsigned short, unsigned int)
{
    return 0;
}
int COrvaneClientCAN::CANopenSendPDO(unsigned char, unsigned char, unsigned char, const char*)
{
    return 0;
}
int COrvaneClientCAN::CANopenSendSDORead(unsigned char, unsigned short, unsigned char, unsigned short, unsigned char&,
                                         unsigned int&)
{
    return 0;
}
int COrvaneClientCAN::CANopenSendSDOWrite(unsigned char, unsigned char, unsigned short, unsigned char, unsigned short,
                                          unsigned int, unsigned char&, unsigned int&)
{
    return 0;
}
int COrvaneClientCAN::CANopenSendSDOReadBlock(unsigned char, unsigned short, unsigned char, unsigned short,
                                              unsigned short, unsigned char&, unsigned short&, unsigned char*)
{
    return 0;
}
int COrvaneClientCAN::CANopenSendSDOWriteBlock(unsigned char, unsigned short, unsigned char, unsigned short,
                                               unsigned short, const unsigned char*, unsigned char&, unsigned int&)
{
    return 0;
}
bool COrvaneClientCAN::DataIndRespond(COrvaneMsg*)
{
    return false;
}
