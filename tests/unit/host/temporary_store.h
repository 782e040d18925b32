// A fresh store in a directory of its own, gone after the test, and short ways to say what is done to it.
#pragma once

#include <array>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/host/store.h"
#include "platform/zkcfgif.h"

class TemporaryStore : public testing::Test {
protected:
    TemporaryStore()
    {
        std::string pattern = testing::TempDir() + "ovani-store-XXXXXX";
        directory_ = std::string(mkdtemp(pattern.data())) + "/";
        use("made/on/demand/store.db");
    }
    ~TemporaryStore() override
    {
        store_close();
        std::filesystem::remove_all(directory_);
    }

    void use(const std::string &name)
    {
        store_close();
        file_ = directory_ + name;
        setenv("OVANI_STORE", file_.c_str(), 1);
    }

    std::string directory_;
    std::string file_;
};

inline std::string result_text(int code)
{
    return code == 0 ? "ok" : store_strerror(code);
}

// A parameter's value, or what is wrong with it; a failure leaves the buffer alone.
inline std::string get(const std::string &path, int wait = 5000)
{
    std::array<char, 256> value{"untouched"};
    const int code = zkapi_singlevalue_get(path.c_str(), value.data(), DEVFUNC_NOCALL, wait);
    EXPECT_TRUE(code == 0 || value.data() == std::string("untouched")) << path;
    return code == 0 ? value.data() : result_text(code);
}

inline std::string set(const std::string &path, const std::string &value, int wait = 5000)
{
    return result_text(zkapi_singlevalue_set(path.c_str(), value.c_str(), DEVFUNC_NOCALL, wait));
}

// The new instance's number, or what is wrong.
inline std::string add(const std::string &table)
{
    int instance = 0;
    const int code = zkapi_obj_add(table.c_str(), &instance, DEVFUNC_NOCALL_NOINFORM, ALL_BLOCK_LOCK);
    return code == 0 ? std::to_string(instance) : result_text(code);
}

inline std::string del(const std::string &table, int instance)
{
    return result_text(zkapi_obj_del(table.c_str(), instance, DEVFUNC_NOCALL, 5000));
}

// Does what a script says, "get PATH = VALUE | set PATH VALUE = ok | add TABLE = NUMBER | del TABLE NUMBER =
// ok", and expects what it says. Paths go on from LANDevice.1.Hosts, or from a dot at the root.
inline void check(const std::string &script)
{
    std::istringstream steps(script);
    for (std::string step; std::getline(steps, step, '|');) {
        const size_t equals = std::min(step.find(" ="), step.size());
        std::istringstream words(step.substr(0, equals));
        std::string verb;
        std::string path;
        std::string value;
        words >> verb >> path >> value;
        if (verb == "close") {
            store_close();
            continue;
        }
        path.insert(0, path[0] == '.' ? "InternetGatewayDevice" : "InternetGatewayDevice.LANDevice.1.Hosts.");
        const std::string result = verb == "get"   ? get(path)
                                   : verb == "set" ? set(path, value)
                                   : verb == "add" ? add(path)
                                                   : del(path, std::stoi(value));
        std::string expected = step.substr(equals + 2);
        expected.erase(expected.find_last_not_of(' ') + 1).erase(0, expected.find_first_not_of(' '));
        EXPECT_EQ(result, expected) << step;
    }
}
