// Listening side: connection limit, purge of ended connections, refusal,
// derived containers and connections, and the datagram endpoint. Clients are
// real CKelIPConnections or raw sockets on 127.0.0.1; ports are ephemeral.
#include "KelIPConnection.h"
#include "KelIPServerContainer.h"
#include "KelMsg.h"
#include "libKelThread.h"
#include "support/kel_loopback_peer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <vector>

using namespace kel_test;

namespace
{
const unsigned char kId = 2;

size_t CountEntries(CKelIPServerContainer& container)
{
    size_t count = 0;
    container.ForEachClient([&](CKelIPConnection&) { ++count; });
    return count;
}

unsigned int Connect(CKelIPConnection& client, unsigned short port, const std::string& data = "")
{
    return client.ConnectReq(kLoopback, port, kWaitMs, kId, CKelIPBase::eTCP, data, true);
}

// A server-side connection that records its hooks, optionally echoes every
// message back, refuses connect data "no", and can hold its read thread.
class CServerConnection : public CRecordingConnection
{
public:
    CServerConnection(CKelIPServerContainer* container, int socket, bool echo)
        : CRecordingConnection(container, kId, CKelIPBase::eTCP, socket, true)
    {
        if (echo)
            m_fOnData = [](CRecordingConnection& self, const std::string& message) {
                self.DataReq(message.data(), static_cast<unsigned short>(message.size()), 1000);
            };
    }
    // The most-derived class stops the threads before its vtable goes.
    ~CServerConnection() override { Shutdown(); }
    bool IsConnectMsgAccepted(const std::string& connectData) override { return connectData != "no"; }
};

// The way a gateway simulator derives: its own connection class per socket.
class CTestContainer : public CKelIPServerContainer
{
public:
    CTestContainer(int limit, bool withDatagramServer = false, unsigned short port = 0)
        : CKelIPServerContainer(kId, limit, port, withDatagramServer)
    {
    }
    ~CTestContainer() override { Shutdown(); }

    std::atomic<bool> m_bRefuse{false};
    std::atomic<bool> m_bEcho{false};
    std::atomic<int> m_nCreated{0};

protected:
    CKelIPConnection* CreateNewClass(CKelIPBase::EProtocol, int socket) override
    {
        if (m_bRefuse)
            return nullptr;
        ++m_nCreated;
        return new CServerConnection(this, socket, m_bEcho);
    }
    CKelIPConnection* CreateUdpServer(unsigned short port) override
    {
        return new CRecordingConnection(GetId(), port, true);
    }
};

CServerConnection* FirstConnection(CKelIPServerContainer& container)
{
    CServerConnection* found = nullptr;
    container.ForEachClient([&](CKelIPConnection& connection) {
        if (found == nullptr && !connection.IsDatagramServer())
            found = dynamic_cast<CServerConnection*>(&connection);
    });
    return found;
}

// ------------------------------------------------------------------ limit

TEST(KelIPServerLimit, ClientAboveTheLimitGetsResultOneAndIsClosed)
{
    CKelIPServerContainer container(kId, 2, 0, false);
    container.StartListening();
    ASSERT_TRUE(container.IsServerListening());
    ASSERT_NE(0, container.GetPort());

    CRecordingConnection first;
    CRecordingConnection second;
    CRecordingConnection third;
    EXPECT_EQ(eKelIPSuccess, Connect(first, container.GetPort()));
    EXPECT_EQ(eKelIPSuccess, Connect(second, container.GetPort()));
    EXPECT_EQ(eKelIPRefused, Connect(third, container.GetPort()));
    // The server closes right after its answer; either side may end it.
    EXPECT_TRUE(WaitUntil([&] { return third.GetState() == CKelIPBase::eDisconnected; }));

    // The same seen on the wire by a raw client.
    CRawSocket raw = ConnectRaw(container.GetPort());
    ASSERT_TRUE(raw.SendAll(MakeMsg(0x0201, 1)));
    EXPECT_EQ(MakeMsg(0x8201, 1, std::string(1, '\x01')), raw.ReadMessage());
    EXPECT_TRUE(raw.WaitForClose());

    EXPECT_TRUE(WaitUntil([&] { return container.CountActiveTCPConnections() == 2; }));
    EXPECT_FALSE(container.IsConnectionLimitExceeded());
    EXPECT_EQ(CKelIPBase::eConnected, first.GetState());
    EXPECT_EQ(CKelIPBase::eConnected, second.GetState());
}

TEST(KelIPServerLimit, EndedConnectionsArePurgedAndFreeTheirSlots)
{
    CKelIPServerContainer container(kId, 1, 0, false);
    container.StartListening();
    {
        CRecordingConnection client;
        ASSERT_EQ(eKelIPSuccess, Connect(client, container.GetPort()));
        EXPECT_EQ(1u, container.CountActiveTCPConnections());
        // The server side confirms the disconnect request, so this is 1.
        EXPECT_EQ(eKelIPSuccess, client.DisconnectReq(kWaitMs));
    }
    EXPECT_TRUE(WaitUntil([&] { return container.CountActiveTCPConnections() == 0 && CountEntries(container) == 0; }));

    CRecordingConnection next;
    EXPECT_EQ(eKelIPSuccess, Connect(next, container.GetPort()));
    EXPECT_EQ(1u, container.CountActiveTCPConnections());
}

TEST(KelIPServerLimit, PurgeKeepsAnEndedConnectionWhoseReadThreadStillRuns)
{
    CTestContainer container(4);
    container.StartListening();
    CRecordingConnection client;
    ASSERT_EQ(eKelIPSuccess, Connect(client, container.GetPort()));

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::promise<void> entered;
    CServerConnection* server = nullptr;
    ASSERT_TRUE(WaitUntil([&] { return (server = FirstConnection(container)) != nullptr; }));
    server->m_fOnData = [&](CRecordingConnection&, const std::string&) {
        entered.set_value();
        released.wait();
    };
    const std::string telegram = MakeMsg(0x0203, 1, "x");
    ASSERT_EQ(eKelIPSuccess, client.DataReq(telegram.data(), static_cast<unsigned short>(telegram.size()), 1000));
    ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(std::chrono::seconds(5)));

