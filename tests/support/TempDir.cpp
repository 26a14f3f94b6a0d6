#include "TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace OrvaneTest
{

CTempDir::CTempDir()
{
    char acDir[] = "/tmp/orvane-test-XXXXXX";
    if (mkdtemp(acDir) != nullptr)
        m_sPath = acDir;
}

CTempDir::~CTempDir()
{
    std::error_code oError;
    if (!m_sPath.empty())
        std::filesystem::remove_all(m_sPath, oError);
}

std::string CTempDir::Write(const std::string& sName, const std::string& sContent) const
{
    const std::string sPath = m_sPath + "/" + sName;
    std::ofstream(sPath, std::ios::binary) << sContent;
    return sPath;
}

std::string CTempDir::Read(const std::string& sName) const
{
    return ReadFile(m_sPath + "/" + sName);
}

std::string ReadFile(const std::string& sPath)
{
    std::ostringstream oText;
    oText << std::ifstream(sPath, std::ios::binary).rdbuf();
    return oText.str();
}

size_t Entries(const std::string& sFolder)
{
    std::error_code oError;
    using CEntries = std::filesystem::directory_iterator;
    return static_cast<size_t>(std::distance(CEntries(sFolder, oError), CEntries()));
}

} // namespace OrvaneTest
