// SPDX-License-Identifier: MIT
#include "signal_injection.h"

#include <signal.h>

#include <cstdlib>

namespace boardsim {
namespace {

struct NamedSignal {
    const char* name;
    int number;
};

constexpr NamedSignal kSignals[] = {{"INT", SIGINT},   {"TERM", SIGTERM}, {"HUP", SIGHUP},
                                    {"QUIT", SIGQUIT}, {"ALRM", SIGALRM}, {"USR1", SIGUSR1},
                                    {"USR2", SIGUSR2}, {"PIPE", SIGPIPE}, {"KILL", SIGKILL}};

// A decimal number without sign or leading junk; -1 when not one.
long long decimal(const std::string& text)
{
    if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos) {
        return -1;
    }
    return std::strtoll(text.c_str(), nullptr, 10);
}

int signalNumber(std::string name)
{
    if (name.compare(0, 3, "SIG") == 0) {
        name = name.substr(3);
    }
    for (const NamedSignal& known : kSignals) {
        if (name == known.name) {
            return known.number;
        }
    }
    const long long number = decimal(name);
    return number >= 1 && number <= 64 ? static_cast<int>(number) : 0;
}

}  // namespace

bool parseSignalInjection(const std::string& text, SignalInjection& injection, std::string& error)
{
    const std::size_t at = text.find("@msg:");
    const int number = at == std::string::npos ? 0 : signalNumber(text.substr(0, at));
    const long long message = at == std::string::npos ? -1 : decimal(text.substr(at + 5));
    if (number == 0 || message < 1) {
        error = "bad --signal '" + text + "': expected SIG@msg:N, e.g. TERM@msg:40";
        return false;
    }
    injection.signal = number;
    injection.atMessage = static_cast<std::uint64_t>(message);
    return true;
}

}  // namespace boardsim
