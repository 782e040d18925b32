// A fresh store in a directory of its own, gone after the test.
#pragma once

#include <array>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/host/store.h"
#include "platform/zkcfgif.h"

class TemporaryStore : public testing::Test {
protected:
    TemporaryStore()
    {
        std::string pattern = testing::TempDir() + "ovani-store-XXXXXX";
        directory_ = mkdtemp(pattern.data());
        use(directory_ + "/made/on/demand/store.db");
    }

    ~TemporaryStore() override
    {
        store_close();
        std::filesystem::remove_all(directory_);
    }

    void use(const std::string &file)
    {
        store_close();
        file_ = file;
        setenv("OVANI_STORE", file.c_str(), 1);
    }

    std::string directory_;
    std::string file_;
};

// A parameter's value, or what is wrong with it.
inline std::string get(const std::string &path)
{
    std::array<char, 256> value{"untouched"};
    int result = zkapi_singlevalue_get(path.c_str(), value.data(), DEVFUNC_NOCALL, 5000);
    return result == 0 ? value.data() : std::string(value.data()) + ", " + store_strerror(result);
}
