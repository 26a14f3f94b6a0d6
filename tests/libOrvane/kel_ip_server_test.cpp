// Listening side: connection limit, purge of ended connections, refusal,
// derived containers and connections, and the datagram endpoint, on 127.0.0.1.
#include "KelIPConnection.h"
#include "KelIPServerContainer.h"
#include "KelMsg.h"
#include "support/RawPeer.h"
#include "support/RecordingConnection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <memory>

using namespace OrvaneTest;

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
    return client.ConnectReq(LOOPBACK, port, WAIT_MS, kId, CKelIPBase::eTCP, data, true);
}

// The connect confirmation a raw client gets before the server closes;
// `request`: the client sends its connect request first.
std::string RawConnectAnswer(unsigned short port, bool request)
{
    CRawPeer raw;
    EXPECT_TRUE(raw.Connect(port));
    if (request)
        raw.Send(MakeMsg(0x0201, 1));
    const std::string answer = raw.ReceiveMessage();
    EXPECT_TRUE(raw.WaitClosed());
    return answer;
}

// A server-side connection that records its hooks, echoes every message,
// and refuses the connect data "no".
class CServerConnection : public CRecordingConnection
{
public:
    CServerConnection(CKelIPServerContainer* container, int socket)
        : CRecordingConnection(container, kId, CKelIPBase::eTCP, socket, true)
    {
        m_fOnData = [](CRecordingConnection& self, const std::string& message) {
            self.DataReq(message.data(), static_cast<unsigned short>(message.size()), 1000);
        };
    }
    ~CServerConnection() override { Shutdown(); }
    bool IsConnectMsgAccepted(const std::string& connectData) override { return connectData != "no"; }
};

class CTestContainer : public CKelIPServerContainer
{
public:
    explicit CTestContainer(int limit, bool withDatagramServer = false, unsigned short port = 0)
        : CKelIPServerContainer(kId, limit, port, withDatagramServer)
    {
    }
    ~CTestContainer() override { Shutdown(); }

    CServerConnection* First()
    {
        CServerConnection* found = nullptr;
        ForEachClient([&](CKelIPConnection& connection) {
            if (found == nullptr && !connection.IsDatagramServer())
                found = dynamic_cast<CServerConnection*>(&connection);
        });
        return found;
    }

    std::atomic<bool> m_bRefuse{false};

protected:
    CKelIPConnection* CreateNewClass(CKelIPBase::EProtocol, int socket) override
    {
        return m_bRefuse ? nullptr : new CServerConnection(this, socket);
    }
    CKelIPConnection* CreateUdpServer(unsigned short port) override
    {
        return new CRecordingConnection(GetId(), port, true);
    }
};

TEST(KelIPServerLimit, PurgeFreesSlotsButKeepsAnEntryWhoseReadThreadRuns)
{
    CTestContainer container(1);
    container.StartListening();
    CRecordingConnection client;
    ASSERT_EQ(eKelIPSuccess, Connect(client, container.GetPort()));
    CServerConnection* server = nullptr;
    ASSERT_TRUE(WaitUntil([&] { return (server = container.First()) != nullptr; }));
    // Holds the server's read thread inside DataInd.
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    server->m_fOnData = [&](CRecordingConnection&, const std::string&) {
        entered.set_value();
        released.wait();
    };
    ASSERT_EQ(eKelIPSuccess, client.DataReq(CKelMsg(0x0203, 1, "x", 1), 1000));
    ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(std::chrono::seconds(5)));

    // Ended while its read thread is held: the purge neither removes it nor
    // waits for it (destroying it would join the held thread).
    EXPECT_EQ(eKelIPSuccess, server->CloseConnection());
    auto purge = std::async(std::launch::async, [&] { return container.RemoveClient(); });
    EXPECT_EQ(std::future_status::ready, purge.wait_for(std::chrono::seconds(2)));
    EXPECT_EQ(1u, CountEntries(container));
    release.set_value();
    EXPECT_FALSE(purge.get());
    EXPECT_TRUE(WaitUntil([&] { return CountEntries(container) == 0 || container.RemoveClient(); }));
    EXPECT_EQ(0u, CountEntries(container));
    EXPECT_TRUE(client.WaitForConnectInd(false, 1));
    CRecordingConnection next; // the only slot is free again
    EXPECT_EQ(eKelIPSuccess, Connect(next, container.GetPort()));
}

// The base container's own connections, with a limit of two; a derived one beside it.
TEST(KelIPServerListening, TwoContainersServeTheirOwnClientsUpToTheLimit)
{
    CKelIPServerContainer first(kId, 2, 0, false);
    auto second = std::make_unique<CTestContainer>(4);
    first.StartListening();
    second->StartListening();
    ASSERT_TRUE(first.IsServerListening());
    ASSERT_NE(first.GetPort(), second->GetPort());

    CRecordingConnection a, b, c;
    EXPECT_EQ(eKelIPSuccess, Connect(a, first.GetPort()));
    EXPECT_EQ(eKelIPSuccess, Connect(b, first.GetPort()));
    EXPECT_EQ(eKelIPSuccess, Connect(c, second->GetPort()));
    // A client above the limit gets result 1 and is closed.
    EXPECT_EQ(MakeMsg(0x8201, 1, "\x01"), RawConnectAnswer(first.GetPort(), true));
    EXPECT_TRUE(WaitUntil([&] { return first.CountActiveTCPConnections() == 2; }));
    EXPECT_FALSE(first.IsConnectionLimitExceeded());
    EXPECT_EQ(1u, second->CountActiveTCPConnections());

    second.reset(); // disconnects its client only
    EXPECT_TRUE(c.WaitForConnectInd(false, 1));
    EXPECT_TRUE(WaitUntil([&] { return c.GetState() == CKelIPBase::eDisconnected; }));
    EXPECT_EQ(2u, first.CountActiveTCPConnections());
    EXPECT_EQ(0, a.ConnectIndCount(false) + b.ConnectIndCount(false));
    EXPECT_TRUE(a.GetState() == CKelIPBase::eConnected && b.GetState() == CKelIPBase::eConnected);
}

