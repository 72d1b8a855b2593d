#include "tests/e2e/private_run.h"

bool enterPrivateRun(std::string& why) {
    why = "macOS has no mount namespaces";
    return false;
}
