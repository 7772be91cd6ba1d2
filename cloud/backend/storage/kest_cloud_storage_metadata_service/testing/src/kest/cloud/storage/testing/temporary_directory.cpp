#include "temporary_directory.h"

#include <stdlib.h>

#include <filesystem>

namespace kest::cloud::storage::metadatadb::test {

TemporaryDirectory::TemporaryDirectory()
{
    namespace fs = std::filesystem;
    std::string pattern = (fs::temp_directory_path() / "metadata_storage.XXXXXX").string();
    m_path = ::mkdtemp(pattern.data());
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

}  // namespace kest::cloud::storage::metadatadb::test
