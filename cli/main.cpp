#include "cli/command_line.h"
#include "cli/request_flow.h"

int main(int argc, char* argv[]) {
    return runRequest(parseCommandLine(argc, argv));
}
