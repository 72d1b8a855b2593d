// What has been sent on a connected Unix stream socket and the other end has not read yet.
// linux: SIOCOUTQ, which counts the kernel's bookkeeping too. darwin: SO_NWRITE.
#pragma once

// A number of bytes, 0 when all is read; -1 when the socket cannot tell.
[[nodiscard]] int outgoingBytes(int sock);
