#include "OrvaneClient.h"

COrvaneClient::CConnection::CConnection() : m_poClient(nullptr) {}
COrvaneClient::CConnection::~CConnection()
{
    Shutdown();
}
void COrvaneClient::CConnection::ConnectInd(bool) {}
void COrvaneClient::CConnection::DataInd(const char*, unsigned short) {}
COrvaneClient::CMessageItem::CMessageItem(COrvaneMsg* poMsg) : m_poMsg(poMsg) {}
COrvaneClient::CMessageItem::~CMessageItem()
{
    delete m_poMsg;
}
COrvaneMsg* COrvaneClient::CMessageItem::PopMsg()
{
    COrvaneMsg* p = m_poMsg;
    m_poMsg = nullptr;
    return p;
}
COrvaneClient::COrvaneClient(EOrvaneDevice eDeviceType, unsigned int nTimeout)
    : m_nTimeout(nTimeout), m_nTelegramCounter(0), m_eDeviceType(eDeviceType)
{
}
COrvaneClient::~COrvaneClient() {}
int COrvaneClient::Connect(const char*, unsigned short, unsigned char, bool)
{
    return 0;
}
int COrvaneClient::Open()
{
    return 0;
}
int COrvaneClient::Close()
{
    return 0;
}
int COrvaneClient::Disconnect()
{
    return 0;
}
int COrvaneClient::SendMsg(const COrvaneMsg&)
{
    return 0;
}
int COrvaneClient::SendMsg(const COrvaneMsg&, COrvaneMsg*& c, const unsigned int*)
{
    c = nullptr;
    return 0;
}
int COrvaneClient::SendMsg(const COrvaneMsg&, COrvaneMsg&, const unsigned int*)
{
    return 0;
}
COrvaneMsg* COrvaneClient::GetMsg(short)
{
    return nullptr;
}
COrvaneMsg* COrvaneClient::WaitForMsg(short, const unsigned int*)
{
    return nullptr;
}
void COrvaneClient::RemoveOldMsgs() {}
void COrvaneClient::DataInd(const char*, unsigned short) {}
void COrvaneClient::ConInd(bool) {}
bool COrvaneClient::DataIndRespond(COrvaneMsg*)
{
    return false;
}
int COrvaneClient::GetCnfRetCode(const COrvaneMsg&)
{
    return 0;
}
int COrvaneClient::ConvertTCPRetCode(int)
{
    return 0;
}
std::string COrvaneClient::GetErrorMsg(int n)
{
    return OrvaneErrorMsg(n);
}
int COrvaneClient::Restart()
{
    return 0;
}
int COrvaneClient::Info(SOrvaneDeviceInfo*)
{
    return 0;
}
int COrvaneClient::Status(std::string&)
{
    return 0;
}
int COrvaneClient::BaseReadDigital(unsigned int&, unsigned int&)
{
    return 0;
}
int COrvaneClient::BaseWriteDigital(unsigned int)
{
    return 0;
}
int COrvaneClient::ReadAnalog(const unsigned int&, unsigned int*, unsigned short&)
{
    return 0;
}
int COrvaneClient::WriteAnalog(const unsigned int*, unsigned short)
{
    return 0;
}
bool COrvaneClient::IsTraceActive(unsigned char)
{
    return false;
}
void COrvaneClient::Trace(unsigned char, unsigned short, const std::string&) {}
int COrvaneClient::Exchange(const COrvaneMsg&, COrvaneMsg*& c, const unsigned int*)
{
    c = nullptr;
    return 0;
}
std::string COrvaneClient::RequestTraceText(const char*) const
{
    return {};
}
