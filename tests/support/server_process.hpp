#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace pelm::testing {

// One pelm-server process, its standard output read until it says where it listens.
class ServerProcess {
  public:
    ServerProcess(const std::vector<std::string>& arguments) {
        int out[2];
        if (pipe(out) != 0) throw std::runtime_error("pipe");
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            std::vector<char*> argv{const_cast<char*>(PELM_SERVER)};
            for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
            argv.push_back(nullptr);
            execv(PELM_SERVER, argv.data());
            _exit(127);
        }
        close(out[1]);
        std::FILE* output = fdopen(out[0], "r");
        char line[512];
        while (port_ == 0 && std::fgets(line, sizeof line, output) != nullptr) {
            if (const char* at = std::strstr(line, "https://127.0.0.1:")) port_ = std::atoi(at + 18);
        }
        std::fclose(output);
        if (port_ == 0) throw std::runtime_error("pelm-server did not start");
    }
    ~ServerProcess() {
        if (pid_ > 0) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
    }
    /// Sends `signal` and waits up to `most` for the process to end; its wait status, or none if it still
    /// runs (it is killed then).
    std::optional<int> endWith(int signal, std::chrono::milliseconds most) {
        kill(pid_, signal);
        const auto deadline = std::chrono::steady_clock::now() + most;
        int status = 0;
        while (waitpid(pid_, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        pid_ = -1;
        return status;
    }
    void killNow() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    std::string host() const { return "localhost:" + std::to_string(port_); }

  private:
    pid_t pid_ = -1;
    int port_ = 0;
};

}  // namespace pelm::testing
