// kivhal-sensorstore: looks inside a sensorstore partition image.

#include <cstdio>
#include <string>

#include "sensorstore_dump.h"
#include "tool_cli.h"

namespace {

using namespace kivhal::tools;

constexpr char kTool[] = "kivhal-sensorstore";
constexpr int kExitCorrupt = 1;

constexpr char kUsage[] = R"(Usage: kivhal-sensorstore dump IMAGE [--channel NAME]
Prints the partition header, every stored record (offset, channel hash and
whether it is NAME's, message id, length) and whether the walk of the records
ends exactly at data_len. IMAGE may be a file or the partition itself.
Exit status: 0 for a well-formed image, 1 for a corrupt one, 2 on bad
arguments or an unreadable image.

  --channel NAME   channel whose records are marked "this" (default: sensors)
  --help           show this help
)";

int run(int argc, char** argv) {
    std::string command, image_path, channel = "sensors";
    arg_reader args(argc, argv);
    while (!args.done()) {
        const std::string arg = args.next();
        if (arg == "--help") {
            fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--channel") {
            channel = args.value();
        } else if (arg.rfind("-", 0) == 0) {
            throw usage_error("unknown option " + arg);
        } else if (command.empty()) {
            command = arg;
        } else if (image_path.empty()) {
            image_path = arg;
        } else {
            throw usage_error("unexpected argument " + arg);
        }
    }
    if (command != "dump")
        throw usage_error(command.empty() ? "no command given" : "unknown command " + command);
    if (image_path.empty()) throw usage_error("dump needs an IMAGE");

    size_t image_size = 0;
    const auto image = read_sensorstore_image(image_path, &image_size);
    printf("image: %s\n", image_path.c_str());
    return dump_sensorstore(image, image_size, channel, stdout) ? 0 : kExitCorrupt;
}

}  // namespace

int main(int argc, char** argv) {
    return run_tool(kTool, [&] { return run(argc, argv); });
}
