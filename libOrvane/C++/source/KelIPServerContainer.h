// CKelIPServerContainer: the listening side. Owns a CKelIPServer on a port,
// one server-side CKelIPConnection per accepted socket, and optionally one
// datagram endpoint on the same port number. Peers connect with ConnectReq
// (connection messages on, the container's id); the container's connection
// limit is enforced through the connect confirmation (result 1).
//
// Using it (e.g. a gateway simulator for the CAN device type 2):
//   class CSimConnection : public CKelIPConnection {
//   public:
//       using CKelIPConnection::CKelIPConnection;
//       ~CSimConnection() override { Shutdown(); }
//       void DataInd(const char* data, unsigned short length) override;
//   };
//   class CSimContainer : public CKelIPServerContainer {
//   public:
//       CSimContainer() : CKelIPServerContainer(2, 8, 5001, false) {}
//       ~CSimContainer() override { Shutdown(); }
//   protected:
//       CKelIPConnection* CreateNewClass(CKelIPBase::EProtocol p, int s) override
//       { return new CSimConnection(this, GetId(), p, s, true); }
//   };
//   container.StartListening();
// CreateNewClass runs on the listen thread with the list mutex held; return
// null to refuse the socket (the peer gets connect result 0xFF). A derived
// container calls Shutdown() first in its destructor so that the listen
// thread no longer calls into the derived part.
#ifndef KEL_IP_SERVER_CONTAINER_H
#define KEL_IP_SERVER_CONTAINER_H

#include "KelIPBase.h"
#include "libKelMutex.h"

#include <forward_list>
#include <functional>
#include <memory>

class CKelIPConnection;
class CKelIPServer;

class CKelIPServerContainer
{
public:
    // Stores the values; nothing is opened. `nConnectionLimit` is also the
    // listen backlog. Port 0 lets the system choose; StartListening then
    // stores the chosen port.
    CKelIPServerContainer(unsigned char nId, int nConnectionLimit, unsigned short nPort, bool bWithDatagramServer);
    virtual ~CKelIPServerContainer();

    CKelIPServerContainer(const CKelIPServerContainer&) = delete;
    CKelIPServerContainer& operator=(const CKelIPServerContainer&) = delete;

    // Once only, before StartListening: binds the port on `pcAddress` (a
    // numeric IPv4 address; null: every address) and listens without
    // accepting yet, so that peers wait in the backlog. With port 0 GetPort
    // tells the chosen port from here on. 0 on success, else the errno of the
    // failing step (EALREADY when a server exists already).
    int Bind(const char* pcAddress);
    // Once only: starts accepting on the server Bind made, or else on a new
    // one bound to every address, and creates the datagram endpoint if wanted
    // (started, at the head of the client list). True when the server listens
    // and its listen thread runs.
    bool StartListening();

    // Wraps an accepted socket with CreateNewClass: ConnectInd(true), read
    // thread started, entry at the head of the list, true. When
    // CreateNewClass refuses: connect confirmation 0xFF on the raw socket,
    // socket closed, false.
    bool AddClient(CKelIPBase::EProtocol eProtocol, int nSocket);
    // Purge: removes and destroys every entry whose socket is -1 or whose
    // state is 1, once its read thread has finished. True when an entry with
    // socket -1 was removed.
    bool RemoveClient();
    // As the purge, for the entry with the given socket (or state 1).
    bool RemoveClient(int nSocket);

    // Purges, then counts the connected (state 3) entries that are not the
    // datagram endpoint.
    unsigned int CountActiveTCPConnections();
    // More connected entries than the limit.
    bool IsConnectionLimitExceeded();

    // Calls `oVisit` for every entry under the list mutex (head first). The
    // visitor must not call back into the container.
    void ForEachClient(const std::function<void(CKelIPConnection&)>& oVisit);

    unsigned char GetId() const { return m_nId; }
    int GetConnectionLimit() const { return m_nConnectionLimit; }
    unsigned short GetPort() const { return m_nPort; }
    bool IsListening() const { return m_bListening; }
    // True while the TCP server is in state 5 (bound and listening).
    bool IsServerListening() const;
    CKelIPConnection* GetDatagramServer() const { return m_poDatagramServer; }

protected:
    // Default: new CKelIPConnection(this, id, protocol, socket, true). Return
    // a derived connection, or null to refuse.
    virtual CKelIPConnection* CreateNewClass(CKelIPBase::EProtocol eProtocol, int nSocket);
    // Default: new CKelIPConnection(id, port, true).
    virtual CKelIPConnection* CreateUdpServer(unsigned short nPort);

    // What the destructor does: server, then datagram endpoint, then every
    // connection destroyed. Safe to call more than once.
    void Shutdown();

private:
    // Takes the finished entries out of the list (caller holds the mutex).
    bool TakeFinished(int nSocket, std::forward_list<std::unique_ptr<CKelIPConnection>>& aoOut);

    unsigned char m_nId;
    int m_nConnectionLimit;
    std::forward_list<std::unique_ptr<CKelIPConnection>> m_aoClients; // new entries at the head
    CKelMutex m_oListMutex;
    CKelIPConnection* m_poDatagramServer; // owned through m_aoClients
    std::unique_ptr<CKelIPServer> m_poIPServer;
    unsigned short m_nPort;
    bool m_bWithDatagramServer;
    bool m_bListening;
};

#endif
