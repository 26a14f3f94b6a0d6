#include "ChildProcess.h"

#include "Wait.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>

namespace OrvaneTest
{

CChildProcess::CChildProcess(const std::vector<std::string>& asArgs, const std::string& sProgram)
{
    static std::atomic<int> s_nCount{0};
    m_sOutputPath = "/tmp/orvane-test-" + std::to_string(getpid()) + "-" + std::to_string(++s_nCount) + ".log";
    std::vector<std::string> asCopy(asArgs);
    std::vector<char*> apArgv;
    for (std::string& sArg : asCopy)
        apArgv.push_back(&sArg[0]);
    apArgv.push_back(nullptr);
    const int nOut = open(m_sOutputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    m_nPid = fork();
    if (m_nPid == 0)
    {
        dup2(nOut, 1);
        dup2(nOut, 2);
        execvp(sProgram.empty() ? apArgv[0] : sProgram.c_str(), apArgv.data());
        _exit(127);
    }
    close(nOut);
}

CChildProcess::~CChildProcess()
{
    if (m_nPid > 0)
        Stop(SIGKILL);
    unlink(m_sOutputPath.c_str());
}

bool CChildProcess::WaitForOutput(const std::string& sText, unsigned int nTimeoutMs) const
{
    return WaitUntil([&] { return Output().find(sText) != std::string::npos; }, nTimeoutMs);
}

int CChildProcess::WaitExit(unsigned int nTimeoutMs)
{
    if (m_nPid > 0 && WaitUntil([&] { return waitpid(m_nPid, &m_nStatus, WNOHANG) == m_nPid; }, nTimeoutMs))
        m_nPid = -1;
    return m_nPid > 0 ? -1 : m_nStatus;
}

int CChildProcess::Stop(int nSignal)
{
    if (m_nPid > 0)
        kill(m_nPid, nSignal);
    return WaitExit();
}

void CChildProcess::Signal(int nSignal)
{
    if (m_nPid > 0)
        kill(m_nPid, nSignal);
}

std::string CChildProcess::Output() const
{
    std::ifstream oFile(m_sOutputPath);
    std::stringstream oText;
    oText << oFile.rdbuf();
    return oText.str();
}

} // namespace OrvaneTest
