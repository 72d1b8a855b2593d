#include "tests/e2e/ordinary_user.h"

#include <unistd.h>

bool becomeOrdinaryUser() {
    constexpr uid_t kNobody = static_cast<uid_t>(-2);
    constexpr gid_t kNobodysGroup = static_cast<gid_t>(-2);
    return geteuid() != 0 || (setgid(kNobodysGroup) == 0 && setuid(kNobody) == 0);
}
