// SPDX-License-Identifier: MIT
// A small program that drives the simulated devices the way programs on the
// board do (open/ioctl/read/write/close, stdio and C++ streams, poll, sleeps) and
// prints what it gets back, one line per operation, for the simulator's
// process tests. Usage: boardsim_client OP [ARGS] [OP [ARGS]...]
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <chrono>
#include <vector>

namespace {

std::string errnoText(int err)
{
    const char* name = strerrorname_np(err);
    return name != nullptr ? name : std::to_string(err);
}

std::string hex(const std::uint8_t* bytes, std::size_t length)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0x0F];
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

// "\n" in an argument stands for a line end.
std::string unescape(const std::string& text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == 'n') {
            result += '\n';
            ++i;
        } else {
            result += text[i];
        }
    }
    return result;
}

// Records: "t:HEX" send, "r:N" receive, "tr:HEX" both, "z:N" neither; each
// may end in ",cs" (cs_change) or ",speed=N".
void spiMessage(int fd, const std::string& text)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t slash = text.find('/', start);
        parts.push_back(text.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
        if (slash == std::string::npos) {
            break;
        }
        start = slash + 1;
    }
    std::vector<spi_ioc_transfer> records(parts.size());
    std::vector<std::vector<std::uint8_t>> tx(parts.size());
    std::vector<std::vector<std::uint8_t>> rx(parts.size());
    for (std::size_t k = 0; k < parts.size(); ++k) {
        std::string part = parts[k];
        spi_ioc_transfer& record = records[k];
        record = spi_ioc_transfer{};
        std::size_t comma = part.find(',');
        while (comma != std::string::npos) {
            const std::size_t next = part.find(',', comma + 1);
            const std::string option =
                part.substr(comma + 1, next == std::string::npos ? std::string::npos : next - comma - 1);
            if (option == "cs") {
                record.cs_change = 1;
            } else if (option.compare(0, 6, "speed=") == 0) {
                record.speed_hz = static_cast<std::uint32_t>(std::stoul(option.substr(6)));
            }
            comma = next;
        }
        part = part.substr(0, part.find(','));
        const std::size_t colon = part.find(':');
        const std::string kind = part.substr(0, colon);
        const std::string value = part.substr(colon + 1);
        if (kind == "t" || kind == "tr") {
            tx[k] = unhex(value);
            record.len = static_cast<std::uint32_t>(tx[k].size());
            record.tx_buf = reinterpret_cast<std::uintptr_t>(tx[k].data());
        } else {
            record.len = static_cast<std::uint32_t>(std::stoul(value));
        }
        if (kind == "r" || kind == "tr") {
            rx[k].assign(record.len, 0);
            record.rx_buf = reinterpret_cast<std::uintptr_t>(rx[k].data());
        }
    }
    const int result = ioctl(fd, SPI_IOC_MESSAGE(records.size()), records.data());
    std::cout << "msg " << result;
    if (result < 0) {
        std::cout << ' ' << errnoText(errno);
    }
    for (std::size_t k = 0; k < parts.size() && result >= 0; ++k) {
        if (!rx[k].empty()) {
            std::cout << ' ' << hex(rx[k].data(), rx[k].size());
        }
    }
    std::cout << '\n';
}

void spiSetup(int fd)
{
    std::uint8_t mode = 0;
    std::uint8_t bits = 8;
    std::uint32_t speed = 10000000;
    const int results[] = {ioctl(fd, SPI_IOC_WR_MODE, &mode),          ioctl(fd, SPI_IOC_RD_MODE, &mode),
                           ioctl(fd, SPI_IOC_WR_BITS_PER_WORD, &bits), ioctl(fd, SPI_IOC_RD_BITS_PER_WORD, &bits),
                           ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed), ioctl(fd, SPI_IOC_RD_MAX_SPEED_HZ, &speed)};
    std::cout << "setup";
    for (const int result : results) {
        std::cout << ' ' << result;
    }
    std::cout << " mode " << static_cast<int>(mode) << " bits " << static_cast<int>(bits) << " speed " << speed << '\n';
}

// Ordinary files must behave as without the simulator, through every path a
// program uses: raw descriptors, stdio and C++ streams.
bool fileRoundTrip(const std::string& path, int& fd)
{
    fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::write(fd, "hello world", 11) != 11 || ::lseek(fd, 6, SEEK_SET) != 6) {
        return false;
    }
    char buffer[16] = {};
    if (::read(fd, buffer, sizeof buffer) != 5 || std::string(buffer) != "world" || ::close(fd) != 0) {
        return false;
    }
    FILE* stream = std::fopen(path.c_str(), "a");
    if (stream == nullptr || std::fputs("!\n", stream) < 0 || std::fclose(stream) != 0) {
        return false;
    }
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    if (line != "hello world!") {
        return false;
    }
    std::ofstream out(path, std::ios::trunc);
    out << "second";
    out.close();
    std::fstream both(path, std::ios::in | std::ios::out);
    both.seekp(0, std::ios::end);
    both << " line";
    both.seekg(0);
    std::getline(both, line);
    return line == "second line";
}

