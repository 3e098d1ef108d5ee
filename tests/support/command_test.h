// A scratch folder for tests of the tessera command, and the command run
// there with its output kept in files.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace TESSERA::testing {

class CommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("tessera_command_" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    // `tessera ARGS` in the folder; standard output to out.txt, errors to
    // err.txt. Its exit status.
    int tessera(const std::string& args) {
        const std::string command =
            "cd " + dir.string() + " && " + TESSERA_CLI_PATH + " " + args + " > out.txt 2> err.txt";
        const int status = std::system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // A file of the folder, whole.
    std::string text(const std::string& name) {
        std::ifstream in(dir / name);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    std::string path(const std::string& name) { return (dir / name).string(); }

    std::filesystem::path dir;
};

}  // namespace TESSERA::testing
