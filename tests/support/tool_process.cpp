#include "tool_process.h"

#include <fcntl.h>
#include <signal.h>
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
constexpr int kExecFailed = 127;

std::string make_temp_file(const char* stem) {
    std::string path = std::string("/tmp/kivhal-") + stem + "-XXXXXX";
    const int fd = mkstemp(path.data());
    if (fd < 0) throw std::runtime_error("mkstemp: " + std::string(strerror(errno)));
    close(fd);
    return path;
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

}  // namespace

tool_process::tool_process(const std::string& path, const std::vector<std::string>& args)
    : _out_path(make_temp_file("out")), _err_path(make_temp_file("err")) {
    std::vector<std::string> argv_storage{path};
    argv_storage.insert(argv_storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : argv_storage) argv.push_back(arg.data());
    argv.push_back(nullptr);

    _pid = fork();
    if (_pid < 0) throw std::runtime_error("fork: " + std::string(strerror(errno)));
    if (_pid == 0) {
        // Only async-signal-safe calls from here on.
        const int out = open(_out_path.c_str(), O_WRONLY | O_TRUNC);
        const int err = open(_err_path.c_str(), O_WRONLY | O_TRUNC);
        if (out < 0 || err < 0 || dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0) {
            _exit(kExecFailed);
        }
        execv(argv[0], argv.data());
        _exit(kExecFailed);
    }
}

tool_process::~tool_process() {
    if (_pid > 0) {
        kill(_pid, SIGKILL);
        waitpid(_pid, nullptr, 0);
    }
    unlink(_out_path.c_str());
    unlink(_err_path.c_str());
}

std::string tool_process::out() const { return slurp(_out_path); }
std::string tool_process::err() const { return slurp(_err_path); }

bool tool_process::wait_for_output(const std::string& needle,
                                   std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (out().find(needle) == std::string::npos) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kPollStep);
    }
    return true;
}

tool_result tool_process::wait(std::chrono::milliseconds timeout) {
    tool_result result;
    if (_pid <= 0) return result;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (waitpid(_pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            result.timed_out = true;
            kill(_pid, SIGKILL);
            waitpid(_pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(kPollStep);
    }
    _pid = -1;
    if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.term_signal = WTERMSIG(status);
    result.out = out();
    result.err = err();
    return result;
}

tool_result tool_process::stop(int signal_number, std::chrono::milliseconds timeout) {
    if (_pid > 0) kill(_pid, signal_number);
    return wait(timeout);
}

tool_result run_program(const std::string& path, const std::vector<std::string>& args,
                        std::chrono::milliseconds timeout) {
    tool_process process(path, args);
    return process.wait(timeout);
}

}  // namespace test
}  // namespace kivhal
