#include "tool_process.h"

#include <android-base/unique_fd.h>
#include <elf.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace kivhal {
namespace test {
namespace {

constexpr std::chrono::milliseconds kPollStep{10};
// Set by the launcher of a cross build: an emulated process cannot exec a
// target program itself, so the tools are started through the emulator.
constexpr char kEmulatorEnv[] = "KIVHAL_EMULATOR";

// Only the cross-built programs go through the emulator; host programs the
// tests use (xmllint) run directly.
bool is_arm_program(const std::string& path) {
    Elf32_Ehdr header{};
    android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return fd.ok() && android::base::ReadFully(fd, &header, sizeof(header)) &&
           memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_machine == EM_ARM;
}

std::string contents_of(const TemporaryFile& file) {
    std::string text;
    android::base::ReadFileToString(file.path, &text);
    return text;
}

}  // namespace

tool_process::tool_process(const std::string& path, const std::vector<std::string>& args) {
    std::vector<std::string> storage;
    const char* emulator = getenv(kEmulatorEnv);
    if (emulator != nullptr && *emulator != '\0' && is_arm_program(path))
        storage.emplace_back(emulator);
    storage.push_back(path);
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : storage) argv.push_back(arg.data());
    argv.push_back(nullptr);
    // Only the child's standard output and error are these files.
    for (int fd : {_out.fd, _err.fd}) fcntl(fd, F_SETFD, FD_CLOEXEC);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, _out.fd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, _err.fd, STDERR_FILENO);
    const int error =
        posix_spawn(&_pid, storage.front().c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::runtime_error("posix_spawn " + storage.front() + ": " + strerror(error));
}

tool_process::~tool_process() {
    try {
        stop(SIGKILL);
    } catch (const std::runtime_error&) {
        // Already reported by the stop() that failed, or nothing left to stop.
    }
}

std::string tool_process::out() const {
    return contents_of(_out);
}

bool tool_process::wait_for_output(const std::string& needle,
                                   std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (out().find(needle) == std::string::npos) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kPollStep);
    }
    return true;
}

tool_result tool_process::stop(int signal_number, std::chrono::milliseconds timeout) {
    if (!_reaped) {
        // Until waitpid has collected it, _pid is our child (a zombie at worst).
        if (signal_number != 0) kill(_pid, signal_number);
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        int status = 0;
        pid_t reaped;
        while ((reaped = waitpid(_pid, &status, WNOHANG)) == 0) {
            if (std::chrono::steady_clock::now() >= deadline) kill(_pid, SIGKILL);
            std::this_thread::sleep_for(kPollStep);
        }
        const int error = errno;
        _reaped = true;
        if (reaped != _pid) {
            throw std::runtime_error("waitpid " + std::to_string(_pid) + ": " + strerror(error));
        }
        _exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return {_exit_code, out(), contents_of(_err)};
}

tool_result run_program(const std::string& path, const std::vector<std::string>& args,
                        std::chrono::milliseconds timeout) {
    return tool_process(path, args).stop(0, timeout);
}

}  // namespace test
}  // namespace kivhal