// Bound to the loopback address first, accepting later: a peer waits in the
// backlog until listening starts. Bind failures come back as errno and leave
// the container listening without a server.
TEST(KelIPServerListening, BindsFirstAndAcceptsOnceListening)
{
    CTestContainer container(4);
    ASSERT_EQ(0, container.Bind(LOOPBACK));
    ASSERT_NE(0, container.GetPort());
    EXPECT_TRUE(container.IsServerListening());
    EXPECT_EQ(EALREADY, container.Bind(LOOPBACK));
    CTestContainer taken(4, false, container.GetPort());
    EXPECT_EQ(EADDRINUSE, taken.Bind(LOOPBACK));
    EXPECT_FALSE(taken.StartListening());
    EXPECT_TRUE(taken.IsListening() && !taken.IsServerListening());
    CTestContainer named(4);
    EXPECT_EQ(EINVAL, named.Bind("localhost")); // names are never looked up
    EXPECT_FALSE(named.IsServerListening());

    CRawPeer raw;
    ASSERT_TRUE(raw.Connect(container.GetPort())); // in the backlog
    ASSERT_TRUE(raw.Send(MakeMsg(0x0201, 1)));
    EXPECT_EQ(0u, CountEntries(container));
    EXPECT_TRUE(container.StartListening());
    EXPECT_EQ(MakeMsg(0x8201, 1, std::string(1, '\0')), raw.ReceiveMessage());
    EXPECT_EQ(1u, container.CountActiveTCPConnections());
    EXPECT_FALSE(container.StartListening()); // once only
}

TEST(KelIPServerDerived, DerivedConnectionDecidesAndAnswers)
{
    CTestContainer container(4);
    container.StartListening();
    CRecordingConnection refused, accepted;
    EXPECT_EQ(eKelIPNotConnected, Connect(refused, container.GetPort(), "no"));
    EXPECT_EQ(eKelIPSuccess, Connect(accepted, container.GetPort(), "yes"));
    CServerConnection* server = nullptr;
    ASSERT_TRUE(WaitUntil([&] { return (server = container.First()) != nullptr; }));
    EXPECT_EQ(1, server->ConnectIndCount(true));
    EXPECT_EQ("127.0.0.1", server->GetPeerAddress());
    // The server's read thread answers from inside DataInd.
    ASSERT_EQ(eKelIPSuccess, accepted.DataReq(CKelMsg(0x0203, 1, "abc", 3), 1000));
    ASSERT_TRUE(accepted.WaitForMessages(1));
    EXPECT_EQ(MakeMsg(0x0203, 1, "abc"), accepted.Messages()[0]);

    // CreateNewClass refusing the socket: result 0xFF, then closed.
    container.m_bRefuse = true;
    EXPECT_EQ(MakeMsg(0x8201, 1, "\xFF"), RawConnectAnswer(container.GetPort(), false));
    EXPECT_EQ(1u, container.CountActiveTCPConnections());
}

TEST(KelIPServerDatagram, EndpointTalksToTheClientThatConnected)
{
    CTestContainer container(4, true);
    container.StartListening();
    auto* endpoint = dynamic_cast<CRecordingConnection*>(container.GetDatagramServer());
    ASSERT_NE(nullptr, endpoint);
    EXPECT_EQ(1u, CountEntries(container));
    EXPECT_EQ(CKelIPBase::eWaitingForPeer, endpoint->GetState());
    CRecordingConnection client;
    ASSERT_EQ(eKelIPSuccess,
              client.ConnectReq(LOOPBACK, container.GetPort(), WAIT_MS, kId, CKelIPBase::eUDP, "", true));
    EXPECT_EQ(CKelIPBase::eConnected, endpoint->GetState());
    EXPECT_EQ(1, endpoint->ConnectIndCount(true));

    const std::string request = MakeMsg(0x0203, 3, "one"), answer = MakeMsg(0x0203, 5, "back");
    ASSERT_EQ(eKelIPSuccess, client.DataReq(request.data(), static_cast<unsigned short>(request.size()), 1000));
    ASSERT_TRUE(endpoint->WaitForMessages(1));
    EXPECT_EQ(request, endpoint->Messages()[0]);
    ASSERT_EQ(eKelIPSuccess, endpoint->DataReq(answer.data(), static_cast<unsigned short>(answer.size()), 1000));
    ASSERT_TRUE(client.WaitForMessages(1));
    EXPECT_EQ(answer, client.Messages()[0]);
    // Disconnecting returns the endpoint to waiting for a peer.
    EXPECT_EQ(eKelIPSuccess, client.DisconnectReq(WAIT_MS));
    EXPECT_TRUE(WaitUntil([&] { return endpoint->GetState() == CKelIPBase::eWaitingForPeer; }));
    EXPECT_EQ(1, endpoint->ConnectIndCount(false));
    EXPECT_EQ(0u, container.CountActiveTCPConnections());
}
} // namespace