    // Ended (socket -1, state 1) while its read thread is held in DataInd.
    EXPECT_EQ(eKelIPSuccess, server->CloseConnection());
    EXPECT_FALSE(container.RemoveClient());
    EXPECT_EQ(1u, CountEntries(container));

    release.set_value();
    EXPECT_TRUE(WaitUntil([&] { return CountEntries(container) == 0 || container.RemoveClient(); }));
    EXPECT_EQ(0u, CountEntries(container));
    EXPECT_TRUE(client.WaitForConnectInd(false, 1));
}

// ------------------------------------------------------------------ listening

TEST(KelIPServerListening, StartListeningTwiceCreatesOneServer)
{
    CTestContainer container(4, true);
    container.StartListening();
    const unsigned short port = container.GetPort();
    CKelIPConnection* datagram = container.GetDatagramServer();
    ASSERT_NE(nullptr, datagram);
    container.StartListening();
    EXPECT_TRUE(container.IsListening());
    EXPECT_EQ(port, container.GetPort());
    EXPECT_EQ(datagram, container.GetDatagramServer());
    EXPECT_EQ(1u, CountEntries(container));

    CRecordingConnection client;
    EXPECT_EQ(eKelIPSuccess, Connect(client, port));
    EXPECT_EQ(1, container.m_nCreated.load());
}

TEST(KelIPServerListening, TwoContainersServeTheirOwnClients)
{
    CTestContainer first(4);
    CTestContainer second(4);
    first.StartListening();
    second.StartListening();
    ASSERT_NE(first.GetPort(), second.GetPort());

    // A third on a port that is taken stays without a listening server.
    CTestContainer taken(4, false, first.GetPort());
    taken.StartListening();
    EXPECT_TRUE(taken.IsListening());
    EXPECT_FALSE(taken.IsServerListening());

    CRecordingConnection a;
    CRecordingConnection b;
    CRecordingConnection c;
    EXPECT_EQ(eKelIPSuccess, Connect(a, first.GetPort()));
    EXPECT_EQ(eKelIPSuccess, Connect(b, first.GetPort()));
    EXPECT_EQ(eKelIPSuccess, Connect(c, second.GetPort()));
    EXPECT_EQ(2u, first.CountActiveTCPConnections());
    EXPECT_EQ(1u, second.CountActiveTCPConnections());
    EXPECT_EQ(0u, taken.CountActiveTCPConnections());
}

TEST(KelIPServerListening, RefusedSocketGetsFFBeforeItIsClosed)
{
    CTestContainer container(4);
    container.m_bRefuse = true;
    container.StartListening();

    CRawSocket raw = ConnectRaw(container.GetPort());
    EXPECT_EQ(MakeMsg(0x8201, 1, std::string(1, '\xFF')), raw.ReadMessage());
    EXPECT_TRUE(raw.WaitForClose());

    // The refusal may arrive before the connect request is sent; then the
    // request's own send result is returned instead of 3. Either way the
    // client never connects.
    CRecordingConnection client;
    const unsigned int result = Connect(client, container.GetPort());
    EXPECT_TRUE(result == eKelIPNotConnected || result == eKelIPWrongState || result == eKelIPError) << result;
    EXPECT_TRUE(WaitUntil([&] { return client.GetState() == CKelIPBase::eDisconnected; }));
    EXPECT_EQ(0, client.ConnectIndCount(true));
    EXPECT_EQ(0u, CountEntries(container));
}

TEST(KelIPServerListening, ConnectDataCanBeRefusedByTheConnection)
{
    CTestContainer container(4);
    container.StartListening();
    CRecordingConnection refused;
    EXPECT_EQ(eKelIPNotConnected, Connect(refused, container.GetPort(), "no"));
    CRecordingConnection accepted;
    EXPECT_EQ(eKelIPSuccess, Connect(accepted, container.GetPort(), "yes"));
}

// ------------------------------------------------------------------ derived classes

