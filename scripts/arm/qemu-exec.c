// SPDX-License-Identifier: MIT
/*
 * The binfmt_misc interpreter for ARM programs started by other ARM programs
 * during the emulated test run (a test that spawns a helper process, the
 * board simulator's launcher that starts the tool).
 *
 * The kernel runs it as
 *     qemu-exec PROGRAM ARGV0 ARGS...          (registered with the P flag)
 * and it runs
 *     QEMU -L SYSROOT -0 ARGV0 [-E LD_PRELOAD=...] PROGRAM ARGS...
 * with LD_PRELOAD taken out of QEMU's own environment: the preload library
 * is an ARM library for the emulated program's loader, and the host's loader
 * would try (and fail, noisily) to load it into QEMU itself. This program is
 * linked statically, so the host's loader never sees LD_PRELOAD here either.
 *
 * QEMU and SYSROOT are compiled in (-DMERIVAK_QEMU=... -DMERIVAK_SYSROOT=...)
 * by scripts/arm-binfmt, one interpreter per architecture.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#ifndef MERIVAK_QEMU
#error "MERIVAK_QEMU must name the user-mode emulator"
#endif
#ifndef MERIVAK_SYSROOT
#error "MERIVAK_SYSROOT must name the target's root folder"
#endif

extern char** environ;

static const char PRELOAD_PREFIX[] = "LD_PRELOAD=";

int main(int argc, char* argv[])
{
    if (argc < 3) {
        fprintf(stderr, "qemu-exec: expected PROGRAM ARGV0 [ARGS...] from binfmt_misc\n");
        return 127;
    }

    size_t envCount = 0;
    while (environ[envCount] != NULL) {
        ++envCount;
    }
    char** hostEnv = calloc(envCount + 1, sizeof *hostEnv);
    /* QEMU, its 6 options, -E and its value, the program, its arguments, NULL */
    char** qemuArgv = calloc((size_t)argc + 10, sizeof *qemuArgv);
    if (hostEnv == NULL || qemuArgv == NULL) {
        fprintf(stderr, "qemu-exec: out of memory\n");
        return 127;
    }

    const char* preload = NULL;
    size_t kept = 0;
    for (size_t i = 0; i < envCount; ++i) {
        if (strncmp(environ[i], PRELOAD_PREFIX, sizeof PRELOAD_PREFIX - 1) == 0) {
            preload = environ[i];
        } else {
            hostEnv[kept++] = environ[i];
        }
    }

    size_t n = 0;
    qemuArgv[n++] = (char*)MERIVAK_QEMU;
    qemuArgv[n++] = (char*)"-L";
    qemuArgv[n++] = (char*)MERIVAK_SYSROOT;
    qemuArgv[n++] = (char*)"-0";
    qemuArgv[n++] = argv[2];
    if (preload != NULL) {
        qemuArgv[n++] = (char*)"-E";
        qemuArgv[n++] = (char*)preload;
    }
    qemuArgv[n++] = argv[1];
    for (int i = 3; i < argc; ++i) {
        qemuArgv[n++] = argv[i];
    }
    qemuArgv[n] = NULL;

    execve(MERIVAK_QEMU, qemuArgv, hostEnv);
    fprintf(stderr, "qemu-exec: cannot run %s: %s\n", MERIVAK_QEMU, strerror(errno));
    return 127;
}
