// SPDX-License-Identifier: MIT
// Uses the GPIO files through the fortified C library entry points that
// programs built with _FORTIFY_SOURCE call (__open_2, __openat_2,
// __read_chk, __poll_chk, __ppoll_chk), to show that they reach the
// simulator. Usage: boardsim_fortified_client LINE
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

int main(int argc, char** argv)
{
    if (argc != 2) {
        return 2;
    }
    const std::string line = argv[1];
    // Flags the compiler cannot see make the fortified open use __open_2.
    volatile int writeOnly = O_WRONLY;
    volatile int readOnly = O_RDONLY;
    const int exportFd = open("/sys/class/gpio/export", writeOnly);
    if (exportFd < 0 || write(exportFd, line.c_str(), line.size()) < 0) {
        std::printf("export %s\n", strerrorname_np(errno));
        return 1;
    }
    close(exportFd);
    const int folder = open("/sys/class/gpio", O_RDONLY | O_DIRECTORY);
    const int value = openat(folder, ("gpio" + line + "/value").c_str(), readOnly);
    // Counts the compiler cannot see make read and the polls checked calls.
    volatile std::size_t count = 8;
    volatile nfds_t watchedCount = 1;
    char text[8] = {};
    const ssize_t length = read(value, text, count);
    pollfd watched[1] = {{value, POLLPRI, 0}};
    const int polled = poll(watched, watchedCount, 0);
    const timespec none{0, 0};
    const int ppolled = ppoll(watched, watchedCount, &none, nullptr);
    std::printf("read %zd %c poll %d ppoll %d\n", length, length > 0 ? text[0] : '?', polled, ppolled);
    close(value);
    close(folder);
    return 0;
}
