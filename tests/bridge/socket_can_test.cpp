// Host-side checks of the bridge's parts that need no CAN in the kernel:
// can_error's texts, the checks made before a socket exists, and the
// messages to a service manager. The tests on a real SocketCAN stack run
// inside the VM (tests/vm, tests/bridge/vm).
#include "service_notify.h"
#include "socket_can.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>

namespace
{

std::string errorText(int code)
{
    ::testing::internal::CaptureStdout();
    can_error(code);
    fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
}

// Every code prints its exact line (misspellings included); codes between print nothing.
TEST(SocketCanErrorText, EveryCodeHasItsExactLineAndOtherCodesPrintNothing)
{
    const std::pair<int, const char*> expected[] = {
        {-99, "SocketCAN: USR - other errors"},
        {-98, "SocketCAN: USR - not supported"},
        {-96, "SocketCAN: USR - already initialized"},
        {-95, "SocketCAN: USR - not initialized"},
        {-94, "SocketCAN: USR - null-pointer assignement"},
        {-93, "SocketCAN: USR - illegal parameter"},
        {-91, "SocketCAN: USR - illegal baudrate"},
        {-50, "SocketCAN: USR - time-out"},
        {-30, "SocketCAN: USR - receiver empty"},
        {-20, "SocketCAN: USR - transmitter busy"},
        {-16, "SocketCAN: LEC - checksum error"},
        {-15, "SocketCAN: LEC - dominant bit error"},
        {-14, "SocketCAN: LEC - recessive bit error"},
        {-13, "SocketCAN: LEC - acknowledge error"},
        {-12, "SocketCAN: LEC - form error"},
        {-11, "SocketCAN: LEC - stuff error"},
        {-10, "SocketCAN: CAN - message lost"},
        {-9, "SocketCAN: CAN - not started"},
        {-8, "SocketCAN: CAN - already started"},
        {-3, "SocketCAN: CAN - bus error"},
        {-2, "SocketCAN: CAN - error warning status"},
        {-1, "SocketCAN: CAN - busoff status"},
    };
    for (const auto& entry : expected)
        EXPECT_EQ(std::string(entry.second) + "\n", errorText(entry.first)) << "code " << entry.first;
    for (int code : {0, 1, -4, -17, -92, -97, -100, -10000})
        EXPECT_EQ("", errorText(code)) << "code " << code;
}

TEST(SocketCanHost, CallsBeforeASocketExistsAreRejectedWithTheirCodes)
{
    const can_socket_params_t params{"orvnone0", 29, 3, 1};
    _can_msg_t msg{};
    EXPECT_EQ(-95, can_start(-1));
    EXPECT_EQ(-95, can_transmit(&msg));
    EXPECT_EQ(-95, can_receive(&msg));
    EXPECT_EQ(-93, can_init(0, &params, nullptr, 0, false, false)); // channel must be -1
    EXPECT_EQ(-94, can_init(-1, nullptr, nullptr, 0, false, false));
    EXPECT_EQ(-1, socket_can::Descriptor());
    EXPECT_EQ(0, can_exit());
}

// A service manager's end of the notify socket, bound to sName ('@' for an
// abstract name), with NOTIFY_SOCKET naming it while the object lives.
class CNotifySocket
{
public:
    explicit CNotifySocket(const std::string& sName) : m_nSocket(socket(AF_UNIX, SOCK_DGRAM, 0))
    {
        sockaddr_un oAddress{};
        oAddress.sun_family = AF_UNIX;
        std::memcpy(oAddress.sun_path, sName.data(), sName.size());
        if (sName[0] == '@')
            oAddress.sun_path[0] = '\0';
        else
            unlink(sName.c_str());
        bind(m_nSocket, reinterpret_cast<sockaddr*>(&oAddress),
             static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sName.size()));
        setenv("NOTIFY_SOCKET", sName.c_str(), 1);
    }
    ~CNotifySocket()
    {
        unsetenv("NOTIFY_SOCKET");
        close(m_nSocket);
    }
    std::string Receive() const
    {
        char acBuffer[512];
        const ssize_t nCount = recv(m_nSocket, acBuffer, sizeof(acBuffer), MSG_DONTWAIT);
        return nCount > 0 ? std::string(acBuffer, static_cast<size_t>(nCount)) : "";
    }

private:
    int m_nSocket;
};

size_t OpenDescriptors()
{
    std::error_code oError;
    using CEntries = std::filesystem::directory_iterator;
    return static_cast<size_t>(std::distance(CEntries("/proc/self/fd", oError), CEntries()));
}

// Each state goes out as one datagram, to a path or to an abstract name.
TEST(ServiceNotifier, SendsOneDatagramPerStateToPathAndAbstractSockets)
{
    const std::string sPath = "/tmp/orvane-notify-" + std::to_string(getpid());
    for (const std::string& sName : {sPath, "@orvane-notify-" + std::to_string(getpid())})
    {
        SCOPED_TRACE(sName);
        CNotifySocket oManager(sName);
        CServiceNotifier oNotifier;
        ASSERT_TRUE(oNotifier.IsActive());
        EXPECT_TRUE(oNotifier.Notify("READY=1\nSTATUS=up"));
        EXPECT_TRUE(oNotifier.Notify("WATCHDOG=1"));
        EXPECT_EQ("READY=1\nSTATUS=up", oManager.Receive());
        EXPECT_EQ("WATCHDOG=1", oManager.Receive());
    }
    unlink(sPath.c_str());
}

// Outside a service manager, or with a name it cannot use, the notifier
// opens nothing and sends nothing.
TEST(ServiceNotifier, WithoutAUsableNotifySocketNothingIsOpenedOrSent)
{
    unsetenv("NOTIFY_SOCKET");
    for (const char* pcName : {static_cast<const char*>(nullptr), "", "relative/socket", "@"})
    {
        if (pcName != nullptr)
            setenv("NOTIFY_SOCKET", pcName, 1);
        const size_t nBefore = OpenDescriptors();
        CServiceNotifier oNotifier;
        EXPECT_FALSE(oNotifier.IsActive()) << (pcName != nullptr ? pcName : "(unset)");
        EXPECT_FALSE(oNotifier.Notify("READY=1"));
        EXPECT_EQ(nBefore, OpenDescriptors());
        unsetenv("NOTIFY_SOCKET");
    }
}

} // namespace
