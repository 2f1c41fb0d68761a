// SPDX-License-Identifier: MIT
// A small program that uses the simulated devices through the real C library
// calls, as an independent spidev programmer or a board program would, and
// prints what it gets back, one line per operation, for the simulator's
// process tests. Usage: boardsim_client OP [ARGS] [OP [ARGS]...]
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string errnoText(int err)
{
    const char* name = strerrorname_np(err);
    return name != nullptr ? name : std::to_string(err);
}

std::string hex(const std::vector<std::uint8_t>& bytes, std::size_t length)
{
    std::string text;
    char digits[3];
    for (std::size_t i = 0; i < length; ++i) {
        std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
        text += digits;
    }
    return text;
}

std::vector<std::uint8_t> unhex(const std::string& text)
{
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

timespec fromNs(long long ns)
{
    return timespec{static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
}

// Records separated by '/': "t:HEX" sends, "r:N" receives; ",cs" after a
// record sets cs_change.
void spiMessage(int fd, const std::string& text)
{
    std::vector<std::string> parts;
    for (std::size_t start = 0, slash = 0; slash != std::string::npos; start = slash + 1) {
        slash = text.find('/', start);
        parts.push_back(text.substr(start, slash - start));
    }
    std::vector<spi_ioc_transfer> records(parts.size());
    std::vector<std::vector<std::uint8_t>> buffers(parts.size());
    for (std::size_t k = 0; k < parts.size(); ++k) {
        const std::string& part = parts[k];
        records[k].cs_change = part.find(",cs") != std::string::npos ? 1 : 0;
        const std::string value = part.substr(2, part.find(',') - 2);
        buffers[k] = part[0] == 't' ? unhex(value) : std::vector<std::uint8_t>(std::stoul(value));
        records[k].len = static_cast<std::uint32_t>(buffers[k].size());
        (part[0] == 't' ? records[k].tx_buf : records[k].rx_buf) = reinterpret_cast<std::uintptr_t>(buffers[k].data());
    }
    const int result = ioctl(fd, SPI_IOC_MESSAGE(records.size()), records.data());
    std::cout << "msg " << result;
    if (result < 0) {
        std::cout << ' ' << errnoText(errno);
    }
    for (std::size_t k = 0; k < parts.size() && result >= 0; ++k) {
        if (parts[k][0] == 'r') {
            std::cout << ' ' << hex(buffers[k], buffers[k].size());
        }
    }
    std::cout << '\n';
}

}  // namespace

int main(int argc, char** argv)
{
    int fd = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string op = argv[i];
        auto next = [&]() -> std::string {
            return i + 1 < argc ? argv[++i] : "";
        };
        if (op == "spi-open") {
            fd = ::open(next().c_str(), O_RDWR);
            std::cout << "open " << (fd >= 0 ? std::string("ok") : errnoText(errno)) << '\n';
        } else if (op == "spi-msg") {
            spiMessage(fd, next());
        } else if (op == "spi-dup") {
            const int copy = ::dup(fd);
            ::close(fd);
            fd = copy;
            std::cout << "dup " << (copy >= 0 ? "ok" : errnoText(errno)) << '\n';
        } else if (op == "spi-cloexec") {
            std::cout << "cloexec " << ioctl(fd, FIOCLEX) << '\n';
        } else if (op == "spi-close") {
            std::cout << "close " << ::close(fd) << '\n';
        } else if (op == "fd") {
            std::cout << "fd " << fd << '\n';
        } else if (op == "sleep") {
            ::sleep(static_cast<unsigned>(std::stoul(next())));
        } else if (op == "usleep") {
            ::usleep(static_cast<useconds_t>(std::stoul(next())));
        } else if (op == "nanosleep") {
            const timespec request = fromNs(std::stoll(next()));
            if (::nanosleep(&request, nullptr) != 0) {
                std::cout << "nanosleep " << errnoText(errno) << '\n';
            }
        } else if (op == "clock-sleep") {
            const timespec request = fromNs(std::stoll(next()));
            std::cout << "clock_nanosleep " << ::clock_nanosleep(CLOCK_MONOTONIC, 0, &request, nullptr) << '\n';
        } else if (op == "std-sleep") {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::stoll(next())));
        } else if (op == "thread-usleep") {
            const auto us = static_cast<useconds_t>(std::stoul(next()));
            std::thread([us] { ::usleep(us); }).join();
        } else if (op == "poll-value") {
            const int file = ::open(("/sys/class/gpio/gpio" + next() + "/value").c_str(), O_RDONLY);
            const int timeoutMs = std::stoi(next());
            char discard[4];
            const ssize_t length = ::read(file, discard, sizeof discard);
            pollfd watched{file, POLLPRI, 0};
            const int ready = ::poll(&watched, 1, timeoutMs);
            std::cout << "poll " << length << ' ' << ready << ' ' << watched.revents << '\n';
            ::close(file);
        } else if (op == "closefrom") {
            ::closefrom(std::stoi(next()));
        } else if (op == "dup2-onto") {
            const int target = std::stoi(next());
            std::cout << "dup2 " << (::dup2(1, target) == target ? "ok" : errnoText(errno)) << '\n';
            ::close(target);
        } else if (op == "stdio-write" || op == "stdio-flush") {
            FILE* stream = std::fopen(next().c_str(), "w");
            std::fputs(next().c_str(), stream);
            if (op == "stdio-flush") {
                const int flushed = std::fflush(stream);
                std::cout << "flush " << (flushed == 0 ? std::string("ok") : errnoText(errno)) << '\n';
            }
            const int result = std::fclose(stream);
            std::cout << "stdio " << (result == 0 ? std::string("ok") : errnoText(errno)) << '\n';
        } else if (op == "stat") {
            const std::string path = next();
            struct stat info {};
            if (::stat(path.c_str(), &info) != 0) {
                std::cout << "stat " << errnoText(errno) << '\n';
            } else if (S_ISCHR(info.st_mode)) {
                std::cout << "stat chr " << major(info.st_rdev) << ' ' << minor(info.st_rdev) << '\n';
            } else {
                std::cout << "stat "
                          << (S_ISDIR(info.st_mode)   ? "dir"
                              : S_ISREG(info.st_mode) ? "file"
                                                      : "other")
                          << '\n';
            }
            std::cout << "access " << (::access(path.c_str(), R_OK | W_OK) == 0 ? "ok" : errnoText(errno)) << '\n';
        } else if (op == "file-check") {
            // An ordinary file must behave as without the simulator, also on
            // a number a simulated file had.
            const int file = ::open(next().c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
            char buffer[16] = {};
            const bool ok = ::write(file, "hello world", 11) == 11 && ::lseek(file, 6, SEEK_SET) == 6 &&
                            ::read(file, buffer, sizeof buffer) == 5 && std::string(buffer) == "world" &&
                            ::close(file) == 0;
            std::cout << "file " << (ok ? "ok" : "broken") << " fd " << file << '\n';
        } else {
            std::cerr << "unknown operation " << op << '\n';
            return 2;
        }
    }
    return 0;
}
