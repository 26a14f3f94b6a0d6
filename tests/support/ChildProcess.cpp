#include "ChildProcess.h"

#include "TempDir.h"
#include "Wait.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <sstream>

namespace OrvaneTest
{
namespace
{

// What CCanDump sends to see that candump listens.
const std::string PROBE = "1FFFFFFF#5EED";

// A file name of its own for each output of this test process.
std::string OutputPath(const char* pcSuffix)
{
    static std::atomic<int> s_nCount{0};
    return "/tmp/orvane-test-" + std::to_string(getpid()) + "-" + std::to_string(++s_nCount) + pcSuffix;
}

int Create(const std::string& sPath)
{
    return open(sPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
}

// Starts sProgram (default asArgs[0]) with no input, its standard output on
// nOut and its error on nErr, in sDir when one is given.
pid_t Spawn(const std::vector<std::string>& asArgs, const std::string& sProgram, int nOut, int nErr,
            const std::string& sDir = "")
{
    std::vector<std::string> asCopy(asArgs);
    std::vector<char*> apArgv;
    for (std::string& sArg : asCopy)
        apArgv.push_back(&sArg[0]);
    apArgv.push_back(nullptr);
    const pid_t nPid = fork();
    if (nPid == 0)
    {
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
        dup2(nOut, 1);
        dup2(nErr, 2);
        if (sDir.empty() || chdir(sDir.c_str()) == 0)
            execvp(sProgram.empty() ? apArgv[0] : sProgram.c_str(), apArgv.data());
        _exit(127);
    }
    return nPid;
}

} // namespace

CChildProcess::CChildProcess(const std::vector<std::string>& asArgs, const std::string& sProgram)
    : m_sOutputPath(OutputPath(".log"))
{
    const int nOut = Create(m_sOutputPath);
    m_nPid = Spawn(asArgs, sProgram, nOut, nOut);
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
    Signal(nSignal);
    return WaitExit();
}

void CChildProcess::Signal(int nSignal)
{
    if (m_nPid > 0)
        kill(m_nPid, nSignal);
}

std::string CChildProcess::Output() const
{
    return ReadFile(m_sOutputPath);
}

bool ExitedWith(int nStatus, int nCode)
{
    return nStatus >= 0 && WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == nCode;
}

SProgramRun RunProgram(const std::vector<std::string>& asArgs, const std::string& sDir, unsigned int nTimeoutMs)
{
    const std::string asPaths[2] = {OutputPath(".out"), OutputPath(".err")};
    const int anFiles[2] = {Create(asPaths[0]), Create(asPaths[1])};
    const pid_t nPid = Spawn(asArgs, "", anFiles[0], anFiles[1], sDir);
    close(anFiles[0]);
    close(anFiles[1]);
    int nStatus = -1;
    if (!WaitUntil([&] { return waitpid(nPid, &nStatus, WNOHANG) == nPid; }, nTimeoutMs))
    {
        kill(nPid, SIGKILL);
        waitpid(nPid, &nStatus, 0);
    }
    SProgramRun oRun;
    oRun.nExit = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    oRun.sOut = ReadFile(asPaths[0]);
    oRun.sErr = ReadFile(asPaths[1]);
    unlink(asPaths[0].c_str());
    unlink(asPaths[1].c_str());
    return oRun;
}

std::vector<std::string> Words(const std::string& sLine)
{
    std::vector<std::string> asWords;
    std::istringstream oWords(sLine);
    for (std::string sWord; oWords >> sWord;)
        asWords.push_back(sWord);
    return asWords;
}

bool CanSend(const std::string& sInterface, const std::string& sFrame)
{
    return RunProgram({"cansend", sInterface, sFrame}).nExit == 0;
}

CCanDump::CCanDump(const std::string& sInterface) : m_sInterface(sInterface), m_oCandump({"candump", "-L", sInterface})
{
}

bool CCanDump::WaitUntilListening()
{
    const std::string sLine = PROBE + "\n";
    size_t nAt = std::string::npos;
    // A probe sent before candump bound its socket is never printed: send
    // another one whenever candump stays quiet for a while.
    for (int nProbe = 0; nProbe < 50 && CanSend(m_sInterface, PROBE); ++nProbe)
    {
        if (WaitUntil([&] { return (nAt = m_oCandump.Output().find(sLine, m_nDone)) != std::string::npos; }, 200))
        {
            m_nDone = nAt + sLine.size();
            return true;
        }
    }
    return false;
}

std::string CCanDump::NextFrame(unsigned int nTimeoutMs)
{
    std::string sFrame;
    WaitUntil(
        [&] {
            // Lines look like "(time) vcan0 123#11".
            const std::string sOutput = m_oCandump.Output();
            for (size_t nEnd; sFrame.empty() && (nEnd = sOutput.find('\n', m_nDone)) != std::string::npos;
                 m_nDone = nEnd + 1)
            {
                const std::string sLine = sOutput.substr(m_nDone, nEnd - m_nDone);
                if (sLine.substr(sLine.rfind(' ') + 1) != PROBE)
                    sFrame = sLine.substr(sLine.rfind(' ') + 1);
            }
            return !sFrame.empty();
        },
        nTimeoutMs);
    return sFrame;
}

} // namespace OrvaneTest
