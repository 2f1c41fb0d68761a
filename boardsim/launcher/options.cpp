// SPDX-License-Identifier: MIT
#include "options.h"

#include "chip_profiles.h"

#include <cstring>

namespace boardsim {
namespace {

// Options that take a value, and where the value goes.
bool takeValue(Options& options, const std::string& name, const std::string& value, std::string& error)
{
    if (name == "--state") {
        options.stateDir = value;
    } else if (name == "--profile") {
        options.profile = value;
    } else if (name == "--timing") {
        if (value != "typ" && value != "max") {
            error = "--timing takes typ or max, not '" + value + "'";
            return false;
        }
        options.maxTiming = value == "max";
    } else if (name == "--trace") {
        options.tracePath = value;
    } else if (name == "--summary") {
        options.summaryPath = value;
    } else if (name == "--fault") {
        options.faults.push_back(value);
    } else if (name == "--spidev") {
        options.spidevPaths.push_back(value);
    } else if (name == "--signal") {
        options.signal = value;
    } else if (name == "--edge") {
        options.edges.push_back(value);
    } else if (name == "--preload") {
        options.preloadPath = value;
    } else {
        error = "unknown option '" + name + "' (see --help)";
        return false;
    }
    if (value.empty()) {
        error = "option " + name + " needs a value";
        return false;
    }
    return true;
}

bool takesValue(const std::string& name)
{
    static const char* const kNames[] = {"--state", "--profile", "--timing", "--trace",   "--summary",
                                         "--fault", "--spidev",  "--edge",   "--preload", "--signal"};
    for (const char* known : kNames) {
        if (name == known) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool parseOptions(int argc, const char* const* argv, Options& options, std::string& error)
{
    int i = 1;
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            ++i;
            break;
        }
        if (arg.size() < 2 || arg[0] != '-') {
            // The command starts here; "--" before it is optional.
            break;
        }
        if (arg == "--quiet") {
            options.quiet = true;
            continue;
        }
        if (arg == "--help" || arg == "-h") {
            options.help = true;
            return true;
        }
        const std::size_t equals = arg.find('=');
        if (equals != std::string::npos && arg.compare(0, 2, "--") == 0) {
            const std::string name = arg.substr(0, equals);
            if (!takesValue(name)) {
                error = "unknown option '" + name + "' (see --help)";
                return false;
            }
            if (!takeValue(options, name, arg.substr(equals + 1), error)) {
                return false;
            }
            continue;
        }
        if (!takesValue(arg)) {
            error = "unknown option '" + arg + "' (see --help)";
            return false;
        }
        if (i + 1 >= argc) {
            error = "option " + arg + " needs a value";
            return false;
        }
        if (!takeValue(options, arg, argv[++i], error)) {
            return false;
        }
    }
    for (; i < argc; ++i) {
        options.command.emplace_back(argv[i]);
    }
    if (options.command.empty()) {
        error = "no command given: boardsim [options] -- COMMAND [ARGS...]";
        return false;
    }
    if (findChipProfile(options.profile) == nullptr) {
        std::string names;
        for (const std::string& name : chipProfileNames()) {
            names += (names.empty() ? "" : ", ") + name;
        }
        error = "unknown profile '" + options.profile + "' (profiles: " + names + ")";
        return false;
    }
    return true;
}

std::string usageText()
{
    return "usage: boardsim [options] -- COMMAND [ARGS...]\n"
           "Runs COMMAND against the simulated board (SPI NOR flash on spidev, sysfs GPIO,\n"
           "alarm-sound device) and exits with its status (125: boardsim's own error).\n"
           "\n"
           "  --state DIR            keep the board (flash.bin, gpio/) in DIR across runs\n"
           "  --profile NAME         chip profile: default (W25Q16JV) or slow-erase\n"
           "  --timing typ|max       typical (default) or maximum program/erase times\n"
           "  --trace FILE           write every device event, one JSON object a line\n"
           "  --summary FILE         write the run's summary as one JSON object\n"
           "  --fault FAULT           inject a fault (repeatable; also $BOARDSIM_FAULTS):\n"
           "                           msg:N:ERRNO  msg:N+:ERRNO  setup:REQ:ERRNO  no-spidev\n"
           "                           no-melody  busy  flip:ADDR:MASK[:N]  export-refused:LINE[:ERRNO]\n"
           "  --spidev PATH          also serve the SPI device at PATH (repeatable)\n"
           "  --edge LINE:rising|falling@SECONDS\n"
           "                         change a GPIO input's electrical level at a virtual time\n"
           "  --signal SIG@msg:N     the program sends itself SIG (INT, TERM, HUP, QUIT, a\n"
           "                         name with SIG or a number) as it submits its Nth\n"
           "                         SPI message\n"
           "  --preload PATH         the preload library to use\n"
           "  --quiet                no summary on stderr\n"
           "  --help                 this text\n";
}

std::vector<std::string> splitFaultList(const std::string& text)
{
    std::vector<std::string> texts;
    std::string current;
    for (const char c : text) {
        if (c == ',' || c == ' ' || c == '\t' || c == '\n') {
            if (!current.empty()) {
                texts.push_back(current);
                current.clear();
            }
        } else {
            current += c;
        }
    }
    if (!current.empty()) {
        texts.push_back(current);
    }
    return texts;
}

}  // namespace boardsim
