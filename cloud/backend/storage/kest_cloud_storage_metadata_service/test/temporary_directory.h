#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace kest::cloud::storage::metadatadb::test {

/** A fresh directory, removed with everything in it on destruction. */
class TemporaryDirectory
{
public:
    TemporaryDirectory()
    {
        namespace fs = std::filesystem;
        std::string pattern = (fs::temp_directory_path() / "metadata_service_test.XXXXXX").string();
        m_path = ::mkdtemp(pattern.data());
    }
    ~TemporaryDirectory() { std::filesystem::remove_all(m_path); }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

}  // namespace kest::cloud::storage::metadatadb::test
