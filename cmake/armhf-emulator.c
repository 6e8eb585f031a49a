/*
 * The emulator command of the armhf cross build: runs qemu-arm (argv is passed on unchanged)
 * with pidfd support hidden from the guest.
 *
 * Debian 12's qemu-arm (7.2) rejects clone(CLONE_PIDFD), but it passes the kernel's pidfd probe,
 * waitid(P_PIDFD, ...), through to the kernel. Qt 5.15 probes, sees pidfds supported and starts
 * every QProcess child with clone(CLONE_PIDFD), which fails, so no emulated program could start
 * another one. A seccomp filter makes the probe fail as on a kernel without pidfds (EINVAL), and
 * Qt falls back to fork(). The filter is inherited by everything started below, native peers
 * included; nothing else here uses pidfds.
 *
 * Built for the build machine by cmake/armhf-toolchain.cmake.
 */
#include <errno.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef KEST_QEMU_ARM
#error "KEST_QEMU_ARM must name the qemu-arm program"
#endif

#if defined(__x86_64__)
#define KEST_AUDIT_ARCH AUDIT_ARCH_X86_64
#elif defined(__aarch64__)
#define KEST_AUDIT_ARCH AUDIT_ARCH_AARCH64
#else
#error "add the audit architecture of this build machine"
#endif

enum { kPidfdIdType = 3 }; /* P_PIDFD */

int main(int argc, char *argv[])
{
    (void)argc;
    struct sock_filter filter[] = {
        /* Only the build machine's own system-call table is filtered. */
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, KEST_AUDIT_ARCH, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_waitid, 0, 3),
        /* The id type is an int: the low word of the first argument (little-endian). */
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kPidfdIdType, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EINVAL & SECCOMP_RET_DATA)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog program = {(unsigned short)(sizeof(filter) / sizeof(filter[0])), filter};

    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0
        || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) != 0) {
        fprintf(stderr, "armhf-emulator: cannot install the seccomp filter: %s\n", strerror(errno));
        return 125;
    }
    argv[0] = (char *)KEST_QEMU_ARM;
    execv(KEST_QEMU_ARM, argv);
    fprintf(stderr, "armhf-emulator: cannot run %s: %s\n", KEST_QEMU_ARM, strerror(errno));
    return 127;
}
