// A program run by a test, with its standard output and error in a file of
// its own; killed at the end if it still runs. A program run to its end, with
// its output and error apart. And, inside the SocketCAN VM, cansend and
// candump.
#ifndef ORVANE_TEST_CHILD_PROCESS_H
#define ORVANE_TEST_CHILD_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace OrvaneTest
{

class CChildProcess
{
public:
    // Runs sProgram (default asArgs[0]): a path, or a name found on PATH.
    explicit CChildProcess(const std::vector<std::string>& asArgs, const std::string& sProgram = "");
    ~CChildProcess();
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    // True once sText has appeared in the output within nTimeoutMs.
    bool WaitForOutput(const std::string& sText, unsigned int nTimeoutMs = 10000) const;
    // The exit status once the program has ended within nTimeoutMs, else -1.
    int WaitExit(unsigned int nTimeoutMs = 10000);
    int Stop(int nSignal); // sends the signal, then WaitExit
    void Signal(int nSignal);
    pid_t Pid() const { return m_nPid; }
    std::string Output() const;

private:
    pid_t m_nPid = -1;
    int m_nStatus = -1;
    std::string m_sOutputPath;
};

// True when nStatus (from WaitExit or Stop) says the program exited with nCode.
bool ExitedWith(int nStatus, int nCode);

struct SProgramRun
{
    int nExit = -1; // exit code; -1 when killed (by a signal, or for running too long)
    std::string sOut;
    std::string sErr;
};

// Runs asArgs[0] (a path, or a name found on PATH) with no input, in sDir
// when one is given, and waits for its end; after nTimeoutMs it is killed.
SProgramRun RunProgram(const std::vector<std::string>& asArgs, const std::string& sDir = "",
                       unsigned int nTimeoutMs = 10000);

// The words of sLine, separated by blanks.
std::vector<std::string> Words(const std::string& sLine);

// Runs cansend; true when it wrote sFrame ("123#1122") on sInterface.
bool CanSend(const std::string& sInterface, const std::string& sFrame);

// candump -L on one interface, stopped when the object goes.
class CCanDump
{
public:
    explicit CCanDump(const std::string& sInterface);

    // Sends probe frames with cansend until candump prints one, so that every
    // frame sent afterwards is seen. False if candump never listened.
    bool WaitUntilListening();
    // The next frame that is not a probe as candump logs it, without time
    // stamp and interface (e.g. "123#1122", "1F334455#R"); "" when none comes
    // within nTimeoutMs.
    std::string NextFrame(unsigned int nTimeoutMs = 10000);

private:
    std::string m_sInterface;
    CChildProcess m_oCandump;
    size_t m_nDone = 0; // how much of candump's output has been read
};

} // namespace OrvaneTest

#endif
