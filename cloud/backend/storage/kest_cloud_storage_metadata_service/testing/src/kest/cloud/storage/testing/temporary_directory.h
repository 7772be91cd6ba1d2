#pragma once

#include <string>

namespace kest::cloud::storage::metadatadb::test {

/** A fresh directory under the system's temporary one, removed with its contents on destruction. */
class TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

}  // namespace kest::cloud::storage::metadatadb::test