int run(int argc, char** argv)
{
    int fd = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string op = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::cerr << "missing argument for " << op << '\n';
                std::exit(2);
            }
            return argv[++i];
        };
        if (op == "spi-open") {
            fd = ::open(next().c_str(), O_RDWR);
            std::cout << "open " << (fd >= 0 ? std::string("ok") : errnoText(errno)) << '\n';
        } else if (op == "spi-setup") {
            spiSetup(fd);
        } else if (op == "spi-msg") {
            spiMessage(fd, next());
        } else if (op == "spi-write") {
            const std::vector<std::uint8_t> bytes = unhex(next());
            const ssize_t result = ::write(fd, bytes.data(), bytes.size());
            std::cout << "write " << result << (result < 0 ? " " + errnoText(errno) : std::string()) << '\n';
        } else if (op == "spi-read") {
            std::vector<std::uint8_t> bytes(std::stoul(next()));
            const ssize_t result = ::read(fd, bytes.data(), bytes.size());
            std::cout << "read " << result << ' '
                      << (result < 0 ? errnoText(errno) : hex(bytes.data(), static_cast<std::size_t>(result))) << '\n';
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
            const long long ns = std::stoll(next());
            const timespec request{static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
            const int result = ::nanosleep(&request, nullptr);
            if (result != 0) {
                std::cout << "nanosleep " << result << ' ' << errnoText(errno) << '\n';
            }
        } else if (op == "clock-sleep") {
            const long long ns = std::stoll(next());
            const timespec request{static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
            std::cout << "clock_nanosleep " << ::clock_nanosleep(CLOCK_MONOTONIC, 0, &request, nullptr) << '\n';
        } else if (op == "std-sleep") {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::stoll(next())));
        } else if (op == "poll-value") {
            const int line = std::stoi(next());
            const int timeoutMs = std::stoi(next());
            const int file = ::open(("/sys/class/gpio/gpio" + std::to_string(line) + "/value").c_str(), O_RDONLY);
            char discard[4];
            if (::read(file, discard, sizeof discard) < 0) {
                std::cout << "poll read " << errnoText(errno) << '\n';
            }
            pollfd watched{file, POLLPRI, 0};
            const int ready = ::poll(&watched, 1, timeoutMs);
            std::cout << "poll " << ready << ' ' << watched.revents << '\n';
            ::close(file);
        } else if (op == "closefrom") {
            ::closefrom(std::stoi(next()));
        } else if (op == "dup2-onto") {
            const int target = std::stoi(next());
            std::cout << "dup2 " << (::dup2(1, target) == target ? "ok" : errnoText(errno)) << '\n';
            ::close(target);
        } else if (op == "thread-usleep") {
            const auto us = static_cast<useconds_t>(std::stoul(next()));
            std::thread([us] { ::usleep(us); }).join();
        } else if (op == "gpio-write") {
            const std::string path = next();
            const std::string data = unescape(next());
            const int file = ::open(path.c_str(), O_WRONLY);
            if (file < 0) {
                std::cout << "write open " << errnoText(errno) << '\n';
                continue;
            }
            const ssize_t result = ::write(file, data.data(), data.size());
            std::cout << "write " << (result >= 0 ? std::string("ok") : errnoText(errno)) << '\n';
            ::close(file);
        } else if (op == "stdio-write") {
            const std::string path = next();
            const std::string data = unescape(next());
            FILE* stream = std::fopen(path.c_str(), "w");
            if (stream == nullptr) {
                std::cout << "stdio open " << errnoText(errno) << '\n';
                continue;
            }
            std::fputs(data.c_str(), stream);
            const int result = std::fclose(stream);
            std::cout << "stdio " << (result == 0 ? std::string("ok") : errnoText(errno)) << '\n';
        } else if (op == "melody") {
            const int file = ::open("/dev/mldalm", O_RDWR);
            const int openErrno = errno;
            const std::uint8_t record[8] = {1, 0, 0, 0, 0xD0, 0x07, 0, 0};
            int start = 1;
            int stop = 0;
            const int type = ioctl(file, 0x40086d00, record);
            const int typeErrno = errno;
            const int on = ioctl(file, 0x40016d01, &start);
            const int off = ioctl(file, 0x40016d01, &stop);
            std::cout << "melody " << (file >= 0 ? "open" : errnoText(openErrno)) << ' ' << type << ' '
                      << (type < 0 ? errnoText(typeErrno) : "-") << ' ' << on << ' ' << off << '\n';
            if (file >= 0) {
                ::close(file);
            }
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
            int file = -1;
            const bool ok = fileRoundTrip(next(), file);
            std::cout << "file " << (ok ? "ok" : "broken") << " fd " << file << '\n';
        } else if (op == "exit") {
            std::cout.flush();
            return std::stoi(next());
        } else {
            std::cerr << "unknown operation " << op << '\n';
            return 2;
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    return run(argc, argv);
}
