// The send queue of one client connection and the thread that empties it.
// Confirmations and indications leave in the order they were posted, and no
// thread that posts ever waits for a slow client: when the queue is full, new
// indications are dropped and counted.
#ifndef GATEWAY_SIM_OUTBOX_H
#define GATEWAY_SIM_OUTBOX_H

#include "SimCounters.h"
#include "libKelMutex.h"
#include "libKelThread.h"

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <deque>
#include <string>

namespace GatewaySim
{

// Where an outbox writes to.
class ITelegramLink
{
public:
    virtual ~ITelegramLink() = default;
    // Sends one or more whole telegrams; false when the connection is gone.
    virtual bool SendBytes(const std::string& sBytes) = 0;
    // Ends the connection without a disconnect message.
    virtual void CloseLink() = 0;
};

class COutbox
{
public:
    COutbox(ITelegramLink& oLink, SSimCounters& oCounters, std::size_t nMaxQueued);
    ~COutbox();

    COutbox(const COutbox&) = delete;
    COutbox& operator=(const COutbox&) = delete;

    bool Start();
    // Confirmations are never dropped.
    void PostConfirmation(const std::string& sBytes);
    // False when the queue is full and the indication was dropped.
    bool PostIndication(const std::string& sBytes);
    // Closes the link once everything posted before has been sent.
    void PostClose();
    // Stops the writer; what is still queued is discarded. Called on the
    // writer thread itself (the link was lost inside a send), it only marks
    // the stop and the writer ends after that send.
    void Stop();

private:
    enum class EKind
    {
        eConfirmation,
        eIndication,
        eClose
    };
    struct SItem
    {
        EKind eKind;
        std::string sBytes;
    };

    class CWriter : public CKelThread
    {
    public:
        explicit CWriter(COutbox& oOwner) : m_roOwner(oOwner) {}
        ~CWriter() override { Terminate(); }

    protected:
        void Run() override { m_roOwner.WriterLoop(); }

    private:
        COutbox& m_roOwner;
    };

    void Post(EKind eKind, const std::string& sBytes);
    void WriterLoop();
    bool OnWriterThread() const;

    ITelegramLink& m_roLink;
    SSimCounters& m_roCounters;
    const std::size_t m_nMaxQueued;
    CKelMutex m_oMutex; // guards m_aoQueue
    std::deque<SItem> m_aoQueue;
    CKelEvent m_oWake;
    CKelMutex m_oJoinMutex; // serialises joining the writer
    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bWriterKnown{false};
    pthread_t m_hWriter{};
    CWriter m_oWriter;
};

} // namespace GatewaySim

#endif
