// kivhal-lint: catches OEM configuration mistakes before a file ships.

#include <cstdio>
#include <string>
#include <vector>

#include "config_linter.h"
#include "tool_cli.h"

namespace {

using namespace kivhal::tools;

constexpr char kTool[] = "kivhal-lint";
constexpr int kExitErrors = 1;

constexpr char kUsage[] = R"(Usage: kivhal-lint FILE...
Checks OEM configuration files against what the library's parser assumes and
prints each problem as FILE:LINE: error|warning: MESSAGE.
Exit status: 0 when no file has an error (warnings allowed), 1 when one has,
2 on bad arguments or unreadable files.

  --help   show this help
)";

int run(int argc, char** argv) {
    std::vector<std::string> files;
    arg_reader args(argc, argv);
    while (!args.done()) {
        const std::string arg = args.next();
        if (arg == "--help") {
            fputs(kUsage, stdout);
            return 0;
        }
        if (arg.rfind("-", 0) == 0) throw usage_error("unknown option " + arg);
        files.push_back(arg);
    }
    if (files.empty()) throw usage_error("no configuration file given");

    int errors = 0;
    for (const std::string& file : files) {
        for (const lint_finding& f : lint_config(file)) {
            printf("%s:%d: %s: %s\n", file.c_str(), f.line, f.error ? "error" : "warning",
                   f.message.c_str());
            errors += f.error ? 1 : 0;
        }
    }
    return errors == 0 ? 0 : kExitErrors;
}

}  // namespace

int main(int argc, char** argv) {
    return run_tool(kTool, [&] { return run(argc, argv); });
}