TEST(KelIPServerDerived, RequestIsAnsweredByThePeersReadThread)
{
    CTestContainer container(4);
    container.m_bEcho = true;
    container.StartListening();
    CRecordingConnection client;
    ASSERT_EQ(eKelIPSuccess, Connect(client, container.GetPort()));

    CServerConnection* server = nullptr;
    ASSERT_TRUE(WaitUntil([&] { return (server = FirstConnection(container)) != nullptr; }));
    EXPECT_EQ(1, server->ConnectIndCount(true));  // from AddClient, on the listen thread
    EXPECT_EQ("127.0.0.1", server->GetPeerAddress());

    for (int i = 0; i < 20; ++i)
    {
        const std::string telegram = MakeMsg(0x0203, static_cast<unsigned short>(i), Pattern(8, static_cast<unsigned char>(i)));
        ASSERT_EQ(eKelIPSuccess, client.DataReq(telegram.data(), static_cast<unsigned short>(telegram.size()), 1000));
        ASSERT_TRUE(client.WaitForMessages(static_cast<size_t>(i) + 1));
        EXPECT_EQ(telegram, client.Messages().back());
    }
}

TEST(KelIPServerDerived, AliveRequestsOfTheClientMakeTheServerSidePassive)
{
    CTestContainer container(4);
    container.StartListening();
    CRecordingConnection client;
    ASSERT_EQ(eKelIPSuccess, Connect(client, container.GetPort()));
    ASSERT_EQ(eKelIPSuccess, client.SetAlive(300));
    CServerConnection* server = nullptr;
    ASSERT_TRUE(WaitUntil([&] {
        server = FirstConnection(container);
        return server != nullptr && server->GetAliveMode() == CKelIPConnection::eAlivePassive;
    }));
    EXPECT_EQ(300u, server->GetAlivePeriod());
    EXPECT_EQ(eKelIPSuccess, client.DisconnectReq(kWaitMs));
    EXPECT_TRUE(server->WaitForConnectInd(false, 1));
}

TEST(KelIPServerDerived, DestroyingTheContainerDisconnectsItsClients)
{
    CRecordingConnection client;
    {
        CTestContainer container(4);
        container.StartListening();
        ASSERT_EQ(eKelIPSuccess, Connect(client, container.GetPort()));
    }
    EXPECT_TRUE(client.WaitForConnectInd(false, 1));
    EXPECT_TRUE(WaitUntil([&] { return client.GetState() == CKelIPBase::eDisconnected; }));
}

// ------------------------------------------------------------------ datagrams

TEST(KelIPServerDatagram, EndpointTalksToTheClientThatConnected)
{
    CTestContainer container(4, true);
    container.StartListening();
    auto* endpoint = dynamic_cast<CRecordingConnection*>(container.GetDatagramServer());
    ASSERT_NE(nullptr, endpoint);
    EXPECT_EQ(CKelIPBase::eWaitingForPeer, endpoint->GetState());

    CRecordingConnection client;
    ASSERT_EQ(eKelIPSuccess, client.ConnectReq(kLoopback, container.GetPort(), kWaitMs, kId, CKelIPBase::eUDP, "", true));
    EXPECT_EQ(CKelIPBase::eConnected, endpoint->GetState());
    EXPECT_EQ(1, endpoint->ConnectIndCount(true));

    // Another sender is ignored, except for command 0x020C.
    const int stranger = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(container.GetPort());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string ignored = MakeMsg(0x0203, 1, "stranger");
    const std::string open = MakeMsg(0x020C, 2, "open");
    sendto(stranger, ignored.data(), ignored.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    sendto(stranger, open.data(), open.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ASSERT_TRUE(endpoint->WaitForMessages(1));

    // Two messages in one datagram, from the connected client.
    const std::string first = MakeMsg(0x0203, 3, "one");
    const std::string second = MakeMsg(0x0203, 4, "two");
    const std::string both = first + second;
    ASSERT_EQ(eKelIPSuccess, client.DataReq(both.data(), static_cast<unsigned short>(both.size()), 1000));
    ASSERT_TRUE(endpoint->WaitForMessages(3));
    EXPECT_EQ((std::vector<std::string>{open, first, second}), endpoint->Messages());
    close(stranger);

    const std::string answer = MakeMsg(0x0203, 5, "back");
    ASSERT_EQ(eKelIPSuccess, endpoint->DataReq(answer.data(), static_cast<unsigned short>(answer.size()), 1000));
    ASSERT_TRUE(client.WaitForMessages(1));
    EXPECT_EQ(answer, client.Messages()[0]);

    // Disconnecting returns the endpoint to waiting for a peer.
    EXPECT_EQ(eKelIPSuccess, client.DisconnectReq(kWaitMs));
    EXPECT_TRUE(WaitUntil([&] { return endpoint->GetState() == CKelIPBase::eWaitingForPeer; }));
    EXPECT_EQ(1, endpoint->ConnectIndCount(false));
    EXPECT_EQ(0u, container.CountActiveTCPConnections());
}
} // namespace
