#include "tool_process.h"

#include <elf.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace kivhal {
namespace test {
namespace {

constexpr std::chrono::milliseconds kPollStep{10};
// Set by the launcher of a cross build: an emulated process cannot exec a
// target program itself, so the tools are started through the emulator.
constexpr char kEmulatorEnv[] = "KIVHAL_EMULATOR";

std::string make_temp_file() {
    std::string path = "/tmp/kivhal-tool-XXXXXX";
    const int fd = mkstemp(path.data());
    if (fd < 0) throw std::runtime_error("mkstemp: " + std::string(strerror(errno)));
    close(fd);
    return path;
}

// Only the cross-built programs go through the emulator; host programs the
// tests use (xmllint) run directly.
bool is_arm_program(const std::string& path) {
    Elf32_Ehdr header{};
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof(header));
    return memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_machine == EM_ARM;
}

std::string slurp(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

}  // namespace

tool_process::tool_process(const std::string& path, const std::vector<std::string>& args)
    : _out_path(make_temp_file()), _err_path(make_temp_file()) {
    std::vector<std::string> storage;
    const char* emulator = getenv(kEmulatorEnv);
    if (emulator != nullptr && *emulator != '\0' && is_arm_program(path)) storage.emplace_back(emulator);
    storage.push_back(path);
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : storage) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, _out_path.c_str(), O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, _err_path.c_str(), O_WRONLY | O_TRUNC, 0);
    const int error = posix_spawn(&_pid, storage.front().c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("posix_spawn " + storage.front() + ": " + strerror(error));
}

tool_process::~tool_process() {
    if (_pid > 0) stop(SIGKILL);
    unlink(_out_path.c_str());
    unlink(_err_path.c_str());
}

std::string tool_process::out() const { return slurp(_out_path); }

bool tool_process::wait_for_output(const std::string& needle, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (out().find(needle) == std::string::npos) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kPollStep);
    }
    return true;
}

tool_result tool_process::stop(int signal_number, std::chrono::milliseconds timeout) {
    if (signal_number != 0) kill(_pid, signal_number);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (waitpid(_pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) kill(_pid, SIGKILL);
        std::this_thread::sleep_for(kPollStep);
    }
    _pid = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out(), slurp(_err_path)};
}

tool_result run_program(const std::string& path, const std::vector<std::string>& args,
                        std::chrono::milliseconds timeout) {
    return tool_process(path, args).stop(0, timeout);
}

}  // namespace test
}  // namespace kivhal
