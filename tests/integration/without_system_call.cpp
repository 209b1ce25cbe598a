// SPDX-License-Identifier: Apache-2.0
//
// without_system_call CALL PROGRAM [ARGUMENT...]: runs the program as on a kernel without that system call.
#include <seccomp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>

int main(int count, char** arguments) {
    if (count < 3) return 2;
    const int call = seccomp_syscall_resolve_name(arguments[1]);
    const scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    // The older equivalent of seccomp(2).
    const scmp_arg_cmp older{0, SCMP_CMP_EQ, PR_SET_SECCOMP, 0};
    if (seccomp_rule_add(filter, SCMP_ACT_ERRNO(ENOSYS), call, 0) != 0 ||
        seccomp_rule_add(filter, SCMP_ACT_ERRNO(EINVAL), SCMP_SYS(prctl), 1, older) != 0 ||
        seccomp_load(filter) != 0) {
        return 2;
    }
    execv(arguments[2], arguments + 2);
    return 127;
}
