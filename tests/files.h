// Folders, files and databases of tests.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sqlite3.h>
#include <string>

// A folder that goes with its owner.
class Folder {
public:
    explicit Folder(const std::string &parent = "/tmp") : path(parent + "/vswitchctl-XXXXXX")
    {
        EXPECT_NE(mkdtemp(path.data()), nullptr);
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    ~Folder() { std::filesystem::remove_all(path); }

    std::string path;
};

inline std::string ReadFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void WriteFile(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary) << content;
}

// Runs statements on a database; returns the first column of their rows.
inline std::string Sql(const std::string &path, const std::string &text)
{
    sqlite3 *database = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    std::string answer;
    const auto take = [](void *all, int, char **values, char **) {
        *static_cast<std::string *>(all) += values[0];
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(database, text.c_str(), take, &answer, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
    return answer;
}
