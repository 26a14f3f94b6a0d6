#include "libKelThread.h"

#include <cxxabi.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <typeinfo>

namespace
{
void* ThreadEntry(void* pArgument)
{
    return CKelThread::ThreadProc(static_cast<CKelThread*>(pArgument));
}

// One line on stderr naming the thread by its class and what ended it.
void ReportEscapedException(const CKelThread& oThread, const char* pcWhat)
{
    const char* const mangled = typeid(oThread).name();
    int status = -1;
    char* const demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::fprintf(stderr, "+++ error: thread %s ended by an exception: %s\n",
                 status == 0 && demangled != nullptr ? demangled : mangled, pcWhat);
    std::free(demangled);
}
} // namespace

CKelThread::CKelThread(unsigned int nStackSize)
    : m_hThread(0), m_bAttributesValid(false), m_nStackSize(nStackSize), m_nState(eCreated)
{
    InitAttributes();
}

CKelThread::~CKelThread()
{
    JoinThread();
    if (m_bAttributesValid)
        pthread_attr_destroy(&m_oAttributes);
}

void CKelThread::InitAttributes()
{
    pthread_attr_init(&m_oAttributes);
    if (m_nStackSize != 0)
        pthread_attr_setstacksize(&m_oAttributes, m_nStackSize);
    m_bAttributesValid = true;
}

bool CKelThread::Start()
{
    const int state = GetState();
    if (state == eStarting || state == eRunning)
        return false;

    // A thread that finished by itself has not been joined yet; join it
    // before its handle is replaced so that its resources are released.
    if (m_hThread != 0)
    {
        pthread_join(m_hThread, nullptr);
        m_hThread = 0;
    }
    if (!m_bAttributesValid)
        InitAttributes();

    m_nState.store(eStarting, std::memory_order_relaxed);
    m_bInitializeFailed = false;
    pthread_t handle;
    if (pthread_create(&handle, &m_oAttributes, ThreadEntry, this) != 0)
    {
        m_nState.store(eFinished, std::memory_order_relaxed);
        return false;
    }
    m_hThread = handle;
    m_oStartedEvent.Wait(KEL_INFINITE);
    // Written before the started event was signalled.
    return !m_bInitializeFailed;
}

void CKelThread::JoinThread()
{
    if (m_hThread == 0)
        return;
    m_oTerminationEvent.Signal();
    pthread_join(m_hThread, nullptr);
    if (m_bAttributesValid)
    {
        pthread_attr_destroy(&m_oAttributes);
        m_bAttributesValid = false;
    }
    // Nobody else signals the event now that the thread is gone.
    m_oTerminationEvent.Reset();
    m_hThread = 0;
}

void CKelThread::Terminate()
{
    JoinThread();
}

bool CKelThread::IsTerminationRequested()
{
    return m_oTerminationEvent.Wait(0);
}

// The sanitizer's null check is off here: a forced unwind carries no C++
// object, so its handler's reference is bound to null, which is reported
// although catching it this way is the documented idiom.
__attribute__((no_sanitize("null"))) bool CKelThread::CallGuarded(void (CKelThread::*pStep)())
{
    try
    {
        (this->*pStep)();
        return true;
    }
    catch (abi::__forced_unwind&)
    {
        // pthread_exit or a cancellation unwinds the thread: not an error,
        // and the C library aborts the process unless the unwind goes on.
        throw;
    }
    catch (const std::exception& exception)
    {
        ReportEscapedException(*this, exception.what());
    }
    catch (...)
    {
        ReportEscapedException(*this, "unknown exception");
    }
    return false;
}

void* CKelThread::ThreadProc(CKelThread* poThread)
{
    // However the thread ends (Run returns, an exception, or an unwind that
    // passes through here), it ends finished and never leaves Start waiting.
    struct SEnd
    {
        CKelThread& thread;
        bool started;
        ~SEnd()
        {
            thread.m_nState.store(eFinished, std::memory_order_relaxed);
            if (!started)
            {
                thread.m_bInitializeFailed = true;
                thread.m_oStartedEvent.Signal();
            }
        }
    } end{*poThread, false};

    if (!poThread->CallGuarded(&CKelThread::Initialize))
        return nullptr;
    end.started = true;
    poThread->m_oStartedEvent.Signal();
    poThread->m_nState.store(eRunning, std::memory_order_relaxed);
    poThread->CallGuarded(&CKelThread::Run);
    return nullptr;
}

void CKelThread::Sleep(long nSeconds, long nMilliseconds)
{
    usleep(static_cast<useconds_t>((nSeconds * 1000 + nMilliseconds) * 1000));
}

void CKelThread::GetTimeCurrent(long* pnSeconds, long* pnNanoseconds)
{
    timeval now;
    gettimeofday(&now, nullptr);
    *pnSeconds = now.tv_sec;
    *pnNanoseconds = now.tv_usec * 1000;
}

void CKelThread::GetTime(long* pnSeconds, long* pnNanoseconds, long nAddSeconds, long nAddNanoseconds)
{
    long nowSeconds = 0;
    long nowNanoseconds = 0;
    GetTimeCurrent(&nowSeconds, &nowNanoseconds);
    long long totalNs = static_cast<long long>(nowNanoseconds) + nAddNanoseconds;
    long long totalS = static_cast<long long>(nowSeconds) + nAddSeconds + totalNs / 1000000000LL;
    totalNs %= 1000000000LL;
    if (totalNs < 0)
    {
        totalNs += 1000000000LL;
        totalS -= 1;
    }
    *pnSeconds = static_cast<long>(totalS);
    *pnNanoseconds = static_cast<long>(totalNs);
}
