#include "tests/e2e/ordinary_user.h"

#include <linux/securebits.h>
#include <sys/prctl.h>
#include <unistd.h>

bool becomeOrdinaryUser() {
    return geteuid() != 0 || prctl(PR_SET_SECUREBITS, SECBIT_NOROOT, 0, 0, 0) == 0;
}
