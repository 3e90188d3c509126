#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "StreamBuilder.h"

namespace made {

/// A directory of one test's own, removed with everything in it at the end.
class TempDirectory
{
 public:
    TempDirectory()
    {
        std::string name = testing::TempDir() + "tsmon-XXXXXX";
        EXPECT_NE(mkdtemp(name.data()), nullptr) << name;
        m_path = name;
    }

    ~TempDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    std::string Path(const std::string& name) const { return m_path + "/" + name; }

    /// Makes a file in it and returns its path.
    std::string Write(const std::string& name, const Bytes& contents) const
    {
        std::ofstream file(Path(name), std::ios::binary);
        file.write(reinterpret_cast<const char*>(contents.data()),
                   static_cast<std::streamsize>(contents.size()));
        EXPECT_TRUE(file.flush().good()) << name;
        return Path(name);
    }

 private:
    std::string m_path;
};

} // namespace made
