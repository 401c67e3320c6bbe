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
prints each problem as FILE:LINE: error|warning: MESSAGE, then the verdict:
"no problems found" or the number of errors and warnings.
Exit status: 0 when no file has an error (warnings allowed), 1 when one has,
2 on bad arguments or unreadable files.

  --help   show this help
)";

std::string count(int n, const char* what) {
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

// The last line says how it went, so a clean run is not just silence.
void print_verdict(int errors, int warnings) {
    if (errors == 0 && warnings == 0) {
        puts("no problems found");
    } else {
        printf("%s, %s\n", count(errors, "error").c_str(), count(warnings, "warning").c_str());
    }
}

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

    int errors = 0, warnings = 0;
    for (const std::string& file : files) {
        for (const lint_finding& f : lint_config(file)) {
            printf("%s:%d: %s: %s\n", file.c_str(), f.line, f.error ? "error" : "warning",
                   f.message.c_str());
            ++(f.error ? errors : warnings);
        }
    }
    print_verdict(errors, warnings);
    return errors == 0 ? 0 : kExitErrors;
}

}  // namespace

int main(int argc, char** argv) {
    return run_tool(kTool, [&] { return run(argc, argv); });
}
