// A temporary folder of one test, removed with everything in it; reading a
// whole file and counting a folder's entries.
#ifndef ORVANE_TEST_TEMP_DIR_H
#define ORVANE_TEST_TEMP_DIR_H

#include <cstddef>
#include <string>

namespace OrvaneTest
{

class CTempDir
{
public:
    CTempDir(); // under /tmp; empty Path() when it could not be made
    ~CTempDir();
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;

    const std::string& Path() const { return m_sPath; }
    // Writes sName in the folder with sContent; returns its path.
    std::string Write(const std::string& sName, const std::string& sContent) const;
    std::string Read(const std::string& sName) const;

private:
    std::string m_sPath;
};

// The whole file, or "" when it cannot be read.
std::string ReadFile(const std::string& sPath);
// How many entries the folder has (0 when it cannot be read).
size_t Entries(const std::string& sFolder);

} // namespace OrvaneTest

#endif
